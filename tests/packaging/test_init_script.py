"""The init script for procd, under a stub of the shell library that runs it."""

import os
import shutil
import stat
import subprocess
from pathlib import Path

import pytest

FILES = Path(os.environ["SOURCE_DIR"], "packaging/openwrt/vemk/files")
STUB = Path(__file__).with_name("procd_stub.sh")
SHELLS = [shell for shell in ("dash", "bash --posix", "busybox sh")
          if shutil.which(shell.split()[0])]
URL = "roam_service_url=ws://127.0.0.1:8080/roam\n"


@pytest.fixture(params=SHELLS)
def act(request, tmp_path):
    """Returns a function that does an action with the configuration given, None being no file."""
    path = tmp_path / "vemk.conf"
    script = tmp_path / "vemk.init"
    text = (FILES / "vemk.init").read_text()
    assert text.count("CONFIG=/etc/vemk/vemk.conf\n") == 1
    script.write_text(text.replace("CONFIG=/etc/vemk/vemk.conf\n", f"CONFIG={path}\n"))

    def run(action, configuration=URL, options=(FILES / "vemk.config").read_text()):
        if configuration is not None:
            path.write_text(configuration)
        (tmp_path / "uci").write_text(options)
        result = subprocess.run([*request.param.split(), STUB, script, action, tmp_path / "uci"],
                                capture_output=True, text=True, check=True)
        calls = [line.replace(str(path), "CONFIG") for line in result.stdout.splitlines()]
        return calls, result.stderr.replace(str(path), "CONFIG")

    return run


def instance(user="vemk", jail=()):
    """What procd is told of the instance that runs as `user`, with the calls for its jail."""
    return ["begin", "open_instance", "command /usr/sbin/vemk -f CONFIG", "respawn 3600 5 0",
            "file CONFIG", "stdout 1", "stderr 1", f"user {user}", "no_new_privs 1", *jail,
            "close_instance", "reload_trigger vemk", "end"]


INSTANCE = instance()


# vemk -f CONFIG, respawn 3600 5 0, the file watched, both outputs logged, as user vemk.
# It ran as root, and stopped whatever process somebody had written into its PID file.
def test_starts_one_instance_that_is_restarted_without_a_limit(act):
    assert act("start") == (INSTANCE, "")


# reload makes the same calls as start, and no kill.
def test_reload_describes_the_instance_anew_for_procd_to_compare(act):
    assert act("reload") == (INSTANCE, "")


# stop is procd's kill alone.
def test_stop_leaves_it_to_procd(act):
    assert act("stop") == (["kill"], "")


# restart is a kill, then the calls of start.
def test_restart_stops_and_starts(act):
    assert act("restart") == (["kill", *INSTANCE], "")


# enable links S95vemk and K10vemk.
def test_starts_late_and_stops_early(act):
    assert act("enable")[0] == ["S95vemk K10vemk"]


# ROAM_SERVICE_URL= and Roam_Service_Url= in a later line start the instance.
@pytest.mark.parametrize("line", ["ROAM_SERVICE_URL=host:1/\n", "log_level=1\nRoam_Service_Url=x"])
def test_knows_the_url_in_any_letter_case(act, line):
    assert act("start", line)[0] == INSTANCE


# No file, an empty one, an empty, commented or indented URL: "vemk: not started: put ...".
@pytest.mark.parametrize("configuration", [
    None,
    "",
    "roam_service_url=\n",
    "#roam_service_url=ws://127.0.0.1:8080/roam\n",
    " roam_service_url=ws://127.0.0.1:8080/roam\n",
])
def test_does_not_start_without_a_url_and_says_what_to_do(act, configuration):
    assert act("start", configuration) == (
        ["begin", "reload_trigger vemk", "end"],
        "vemk: not started: put roam_service_url=ws://HOST:PORT/PATH into CONFIG\n")


# The device's vemk.conf has its URL commented out.
def test_does_not_start_with_the_configuration_as_it_is_shipped(act):
    assert act("start", (FILES / "vemk.conf").read_text())[0] == (
        ["begin", "reload_trigger vemk", "end"])


# Option user of /etc/config/vemk names another user.
def test_runs_as_another_user_where_that_is_asked_for(act):
    options = "config service 'service'\n\toption user 'bus'\n"
    assert act("start", options=options) == (instance("bus"), "")


# Option jail '1': the daemon's own files, and what the lists path and path_rw name; killed after 1 s.
def test_the_jail_shows_what_the_platforms_libraries_open(act):
    options = "".join(f"\t{line}\n" for line in (
        "option jail '1'", "list path '/etc/bus.conf'", "list path_rw '/var/run/bus'",
        "list path_rw '/tmp/log'"))
    assert act("start", options=options)[0] == instance(jail=(
        "jail vemk log ronly", "mount CONFIG /etc/TZ /etc/hosts /etc/resolv.conf",
        "mount /etc/bus.conf", "mount_rw /var/run/bus", "mount_rw /tmp/log", "term_timeout 1"))


# Without /etc/config/vemk: user vemk, no jail.
def test_needs_no_options(act):
    assert act("start", options="") == (INSTANCE, "")


# The device's vemk.conf and examples/vemk.conf have the same keys.
def test_the_shipped_configuration_names_every_key():
    def keys(path):
        lines = (line.lstrip("#") for line in path.read_text().splitlines())
        return {line.split("=")[0] for line in lines if "=" in line and " " not in line}

    example = Path(os.environ["SOURCE_DIR"], "examples/vemk.conf")
    assert keys(FILES / "vemk.conf") == keys(example)


# The first line is "#!/bin/sh /etc/rc.common", and the owner may execute it.
def test_runs_under_the_shell_library_and_can_be_executed():
    script = FILES / "vemk.init"
    assert script.read_text().startswith("#!/bin/sh /etc/rc.common\n")
    assert script.stat().st_mode & stat.S_IXUSR
