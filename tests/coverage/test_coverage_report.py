"""The report on coverage: its figures, and what it reports as a gap."""

import json
import os
import pathlib
import subprocess

script = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "coverage-report.py"

source = """\
int first(bool yes) {
  if (yes)
    return 1;
  return 0;
}

int second() {
  return 0;
}
"""
exclusion_list = """\
[[exclusion]]
file = "src/one.cpp"
function = "int second()"
line = "return 0;"
what = "line"
reason = "Nobody asks."

[[exclusion]]
file = "src/one.cpp"
function = "int second()"
line = "int second() {"
what = "line"
reason = "Nobody calls it."
"""
# Writes what the test prepared in place of a measurement.
gcovr = """\
#!/bin/sh
while [ $# -gt 0 ]; do
  [ "$1" != --json ] || cp "$(dirname "$0")/${2##*/}" "$2"
  shift
done
"""


def measured(counts, branches):
    """gcovr's form: a count for each line, and for line 2 the way on and the way aside."""
    ways = [{"count": count, "fallthrough": index == 0, "throw": False}
            for index, count in enumerate(branches)]
    lines = [{"line_number": number, "count": count, "gcovr/excluded": False,
              "gcovr/noncode": False, "branches": ways if number == 2 else []}
             for number, count in counts.items()]
    return json.dumps({"gcovr/format_version": "0.3",
                       "files": [{"file": "src/one.cpp", "functions": [], "lines": lines}]})


# A gap without a reason, a reason without a gap and a source without counters fail the run.
# The counts of two builds are added up: a line is a gap when neither executes it.
def test_gaps_and_stale_reasons_fail_the_run(tmp_path):
    files = {
        "src/one.cpp": source,
        "src/two.cpp": "",
        "tests/coverage/exclusions.toml": exclusion_list,
        "tools/gcovr": gcovr,
        "tools/sources.json": measured({1: 1, 2: 1, 3: 0, 4: 1, 7: 1, 8: 0}, [0, 1]),
        "tools/api_2_0.json": measured({1: 1, 2: 1, 3: 1, 4: 0}, [0, 1]),
    }
    (tmp_path / "build").mkdir()
    for name, text in files.items():
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / name).write_text(text)
    (tmp_path / "tools" / "gcovr").chmod(0o755)

    path = f"{tmp_path / 'tools'}:{os.environ['PATH']}"
    result = subprocess.run([script, tmp_path / "build", "--checkout", tmp_path],
                            env={**os.environ, "PATH": path},
                            capture_output=True, text=True, timeout=60, check=False)
    assert result.stderr.splitlines() == [
        "src/one.cpp:2: branches not executed: if (yes)",
        "tests/coverage/exclusions.toml: excuses nothing: line of src/one.cpp, int second(): "
        "int second() {",
        "src/two.cpp: not measured"]
    assert ("src/one.cpp:8: line not executed, with a reason: return 0;\n  Nobody asks.\n"
            in result.stdout)
    assert result.stdout.endswith("coverage: 5 of 6 (83.3 %) lines, 1 of 2 (50.0 %) branches; "
                                  "not executed with a reason: 1, without: 1\n")
    assert result.returncode == 1
