"""The soak's own modules and the system tests' harness, for the tests here."""

import pathlib
import sys

here = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(here), str(here.parent / "system")]
