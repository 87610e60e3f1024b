"""vemkctl's completion in bash, as far as a shell without a terminal can show it."""

import os
import re
import subprocess
import tempfile
from pathlib import Path

import pytest

COMPLETION = Path(os.environ["COMPLETION"])
VEMKCTL = os.environ["VEMKCTL"]
# What readline does with a word such as --format=hex.
PARTS = re.compile(r"[^=]+|=")


def complete(line, folder="/"):
    """Returns what bash offers behind the line, whose last word may be empty."""
    words = ["vemkctl"]
    for word in line.split(" "):
        words += PARTS.findall(word) or [""]
    script = """
        source "$1"; shift
        COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
        handler=$(complete -p vemkctl); handler=${handler#complete -F }; handler=${handler% vemkctl}
        "$handler" vemkctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
        for reply in "${COMPREPLY[@]}"; do printf '%s\\n' "$reply"; done"""
    run = subprocess.run(["/bin/bash", "-u", "-c", script, "bash", COMPLETION, *words],
                         cwd=folder, capture_output=True, text=True, check=True)
    assert run.stderr == ""
    return run.stdout.splitlines()


def help_of(*command):
    return subprocess.run([VEMKCTL, *command, "--help"],
                          capture_output=True, text=True, check=True).stdout


def commands_in_help():
    listed = help_of().split("Subcommands:", 1)[1]
    return re.findall(r"^  ([a-z][a-z-]*)\s", listed, re.MULTILINE)


# An empty word brings the commands of --help in their order.
def test_offers_every_command_that_help_names():
    commands = commands_in_help()
    assert "send" in commands and "status" in commands
    assert complete("") == commands


# "li" is listen, and "st" behind "--bus /tmp" is status.
def test_completes_the_beginning_of_a_command():
    assert complete("li") == ["listen"]
    assert complete("--bus /tmp st") == ["status"]


# "-" brings at least the options of the command's --help, and of the program's without one.
@pytest.mark.parametrize("command", ["", *commands_in_help()])
def test_offers_every_option_that_help_names(command):
    options = re.findall(r"(?:^  |,)(--?[a-z][a-z-]*)", help_of(*command.split()), re.MULTILINE)
    assert "--help" in options
    assert set(complete(f"{command} -".lstrip())) >= set(options)


# --count comes behind listen and not behind send.
def test_offers_no_option_of_another_command():
    assert "--count" in complete("listen --")
    assert "--count" not in complete("send --")


# "listen --b" is --bus.
def test_offers_options_of_the_program_behind_a_command():
    assert complete("listen --b") == ["--bus"]


# text, hex and json in this order; "j" is json.
def test_offers_the_formats():
    assert complete("listen --format ") == ["text", "hex", "json"]
    assert complete("listen --format j") == ["json"]


# --format=h is hex, and the options go on behind it.
def test_offers_the_formats_behind_an_equals_sign():
    assert complete("listen --format=") == ["text", "hex", "json"]
    assert complete("listen --format=h") == ["hex"]
    assert complete("listen --format=hex --co") == ["--count"]


# Behind "--bus send" the commands are still offered.
def test_takes_the_value_of_an_option_for_no_command():
    assert complete("--bus send ") == commands_in_help()


# --bus and --bus= bring folders, blanks in the name included, and no files.
def test_offers_folders_for_the_bus():
    with tempfile.TemporaryDirectory() as folder:
        Path(folder, "bus one").mkdir()
        Path(folder, "bus.txt").touch()
        assert complete("--bus b", folder) == ["bus one"]
        assert complete("status --bus=b", folder) == ["bus one"]


# check-config brings files, blanks in the name included.
def test_offers_files_for_a_configuration():
    with tempfile.TemporaryDirectory() as folder:
        Path(folder, "vemk one.conf").touch()
        assert complete("check-config v", folder) == ["vemk one.conf"]


# Behind send and --count a file that is there is not offered.
def test_offers_nothing_for_free_text_and_numbers():
    with tempfile.TemporaryDirectory() as folder:
        Path(folder, "file").touch()
        assert complete("send ", folder) == []
        assert complete("listen --count ", folder) == []


# "status " without a dash brings --timeout already.
def test_offers_options_where_nothing_else_can_come():
    assert "--timeout" in complete("status ")


# "send -- -" brings nothing.
def test_offers_no_options_behind_two_dashes():
    assert complete("send -- -") == []
