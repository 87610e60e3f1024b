#!/usr/bin/python3
"""Prints the package's change log, made of the headings and items of CHANGELOG.md.

A heading "## [1.2.3] - 2026-01-31" begins the entry of a version; brackets and date may be missing.
Text below another "##" heading, such as "Unreleased", belongs to the version of the option. Every
item and paragraph becomes one item. An entry without a date gets that of SOURCE_DATE_EPOCH, so that
every build gives the same result. Of two versions of one day the later is a minute later, because a
package's entries have to differ in their dates.
"""

import argparse
import os
import re
import sys
import textwrap
import time
from datetime import datetime, timedelta, timezone
from email.utils import format_datetime
from pathlib import Path

VERSION_HEADING = re.compile(r"##\s+\[?v?(\d+(?:\.\d+)+)\]?\D*(\d{4}-\d{2}-\d{2})?")


def entries(text, version):
    """Yields [version, date or None, items], newest first; the first is that of `version`."""
    found = [[version, None, []]]
    seen_heading = continues = False
    for line in text.splitlines():
        heading = VERSION_HEADING.match(line)
        if heading:
            seen_heading = True
            if heading[1] == found[-1][0]:
                found[-1][1] = heading[2]
            else:
                found.append([heading[1], heading[2], []])
        elif line.startswith("#"):
            seen_heading = seen_heading or line.startswith("## ")
        elif seen_heading and line.strip():
            item = re.match(r"[-*]\s+(.*)", line)
            if item or not continues:
                found[-1][2].append(item[1] if item else line.strip())
            else:
                found[-1][2][-1] += " " + line.strip()
            continues = True
            continue
        continues = False
    return found


def dates(found, default_date):
    """The date of each entry."""
    result = []
    for _, date, _ in reversed(found):
        when = datetime.fromisoformat(date).replace(tzinfo=timezone.utc) if date else default_date
        same_day = bool(result) and when.date() == result[0].date()
        result.insert(0, max(when, result[0] + timedelta(minutes=1)) if same_day else when)
    return result


def format_entry(entry, when, options):
    version, _, items = entry
    lines = [f"vemk ({version}-{options.release}) unstable; urgency=medium", ""]
    for item in items or [f"Release {version}."]:
        plain = re.sub(r"`([^`]*)`", r"\1", item)
        lines += textwrap.wrap(plain, 78, initial_indent="  * ", subsequent_indent="    ",
                               break_long_words=False, break_on_hyphens=False)
    lines += ["", f" -- {options.maintainer}  {format_datetime(when)}", ""]
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description="Prints the package's change log.")
    parser.add_argument("--version", required=True)
    parser.add_argument("--release", required=True)
    parser.add_argument("--maintainer", required=True, metavar="'NAME <ADDRESS>'")
    parser.add_argument("changes", type=Path, metavar="CHANGELOG.md")
    options = parser.parse_args()

    text = options.changes.read_text(encoding="utf-8") if options.changes.exists() else ""
    seconds = int(os.environ.get("SOURCE_DATE_EPOCH", time.time()))
    default_date = datetime.fromtimestamp(seconds, timezone.utc)
    found = entries(text, options.version)
    print("\n".join(format_entry(entry, when, options)
                    for entry, when in zip(found, dates(found, default_date))), end="")
    return 0


if __name__ == "__main__":
    sys.exit(main())
