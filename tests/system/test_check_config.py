"""What vemkctl check-config says of a file is what the daemon then does with it."""

# Test: 10 s

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
    ("blanks_around_the_sign", "roam_service_url = ws://127.0.0.1:{port}/\n"),
    ("tls", "roam_service_url=wss://127.0.0.1:{port}/\nroam_service_url=127.0.0.1:{port}/\n"),
    ("nul_before_the_key", "\0roam_service_url=ws://127.0.0.1:{port}/\n"),
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


# Nine files with verdict 0 or 1, an odd port among them: the daemon connects with each.
@pytest.mark.parametrize("template, expected", named(connects))
def test_usable_means_that_the_daemon_connects(check, make_daemon, server, template, expected):
    text, verdict = check(template)
    assert verdict == expected
    make_daemon().start(text)
    server.wait_for_connections(1)


# Six files with verdict 2 that give no service: the daemon ends with status 0.
@pytest.mark.parametrize("template", named(ends_at_once))
def test_not_usable_means_that_the_daemon_ends_at_once(check, make_daemon, server, template):
    text, verdict = check(template)
    assert verdict == 2
    daemon = make_daemon().start(text)
    assert daemon.wait_for_exit() == 0
    assert server.handshakes == []


# Five files with verdict 2: the daemon tries twice and reaches no server.
@pytest.mark.parametrize("template", named(never_connects))
def test_not_usable_means_that_the_daemon_tries_in_vain(check, make_daemon, server, template):
    text, verdict = check(delays + "log_level=8\n" + template)
    assert verdict == 2
    daemon = make_daemon().start(text)
    daemon.wait_for_lines("Try to establish connect", count=2)
    time.sleep(0.2)
    assert daemon.runs() and server.handshakes == []
