"""The manuals of the programs have every option that their help has, and no other.

Environment: VEMK_COMPANION_DIR, the folder with vemkctl and roam-service.
"""

import os
import re
import subprocess

import pytest

from manual import checkout, manual_page

folder = os.environ.get("VEMK_COMPANION_DIR") or checkout / "build"
everywhere = {"-h", "--help"}


def help_text(*command):
    result = subprocess.run([f"{folder}/{command[0]}", *command[1:], "--help"],
                            capture_output=True, text=True, check=True)
    return result.stdout


def options_of(text):
    found = set()
    for line in text.splitlines():
        words = re.match(r"\s+(-[\w,-]+)", line)
        found |= set(words[1].split(",")) if words else set()
    return found


def subcommands():
    listed = help_text("vemkctl").split("Subcommands:")[1].split("\n\n")[0]
    return re.findall(r"^  (\S+)", listed, re.MULTILINE)


def documented(page, section):
    """The options in a section's list items; `-x` is written `.It Fl x`, `--xyz` `.It Fl -xyz`."""
    found = set()
    for line in manual_page(page).section(section):
        if line.startswith(".It Fl "):
            names = re.split(r" (?:Ar|Cm|Ns|Op) ", line.removeprefix(".It Fl "))[0]
            found |= {"-" + name.strip() for name in names.split(" , ")}
    return found


# vemkctl(1) has the options that "COMMAND --help" shows, no more and no fewer.
@pytest.mark.parametrize("command", subcommands())
def test_vemkctl_describes_the_options_of(command):
    assert documented("vemkctl.1", command) == options_of(help_text("vemkctl", command)) - everywhere


# vemkctl(1) has the options before the command that --help shows, no more and no fewer.
def test_vemkctl_describes_the_options_of_all_commands():
    assert documented("vemkctl.1", "DESCRIPTION") == options_of(help_text("vemkctl"))


# roam-service(1) has the options of --help, no more and no fewer.
def test_roam_service_describes_its_options():
    assert documented("roam-service.1", "DESCRIPTION") == options_of(help_text("roam-service"))


# vemk(8) has the letters of the daemon's getopt call, no more and no fewer.
def test_vemk_describes_its_options():
    source = (checkout / "src/config/websock_cfg.cpp").read_text()
    letters = re.search(r'getopt\(argc, argv, "([\w:]+)"\)', source)[1]
    assert documented("vemk.8", "Options") == {"-" + letter for letter in letters.replace(":", "")}
