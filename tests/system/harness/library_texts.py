"""The WebSocket library's own lines in the daemon's log and its own conduct, by release.

VEMK_LWS_VERSION names the release under test, with "-bare" behind it when extensions are left out
of it; without it, it is the one that Debian installs.
"""

import os
import re

library_prefix = "portal->libwebsocket-debug> "
installed_release = "4.1.6"

number, _, kind = (os.environ.get("VEMK_LWS_VERSION") or installed_release).partition("-")
release = tuple(int(part) for part in number.split("."))

# ---- what it does ----

# It knows only "Connection: Upgrade" alone, HTTP/1.1, and lines that end in CR LF.
accepts_connection_list = release >= (3, 0)
accepts_http_1_0 = release >= (4, 0)
accepts_bare_line_ends = release >= (4, 1)
# It skips the line with an extension, and lines that it does not know.
ignores_extensions = kind == "bare"
ignores_unknown_lines = release < (3, 0)
# A failed handshake is reported twice.
reports_errors_twice = release < (2, 4)
# Garbage in place of an answer ends the attempt after 20 s, without a word.
keeps_garbage = release < (3, 0)
# It says why a handshake failed, unless that is left out, too; which status a server answered with.
says_handshake_errors = kind != "bare"
says_bad_responses = release >= (2, 4)
# A redirect to a place without an address is never reported; one to TLS corrupts the memory.
forgets_redirects = release < (3, 0)
survives_tls_redirects = not (2, 4) <= release < (3, 0)
# Of the attempt that it forgets it reads freed memory, at which a sanitizer ends the daemon.
survives_sanitizer = not (forgets_redirects and os.environ.get("VEMK_SLOWDOWN"))
# A name is looked up twice between two checks of the clock; the attempt is under way before it.
look_ups = 1 if release >= (3, 0) else 2
looks_up_late = release >= (4, 2)
# The longest host name that it can ask for; the daemon's configuration takes 225 bytes.
longest_host = 110 if (3, 0) <= release < (4, 2) else 225
# When one address is silent the same attempt goes on to the next.
tries_next_address = (4, 1) <= release < (4, 2)
# It closes a connection whose source address is gone.
watches_addresses = release >= (4, 2)
# Its own end of a connection or of an attempt may take 20 s, or the time of a forgotten attempt.
ends_slowly = release < (3, 0)
# A masked frame has other bytes, swallows what follows, or ends the connection with code 1002.
masked_frames = "swallow" if release < (3, 0) else "garble" if release < (4, 3) else "refuse"
knows_close_code_1012 = release >= (4, 2)
# What waited to be sent keeps its memory until the connection ends.
keeps_send_buffer = release < (3, 0)
# A pong without payload is not reported, so that the daemon's pings have a byte.
ping_payload = b"\0" if (2, 4) <= release <= (3, 0, 0) else b""

# ---- what it says ----

# What the worker's own lines say of an attempt without a route.
no_route_lines = [*(["websock-roaming->process_client_connection_error:41"]
                    if release < (4, 0) else []),
                  *(["websock-roaming->process_protocol_destroy:31"] if release >= (2, 4) else [])]

# From 4.2 on the library writes the time, the level and the connection in front of its words.
decoration = re.compile(r"^(\d+: )\[\d{4}/\d\d/\d\d [\d:]+\] [A-Z]+: (?:\[[^]]*\]: )?")


def words_of(text):
    """What the library says in the text of a log line: its level and its words."""
    return decoration.sub(r"\1", text[len(library_prefix):])


def library_lines(daemon):
    return [words_of(line.text) for line in daemon.log_lines()
            if line.text.startswith(library_prefix)]


def frame_warning(words):
    """Of a frame that breaks the protocol, with the library's level."""
    return f"2: lws_ws_client_rx_sm: {words}" if release >= (4, 3) else f"2: {words}"


def bad_response(status):
    """Of a server that answers with this HTTP status: the line, or its beginning."""
    if not says_bad_responses:
        return "process_client_connection_error:41"
    function = "lws_client_ws_upgrade" if release >= (4, 3) else "lws_client_handshake"
    with_reason = release < (3, 0)
    return f"{function}: got bad HTTP response '{status}" + ("" if with_reason else "'")
