"""Running fuzz targets and summing up what they did."""

import pathlib
import subprocess

script = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "run-fuzzers.py"

# Shell programs in place of fuzzers.
programs = {
    "bad": """
echo "#55 NEW    cov: 12 ft: 11 corp: 3/1b"
echo "DIFFERENCE in the text"
echo "artifact_prefix='x'; Test unit written to /found/crash-1"
exit 77
""",
    "good_api_2_0": """
echo "$@"
echo "#900 DONE   cov: 31 ft: 11 corp: 7/1b exec/s: 0 rss: 33Mb"
echo "stat::number_of_executed_units: 900"
""",
    "idle": "true",
}


# Targets that end well, find something, execute nothing or are missing are told apart, by status 1.
def test_targets_are_run_and_summed_up(tmp_path):
    build = tmp_path / "build"
    (build / "fuzzers").mkdir(parents=True)
    (tmp_path / "dictionaries").mkdir()
    (tmp_path / "dictionaries" / "good.dict").touch()

    def run(*options):
        return subprocess.run([script, build, "--inputs", tmp_path, *options],
                              capture_output=True, text=True, timeout=60, check=False)

    # A build without targets is an error.
    empty = run()
    assert (empty.returncode, empty.stderr) == (
        1, f"run-fuzzers: there is no fuzz target in {build}/fuzzers\n")
    for name, text in programs.items():
        (build / "fuzzers" / name).write_text("#!/bin/sh\n" + text)
        (build / "fuzzers" / name).chmod(0o755)

    result = run("--seconds", "7")
    assert result.returncode == 1
    lines = result.stdout.splitlines()
    assert lines[:12] == [
        "bad                     55 executions,    12 edges,     3 inputs: failed with status 77",
        "good_api_2_0           900 executions,    31 edges,     7 inputs: ok",
        "idle                     0 executions,     0 edges,     0 inputs: "
        "failed: nothing was executed",
        "",
        "bad: failed with status 77",
        f"  log:   {build}/logs/bad.log",
        "  input: /found/crash-1",
        f"  again: {build}/fuzzers/bad /found/crash-1",
        "DIFFERENCE in the text",
        "artifact_prefix='x'; Test unit written to /found/crash-1",
        "",
        "idle: failed: nothing was executed"]
    # Findings go into the build; the seeds come last, and those of NAME serve NAME_api_2_0.
    assert (build / "logs" / "good_api_2_0.log").read_text().splitlines()[0].split() == [
        "-max_total_time=7", "-timeout=20", "-print_final_stats=1",
        f"-artifact_prefix={build}/findings/good_api_2_0/",
        f"-dict={tmp_path}/dictionaries/good.dict", f"{build}/corpus/good_api_2_0",
        f"{tmp_path}/corpus/good"]

    assert run("good_api_2_0").returncode == 0
    missing = run("none")
    assert missing.returncode == 1
    assert "0 inputs: failed: No such file or directory\n" in missing.stdout
    refused = run("--seconds", "0")
    assert refused.returncode == 2
    assert "argument --seconds: 0 is not above 0" in refused.stderr
