"""Starts without a usable configuration: the exit status, and nothing else started."""

# Test: 2 s

import signal
import subprocess

import pytest



@pytest.fixture
def start(make_daemon, server, place):
    """Runs a daemon to its end; whatever it was given, it joined no bus and no server."""

    def run(**how):
        daemon = make_daemon().start(**how)
        daemon.wait_for_exit()
        assert server.handshakes == []
        assert list(place.bus_folder.iterdir()) == []
        assert "ipc" not in daemon.log_text() and "websock-worker" not in daemon.log_text()
        assert daemon.output() == ""
        return daemon

    return run


# Status 0, no log, and the PID in the PID file.
def test_no_configuration_file_named(start, place):
    daemon = start(arguments=[])
    assert daemon.process.returncode == 0
    assert daemon.log_text() == ""
    assert place.pid_file.read_text() == f"{daemon.pid}\n"


# -d, -p and -P without a file: status 0 and no connection.
def test_host_path_and_port_options_alone_start_nothing(start, server):
    daemon = start(arguments=["-d", "127.0.0.1", "-p", "/roam", "-P", server.port])
    assert daemon.process.returncode == 0


# The process that the PID file names gets SIGTERM before the status 0; so it does of "vemk status".
@pytest.mark.parametrize("arguments", [[], ["status"]], ids=["bare", "status"])
def test_no_configuration_file_still_ends_an_earlier_daemon(start, place, arguments):
    earlier = subprocess.Popen(["sleep", "600"])
    try:
        place.pid_file.write_text(f"{earlier.pid}\n")
        assert start(arguments=arguments).process.returncode == 0
        assert earlier.wait(20) == -signal.SIGTERM
    finally:
        earlier.kill()
        earlier.wait()


# -x, -z, --help, -f and -P without their value: 255, and no PID file.
@pytest.mark.parametrize("arguments", [["-x"], ["-f"], ["--help"], ["-P"], ["-d", "host", "-z"]],
                         ids=lambda arguments: "".join(arguments))
def test_bad_option_is_status_255(start, place, arguments):
    daemon = start(arguments=arguments)
    assert daemon.process.returncode == 255
    assert not place.pid_file.exists()


# -y behind a good file: 255, and no PID file.
def test_bad_option_after_a_good_configuration_is_status_255(start, place, server):
    file = place.folder / "good.conf"
    file.write_text(f"roam_service_url={server.url}\n")
    assert start(arguments=["-f", file, "-y"]).process.returncode == 255
    assert not place.pid_file.exists()


# A file that is not there: status 0, no log, and the PID in the PID file.
def test_missing_file_is_status_0(start, place):
    daemon = start(arguments=["-f", place.folder / "missing.conf"])
    assert daemon.process.returncode == 0
    assert daemon.log_text() == ""
    assert place.pid_file.read_text() == f"{daemon.pid}\n"


# A folder in place of the file reads as nothing: status 0.
def test_folder_given_as_file_is_status_0(start, place):
    assert start(arguments=["-f", place.folder]).process.returncode == 0


# "Proto wss is invalid" of module websock-cfg is the whole log; so for http, WS and none.
@pytest.mark.parametrize("scheme", ["wss", "http", "WS", ""])
def test_wrong_scheme_is_logged_and_status_0(start, server, scheme):
    daemon = start(config=f"roam_service_url={scheme}://127.0.0.1:{server.port}/roam\n")
    assert daemon.process.returncode == 0
    assert [(line.pid, line.module, line.text) for line in daemon.log_lines()] == \
        [(daemon.pid, "websock-cfg", f"Proto {scheme} is invalid")]


# log_level=7 in front of the URL keeps the line out of the log.
def test_wrong_scheme_is_silent_when_the_level_before_it_says_so(start, server):
    daemon = start(config=f"log_level=7\nroam_service_url=wss://127.0.0.1:{server.port}/roam\n")
    assert daemon.process.returncode == 0
    assert daemon.log_text() == ""


# A good URL behind a wss one is not used: status 0.
def test_lines_after_a_wrong_scheme_are_not_read(start, server):
    daemon = start(config="roam_service_url=wss://127.0.0.1:1/\n"
                          f"roam_service_url={server.url}\n")
    assert daemon.process.returncode == 0


# No port, no path, nothing, and a path alone: status 0.
@pytest.mark.parametrize("rest", ["127.0.0.1/roam", "127.0.0.1:{port}", "", "/roam"])
def test_incomplete_url_is_status_0(start, server, rest):
    daemon = start(config=f"roam_service_url=ws://{rest.format(port=server.port)}\n")
    assert daemon.process.returncode == 0


# A blank before the key or its sign, or a "#": the line does not count, status 0.
@pytest.mark.parametrize("line", [" roam_service_url=", "roam_service_url =", "#roam_service_url="])
def test_key_must_stand_first_and_touch_its_sign(start, server, line):
    assert start(config=f"{line}{server.url}\n").process.returncode == 0
