"""The command line and the file: what comes of them, and what vemkctl check-config says."""

# Test: 12 s, everywhere

import signal
import subprocess
import time

import pytest

# No wait before the first attempt, and nothing to warn of.
delays = "initial_connection_delay=1\nmax_connection_delay=2\n"

connects = [
    ("complete", "roam_service_url=ws://127.0.0.1:{port}/roam\n" + delays, 0),
    ("no_scheme", "ROAM_SERVICE_URL=127.0.0.1:{port}/\n" + delays, 0),
    ("carriage_returns", "roam_service_url=ws://127.0.0.1:{port}/roam\r\n" + delays, 1),
    # The wait is drawn from -2 to 2 seconds, and a number below 1 is none.
    ("negative_delay", "roam_service_url=ws://127.0.0.1:{port}/roam\n"
     "initial_connection_delay=-5\nmax_connection_delay=2\n", 1),
    ("comment_behind_the_path", "roam_service_url=ws://127.0.0.1:{port}/roam#test\n" + delays, 1),
    ("text_behind_port", "roam_service_url=ws://127.0.0.1:{port}x/\n" + delays, 1),
    ("port_beyond_16_bits", "roam_service_url=ws://127.0.0.1:{port_and_65536}/\n" + delays, 1),
    ("refused_scheme_after_it",
     delays + "roam_service_url=ws://127.0.0.1:{port}/\nroam_service_url=wss://x:1/\n", 1),
    ("rest_of_a_long_line",
     delays + "#" + 253 * "-" + "roam_service_url=ws://127.0.0.1:{port}/\n", 1),
]

ends_at_once = [
    ("no_port", "roam_service_url=ws://127.0.0.1/roam\n"),
    ("no_path", "roam_service_url=ws://127.0.0.1:{port}\n"),
    ("path_alone", "roam_service_url=ws:///roam\n"),
    ("scheme_alone", "roam_service_url=ws://\n"),
    ("blank_before_the_key", " roam_service_url=ws://127.0.0.1:{port}/roam\n"),
    ("blank_before_the_sign", "roam_service_url =ws://127.0.0.1:{port}/roam\n"),
    ("blanks_around_the_sign", "roam_service_url = ws://127.0.0.1:{port}/\n"),
    ("comment", "#roam_service_url=ws://127.0.0.1:{port}/roam\n"),
    ("nul_before_the_key", "\0roam_service_url=ws://127.0.0.1:{port}/\n"),
    ("tls", "roam_service_url=wss://127.0.0.1:{port}/\nroam_service_url=127.0.0.1:{port}/\n"),
    ("tls_in_front",
     "roam_service_url=wss://127.0.0.1:1/\nroam_service_url=ws://127.0.0.1:{port}/roam\n"),
    ("empty", ""),
]

never_connects = [
    ("port_0", "roam_service_url=ws://127.0.0.1:0/\n"),
    ("port_65536", "roam_service_url=ws://127.0.0.1:65536/\n"),
    ("no_host", "roam_service_url=ws://:{port}/\n"),
    ("blank_behind_the_host", "roam_service_url=ws://127.0.0.1 :{port}/\n"),
    ("path_before_the_port", "roam_service_url=ws://127.0.0.1/roam:{port}/\n"),
]


def named(cases):
    return [pytest.param(*case[1:], id=case[0]) for case in cases]


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


@pytest.fixture
def check(place, server, companion_folder):
    """Writes the file with the server's port and returns its text and the verdict on it."""

    def run(template):
        text = template.format(port=server.port, port_and_65536=server.port + 65536)
        file = place.folder / "checked.conf"
        file.write_bytes(text.encode())
        result = subprocess.run([companion_folder / "vemkctl", "check-config", file], timeout=60,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        assert result.stderr == ""
        print(result.stdout)
        return text, result.returncode

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
def test_no_configuration_file_still_ends_an_earlier_daemon(start, place, bystander, arguments):
    place.pid_file.write_text(f"{bystander.pid}\n")
    assert start(arguments=arguments).process.returncode == 0
    assert bystander.wait(20) == -signal.SIGTERM


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


# Nine files with verdict 0 or 1, an odd port among them: the daemon connects with each.
@pytest.mark.parametrize("template, expected", named(connects))
def test_usable_means_that_the_daemon_connects(check, make_daemon, server, template, expected):
    text, verdict = check(template)
    assert verdict == expected
    make_daemon().start(text)
    server.wait_for_connections(1)


# Twelve files, such as no port, no path, "#" or a blank first, wss first: verdict 2, status 0.
@pytest.mark.parametrize("template", named(ends_at_once))
def test_not_usable_means_that_the_daemon_ends_at_once(check, start, template):
    text, verdict = check(template)
    assert verdict == 2
    assert start(config=text).process.returncode == 0


# Five files with verdict 2: the daemon tries twice and reaches no server.
@pytest.mark.parametrize("template", named(never_connects))
def test_not_usable_means_that_the_daemon_tries_in_vain(check, make_daemon, server, template):
    text, verdict = check(delays + "log_level=8\n" + template)
    assert verdict == 2
    daemon = make_daemon().start(text)
    daemon.wait_for_lines("Try to establish connect", count=2)
    time.sleep(0.2)
    assert daemon.runs() and server.handshakes == []
