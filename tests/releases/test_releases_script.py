"""What `make releases` says when a release cannot be had."""

import os
import pathlib
import shutil
import subprocess

source = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "releases.py"


# A tag that the repository lacks, or an empty folder, takes one line and exit status 1.
def test_sources_that_cannot_be_had_are_said_in_one_line(tmp_path):
    script = tmp_path / "checkout" / "scripts" / "releases.py"
    script.parent.mkdir(parents=True)
    shutil.copy(source, script)
    mirror = tmp_path / "mirror"
    subprocess.run(["git", "init", "-q", mirror], check=True)
    result = subprocess.run([script, "v2.0.3", tmp_path], capture_output=True, text=True,
                            env={**os.environ, "LWS_MIRROR": str(mirror)}, check=False)
    fetched, given = result.stdout.splitlines()
    assert (result.returncode, result.stderr) == (1, "")
    assert fetched.startswith(f"v2.0.3: its sources cannot be had: {mirror}: ")
    assert fetched.endswith("LWS_MIRROR names another git repository of the library")
    assert given == f"{tmp_path}: it holds neither sources nor include/libwebsockets.h"
