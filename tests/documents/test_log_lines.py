"""vemk(8) lists every line that the daemon can log, each under its category and with its module."""

import re

import pytest

from manual import (checkout, listing_texts, literals, log_lines, manual_page, pattern_of,
                    string_value, trace_lines)

sections = {"error": "Errors", "warning": "Warnings", "info": "Information", "debug": "Debugging"}
page = manual_page("vemk.8")
logged = log_lines()


def documented(section):
    """Each line of a section with the module that its description begins with."""
    return [(text, module.removeprefix(".Em ").removesuffix(" ."))
            for text, module in page.items(section, "Li")]


# vemk(8) has each format of the sources, under its category and with its module.
@pytest.mark.parametrize("line", [line for line in logged if line.format], ids=str)
def test_every_message_is_listed_under_its_category(line):
    pattern = pattern_of(line.format)
    assert [text for text, module in documented(sections[line.category])
            if pattern.fullmatch(text) and module == line.module]


# vemk(8) has each "websock-roaming->HANDLER:NUMBER" with the number of the sources.
@pytest.mark.parametrize("line", trace_lines())
def test_every_trace_line_is_listed(line):
    assert (line, "websock-worker") in documented("Debugging")


# vemk(8) has the heading of a listing and the line for what it leaves out.
@pytest.mark.parametrize("line", listing_texts())
def test_every_part_of_a_listing_is_listed(line):
    assert (line, "buffer-info") in documented("Debugging")


# Of all log calls only buffer_dump.cpp's takes a text for its format.
def test_only_the_listing_is_logged_without_a_format_of_its_own():
    assert [str(line.file) for line in logged if not line.format] == ["src/worker/buffer_dump.cpp"]


# More than 20 log calls, the 7 trace lines and the 2 lines of a listing were found.
def test_the_sources_were_read():
    assert len(logged) > 20 and len(trace_lines()) == 7 and len(listing_texts()) == 2


# Each line in vemk(8) belongs to a format of its category and module.
@pytest.mark.parametrize("category", sections)
def test_nothing_is_listed_that_is_not_logged(category):
    formats = [(pattern_of(line.format), line.module) for line in logged
               if line.format and line.category == category]
    fixed = trace_lines() + listing_texts() if category == "debug" else []
    assert [text for text, module in documented(sections[category])
            if text not in fixed and not any(pattern.fullmatch(text) and module == its_module
                                             for pattern, its_module in formats)] == []


# vemk(8) has what the four calls of printf and perror print.
def test_every_line_outside_the_log_is_listed():
    printed = []
    for file in (checkout / "src").rglob("*.cpp"):
        text = re.sub(r"log_\w+\([^;]*;", "", file.read_text())
        printed += [string_value(found).strip()
                    for found in re.findall(r"\bprintf\(" + literals, text)]
        printed += [string_value(found) + ": %s"
                    for found in re.findall(r"\bperror\(" + literals, text)]
    listed = [text for text, _ in documented("Lines outside the log")]
    assert len(printed) == 4
    for text in printed:
        assert [line for line in listed if pattern_of(text).fullmatch(line)], text
