"""A headless Chromium, a console, and the fixtures of the system tests: daemon, bus, sandbox.

VEMK_PICTURES names a folder for the screenshots; without it they are not kept.
"""
import os
import pathlib
import subprocess
import sys
import tempfile

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service as DriverService

sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / "system"))

from harness.bus_peer import bus_peer  # noqa: E402
from harness.sandbox import sandbox  # noqa: E402
from harness.vemk_daemon import vemk_daemon  # noqa: E402

BUILD = pathlib.Path(os.environ.get("VEMK_BUILD_DIR") or "build").absolute()
# The test page is on loopback; whatever else a browser looks for at its start is not wanted.
FLAGS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--hide-scrollbars", "--window-size=1280,1000"]


class Console:
    def __init__(self):
        self.process = subprocess.Popen([BUILD / "roam-service", "--port", "0", "--console"],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, text=True)
        self.url, self.page = (self.process.stdout.readline().split()[-1] for _ in range(2))

    def stop(self):
        self.process.terminate()
        self.process.wait(10)
        self.process.stdout.close()


@pytest.fixture
def console():
    running = Console()
    yield running
    running.stop()


@pytest.fixture(scope="session")
def browser():
    with tempfile.TemporaryDirectory(prefix="vemk-browser-", ignore_cleanup_errors=True) as profile:
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for flag in [*FLAGS, f"--user-data-dir={profile}"]:
            options.add_argument(flag)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        driver = webdriver.Chrome(service=DriverService("/usr/bin/chromedriver"), options=options)
        driver.set_page_load_timeout(20)
        yield driver
        driver.quit()


@pytest.fixture
def place():
    made = sandbox(BUILD, BUILD)
    yield made
    made.remove()


@pytest.fixture
def bus(place):
    made = bus_peer(place)
    yield made
    made.stop()


@pytest.fixture
def daemon(place):
    made = vemk_daemon(place, "daemon")
    yield made
    made.stop()


@pytest.fixture
def picture():
    folder = os.environ.get("VEMK_PICTURES")

    def take(browser, name):
        if folder:
            pathlib.Path(folder).mkdir(parents=True, exist_ok=True)
            browser.save_screenshot(str(pathlib.Path(folder) / f"{name}.png"))
    return take
