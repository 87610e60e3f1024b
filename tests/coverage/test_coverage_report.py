"""The report on coverage: its figures, and what it lets pass."""

import json
import os
import pathlib
import subprocess

import pytest

script = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "coverage-report.py"

source = """\
namespace vemk {

int first(bool yes) {
  if (yes)
    return 1;
  return 0;
}

int second() {
  return 0;
}

} // namespace vemk
"""

# Writes what the test prepared in place of a measurement.
gcovr = """\
#!/bin/sh
while [ $# -gt 0 ]; do
  [ "$1" != --json ] || cp "$(dirname "$0")/${2##*/}" "$2"
  shift
done
"""

exclusion = """\
[[exclusion]]
file = "src/one.cpp"
function = "int second()"
line = "return 0;"
what = "line"
reason = "Nobody asks."
"""

complete = {3: 2, 4: (2, "f1 -1"), 5: 1, 6: 1, 9: 1, 10: 1}


def measured(lines, name="src/one.cpp"):
    """gcovr's form of {number: count} or {number: (count, "f1 t0 -1")}: branches that fall through,
    are an exception's or neither, each with its count."""

    def branch(text):
        return {"count": int(text[1:]), "fallthrough": text[0] == "f", "throw": text[0] == "t"}

    def line(number, what):
        count, branches = what if isinstance(what, tuple) else (what, "")
        return {"line_number": number, "count": count, "gcovr/excluded": False,
                "gcovr/noncode": False, "branches": [branch(text) for text in branches.split()]}

    return {"gcovr/format_version": "0.3",
            "files": [{"file": name, "functions": [],
                       "lines": [line(number, what) for number, what in lines.items()]}]}


@pytest.fixture
def report(tmp_path):
    """Runs the script over src/one.cpp and what gcovr is to have measured of its two builds."""
    (tmp_path / "src").mkdir()
    (tmp_path / "src" / "one.cpp").write_text(source)
    (tmp_path / "tests" / "coverage").mkdir(parents=True)
    (tmp_path / "build").mkdir()
    tools = tmp_path / "tools"
    tools.mkdir()
    (tools / "gcovr").write_text(gcovr)
    (tools / "gcovr").chmod(0o755)

    def run(lines, other=None, exclusions=""):
        (tools / "sources.json").write_text(json.dumps(measured(lines)))
        (tools / "api_2_0.json").write_text(json.dumps(other or measured({3: 0})))
        (tmp_path / "tests" / "coverage" / "exclusions.toml").write_text(exclusions)
        return subprocess.run([script, tmp_path / "build", "--checkout", tmp_path],
                              env={**os.environ, "PATH": f"{tools}:{os.environ['PATH']}"},
                              capture_output=True, text=True, timeout=60, check=False)

    return run


def figures(result):
    return result.stdout.splitlines()[-1]


# Status 0, a row for each file and the total, and the figures in the last line.
def test_everything_executed(report, tmp_path):
    result = report(complete)
    assert result.returncode == 0
    assert result.stderr == ""
    assert result.stdout.splitlines() == [
        "File                                                  Lines               Branches",
        "src/one.cpp                                6 of 6 (100.0 %)       2 of 2 (100.0 %)",
        "Total                                      6 of 6 (100.0 %)       2 of 2 (100.0 %)",
        "",
        f"Pages: {tmp_path}/build/pages/index.html",
        "coverage: 6 of 6 (100.0 %) lines, 2 of 2 (100.0 %) branches; "
        "not executed with a reason: 0, without: 0"]


# Status 1 and "FILE:NUMBER: line not executed: TEXT"; 5 of 6 is rounded down to 83.3 %.
def test_a_line_without_a_reason_fails(report):
    result = report({**complete, 10: 0})
    assert result.returncode == 1
    assert result.stderr == "src/one.cpp:10: line not executed: return 0;\n"
    assert figures(result).startswith("coverage: 5 of 6 (83.3 %) lines")


# Status 1 and "FILE:NUMBER: branches not executed: TEXT" for a line that goes one way only.
def test_a_branch_without_a_reason_fails(report):
    result = report({**complete, 4: (2, "f0 -2")})
    assert result.returncode == 1
    assert result.stderr == "src/one.cpp:4: branches not executed: if (yes)\n"
    assert "1 of 2 (50.0 %) branches" in figures(result)


# Status 0 and the reason, told with the line; the figures stay what they are.
def test_a_line_with_a_reason_passes(report):
    result = report({**complete, 10: 0}, exclusions=exclusion)
    assert result.returncode == 0
    assert ("\nsrc/one.cpp:10: line not executed, with a reason: return 0;\n  Nobody asks.\n"
            in result.stdout)
    assert figures(result) == ("coverage: 5 of 6 (83.3 %) lines, 2 of 2 (100.0 %) branches; "
                               "not executed with a reason: 1, without: 0")


# A reason for "branches" lets pass an executed line that goes one way only.
def test_a_branch_with_a_reason_passes(report):
    reason = (exclusion.replace("second()", "first(bool yes)").replace("return 0;", "if (yes)")
              .replace('"line"', '"branches"'))
    result = report({**complete, 4: (2, "f0 -2")}, exclusions=reason)
    assert result.returncode == 0
    assert "src/one.cpp:4: branches not executed, with a reason: if (yes)" in result.stdout


# Status 1 and "excuses nothing" when the line is executed after all.
def test_a_stale_reason_fails(report):
    result = report(complete, exclusions=exclusion)
    assert result.returncode == 1
    assert result.stderr == ("tests/coverage/exclusions.toml: excuses nothing: "
                             "line of src/one.cpp, int second(): return 0;\n")


# The same text in another function, and a reason given twice: neither excuses anything.
@pytest.mark.parametrize("number, exclusions", [(6, exclusion), (10, exclusion * 2)])
def test_a_reason_holds_for_one_line_of_its_function(report, number, exclusions):
    result = report({**complete, number: 0}, exclusions=exclusions)
    assert result.returncode == 1
    assert "excuses nothing" in result.stderr


# "line" is no reason for a branch: the branch fails, and the reason is stale.
def test_a_reason_for_a_line_does_not_excuse_a_branch(report):
    reason = exclusion.replace("second()", "first(bool yes)").replace("return 0;", "if (yes)")
    result = report({**complete, 4: (2, "f0 -2")}, exclusions=reason)
    assert result.returncode == 1
    assert "src/one.cpp:4: branches not executed" in result.stderr
    assert "excuses nothing" in result.stderr


# An entry without its reason, or with an empty one, is an error that names the line.
@pytest.mark.parametrize("wrong", [exclusion.replace('reason = "Nobody asks."', ""),
                                   exclusion.replace("Nobody asks.", "")])
def test_an_entry_without_a_reason_is_an_error(report, wrong):
    result = report({**complete, 10: 0}, exclusions=wrong)
    assert result.returncode == 1
    assert result.stderr == ("tests/coverage/exclusions.toml: return 0;: each entry has file, "
                             "function, line, what, reason\n")


# A file that is no TOML is an error that says where.
def test_an_unreadable_list_is_an_error(report):
    result = report(complete, exclusions="[[exclusion]\n")
    assert result.returncode == 1
    assert result.stderr.startswith("tests/coverage/exclusions.toml: ")
    assert "(at line 1, column " in result.stderr


# A call's return and the exception out of it are no branches; the decision beside them is one.
def test_the_ways_out_of_a_call_do_not_count(report):
    result = report({**complete, 4: (2, "f2 t0 f1 -1"), 10: (1, "f1 t0")})
    assert result.returncode == 0
    assert "2 of 2 (100.0 %) branches" in figures(result)


# Lines and branches of both builds are added up: each may execute what the other one does not.
def test_two_builds_are_added_up(report):
    other = measured({4: (1, "f0 -1"), 6: 1})
    result = report({**complete, 4: (1, "f1 -0"), 6: 0}, other)
    assert result.returncode == 0
    assert figures(result).startswith("coverage: 6 of 6 (100.0 %) lines, 2 of 2 (100.0 %) branches")


# A line that only the second build compiles counts, so it fails there like any other.
def test_a_line_of_the_second_build_alone_counts(report):
    lines = {number: count for number, count in complete.items() if number != 10}
    result = report(lines, measured({10: 0}))
    assert result.returncode == 1
    assert result.stderr == "src/one.cpp:10: line not executed: return 0;\n"


# A build that measured nothing of src is an error, so that its lines are not missed in silence.
def test_a_build_without_counters_is_an_error(report, tmp_path):
    result = report(complete, {"gcovr/format_version": "0.3", "files": []})
    assert result.returncode == 1
    assert result.stderr == (
        f"coverage-report: {tmp_path}/build/api_2_0.json holds no counters of src\n")


# A source that no measured program holds fails with "not measured".
def test_a_source_that_was_not_measured_fails(report, tmp_path):
    (tmp_path / "src" / "two.cpp").touch()
    result = report(complete)
    assert result.returncode == 1
    assert result.stderr == "src/two.cpp: not measured\n"
