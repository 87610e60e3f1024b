"""The table of the system tests' helpers and the folder that holds them."""

import re

from manual import checkout

harness = checkout / "tests/system/harness"


# Each module of the harness has one place in its README's table, and no other name is there.
def test_each_module_of_the_harness_is_in_its_table():
    cells = re.findall(r"^\| (`.*?) \|", (harness / "README.md").read_text(), re.MULTILINE)
    listed = [name for cell in cells for name in re.findall(r"`(\w+)`", cell)]
    modules = {file.stem for file in harness.iterdir() if file.suffix in (".py", ".js")}
    assert sorted(listed) == sorted(modules - {"__init__"})
