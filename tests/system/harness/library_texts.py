"""The WebSocket library's own lines in the daemon's log, by release.

VEMK_LWS_VERSION names the release under test; without it, it is the one that Debian installs.
"""

import os
import re

library_prefix = "portal->libwebsocket-debug> "
installed_release = "4.1.6"

# From 4.2 on the library writes the time, the level and the connection in front of its words.
decoration = re.compile(r"^(\d+: )\[\d{4}/\d\d/\d\d [\d:]+\] [A-Z]+: (?:\[[^]]*\]: )?")


def release():
    version = os.environ.get("VEMK_LWS_VERSION") or installed_release
    return tuple(int(part) for part in version.split("-")[0].split("."))


def words_of(text):
    """What the library says in the text of a log line: its level and its words."""
    return decoration.sub(r"\1", text[len(library_prefix):])


def library_lines(daemon):
    return [words_of(line.text) for line in daemon.log_lines()
            if line.text.startswith(library_prefix)]


def frame_warning(words):
    """Of a frame that breaks the protocol, with the library's level."""
    return f"2: lws_ws_client_rx_sm: {words}" if release() >= (4, 2) else f"2: {words}"


def bad_response(status):
    """Of a server that answers with this HTTP status."""
    function = "lws_client_ws_upgrade" if release() >= (4, 2) else "lws_client_handshake"
    return f"{function}: got bad HTTP response '{status}'"
