"""Making changes to a source and telling what the tests say to each."""

import pathlib
import shutil
import subprocess

import pytest

script = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "mutants.py"

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
# Programs that tell of their tests as GoogleTest does.
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


@pytest.fixture(scope="module")
def checkout(tmp_path_factory):
    """A small project with the script in it; its builds serve all tests."""
    folder = tmp_path_factory.mktemp("checkout")
    files = {
        "CMakeLists.txt": build_file,
        "src/doors/doors.cpp": source,
        "tests/doors_test.cpp": test_program.replace("{name}", "DoorsTest.ThereAreTwo")
                                            .replace("{condition}", "doors() == 2"),
        "tests/way_test.cpp": test_program.replace("{name}", "WayTest.TenSteps")
                                          .replace("{condition}", "steps() == 10"),
        ".gitignore": "/build*/\n",
    }
    for name, text in files.items():
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        (folder / name).write_text(text)
    (folder / "scripts").mkdir()
    shutil.copy(script, folder / "scripts")
    subprocess.run(["git", "init", "--quiet", folder], check=True)
    return folder


@pytest.fixture
def mutants(checkout):
    """Runs the script in the small project over the given table of its one source file."""

    def run(table, *options, file="src/doors/doors.cpp"):
        path = checkout / "tests" / "mutants" / "mutants.toml"
        path.parent.mkdir(exist_ok=True)
        path.write_text(f'["{file}"]\n{table}\n')
        return subprocess.run([checkout / "scripts" / "mutants.py", "--jobs", "1", *options],
                              capture_output=True, text=True, timeout=120, check=False)

    return run


def lines_of(result):
    """The report without the time that the run took."""
    return [line.partition(", in ")[0] for line in result.stdout.splitlines()]


# A mutant has one line with its place, its change and the test that failed; all killed is status 0.
def test_killed_mutants_are_told_with_the_test(mutants):
    result = mutants("mutants = [['return 2;', 'return 3;'], ['return 10;', 'return 11;']]")
    assert lines_of(result) == [
        "src/doors/doors.cpp:2: return 2; -> return 3;: killed by DoorsTest.ThereAreTwo",
        "src/doors/doors.cpp:3: return 10; -> return 11;: killed by WayTest.TenSteps",
        "mutants: 2 killed, 0 survived, 0 equivalent, 0 do not build"]
    assert result.returncode == 0


# A mutant that no test notices makes the status 1, and one that cannot be compiled does as well.
@pytest.mark.parametrize("replacement, told, summed_up", [
    ("return 1;", "survived", "0 killed, 1 survived, 0 equivalent, 0 do not build"),
    ("return", "does not build", "0 killed, 0 survived, 0 equivalent, 1 do not build"),
])
def test_survivors_fail_the_run(mutants, replacement, told, summed_up):
    result = mutants(f"mutants = [['return 0;', '{replacement}']]")
    assert lines_of(result) == [
        f"src/doors/doors.cpp:4: return 0; -> {replacement}: {told}", f"mutants: {summed_up}"]
    assert result.returncode == 1


# A mutant that is explained is not tried, is told with its reason, and leaves the status 0.
def test_explained_mutants_are_no_survivors(mutants):
    result = mutants("equivalent = [['return 0;', 'return 1;', 'nobody calls it']]")
    assert lines_of(result) == [
        "src/doors/doors.cpp:4: return 0; -> return 1;: equivalent: nobody calls it",
        "mutants: 0 killed, 0 survived, 1 equivalent, 0 do not build"]
    assert result.returncode == 0


# With --equivalent an explained mutant is tried, and one that a test notices is told as killed.
def test_explanations_can_be_put_to_the_test(mutants):
    result = mutants("equivalent = [['return 0;', 'return 1;', 'nobody calls it'],"
                     " ['return 2;', 'return 3;', 'wrong']]", "--equivalent")
    assert lines_of(result) == [
        "src/doors/doors.cpp:4: return 0; -> return 1;: equivalent: nobody calls it",
        "src/doors/doors.cpp:2: return 2; -> return 3;: killed by DoorsTest.ThereAreTwo",
        "mutants: 1 killed, 0 survived, 1 equivalent, 0 do not build"]


# A test program that has not ended after the time limit, and one that crashes, kill the mutant.
def test_hanging_and_crashing_programs_kill(mutants):
    result = mutants("""mutants = [['{ return 2; }', '{ for (volatile int i = 0;; i = 1) {} }'],
                                   ['{ return 10; }', '{ __builtin_trap(); }']]""",
                     "--time-limit", "3")
    assert [line.rpartition(": ")[2] for line in lines_of(result)[:2]] == [
        "killed by DoorsTest.ThereAreTwo, which did not end",
        "killed by WayTest.TenSteps, which ended with signal 4"]
    assert result.returncode == 0


# Neither a run nor its mutants change a file of the checkout.
def test_the_checkout_stays_as_it_is(mutants, checkout):
    mutants("mutants = [['return 2;', 'return 3;']]")
    assert (checkout / "src" / "doors" / "doors.cpp").read_text() == source


# A pattern picks mutants by their line in the report; one that picks none is an error, status 2.
def test_a_pattern_picks_mutants(mutants):
    table = "mutants = [['return 2;', 'return 3;'], ['return 10;', 'return 11;']]"
    assert "mutants: 1 killed" in mutants(table, "--only", r"cpp:3: .*11").stdout
    result = mutants(table, "--only", "return 12")
    assert (result.stderr, result.returncode) == ("mutants: no mutant matches\n", 2)


# A fragment that is missing or not unique, or that stays as it is, is an error with status 2.
@pytest.mark.parametrize("fragment, problem", [
    ("return 4;", "is not there"),
    ("return ", "is there 3 times"),
    ("steps() { return 10; }", "is replaced by itself"),
])
def test_fragments_that_cannot_be_used_are_told(mutants, fragment, problem):
    result = mutants(f"mutants = [['{fragment}', 'steps() {{ return 10; }}']]", "--check")
    assert result.stderr == (
        f"mutants: mutants.toml: src/doors/doors.cpp: the fragment {problem}: {fragment}\n")
    assert result.returncode == 2


# A list that is no TOML, names no file or leaves out a text or the reason is an error, status 2.
@pytest.mark.parametrize("table, file, problem", [
    ("mutants = [[", "src/doors/doors.cpp", "mutants.toml: Invalid value (at end of document)"),
    ("", "src/doors/gone.cpp", "mutants.toml: there is no file src/doors/gone.cpp"),
    ("mutants = [['return 2;']]", "src/doors/doors.cpp",
     "mutants.toml: src/doors/doors.cpp: not a pair of texts: ['return 2;']"),
    ("equivalent = [['return 2;', 'return 3;', '']]", "src/doors/doors.cpp",
     "mutants.toml: src/doors/doors.cpp: not a pair of texts and a reason: "
     "['return 2;', 'return 3;', '']"),
])
def test_lists_that_cannot_be_read_are_told(mutants, table, file, problem):
    result = mutants(table, "--check", file=file)
    assert result.stderr == f"mutants: {problem}\n"
    assert result.returncode == 2


# When a test fails without a mutant nothing is tried, and its name is told with status 2.
def test_tests_that_fail_anyway_are_told(mutants, checkout):
    program = checkout / "tests" / "way_test.cpp"
    text = program.read_text()
    program.write_text(text.replace("steps() == 10", "steps() == 9"))
    try:
        result = mutants("mutants = [['return 2;', 'return 3;']]")
    finally:
        program.write_text(text)
    assert result.stdout == ""
    assert result.stderr == "mutants: without a mutant a test fails: WayTest.TenSteps\n"
    assert result.returncode == 2
