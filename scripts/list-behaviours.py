#!/usr/bin/python3
"""Lists what the tests show: build/behaviours.md, and docs/faults.md for the fault matrix.

Both are made of the comment directly above each test. Its first line is the behaviour in one
sentence. A test whose comment begins with "Fault, GROUP:" is a row of the fault matrix, whatever its
file's name; it tells after "Seen:" what the bus, the server and the log must show. Both may take
several lines.

Usage: list-behaviours.py [--check]     --check writes nothing and fails when docs/faults.md is stale
"""

import argparse
import ast
import collections
import difflib
import pathlib
import re
import sys

checkout = pathlib.Path(__file__).resolve().parents[1]
tests = checkout / "tests"

test_t = collections.namedtuple("test_t", "file suite name comment")
fault_t = collections.namedtuple("fault_t", "group injected seen")

# A folder's heading, in the order in which a message and its reader meet them.
folders = {
    "unit/main": "main: start-up, PID file, assembly",
    "unit/config": "config: command line and configuration file",
    "unit/worker": "worker: threads, queues, buffers",
    "unit/timers": "timers",
    "unit/log": "log: modules and emitters",
    "unit/websock": "websock: the connection to the service",
    "unit/ipc": "ipc: the bus",
    "unit/ipc_polling": "ipc: a bus without a descriptor to wait for",
    "unit/json": "json: helpers and status messages",
    "unit/memory_shortage": "A message's way through all of these when memory runs out",
    "unit/processor": "What the code takes for granted of the processor",
    "system": "The running daemon",
    "soak": "The soak's model of what must arrive",
    "fuzz": "Fuzzing",
    "unit/module_bus": "The workstation's bus library",
    "unit/zandor_log": "The workstation's log library",
    "unit/vemkctl": "vemkctl",
    "unit/roam_service": "roam-service",
    "coverage": "The report on coverage",
    "mutants": "The report on mutants",
    "releases": "Releases of libwebsockets",
    "browser": "The console in a browser",
    "go": "Services in Go",
    "documents": "Manuals and other documents",
    "packaging": "Packages",
    "device_build": "The build for a device",
    "target_size": "The size on the target",
}

fault_groups = ("before the connection", "while connected", "keepalive", "on the bus",
                "in the process")

cpp_test = re.compile(r"^(?:TYPED_)?TEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\)", re.MULTILINE)

behaviours_intro = """\
# What the daemon does, and the test that shows it

Made by `make behaviours` from the comment above each test. A test `Suite.Name` is run with
`ctest --test-dir build -R 'unit.*Suite.Name'`; one in a Python file `test_FILE.py` with
`ctest --test-dir build -R FILE`. The tests that injure the daemon on purpose are in
[faults.md](../docs/faults.md).
"""

faults_intro = """\
# Faults, and what must be seen

Each row is a test that brings the fault about, nearly all of them with the real daemon, a real
bus and a real server, and checks what the bus, the server and the log show. Made by
`scripts/list-behaviours.py` from the comment above each test; `make test` fails when it is stale. A
file's tests are run with `ctest --test-dir build -R NAME`, for instance `-R frames`, and all files
of `system` with a row here with `-L fault`; `make soak` brings many of them about at random.
"""


def comment_above(lines, index, mark):
    """The text lines of the comment block that ends just above lines[index]."""
    block = []
    while index > 0 and lines[index - 1].startswith(mark):
        index -= 1
        block.insert(0, lines[index][len(mark):].strip())
    return block


def cpp_tests(file):
    text = file.read_text()
    lines = text.split("\n")
    for found in cpp_test.finditer(text):
        comment = comment_above(lines, text.count("\n", 0, found.start()), "//")
        yield test_t(file, found[1], found[2], comment)


def python_tests(file):
    text = file.read_text()
    for node in ast.parse(text).body:
        is_function = isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef))
        if is_function and node.name.startswith("test_"):
            first = min([node.lineno] + [d.lineno for d in node.decorator_list])
            yield test_t(file, "", node.name, comment_above(text.split("\n"), first - 1, "#"))


def imported_tests(file):
    """The test modules and test functions that a Python file imports."""
    for node in ast.walk(ast.parse(file.read_text())):
        if isinstance(node, (ast.Import, ast.ImportFrom)):
            names = [alias.name for alias in node.names]
            names.append(getattr(node, "module", None) or "")
            yield from (name for name in names
                        if any(part.startswith("test_") for part in name.split(".")))


def all_tests():
    for file in sorted(tests.rglob("*_test.cpp")):
        yield from cpp_tests(file)
    for file in sorted(tests.rglob("test_*.py")):
        yield from python_tests(file)


def folder_of(test):
    return test.file.parent.relative_to(tests).as_posix()


def fault_of(test):
    """The comment of a fault row taken apart; None for any other test."""
    found = re.fullmatch(r"Fault, ([^:]*): (.*?)(?: Seen: (.*))?", " ".join(test.comment))
    return fault_t(*found.groups()) if found else None


def complaint(test):
    """What is wrong with a test's comment, or None."""
    if not test.comment:
        return "has no comment that says its behaviour"
    fault = fault_of(test)
    if fault and fault.group not in fault_groups:
        return f"is a fault of no known group: {fault.group}"
    if fault and not fault.seen:
        return 'is a fault that does not say what must be seen ("Seen: ...")'
    if not fault and not test.comment[0].endswith((".", "?", ":")):
        return "does not say its behaviour in one line that ends as a sentence"
    if folder_of(test) not in folders:
        return "is in a folder that has no heading in this script"
    return None


def complaints(found):
    """What is wrong with the tests, and with the files that would run those of another file."""
    for test in found:
        text = complaint(test)
        if text:
            yield f"{test.file.relative_to(checkout)}: {test.name} {text}"
    for file in sorted(tests.rglob("test_*.py")):
        for name in imported_tests(file):
            yield (f"{file.relative_to(checkout)}: imports {name}, and imported tests run a second "
                   "time: move what both files need to a module without tests")


def cell(text):
    return text.replace("\\", "\\\\").replace("|", "\\|").replace("<", "&lt;")


def name_of(test):
    return f"`{test.suite}.{test.name}`" if test.suite else f"`{test.name}`"


def behaviours(found):
    parts = [behaviours_intro]
    for folder, heading in folders.items():
        here = [test for test in found if folder_of(test) == folder and not fault_of(test)]
        if not here:
            continue
        parts.append(f"## {heading}\n")
        for file in dict.fromkeys(test.file for test in here):
            parts.append(f"### `{file.relative_to(checkout)}`\n")
            rows = [f"| {cell(test.comment[0])} | {name_of(test)} |"
                    for test in here if test.file == file]
            parts.append("\n".join(["| Behaviour | Test |", "|---|---|", *rows, ""]))
    return "\n".join(parts)


def faults(found):
    parts = [faults_intro]
    for group in fault_groups:
        rows = [(fault_of(test), test) for test in found]
        rows = [f"| {cell(fault.injected)} | {cell(fault.seen)} "
                f"| {name_of(test)} in `{test.file.relative_to(tests)}` |"
                for fault, test in rows if fault and fault.group == group]
        if rows:
            parts.append(f"## {group.capitalize()}\n")
            parts.append("\n".join(["| Fault | What must be seen | Test |", "|---|---|---|", *rows, ""]))
    return "\n".join(parts)


def difference(file, text):
    return list(difflib.unified_diff(file.read_text().split("\n"), text.split("\n"),
                                     f"{file.name} as it is", f"{file.name} as the tests have it",
                                     n=0, lineterm=""))


def main():
    parser = argparse.ArgumentParser(description="Makes build/behaviours.md and docs/faults.md.")
    parser.add_argument("--check", action="store_true",
                        help="write nothing, and fail when docs/faults.md is stale")
    check = parser.parse_args().check
    found = list(all_tests())
    wrong = list(complaints(found))
    if wrong:
        sys.exit("\n".join(wrong))
    fault_list = checkout / "docs/faults.md"
    if not check:
        fault_list.write_text(faults(found))
        behaviour_list = checkout / "build/behaviours.md"
        behaviour_list.parent.mkdir(exist_ok=True)
        behaviour_list.write_text(behaviours(found))
        return
    lines = difference(fault_list, faults(found))
    if lines:
        print("\n".join(lines[:40]), file=sys.stderr)
        sys.exit("docs/faults.md is stale: run make behaviours")


if __name__ == "__main__":
    main()
