"""The system tests' harness and those of their fixtures that the tests here use."""

import importlib.util
import pathlib
import sys

system_tests = pathlib.Path(__file__).resolve().parent.parent / "system"
sys.path.insert(0, str(system_tests))

# Under a name of its own, because this file is "conftest" here.
spec = importlib.util.spec_from_file_location("system_conftest", system_tests / "conftest.py")
system_conftest = importlib.util.module_from_spec(spec)
spec.loader.exec_module(system_conftest)

build_folder = system_conftest.build_folder
companion_folder = system_conftest.companion_folder
place = system_conftest.place
make_daemon = system_conftest.make_daemon
bus = system_conftest.bus
start_rig = system_conftest.start_rig
make_asked_rig = system_conftest.make_asked_rig
