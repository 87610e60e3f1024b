"""What the script that lists the tests says to a test file that would mislead."""

import shutil
import subprocess

from manual import checkout


# A test file that imports another one's tests fails the check: pytest would run them a second time.
def test_a_test_file_that_imports_tests_is_refused(tmp_path):
    script = tmp_path / "scripts" / "list-behaviours.py"
    folder = tmp_path / "tests" / "system"
    for made in (script.parent, folder):
        made.mkdir(parents=True)
    shutil.copy(checkout / "scripts" / "list-behaviours.py", script)
    described = "# Messages pass.\ndef test_messages_pass():\n    pass\n"
    (folder / "test_passing.py").write_text(described)
    (folder / "test_other.py").write_text(
        f"import pytest\nfrom test_passing import helper\n\n\n{described}")

    result = subprocess.run([script, "--check"], check=False, capture_output=True, text=True)
    assert result.returncode == 1
    assert "tests/system/test_other.py: imports test_passing" in result.stderr
