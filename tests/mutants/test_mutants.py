"""Making changes to a source and reporting what the tests say to each."""

import pathlib
import shutil
import subprocess

scripts = pathlib.Path(__file__).resolve().parents[2] / "scripts"

build_file = """
cmake_minimum_required(VERSION 3.25)
project(doors LANGUAGES CXX)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
add_executable(doors_test tests/doors_test.cpp src/doors/doors.cpp)
add_executable(way_test tests/way_test.cpp src/doors/doors.cpp)
"""
source = """
int doors() { return 2; }
int steps() { return 10; }
int spare() { return 0; }
"""
# Programs that report their tests as GoogleTest does.
test_program = """
#include <cstdio>
int doors();
int steps();
int main() {
  std::puts("[ RUN      ] {name}");
  std::fflush(stdout);
  if ({condition})
    return 0;
  std::puts("[  FAILED  ] {name} (0 ms)");
  return 1;
}
"""
mutant_list = """
["src/doors/doors.cpp"]
mutants = [
  ['{ return 2; }', '{ for (volatile int i = 1; i;) ; return 2; }'],
  ['return 0;', 'return'],
  ['return 4;', 'return 5;'],
  ['return ', ''],
]
["src/doors/doors.cpp".equivalent]
spare = [['int spare() { return 0; }', 'int spare() { return 1; }', 'nobody calls it']]
steps = [['int steps() { return 0; }', 'int steps() { return 1; }', 'nobody calls it']]
"""


# Killed, surviving, explained and stale changes are reported, and the run fails with status 1.
# Stale ones come first and keep none of the others from being tried; the checkout stays as it is.
def test_each_change_is_reported_and_a_survivor_fails_the_run(tmp_path):
    files = {
        "CMakeLists.txt": build_file,
        "src/doors/doors.cpp": source,
        "tests/doors_test.cpp": test_program.replace("{name}", "DoorsTest.ThereAreTwo")
                                            .replace("{condition}", "doors() == 2"),
        "tests/way_test.cpp": test_program.replace("{name}", "WayTest.TenSteps")
                                          .replace("{condition}", "steps() == 10"),
        "tests/mutants/mutants.toml": mutant_list,
        ".gitignore": "/build*/\n",
    }
    for name, text in files.items():
        (tmp_path / name).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / name).write_text(text)
    (tmp_path / "scripts").mkdir()
    for script in ("mutants.py", "mutations.py"):
        shutil.copy(scripts / script, tmp_path / "scripts")
    subprocess.run(["git", "init", "--quiet", tmp_path], check=True)

    result = subprocess.run([tmp_path / "scripts" / "mutants.py", "--equivalent"],
                            capture_output=True, text=True, timeout=120, check=False)
    assert result.stderr.splitlines() == [
        "mutants: stale: src/doors/doors.cpp: return 4; -> return 5;",
        "mutants: stale: src/doors/doors.cpp: return -> ",
        "mutants: stale: src/doors/doors.cpp: steps: "
        "int steps() { return 0; } -> int steps() { return 1; }"]
    *reported, summary = result.stdout.splitlines()
    assert [line.rpartition(" -> ")[2] for line in reported] == [
        "int doors() { return 1; }: killed by DoorsTest.ThereAreTwo",
        "int doors() { return 3; }: killed by DoorsTest.ThereAreTwo",
        "int steps() { return 11; }: killed by WayTest.TenSteps",
        "int steps() { return 9; }: killed by WayTest.TenSteps",
        "int spare() { return -1; }: survived",
        "int spare() { return 1; }: equivalent: nobody calls it",
        "{ for (volatile int i = 1; i;) ; return 2; }: killed by DoorsTest.ThereAreTwo, which did not end",
        "return: survived, because it does not build"]
    assert summary.startswith("mutants: 5 killed, 0 refused by the compiler, 2 survived, "
                              "1 equivalent, 3 stale, in ")
    assert result.returncode == 1
    assert (tmp_path / "src" / "doors" / "doors.cpp").read_text() == source
