"""Who may come in with which token, over HTTP and as a session: part of security_test.py."""

import json
import os
import socket
import time

from gateway_kit import Client, Closed, http
from security_kit import ALL, INSTRUMENT, SOME, bearer, cases, check_headers


def tokens_over_http(port, wrap=None):
    group = "tokens over HTTP" + (" with TLS" if wrap else "")
    pages = {"/": "none", "/-/healthy": "none", "/-/ready": "none", "/metrics": "operations",
             "/api/v1/status": "operations", "/api/v1/sessions": "operations", "/api/v1/subscriptions": "operations",
             f"/api/v1/explain?instrument={INSTRUMENT}": "operations", "/api/v1/instruments": "market"}
    wrong = ["wrong", "", ALL[:-1], ALL + "x", ALL.upper(), " " + ALL, "x" * 5000, "\xff\xfe", ALL + "\t" + ALL]
    for path, right in pages.items():
        for token in (None, ALL, SOME):
            expected = 200
            if right != "none" and token is None:
                expected = 401
            elif right == "operations" and token == SOME:
                expected = 403
            answer = http(port, "GET", path, bearer(token), wrap=wrap)
            cases.equal(group, f"{path} with {'no token' if token is None else token[:3]}", answer.status, expected)
            check_headers(group, path, answer)
    for token in wrong:
        answer = http(port, "GET", "/metrics", bearer(token), wrap=wrap)
        cases.equal(group, f"wrong: {token[:40]!r}", answer.status, 401)
        cases.check(group, f"wrong: {token[:40]!r}: says how", "bearer" in answer.headers.get("www-authenticate", "").lower())
        cases.check(group, f"wrong: {token[:40]!r}: not repeated", len(token) < 6 or token.encode("latin-1") not in answer.data)
    for value, status in ((f"bearer {ALL}", 200), (f"BEARER {ALL}", 200), (f"Basic {ALL}", 401), (ALL, 401),
                          ("Bearer", 401), (f"Bearer:{ALL}", 401), (f"Token {ALL}", 401)):
        answer = http(port, "GET", "/metrics", [("Authorization", value)], wrap=wrap)
        cases.equal(group, f"Authorization: {value[:20]}", answer.status, status)
    for path in (f"/metrics?token={ALL}", f"/metrics?access_token={ALL}", f"/api/v1/status?authorization=Bearer%20{ALL}"):
        cases.equal(group, "a token in the address does not count: " + path.split("?")[0],
                    http(port, "GET", path, wrap=wrap).status, 401)
    for header in ("Cookie", "X-Token", "Proxy-Authorization", "Sec-WebSocket-Protocol"):
        cases.equal(group, f"a token in {header} does not count",
                    http(port, "GET", "/metrics", [(header, ALL)], wrap=wrap).status, 401)


def session_end(client):
    try:
        while True:
            client.receive()
    except Closed as closed:
        return closed.code
    except socket.timeout:
        return "open"
    except ConnectionResetError:
        return None


def tokens_of_sessions(port):
    group = "tokens of sessions"
    client = Client(port, headers=bearer(ALL))
    hello = client.receive()
    cases.equal(group, "by header: authenticated", hello["authenticated"], True)
    cases.equal(group, "by header: rights", hello["rights"], {"markets": ["*"], "operations": True})
    client.close()
    client = Client(port)
    hello = client.receive()
    cases.equal(group, "none: not authenticated", hello["authenticated"], False)
    cases.equal(group, "none: no rights", hello["rights"], {"markets": [], "operations": False})
    for request in ({"type": "subscribe", "request": "s", "instrument": INSTRUMENT}, {"type": "ping", "request": "s"},
                    {"type": "change", "request": "s", "subscription": "x"},
                    {"type": "unsubscribe", "request": "s", "subscription": "x"}):
        client.send(request)
        answer = client.receive()
        cases.equal(group, f"before the token: {request.get('type')}", (answer["type"], answer.get("code")),
                    ("error", "unauthenticated"))
        cases.equal(group, f"before the token: {request.get('type')}: whose", answer["request"], request.get("request"))
    for request, code in (({"type": "nonsense"}, "bad_type"), ({}, "bad_member"), ({"type": "authenticate"}, "bad_member"),
                          ({"type": "authenticate", "token": 5}, "bad_value"),
                          ({"type": "authenticate", "token": ALL, "request": "x"}, "bad_member")):
        client.send(request)
        cases.equal(group, f"no request at all: {request}", client.receive()["code"], code)
    client.send({"type": "authenticate", "token": SOME})
    answer = client.receive()
    cases.equal(group, "by message", (answer["type"], answer["rights"]),
                ("authenticated", {"markets": ["OTHER"], "operations": False}))
    client.send({"type": "subscribe", "request": "s", "instrument": INSTRUMENT})
    cases.equal(group, "a market that it does not open", client.receive()["code"], "forbidden")
    client.send({"type": "authenticate", "token": ALL})
    cases.equal(group, "a second token is an error", client.receive()["type"], "error")
    client.send({"type": "subscribe", "request": "s", "instrument": INSTRUMENT})
    cases.equal(group, "and opens nothing", client.receive()["code"], "forbidden")
    client.close()
    for token in ("wrong", ALL[:-1], ALL + " ", "x" * 4096):
        client = Client(port)
        client.send({"type": "authenticate", "token": token})
        cases.equal(group, f"wrong: {token[:20]!r}", session_end(client), 1008)
        client.close()
    client = Client(port)
    client.receive()
    client.send({"type": "authenticate", "token": "x" * 5000})
    cases.equal(group, "too long a token is an error", client.receive()["code"], "bad_value")
    client.close()
    client = Client(port, path=f"/ws?token={ALL}")
    cases.equal(group, "in the address: not authenticated", client.receive()["authenticated"], False)
    client.close()
    client = Client(port)
    began = time.monotonic()
    cases.equal(group, "none in time", session_end(client), 1008)
    cases.check(group, "none in time: after five seconds", 4.5 < time.monotonic() - began < 7,
                f"{time.monotonic() - began:.1f} s")
    client.close()
    listed = json.loads(http(port, "GET", "/api/v1/instruments", bearer(SOME)).body)
    cases.equal(group, "instruments of markets that the token does not open are not listed", listed["total"], 0)
    listed = json.loads(http(port, "GET", "/api/v1/instruments", bearer(ALL)).body)
    cases.check(group, "those that it opens are", listed["total"] > 0)


def token_files(folder):
    for name, token in (("all", ALL), ("some", SOME)):
        with open(os.path.join(folder, name), "w", encoding="ascii") as file:
            file.write(token + "\n")
    return (f'<Token name="all" file="{folder}/all"/>'
            f'<Token name="some" file="{folder}/some" markets="OTHER" operations="no"/>')
