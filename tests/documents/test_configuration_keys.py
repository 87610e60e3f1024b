"""The documents, samples and tools have every key that the daemon reads, and no other.

Environment: VEMK_COMPANION_DIR, the folder with vemkctl.
"""

import os
import re
import subprocess

import pytest

from manual import checkout, manual_page, plain

folder = os.environ.get("VEMK_COMPANION_DIR") or checkout / "build"
keys = re.findall(r'"(\w+=)"', (checkout / "src/config/config_keys.h").read_text())
documents = sorted([checkout / "README.md", *checkout.glob("man/*.[1-8]"),
                    *checkout.glob("docs/*.md")])


# The header names as many keys as the parser has readers; the tests below compare with them.
def test_the_sources_were_read():
    parser = (checkout / "src/config/websock_cfg.cpp").read_text()
    readers = re.findall(r"\{text_of\(config_key::\w+\), read_\w+\}", parser)
    assert len(keys) == len(readers) > 0


# vemk.conf(5) lists the keys in the parser's order, each with its "=".
def test_the_manual_describes_every_key():
    described = [key for key, _ in manual_page("vemk.conf.5").items("Keys", "Ic")]
    assert described == keys


# No other word of the form "some_key=" stands anywhere in vemk.conf(5).
def test_the_manual_names_no_unknown_key():
    text = plain((checkout / "man/vemk.conf.5").read_text())
    assert set(re.findall(r"\b[a-z]+_[a-z_]+=", text)) == {key for key in keys if "_" in key}


# No other word of that form stands in another manual, the README or docs/.
@pytest.mark.parametrize("file", documents, ids=lambda file: file.name)
def test_no_document_names_an_unknown_key(file):
    assert set(re.findall(r"\b[a-z]+_[a-z_]+=", plain(file.read_text()))) <= set(keys)


# README's table, both samples and both fuzz dictionaries have each key once, in the parser's order.
@pytest.mark.parametrize("file, line_of_key", [
    ("README.md", r"^\| `(\w+=)` \|"),
    ("examples/vemk.conf", r"^(\w+=)"),
    ("packaging/openwrt/vemk/files/vemk.conf", r"^#?(\w+=)"),
    ("tests/fuzz/dictionaries/config_file.dict", r'^"(\w+=)"$'),
    ("tests/fuzz/dictionaries/command_line.dict", r'^"(\w+=)"$'),
])
def test_every_list_has_every_key(file, line_of_key):
    assert re.findall(line_of_key, (checkout / file).read_text(), re.MULTILINE) == keys


# In a file with every key and "colour", vemkctl check-config reports only "colour" as "not a key".
def test_the_check_knows_every_key(tmp_path):
    file = tmp_path / "vemk.conf"
    file.write_text("".join(f"{key}\n" for key in [*keys, "colour="]))
    result = subprocess.run([f"{folder}/vemkctl", "check-config", file], stdout=subprocess.PIPE,
                            text=True, check=False)
    assert re.findall(r": '(.*)' is not a key", result.stdout) == ["colour"]


# The files that the Debian and the OpenWrt package install set whole_messages=1.
@pytest.mark.parametrize("file", ["examples/vemk.conf", "packaging/openwrt/vemk/files/vemk.conf"])
def test_the_packages_deliver_whole_messages(file):
    assert "whole_messages=1" in (checkout / file).read_text().splitlines()
