#!/usr/bin/python3
"""Runs the daemon under random faults with both directions loaded, and judges what arrives.

Environment: VEMK_BUILD_DIR and VEMK_COMPANION_DIR as for the system tests, VEMK_SLOWDOWN a factor
for every limit.
"""

import argparse
import os
import pathlib
import random
import signal
import sys
import threading
import traceback

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

from report import print_report  # noqa: E402
from side_runs import side_runs  # noqa: E402
from soak_run import soak_run  # noqa: E402


def main():
    options = read_options()
    build_folder = folder_of("VEMK_BUILD_DIR", "build")
    companion_folder = folder_of("VEMK_COMPANION_DIR", build_folder)
    print(f"soak: seed {options.seed}, {options.minutes:g} minutes", flush=True)
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    # A terminal's Ctrl-C goes to every program in its foreground, and the daemon is not to end by
    # it. So all of them are started out of the terminal's sight, by a process that is told.
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT})
    process_id = os.fork()
    if process_id == 0:
        os.setpgid(0, 0)
        return run_soak(options, build_folder, companion_folder)
    signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGINT})
    while True:
        try:
            _, status = os.waitpid(process_id, 0)
            return abs(os.waitstatus_to_exitcode(status))
        except KeyboardInterrupt:
            os.kill(process_id, signal.SIGINT)


def run_soak(options, build_folder, companion_folder):
    parent = os.getppid()
    run = soak_run(build_folder, companion_folder, options.seed, options.minutes * 60)
    beside = side_runs(build_folder, companion_folder, options.minutes, options.seed,
                       run.rig.interrupt)
    threading.excepthook = lambda failed: fail(run, failed)
    finished = threading.Event()
    threading.Thread(target=work, args=(run, beside, finished)).start()
    signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGINT})
    while not finished.is_set():
        try:
            if not finished.wait(1) and os.getppid() != parent:
                raise KeyboardInterrupt
        except KeyboardInterrupt:
            run.rig.interrupt.set()
    return print_report(run, beside, options)


def work(run, beside, finished):
    try:
        try:
            beside.start()
            run.run()
            if run.rig.violations:
                run.rig.interrupt.set()
            beside.wait()
        finally:
            run.close()
    except Exception as error:  # in the closing, too, nothing may go wrong
        traceback.print_exc()
        run.rig.violations.append(repr(error))
    finally:
        finished.set()


def fail(run, failed):
    """An exception in any thread: what it was to judge is not judged any more."""
    traceback.print_exception(failed.exc_value)
    run.rig.violate(f"{failed.thread.name}: {failed.exc_value!r}")


def read_options():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--minutes", type=float, default=30, help="how long (default 30)")
    parser.add_argument("--seed", type=int, help="the order of the faults (default: random)")
    options = parser.parse_args()
    if not 0 < options.minutes < 7 * 24 * 60:
        parser.error("--minutes takes a number above 0")
    if options.seed is None:
        options.seed = random.SystemRandom().randrange(1, 1000000)
    return options


def folder_of(variable, default):
    folder = pathlib.Path(os.environ.get(variable) or default).absolute()
    if not (folder / "vemk").exists() and variable == "VEMK_BUILD_DIR":
        sys.exit(f"soak: {folder} holds no vemk: build it, or name its folder in {variable}")
    return folder


if __name__ == "__main__":
    sys.exit(main())
