"""What the log looks like at each mask."""

# Test: 5 s

import re

import pytest

from harness.healing import stray_lines
from harness.library_texts import library_prefix

modules = {"vemk-main", "websock-cfg", "ipc-worker", "websock-worker", "buffer-info", "timers"}


def exchange(rig):
    rig.bus.send(b"100%% of 5 %n %s")
    rig.server.wait_for_payloads(1)
    rig.server.send("down 3 %n")
    rig.bus.wait_for_payloads(1)


# Each line is time, process ID and one of the six modules, or the rest of a dump.
def test_every_line_begins_with_time_process_and_module(make_rig):
    rig = make_rig(log_level=15)
    exchange(rig)
    lines = rig.daemon.log_lines()
    assert {line.pid for line in lines} == {rig.daemon.pid}
    assert {line.module for line in lines} <= modules
    assert stray_lines(rig.daemon) == []


# At mask 8 the ten fixed lines come in their order, and both dumps with their "%" unharmed.
def test_debug_lines_tell_the_course_of_a_message(make_rig):
    rig = make_rig(log_level=8)
    exchange(rig)
    texts = [line.text for line in rig.daemon.log_lines() if line.module == "websock-worker"]
    own = [text for text in texts if not text.startswith(library_prefix)]
    expected = [
        "Generate delay into [0;1) range",
        "Delay before connection: 0 sec",
        "websock-roaming-> _connect: Try to establish connect with server "
        f"127.0.0.1:{rig.server.port}/roam",
        "websock-roaming->Connected",
        "websock-roaming->process_client_established:58",
        "Connection established - reset connection delay",
        # A late listener has asked for what it did not hear.
        *["websock-roaming->From queue"] * (rig.bus.asked + 1),
        "websock-roaming->process_client_receive:87",
        "websock-roaming->process_client_receive: Recieve final msg len 9 from websocket",
        "websock-roaming->Send to Queue",
    ]
    assert [text for text in own if text in expected] == expected
    dumps = re.findall(r"buffer-info> Buffer info dump:\n((?:\t.*\n)*)", rig.daemon.log_text())
    dumps = dumps[rig.bus.asked:]
    # A pair of percent signs comes out as one; any other stands for itself.
    assert dumps[0].endswith("    100% of 5 %n %s\n")
    assert dumps[0].startswith("\t31 30 30 25 25 20 6F 66 20 35 20 25 6E 20 25 73 ")
    assert dumps[1].endswith("    down 3 %n\n")


# At mask 4 or 0x04 the log is the one line "lws_send:Send msg type [0] len [16/16]  to websocket".
@pytest.mark.parametrize("log_level", [4, "0x04"])
def test_info_lines_tell_what_was_sent(make_rig, log_level):
    rig = make_rig(log_level=log_level)
    exchange(rig)
    rig.daemon.wait_for_lines("Send msg")
    assert [(line.module, line.text) for line in rig.daemon.log_lines()] == [
        ("websock-worker",
         "websock-roaming->lws_send:Send msg type [0] len [16/16]  to websocket")]


# At masks 0, 1 and 2 an exchange leaves log and output empty.
@pytest.mark.parametrize("log_level", [0, 1, 2])
def test_no_lines_when_there_is_nothing_of_the_category(make_rig, log_level):
    rig = make_rig(log_level=log_level)
    exchange(rig)
    assert rig.daemon.log_text() == ""
    assert rig.daemon.output() == ""
