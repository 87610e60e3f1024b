"""The windows that the manuals list are those of the rule that they state."""

import re

from manual import manual_page, plain


def windows(initial, largest, count):
    """The windows of the first waits, as first and last whole second."""
    found = []
    delay = initial
    for _ in range(count):
        low, span = (1, 2) if delay == 0 else (delay // 2, delay)
        found.append((low, low + span))
        delay = min(2 * delay or 2, largest)
    return found


def rows(page, section):
    return [[cell.strip() for cell in plain(line.removeprefix(".It ")).split(" Ta ")]
            for line in manual_page(page).section(section) if re.match(r"\.It \d", line)]


# Each row of at least eight in vemk.conf(5) has the windows that its two delays give.
def test_the_table_of_windows():
    table = rows("vemk.conf.5", "The delays")
    assert len(table) >= 8
    for initial, largest, *cells in table:
        expected = windows(int(initial), int(largest), len(cells))
        assert cells == [f"{low}–{end}" for low, end in expected], f"{initial} {largest}"


# The six rows of vemk(8) for delays 2 and 60 have the rule's waits and their sums.
def test_the_worked_example():
    table = rows("vemk.8", "The connection")
    latest = 0
    assert len(table) == 6
    for (attempt, wait, after), (low, end) in zip(table, windows(2, 60, 6)):
        latest += end - 1
        assert wait == f"{low} to {end - 1}"
        assert after == (str(latest) if attempt != "6 and on" else f"{end - 1} more each")
