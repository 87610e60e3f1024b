"""A server that answers the opening request as a web server does, and not with a WebSocket."""

# Test: 31 s

from harness import library_texts
from harness.handshake_faults import answers, refused_course
from harness.keepalive import ending_clock
from harness.library_texts import bad_response
from harness.raw_server import finish, http_head, upgrade

statuses = [b"200 OK", b"401 Unauthorized", b"403 Forbidden", b"404 Not Found",
            b"503 Service Unavailable"]
page = b"<html><body>no</body></html>\n"


def answer(status, *fields, body=b"", end=None):
    return answers(http_head([b"HTTP/1.1 " + status, *fields]) + body, end)


def answers_of(status):
    """Without a body, with one, with lengths that lie, in chunks, and up to the end."""
    challenge = [b'WWW-Authenticate: Basic realm="roam"'] if status.startswith(b"401") else []
    length = b"Content-Length: %d"
    chunks = b"%x\r\n%s\r\n0\r\n\r\n" % (len(page), page)
    return [answer(status, *challenge, length % 0),
            answer(status, *challenge, length % len(page), body=page),
            answer(status, *challenge, length % (len(page) + 1000), body=page),
            answer(status, *challenge, length % 5, body=page),
            answer(status, *challenge, b"Transfer-Encoding: chunked", body=chunks),
            answer(status, *challenge, b"Connection: close", body=page, end=finish)]


# Fault, before the connection: an HTTP answer 200, 401, 403, 404 or 503, without a body, with one,
# with a length that is too large or too small, in chunks, and with one that ends the connection.
# Seen: each attempt is logged "websock-roaming->process_client_connection_error:41" and the
# library's "got bad HTTP response '403'"; the bus hears "disconnected" only, and the next attempt
# follows; it connects when the server answers as it should.
def test_other_answer_than_an_upgrade_is_tried_again(make_trial):
    trial = make_trial([fault for status in statuses for fault in answers_of(status)])
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * len(endured.courses)
    expected = [f"2: {bad_response(status[:3].decode())}"
                for status in statuses for _ in answers_of(status)]
    assert [[line[:len(words)] for line in lines if "HTTP response" in line]
            for lines, words in zip(endured.library_lines, expected)] == \
        [[words] if library_texts.says_bad_responses else [] for words in expected]
    trial.heal()


# Fault, before the connection: a redirect 301, 302, 303, 307 or 308 to a server that would accept,
# over "http", "ws", "https" or "wss", to another path, to nowhere, and to a place that is no
# address.
# Seen: each attempt is logged "websock-roaming->process_client_connection_error:41"; the server
# named in the configuration, and no other, is asked for the configured path again; the bus hears
# "disconnected" only. Before 3.0 the library forgets an attempt that leads to no address, and the
# daemon gives it up after 70 s; a 2.4 without TLS may not survive a redirect over "https" or "wss".
def test_redirect_is_not_followed(make_trial, make_raw_server):
    """The library followed redirects to wherever they pointed.

    One to a host that begins with "+", which to the library means a local socket, crashed it.
    """
    elsewhere = make_raw_server(upgrade)
    place = b"127.0.0.1:%d/elsewhere" % elsewhere.port
    nowhere = [b"/elsewhere", b"", b"http://", b"http://+@socket:/elsewhere",
               b"http://no-such-host.invalid/", b"\xff\xfe://:::/", b"http://[::1", b"x" * 3000]
    secure = [b"https", b"wss"] if library_texts.survives_tls_redirects else []
    locations = [*(scheme + b"://" + place for scheme in (b"http", b"ws", *secure)),
                 *(nowhere if library_texts.survives_sanitizer else [])]
    moved = [answer(b"301 Moved Permanently", b"Location: " + location, b"Content-Length: 0")
             for location in locations]
    moved.append(answer(b"301 Moved Permanently", b"Content-Length: 0"))
    others = [answer(status + b" Moved", b"Location: http://" + place, body=page, end=finish)
              for status in (b"302", b"303", b"307", b"308")]
    trial = make_trial(moved + others, **ending_clock())
    endured = trial.endure()
    assert endured.courses == [refused_course(endured.server.port)] * len(endured.courses)
    assert elsewhere.connections == []
    assert {request.split(b"\r\n")[0] for request in endured.server.requests} == \
        {b"GET /roam HTTP/1.1"}
    trial.heal()
