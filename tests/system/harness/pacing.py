"""How the daemon's workers wait, which VEMK_PACING in the environment sets for every test."""

import os

import pytest

is_event = os.environ.get("VEMK_PACING") == "event"


def steps_only(reason):
    """For a test of the pauses between steps."""
    return pytest.mark.skipif(is_event, reason=reason)
