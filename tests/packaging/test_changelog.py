"""The package's change log, made of CHANGELOG.md."""

import os
import re
import subprocess
from pathlib import Path

PROGRAM = Path(os.environ["SOURCE_DIR"], "packaging/debian/changelog.py")


def changelog(tmp_path, text):
    changes = tmp_path / "CHANGELOG.md"
    if text is not None:
        changes.write_text(text)
    return subprocess.run(
        [PROGRAM, "--version", "1.2.0", "--release", "3", "--maintainer", "Some Body <a@b.example>",
         changes],
        env={**os.environ, "SOURCE_DATE_EPOCH": "86400"},
        capture_output=True, text=True, check=True).stdout


# Items and paragraphs become items, wrapped anew; a version without a date has the build's.
def test_one_entry_for_each_version(tmp_path):
    text = """# Changelog

Words about this file.

## [1.2.0] - 2026-01-31

### Added

- One thing, which takes more than one line to tell and is wrapped anew wherever the
  package's form asks for that.
- `another`

## 1.1.0

A paragraph.
"""
    assert changelog(tmp_path, text) == """\
vemk (1.2.0-3) unstable; urgency=medium

  * One thing, which takes more than one line to tell and is wrapped anew
    wherever the package's form asks for that.
  * another

 -- Some Body <a@b.example>  Sat, 31 Jan 2026 00:00:00 +0000

vemk (1.1.0-3) unstable; urgency=medium

  * A paragraph.

 -- Some Body <a@b.example>  Fri, 02 Jan 1970 00:00:00 +0000
"""


# Three versions of 2026-01-31 are of 00:02, 00:01 and 00:00; lintian refuses equal dates.
def test_versions_of_one_day_follow_each_other(tmp_path):
    text = "\n".join(f"## [1.{minor}.0] - 2026-01-31\n\n- x\n" for minor in (2, 1, 0))
    assert re.findall(r" (00:\d\d):00", changelog(tmp_path, text)) == ["00:02", "00:01", "00:00"]


# "Unreleased" items come first in the entry of the version being packed.
def test_what_is_not_released_belongs_to_the_version_at_hand(tmp_path):
    out = changelog(tmp_path, "## Unreleased\n\n- new\n\n## 1.2.0 (2026-01-31)\n\n- old\n")
    assert out.startswith("vemk (1.2.0-3) unstable; urgency=medium\n\n  * new\n  * old\n\n")
    assert out.count("urgency") == 1


# Without its heading the version gets the entry "Release 1.2.0." before the older ones.
def test_a_version_that_has_no_heading_yet_comes_first(tmp_path):
    out = changelog(tmp_path, "## 1.1.0\n\n- old\n")
    assert out.startswith("vemk (1.2.0-3) unstable; urgency=medium\n\n  * Release 1.2.0.\n\n -- ")
    assert "\nvemk (1.1.0-3) " in out


# Without CHANGELOG.md the one entry is "Release 1.2.0.", dated by the build.
def test_there_is_an_entry_without_a_file(tmp_path):
    assert changelog(tmp_path, None) == """\
vemk (1.2.0-3) unstable; urgency=medium

  * Release 1.2.0.

 -- Some Body <a@b.example>  Fri, 02 Jan 1970 00:00:00 +0000
"""
