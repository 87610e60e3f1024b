"""Running fuzz targets and summing up what they did."""

import pathlib
import subprocess

import pytest

script = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "run-fuzzers.py"

fuzzer_that_ends_well = """
echo "#2 INITED cov: 10 ft: 11 corp: 1/1b exec/s: 0 rss: 33Mb"
echo "#900 DONE   cov: 31 ft: 11 corp: 7/1b exec/s: 0 rss: 33Mb"
echo "stat::number_of_executed_units: 900"
"""
fuzzer_that_finds_something = """
echo "#55 NEW    cov: 12 ft: 11 corp: 3/1b"
echo "DIFFERENCE in the text"
echo "artifact_prefix='x'; Test unit written to /found/crash-1"
exit 77
"""


@pytest.fixture
def fuzz(tmp_path):
    """Runs the script over shell programs in place of fuzzers."""

    def run(*options, **programs):
        folder = tmp_path / "build" / "fuzzers"
        folder.mkdir(parents=True)
        for name, text in programs.items():
            (folder / name).write_text("#!/bin/sh\n" + text)
            (folder / name).chmod(0o755)
        return subprocess.run([script, tmp_path / "build", "--inputs", tmp_path, *options],
                              capture_output=True, text=True, timeout=60, check=False)

    return run


# A target that ends well has one line with its executions, edges and inputs, and status 0.
def test_one_line_for_each_target(fuzz):
    result = fuzz(one=fuzzer_that_ends_well, two=fuzzer_that_ends_well)
    assert result.returncode == 0
    assert result.stdout.splitlines() == [
        "one                    900 executions,    31 edges,     7 inputs: ok",
        "two                    900 executions,    31 edges,     7 inputs: ok"]


# A target that fails makes the status 1 and is told with its log, its input and how to run it.
def test_a_finding_is_told_with_its_input(fuzz, tmp_path):
    result = fuzz(bad=fuzzer_that_finds_something, good=fuzzer_that_ends_well)
    build = tmp_path / "build"
    assert result.returncode == 1
    assert result.stdout.splitlines() == [
        "bad                     55 executions,    12 edges,     3 inputs: failed with status 77",
        "good                   900 executions,    31 edges,     7 inputs: ok",
        "",
        "bad: failed with status 77",
        f"  log:   {build}/logs/bad.log",
        "  input: /found/crash-1",
        f"  again: {build}/fuzzers/bad /found/crash-1",
        "DIFFERENCE in the text",
        "artifact_prefix='x'; Test unit written to /found/crash-1"]


# A target writes into folders of the build; the seeds come last, where nothing is written.
def test_findings_stay_out_of_the_checkout(fuzz, tmp_path):
    dictionaries = tmp_path / "dictionaries"
    dictionaries.mkdir()
    (dictionaries / "one.dict").touch()
    fuzz("--seconds", "7", one='echo "$@"')
    build = tmp_path / "build"
    assert (build / "logs" / "one.log").read_text().split() == [
        "-max_total_time=7", "-timeout=20", "-print_final_stats=1",
        f"-artifact_prefix={build}/findings/one/", f"-dict={dictionaries}/one.dict",
        f"{build}/corpus/one", f"{tmp_path}/corpus/one"]


# A target for another release of a library starts from the same seeds: NAME_api_2_0 from NAME's.
def test_releases_share_their_seeds(fuzz, tmp_path):
    fuzz(one_api_2_0='echo "$@"')
    words = (tmp_path / "build" / "logs" / "one_api_2_0.log").read_text().split()
    assert words[-2:] == [f"{tmp_path}/build/corpus/one_api_2_0", f"{tmp_path}/corpus/one"]


# A target that ends with status 0 and has executed nothing counts as failed.
def test_a_run_without_executions_fails(fuzz):
    result = fuzz(idle="true")
    assert result.returncode == 1
    assert "0 inputs: failed: nothing was executed\n" in result.stdout


# A target that is named and does not exist fails as the system says, "No such file or directory".
def test_a_missing_target_fails(fuzz):
    result = fuzz("none")
    assert result.returncode == 1
    assert "0 inputs: failed: No such file or directory\n" in result.stdout


# A folder without targets is an error, told on standard error with status 1.
def test_a_build_without_targets_fails(fuzz, tmp_path):
    result = fuzz()
    assert result.returncode == 1
    assert result.stderr == (
        f"run-fuzzers: there is no fuzz target in {tmp_path}/build/fuzzers\n")


# Seconds that are no number above 0 are refused with status 2.
def test_no_seconds_are_refused(fuzz):
    result = fuzz("--seconds", "0", one=fuzzer_that_ends_well)
    assert result.returncode == 2
    assert "argument --seconds: 0 is not above 0" in result.stderr
