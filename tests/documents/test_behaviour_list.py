"""What the script that lists the tests says to test files that would mislead."""

import shutil
import subprocess

import pytest

from manual import checkout

described = "# Messages pass.\ndef test_messages_pass():\n    pass\n"


@pytest.fixture
def check(tmp_path):
    """Checks a checkout with a described test in tests/system and this test file beside it."""
    script = tmp_path / "scripts" / "list-behaviours.py"
    folder = tmp_path / "tests" / "system"
    for made in (script.parent, folder, tmp_path / "docs"):
        made.mkdir(parents=True)
    shutil.copy(checkout / "scripts" / "list-behaviours.py", script)
    (folder / "test_passing.py").write_text(described)

    def run(text):
        (folder / "test_other.py").write_text(text)
        # Makes docs/faults.md, which must not be stale.
        subprocess.run([script], check=False, capture_output=True)
        return subprocess.run([script, "--check"], check=False, capture_output=True, text=True)

    return run


# pytest runs what it finds in a module: an imported test runs a second time, under another file.
@pytest.mark.parametrize("line", [
    "import test_passing",
    "from test_passing import helper",
    "from . import test_passing",
    "from harness import helper, test_messages_pass",
])
def test_a_test_file_that_imports_tests_is_refused(check, line):
    result = check(f"{line}\n\n\n{described}")
    assert result.returncode == 1
    assert "tests/system/test_other.py: imports test_" in result.stderr


# Imports of modules and functions that are not tests are accepted.
def test_other_imports_are_accepted(check):
    result = check(f"import pytest\n\nfrom harness.waiting import wait_until\n\n\n{described}")
    assert (result.returncode, result.stderr) == (0, "")
