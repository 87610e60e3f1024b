"""Every log line that the documents quote is one that the daemon can write."""

import pathlib
import re

import pytest

from manual import checkout, listing_texts, log_lines, pattern_of, trace_lines

stamp = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\|\d+\|([a-z-]+)> (.*)")
quoted = [(document.name, *stamp.fullmatch(line).groups())
          for document in sorted([checkout / "README.md", *pathlib.Path(checkout / "docs").glob("*.md")])
          for line in document.read_text().splitlines() if stamp.fullmatch(line)]


# At least one log line stands in README.md and docs/*.md for the next test.
def test_lines_are_quoted():
    assert quoted


# A quoted line's module and message are a format, a trace line or a listing of the sources.
@pytest.mark.parametrize("document, module, message", sorted(set(quoted)))
def test_the_daemon_writes(document, module, message):
    formats = [line.format for line in log_lines() if line.format and line.module == module]
    assert (message in trace_lines() + listing_texts() or
            any(pattern_of(text).fullmatch(message) for text in formats))
