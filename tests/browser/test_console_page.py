"""The console in a browser, with a real daemon between its service and the bus."""
import pytest
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from harness.vemk_daemon import config_text
from harness.waiting import wait_until

MARKUP = "<img src=x onerror=\"document.title='taken'\"><b>bold</b>"


def find(browser, name):
    return browser.find_element(By.ID, name)


def wait_for_text(browser, name, text, seconds=20):
    wait_until(lambda: text in find(browser, name).text, f"'{text}' in {name}", seconds,
               lambda: find(browser, name).text)


@pytest.fixture
def rig(browser, console, daemon, bus):
    bus.listen()
    daemon.start(config_text(console.url))
    bus.wait_until_connected()
    browser.get(console.page)
    wait_for_text(browser, "daemon-count", "1")
    yield
    complaints = [line["message"] for line in browser.get_log("browser")
                  if line["level"] == "SEVERE"]
    assert complaints == []


# Ctrl-Enter sends the text, and "sent to 1 daemon" is shown.
def test_a_message_from_the_bus_is_shown_and_one_that_is_typed_arrives_there(browser, rig, bus):
    bus.send(b"hello from the bus")
    wait_for_text(browser, "frames", "hello from the bus")
    find(browser, "send-text").send_keys("hello from the page", Keys.CONTROL, Keys.ENTER)
    assert bus.wait_for_payloads(1) == [b"hello from the page"]
    wait_for_text(browser, "answer", "sent to 1 daemon")


# A script in an image's tag is shown as text with \x01 and U+FFFD, and does not run.
def test_markup_in_a_message_stays_text(browser, rig, bus):
    bus.send(MARKUP.encode() + b"\x01\xff")
    wait_for_text(browser, "frames", MARKUP + "\\x01\ufffd")
    browser.find_element(By.CSS_SELECTOR, "#frames li.text summary").click()
    wait_for_text(browser, "frames", "0000  3c 69 6d 67")
    assert browser.find_elements(By.CSS_SELECTOR, "#frames img, #frames b") == []
    assert browser.title == "roam-service"


# The reset button brings two "disconnected", "connected" and a new row in the table.
def test_a_reset_makes_the_daemon_connect_again(browser, rig, bus):
    before = len(bus.statuses())
    number = [browser.find_element(By.CSS_SELECTOR, "#daemons td").text]
    find(browser, "reset-form").find_element(By.TAG_NAME, "button").click()
    bus.wait_for_last_status("connected", after=before + 2)
    first_cells = "return [...document.querySelectorAll('#daemons tr td:first-child')]" \
                  ".map((cell) => cell.textContent)"
    wait_until(lambda: browser.execute_script(first_cells) not in ([], number),
               "another connection in the table")


# A frame that came while paused is counted as waiting and shown afterwards.
def test_pause_holds_frames_back(browser, rig, bus):
    find(browser, "pause").click()
    bus.send(b"while paused")
    wait_for_text(browser, "frames-note", "waiting")
    assert "while paused" not in find(browser, "frames").text
    find(browser, "pause").click()
    wait_for_text(browser, "frames", "while paused")


# 40 tabs reach all 13 controls; a number and a switch are set on the way.
def test_the_keyboard_alone_reaches_and_works_every_control(browser, rig, bus):
    browser.execute_script("document.activeElement.blur()")
    wanted = {"send-to", "send-text", "no-pongs", "stop-reading", "fragments", "delay", "fault-to",
              "close-code", "away-seconds", "hide-pings", "pause", "clear", "frames"}
    reached = set()
    for _ in range(40):
        browser.switch_to.active_element.send_keys(Keys.TAB)
        focused = browser.switch_to.active_element
        if focused.get_attribute("id") in reached:
            continue
        reached.add(focused.get_attribute("id"))
        if focused.get_attribute("id") == "fragments":
            focused.send_keys(Keys.CONTROL, "a")
            focused.send_keys("3")
        elif focused.get_attribute("id") == "no-pongs":
            focused.send_keys(Keys.SPACE)
    assert wanted <= reached
    wait_for_text(browser, "answer", "the switches are set")
    wait_until(lambda: find(browser, "no-pongs").is_selected(), "the switch set")
    assert find(browser, "fragments").get_attribute("value") == "3"


# At 1280 and 360 pixels nothing is wider than the page; light and dark have their colours.
@pytest.mark.parametrize("name, width, scheme", [
    ("console", 1280, "light"), ("console-dark", 1280, "dark"), ("console-phone", 360, "light")])
def test_nothing_sticks_out(browser, rig, bus, picture, name, width, scheme):
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
        "features": [{"name": "prefers-color-scheme", "value": scheme}]})
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": 1180 if width > 900 else 1900, "deviceScaleFactor": 1,
        "mobile": width < 900})
    for text in (b'{"cmd":"report","clients":12}', MARKUP.encode(), b"two\nlines\x01"):
        bus.send(text)
    find(browser, "send-text").send_keys('{"cmd": "steer"}', Keys.CONTROL, Keys.ENTER)
    wait_until(lambda: len(browser.find_elements(By.CSS_SELECTOR, "#frames li")) >= 4, "4 frames")
    try:
        assert browser.execute_script("return document.documentElement.scrollWidth") <= width
        background = browser.execute_script("return getComputedStyle(document.body).backgroundColor")
        assert background == ("rgb(17, 21, 27)" if scheme == "dark" else "rgb(245, 246, 248)")
        browser.execute_script("document.activeElement.blur(); scrollTo(0, 0)")
        picture(browser, name)
    finally:
        browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
        browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})
