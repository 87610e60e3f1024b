"""A message of 1 MiB from the server: at one piece of 4096 bytes in 100 ms it takes 26 s."""

# Test: 55 s

import pytest


# 1 MiB from the server reaches the bus whole, in pieces of 4096 bytes, with the log on or off.
@pytest.mark.parametrize("log_level", [0, 15])
def test_one_mebibyte_arrives_unchanged(make_rig, log_level):
    daemon, bus, server = make_rig(log_level=log_level)
    text = "".join(f"{i:07d}\n" for i in range((1 << 20) // 8))
    server.send_many([text, "next"])
    assert bus.wait_for_payloads(2, seconds=90) == [text.encode(), b"next"]
    assert bus.statuses()[-1] == "connected"
