#!/usr/bin/python3
"""Reports which lines and branches of src/ the tests of a coverage build executed.

Branches are the decisions in the source. The compiler's branches after a call, onward and for an
exception, do not count. The exit status is 1 when a line or branch was not executed and
tests/coverage/exclusions.toml has no reason for it, or when a reason there is not needed.
"""

import argparse
import collections
import json
import pathlib
import subprocess
import sys
import tomllib

# This program compiles sources again, for another release of a library. gcovr cannot add up
# functions that begin at different lines of one file, so it runs for each build apart.
second_build = "tests/unit/websock/CMakeFiles/websock_api_2_0_test.dir"

exclusion_list = "tests/coverage/exclusions.toml"

gap_t = collections.namedtuple("gap_t", "file number function line what")
exclusion_t = collections.namedtuple("exclusion_t", "file function line what reason")


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=pathlib.Path, help="the folder of the coverage build")
    parser.add_argument("--checkout", type=pathlib.Path,
                        default=pathlib.Path(__file__).resolve().parent.parent,
                        help="the folder with src (default: that of this script)")
    return parser.parse_args()


def run_gcovr(arguments, *words):
    command = ["gcovr", "-r", arguments.checkout, "-f", f"{arguments.checkout}/src/", *words]
    subprocess.run([str(word) for word in command], cwd=arguments.build, check=True)


def measured_files(arguments, name, *words):
    report = arguments.build / name
    run_gcovr(arguments, "--exclude-unreachable-branches", "--json", report, *words)
    files = json.loads(report.read_text())["files"]
    if not files:
        sys.exit(f"coverage-report: {report} holds no counters of src")
    return files


def without_calls(branches):
    """Leaves out each exception's branch and the onward branch, which comes right before it."""
    kept = []
    for number, branch in enumerate(branches):
        following = branches[number + 1:number + 2]
        returns = branch["fallthrough"] and following and following[0]["throw"]
        if not branch["throw"] and not returns:
            kept.append(branch)
    return kept


def added_up(line, other):
    """One line's counts from two builds."""
    branches = line["branches"] + other["branches"]
    if len(line["branches"]) == len(other["branches"]):
        branches = [{**one, "count": one["count"] + two["count"]}
                    for one, two in zip(line["branches"], other["branches"])]
    return {**line, "count": line["count"] + other["count"], "branches": branches,
            "gcovr/noncode": line["gcovr/noncode"] and other["gcovr/noncode"]}


def merge(builds):
    """Source file to line number to that line's counts."""
    merged = collections.defaultdict(dict)
    for file in (file for files in builds for file in files):
        lines = merged[file["file"]]
        for line in file["lines"]:
            number = line["line_number"]
            line = {**line, "branches": without_calls(line["branches"])}
            lines[number] = added_up(lines[number], line) if number in lines else line
    return {name: dict(sorted(lines.items())) for name, lines in sorted(merged.items())}


def write_pages(arguments, merged):
    """For people: every source with its counts beside the lines."""
    report = arguments.build / "merged.json"
    files = [{"file": name, "functions": [], "lines": list(lines.values())}
             for name, lines in merged.items()]
    report.write_text(json.dumps({"gcovr/format_version": "0.3", "files": files}))
    pages = arguments.build / "pages"
    pages.mkdir(exist_ok=True)
    run_gcovr(arguments, "-a", report, "--html-title", "What the tests execute",
              "--html-details", pages / "index.html")
    return pages / "index.html"


def code(lines):
    return {number: line for number, line in lines.items() if not line["gcovr/noncode"]}


class figure:
    """So many executed out of so many."""

    def __init__(self, counts):
        counts = list(counts)
        self.total = len(counts)
        self.executed = sum(count > 0 for count in counts)

    def __str__(self):
        if self.total == 0:
            return "none"
        # Rounded down, so that only 100 % is printed as 100 %.
        tenths = 1000 * self.executed // self.total
        return f"{self.executed} of {self.total} ({tenths // 10}.{tenths % 10} %)"


def figures(files):
    lines = [line for file in files for line in code(file).values()]
    return (figure(line["count"] for line in lines),
            figure(branch["count"] for line in lines for branch in line["branches"]))


def print_table(merged):
    print(f"{'File':<36} {'Lines':>22} {'Branches':>22}")
    rows = [(name, figures([lines])) for name, lines in merged.items()]
    for name, (lines, branches) in [*rows, ("Total", figures(merged.values()))]:
        print(f"{name:<36} {lines!s:>22} {branches!s:>22}")


def enclosing_function(text, number):
    """The line that begins the definition around this one: the last one that is not indented."""
    for line in reversed(text[:number]):
        if line[:1].isalpha() and not line.endswith(":"):
            return line
    return ""


def find_gaps(arguments, merged):
    for name, lines in merged.items():
        text = (arguments.checkout / name).read_text().split("\n")
        for number, line in code(lines).items():
            if line["count"] == 0:
                what = "line"
            elif any(branch["count"] == 0 for branch in line["branches"]):
                what = "branches"
            else:
                continue
            yield gap_t(name, number, enclosing_function(text, number), text[number - 1].strip(),
                        what)


def read_exclusions(checkout):
    try:
        entries = tomllib.loads((checkout / exclusion_list).read_text()).get("exclusion", [])
    except tomllib.TOMLDecodeError as error:
        sys.exit(f"{exclusion_list}: {error}")
    for entry in entries:
        if set(entry) != set(exclusion_t._fields) or not all(entry.values()):
            sys.exit(f"{exclusion_list}: {entry.get('line', 'an entry')}: each entry has "
                     f"{', '.join(exclusion_t._fields)}")
        yield exclusion_t(**entry)


def excuses(exclusion, gap):
    return (exclusion.function in gap.function and (exclusion.file, exclusion.line, exclusion.what)
            == (gap.file, gap.line, gap.what))


def match(exclusions, gaps):
    """Pairs of gap and exclusion, then the gaps and the exclusions that are left over."""
    pairs, bare = [], []
    left = list(exclusions)
    for gap in gaps:
        found = next((exclusion for exclusion in left if excuses(exclusion, gap)), None)
        if found is None:
            bare.append(gap)
        else:
            left.remove(found)
            pairs.append((gap, found))
    return pairs, bare, left


def main():
    arguments = parse_arguments()
    arguments.build = arguments.build.resolve()
    builds = [measured_files(arguments, "sources.json", "--exclude-directories",
                             f".*/{pathlib.Path(second_build).name}.*", "."),
              measured_files(arguments, "api_2_0.json", second_build)]
    merged = merge(builds)
    pages = write_pages(arguments, merged)
    pairs, bare, stale = match(read_exclusions(arguments.checkout), find_gaps(arguments, merged))
    sources = (path.relative_to(arguments.checkout).as_posix()
               for path in sorted((arguments.checkout / "src").rglob("*.cpp")))
    absent = [source for source in sources if source not in merged]

    print_table(merged)
    for gap, exclusion in pairs:
        print(f"\n{gap.file}:{gap.number}: {gap.what} not executed, with a reason: {gap.line}\n"
              f"  {exclusion.reason}")
    print(f"\nPages: {pages}")
    for gap in bare:
        print(f"{gap.file}:{gap.number}: {gap.what} not executed: {gap.line}", file=sys.stderr)
    for exclusion in stale:
        print(f"{exclusion_list}: excuses nothing: {exclusion.what} of {exclusion.file}, "
              f"{exclusion.function}: {exclusion.line}", file=sys.stderr)
    for source in absent:
        print(f"{source}: not measured", file=sys.stderr)
    lines, branches = figures(merged.values())
    print(f"coverage: {lines} lines, {branches} branches; not executed with a reason: "
          f"{len(pairs)}, without: {len(bare)}")
    return 1 if bare or stale or absent else 0


if __name__ == "__main__":
    sys.exit(main())
