"""Waiting for what another process does, with a limit and a message that says what was missing."""

import os
import time

# Emulators and valgrind slow everything down: positive waits get more time under them.
slowdown = int(os.environ.get("VEMK_SLOWDOWN", "8" if os.environ.get("VEMK_RUNNER") else "1"))


def wait_until(condition, what, seconds=30.0, details=None):
    """Polls `condition` until it returns something true, and returns that.

    Raises AssertionError naming `what`, and what `details()` returns, when the time is over.
    """
    deadline = time.monotonic() + seconds * slowdown
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            break
        time.sleep(0.02)
    text = f"not seen within {seconds * slowdown:g} s: {what}"
    raise AssertionError(f"{text}; {details()}" if details else text)


def shortened(messages, limit=60):
    """A list of byte strings as a failure message shows it."""
    return [m if len(m) <= limit else m[:limit] + b"... %d bytes" % len(m) for m in messages]
