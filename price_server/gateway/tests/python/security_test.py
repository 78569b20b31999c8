"""Who may come in, and what a hostile client can do: case by case against the running server."""

import itertools
import json
import os
import socket
import ssl
import subprocess
import sys
import time

from gateway_kit import Client, Closed, Server, exchange, http, parse_arguments, read_answer
from security_kit import ALL, INSTRUMENT, SOME, bearer, cases, check_headers, upgrade
from security_tokens import session_end, token_files, tokens_of_sessions, tokens_over_http


def paths_without_token(port):
    group = "open server: paths and methods"
    for method, (path, status) in itertools.product(
            ("GET", "HEAD"), (("/", 200), ("/-/healthy", 200), ("/-/ready", 200), ("/metrics", 200),
                              ("/api/v1/status", 200), ("/api/v1/instruments", 200), ("/api/v1/subscriptions", 200),
                              ("/api/v1/sessions", 200), (f"/api/v1/explain?instrument={INSTRUMENT}", 200),
                              ("/api/v1/explain", 400), ("/api/v1/explain?instrument=NO:ONE", 404),
                              ("/api/v1/", 404), ("/api/v2/status", 404), ("/nothing", 404), ("/ws", 426))):
        answer = http(port, method, path)
        cases.equal(group, f"{method} {path}", answer.status, status)
        check_headers(group, f"{method} {path}", answer)
        if method == "HEAD":
            cases.equal(group, f"HEAD {path} has no body", answer.body, b"")
    for method in ("POST", "PUT", "DELETE", "PATCH", "OPTIONS", "TRACE", "CONNECT", "PROPFIND"):
        for path in ("/", "/metrics", "/ws"):
            answer = http(port, method, path)
            cases.one_of(group, f"{method} {path}", answer.status, (405, 400))
            check_headers(group, f"{method} {path}", answer)
    allowed = http(port, "POST", "/").headers.get("allow")
    cases.equal(group, "405 says what is allowed", allowed, "GET, HEAD")


def targets(port):
    group = "targets and traversal"
    for path in ("/../etc/passwd", "/..%2f..%2fetc/passwd", "/%2e%2e/%2e%2e/etc/passwd", "/assets/../../etc/passwd",
                 "//etc/passwd", "/.git/config", "/./", "/..", "/...", "/%2e", "/assets/%2e%2e%2findex.html",
                 "/index.html/..", "/..\\..\\etc\\passwd", "/%5c..%5c", "/etc/passwd", "/~root", "/index.html%20",
                 "/api/v1/../../metrics"):
        answer = http(port, "GET", path)
        cases.equal(group, path, answer.status, 404)
        cases.check(group, f"{path}: nothing of a file", b"root:" not in answer.body)
    for path in ("/%", "/%4", "/%zz", "/%00", "/index.html%00.png", "/%0d%0aX: y", "/%1f", "/?a=%", "/?%ff=1",
                 "/%ff", "/%c3", "/%ed%a0%80", "/%c0%ae%c0%ae/", "/api/v1/explain?instrument=%fe", "*", "ws",
                 "http://127.0.0.1/metrics", "/\xe9"):
        answer = http(port, "GET", path)
        cases.equal(group, repr(path), answer.status, 400)
        check_headers(group, repr(path), answer)
        cases.check(group, f"{path!r}: the answer is JSON", is_json(answer.body), answer.body[:100])
    for path, status in (("/api/v1/instruments?limit=0", 200), ("/api/v1/instruments?limit=20000", 200),
                         ("/api/v1/instruments?limit=20001", 400), ("/api/v1/instruments?limit=-1", 400),
                         ("/api/v1/instruments?limit=1e3", 400), ("/api/v1/instruments?limit=99999999999999999999", 400),
                         ("/api/v1/instruments?offset=x", 400), ("/api/v1/instruments?offset=18446744073709551615", 200),
                         ("/api/v1/instruments?search=" + "a" * 5000, 200),
                         ("/api/v1/instruments?market=%27%22%3Cscript%3E", 200), ("/?" + "&" * 3000, 200)):
        answer = http(port, "GET", path)
        cases.equal(group, path[:60], answer.status, status)
    answer = http(port, "GET", "/%3Cscript%3Ealert(1)%3C/script%3E")
    cases.equal(group, "a script in a path is no page", answer.headers.get("content-type"), "application/json")


def is_json(data):
    try:
        json.loads(data.decode("utf-8"))
        return True
    except ValueError:
        return False


def hosts(port):
    group = "Host on loopback"
    for host, status in ((f"127.0.0.1:{port}", 200), ("127.0.0.1", 200), (f"localhost:{port}", 200), ("LOCALHOST", 200),
                         (f"[::1]:{port}", 200), ("evil.example", 421), (f"evil.example:{port}", 421),
                         ("localhost.evil.example", 421), ("127.0.0.1.evil.example", 421), ("", 421),
                         ("127.0.0.2", 421), ("0.0.0.0", 421), ("localhost.", 421), ("user@localhost", 421),
                         ("[::2]", 421), ("::1", 421), ("2130706433", 421)):
        answer = http(port, "GET", "/-/healthy", [("Host", host)])
        cases.equal(group, f"{host!r}", answer.status, status)
        check_headers(group, f"{host!r}", answer)
        answer = upgrade(port, headers=[("Host", host)])
        cases.equal(group, f"{host!r}, session", answer.status, 101 if status == 200 else 421)


def origins(port, own, allowed, token, wrap=None):
    group = f"origin on {own.split(':')[0]}"
    for origin, good in ((None, True), ("", True), (own, True), (own.upper(), True), (allowed, True),
                         ("null", False), ("https://evil.example", False), (own + ".evil.example", False),
                         (allowed + ".evil.example", False), (allowed + ":444", False), ("file://", False),
                         (own.replace("http", "ws"), False), (own + "/", False), (f"{own} {own}", False),
                         (f"{allowed}, {own}", False), (own[:-1], False),
                         (own.replace("https", "http") if own.startswith("https") else own.replace("http", "https"),
                          False)):
        headers = [("Origin", origin)] if origin is not None else []
        answer = upgrade(port, headers=headers + bearer(token), wrap=wrap)
        cases.equal(group, f"{origin!r}", answer.status, 101 if good else 403)
        if answer.status != 101:
            check_headers(group, f"{origin!r}", answer)
        if token is not None:
            answer = upgrade(port, headers=headers + bearer("wrong"), wrap=wrap)
            cases.equal(group, f"{origin!r} with a wrong token", answer.status, 401 if good else 403)


def bounds(port):
    group = "bounds of HTTP"
    for size in (17000, 60000, 1 << 20):
        answer = http(port, "GET", "/-/healthy", [("X-Long", "x" * size)])
        cases.equal(group, f"a header of {size} bytes", answer.status, 431)
        check_headers(group, f"a header of {size} bytes", answer)
        answer = http(port, "GET", "/" + "a" * size)
        cases.equal(group, f"an address of {size} bytes", answer.status, 431)
    cases.equal(group, "many headers", http(port, "GET", "/-/healthy", [(f"X-{i}", "y") for i in range(5000)]).status, 431)
    cases.equal(group, "a header within the bound",
                http(port, "GET", "/-/healthy", [("X-Long", "x" * 12000)]).status, 200)
    for size in (1, 100, 100000, 1 << 22):
        answer = http(port, "POST", "/", [("Content-Length", str(size))], body=b"b" * size)
        cases.equal(group, f"a body of {size} bytes: the answer arrives", answer.status, 413)
    for value in ("-1", "x", "99999999999999999999999", "1, 2"):
        cases.one_of(group, f"Content-Length {value}", http(port, "GET", "/", [("Content-Length", value)]).status,
                     (400, 413))
    for headers in ([("Content-Length", "0"), ("Transfer-Encoding", "chunked")],
                    [("Content-Length", "3"), ("Content-Length", "4")], [("Transfer-Encoding", "chunked, identity")], [("Transfer-Encoding", "identity")]):
        cases.one_of(group, f"{headers}", http(port, "GET", "/-/healthy", headers).status, (400, 413))
    began = time.monotonic()
    with socket.create_connection(("127.0.0.1", port)) as slow:
        slow.settimeout(20)
        slow.sendall(b"GET / HTTP/1.1\r\n")
        try:
            while time.monotonic() - began < 15:
                slow.sendall(b"X: y\r\n")
                slow.settimeout(0.2)
                try:
                    if slow.recv(100) == b"":
                        break
                except socket.timeout:
                    pass
        except OSError:
            pass
    cases.check(group, "a header that comes slowly is cut after five seconds", 4 < time.monotonic() - began < 8,
                f"{time.monotonic() - began:.1f} s")


def keep_alive(port):
    group = "keep-alive and pipelining"
    host = f"Host: 127.0.0.1:{port}\r\n"
    with socket.create_connection(("127.0.0.1", port)) as connection:
        for path in ("/-/healthy", "/metrics", "/nothing", "/api/v1/subscriptions", "/-/ready"):
            answer = exchange(connection, f"GET {path} HTTP/1.1\r\n{host}\r\n".encode())
            cases.equal(group, f"{path} on one connection", answer.status, 404 if path == "/nothing" else 200)
    with socket.create_connection(("127.0.0.1", port)) as connection:
        connection.settimeout(3)
        paths = ["/-/healthy", "/nothing", "/api/v1/sessions", "/-/ready", "/api/v1/explain"] * 4
        connection.sendall("".join(f"GET {path} HTTP/1.1\r\n{host}\r\n" for path in paths).encode())
        data, statuses = b"", []
        for _ in paths:
            answer = read_answer(connection, rest=data)
            length = int(answer.headers["content-length"])
            statuses.append(answer.status)
            data = answer.body[length:]
        cases.equal(group, "twenty at once, in their order", statuses, [200, 404, 200, 200, 400] * 4)
    with socket.create_connection(("127.0.0.1", port)) as connection:
        head = exchange(connection, f"HEAD /metrics HTTP/1.1\r\n{host}\r\n".encode())
        answer = exchange(connection, f"GET /-/healthy HTTP/1.1\r\n{host}\r\n".encode())
        cases.equal(group, "GET after HEAD", (head.status, answer.status, answer.body), (200, 200, b"healthy\n"))
        cases.check(group, "HEAD tells the length", int(head.headers.get("content-length", 0)) > 100)
    for version, header, stays in (("1.1", "", True), ("1.1", "Connection: close\r\n", False), ("1.0", "", False),
                                   ("1.0", "Connection: keep-alive\r\n", True)):
        with socket.create_connection(("127.0.0.1", port)) as connection:
            exchange(connection, f"GET /-/healthy HTTP/{version}\r\n{host}{header}\r\n".encode())
            connection.settimeout(1)
            try:
                is_open = connection.recv(10) != b""
            except socket.timeout:
                is_open = True
            cases.equal(group, f"HTTP/{version} {header.strip()}", is_open, stays)
    with socket.create_connection(("127.0.0.1", port)) as connection:
        exchange(connection, f"HEAD /-/healthy HTTP/1.1\r\n{host}\r\n".encode())
        answer = exchange(connection, b"nonsense\r\n\r\n")
        cases.check(group, "a broken request after HEAD has an answer with a body",
                    answer.status == 400 and is_json(answer.body), answer.data[:80])


def rate_and_messages(port):
    group = "requests of a session"
    client = Client(port)
    client.receive_type("hello")
    count = 400
    client.send(*[{"type": "ping", "request": str(i)} for i in range(count)])
    seen = [client.receive() for _ in range(count)]
    pongs = [message for message in seen if message["type"] == "pong"]
    errors = [message for message in seen if message["type"] == "error"]
    cases.check(group, "twice the rate at once", 200 <= len(pongs) <= 220, str(len(pongs)))
    cases.equal(group, "then too_many_requests", {message["code"] for message in errors}, {"too_many_requests"})
    cases.equal(group, "each says whose", [m["request"] for m in seen], [str(i) for i in range(count)])
    time.sleep(0.3)
    client.send({"type": "ping", "request": "later"})
    cases.equal(group, "and later again", client.receive()["type"], "pong")
    client.close()
    for text, code in (("{", "bad_json"), ("[]", "bad_json"), ("null", "bad_json"), ("1", "bad_json"),
                       ('"x"', "bad_json"), ("{}", "bad_member"), ('{"type":1}', "bad_value"),
                       ('{"type":"x"}', "bad_type"), ('{"type":"ping"}', "bad_member"),
                       ("[" * 5000, "bad_json"), ('{"a":' * 5000, "bad_json"), ('{"type":"ping","request":"\\ud800"}', "bad_json"),
                       ('{"type":"ping","request":"a"}{}', "bad_json"), ("{'type':'ping'}", "bad_json"),
                       ('{"type":"ping","request":"a",}', "bad_json"), ("\ufeff{}", "bad_json"),
                       ('{"type":"ping","request":NaN}', "bad_json"), ('{"' + "é" * 3000 + '":1,"type":"ping","request":"a"}', "bad_member"),
                       ('{"type":"' + "é" * 64 + '"}', "bad_type"), ('{"type":"' + "é" * 65 + '"}', "bad_value"),
                       ('{"type":"subscribe","request":"a","instrument":"' + "€" * 256 + '"}', "unknown_instrument")):
        client = Client(port)
        client.receive_type("hello")
        client.send_frame(1, text.encode())
        try:
            answer = client.receive()
        except (Closed, UnicodeDecodeError) as error:
            answer = {"code": str(error)}
        cases.equal(group, text[:40], answer.get("code"), code)
        client.close()


def limits(program):
    group = "limits that are configured"
    server = Server(program, gateway='<Gateway port="0"><Limits sessions="3" subscriptions="2" requestsPerSecond="5"/>'
                    "</Gateway>")
    try:
        clients = [Client(server.port) for _ in range(3)]
        answer = upgrade(server.port)
        cases.equal(group, "a fourth session", answer.status, 503)
        cases.check(group, "says when to come again", "retry-after" in answer.headers)
        check_headers(group, "a fourth session", answer)
        cases.equal(group, "pages are served meanwhile", http(server.port, "GET", "/-/healthy").status, 200)
        clients[0].close()
        end = time.monotonic() + 5
        while (status := upgrade(server.port).status) != 101 and time.monotonic() < end:
            time.sleep(0.05)
        cases.equal(group, "a place that has become free", status, 101)
        client = clients[1]
        client.receive_type("hello")
        for depth in (1, 2, 3):
            client.send({"type": "subscribe", "request": str(depth), "instrument": INSTRUMENT, "depth": depth})
        errors = [client.receive_type("error")]
        cases.equal(group, "a third subscription", (errors[0]["request"], errors[0]["code"]),
                    ("3", "too_many_subscriptions"))
        client.send(*[{"type": "ping", "request": "p"} for _ in range(12)])
        cases.equal(group, "the rate", client.receive_type("error")["code"], "too_many_requests")
        with socket.create_connection(("127.0.0.1", server.port)) as eager:
            eager.sendall(b"GET /-/healthy HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n" * 30)
            eager.settimeout(5)
            text = b""
            while text.count(b"HTTP/1.1") < 30:
                text += eager.recv(65536)
        cases.equal(group, "requests on one connection that come too fast", b" 429 " in text, True)
        cases.equal(group, "those before are served", b" 200 " in text, True)
        idle = [socket.create_connection(("127.0.0.1", server.port)) for _ in range(20)]
        time.sleep(0.2)
        late = http(server.port, "GET", "/-/healthy")
        cases.equal(group, "above all connections nobody is served", late.status, None)
        for connection in idle:
            connection.close()
        time.sleep(0.2)
        cases.equal(group, "and then again", http(server.port, "GET", "/-/healthy").status, 200)
        for each in clients:
            each.close()
    finally:
        cases.equal(group, "ends well", server.stop(), 0)


def drain(program):
    group = "the end of the server"
    server = Server(program)
    clients = [Client(server.port) for _ in range(5)]
    for client in clients:
        client.receive_type("hello")
        client.send({"type": "subscribe", "request": "s", "instrument": INSTRUMENT})
        client.receive_type("image")
    idle = socket.create_connection(("127.0.0.1", server.port))
    server.process.terminate()
    for i, client in enumerate(clients):
        cases.equal(group, f"session {i}", session_end(client), 1001)
        client.close()
    idle.close()
    cases.equal(group, "ends well", server.stop(), 0)


def tls(program):
    folder = os.path.dirname(os.path.abspath(program))
    server = None
    import tempfile
    with tempfile.TemporaryDirectory() as folder:
        key, certificate = os.path.join(folder, "key.pem"), os.path.join(folder, "cert.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost",
                        "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1", "-keyout", key, "-out", certificate],
                       check=True, capture_output=True)
        tokens = token_files(folder)
        server = Server(program, gateway=f'<Gateway port="0">{tokens}<Origin url="https://desk.example"/>'
                        f'<Tls certificate="{certificate}" key="{key}"/></Gateway>')
        context = ssl.create_default_context(cafile=certificate)

        def wrap(plain):
            return context.wrap_socket(plain, server_hostname="localhost")
        group = "TLS"
        try:
            port = server.port
            tokens_over_http(port, wrap)
            origins(port, f"https://127.0.0.1:{port}", "https://desk.example", ALL, wrap)
            for version, good in ((ssl.TLSVersion.TLSv1, False), (ssl.TLSVersion.TLSv1_1, False),
                                  (ssl.TLSVersion.TLSv1_2, True), (ssl.TLSVersion.TLSv1_3, True)):
                cases.equal(group, version.name, try_version(port, certificate, version), good)
            cases.equal(group, "HTTP without TLS is not answered", http(port, "GET", "/-/healthy").status, None)
            client = Client.__new__(Client)
            client.buffer, client.pending, client.status, client.response_headers = b"", [], None, {}
            client.socket = wrap(socket.create_connection(("127.0.0.1", port), timeout=5))
            client.handshake("127.0.0.1", port, "/ws", bearer(ALL), "price-server.v1")
            cases.equal(group, "a session", (client.status, client.receive()["authenticated"]), (101, True))
            client.send({"type": "subscribe", "request": "s", "instrument": INSTRUMENT})
            cases.equal(group, "prices", client.receive_type("image", "error")["type"], "image")
            client.send_frame(8, b"\x03\xe8")
            cases.equal(group, "the end", session_end(client), 1000)
            client.close()
            with wrap(socket.create_connection(("127.0.0.1", port), timeout=5)) as connection:
                first = exchange(connection, f"GET /-/healthy HTTP/1.1\r\nHost: localhost:{port}\r\n\r\n".encode())
                second = exchange(connection, f"GET /-/healthy HTTP/1.1\r\nHost: localhost:{port}\r\n"
                                  "Connection: close\r\n\r\n".encode())
                cases.equal(group, "two requests on one connection", (first.status, second.status), (200, 200))
                connection.suppress_ragged_eofs = False
                try:
                    cases.equal(group, "ends with its own close", connection.recv(10), b"")
                except ssl.SSLError as error:
                    cases.check(group, "ends with its own close", False, str(error))
            began = time.monotonic()
            with socket.create_connection(("127.0.0.1", port)) as connection:
                connection.settimeout(15)
                try:
                    connection.recv(10)
                except OSError:
                    pass
            cases.check(group, "who never begins TLS is cut after five seconds", 4 < time.monotonic() - began < 8)
        finally:
            cases.equal(group, "ends well", server.stop(), 0)


def try_version(port, certificate, version):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.load_verify_locations(certificate)
    context.set_ciphers("DEFAULT:@SECLEVEL=0")
    import warnings
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        context.minimum_version = context.maximum_version = version
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=5) as plain:
            with context.wrap_socket(plain, server_hostname="localhost"):
                return True
    except (ssl.SSLError, ConnectionResetError):
        return False


def with_tokens(program):
    import tempfile
    with tempfile.TemporaryDirectory() as folder:
        server = Server(program, gateway=f'<Gateway port="0">{token_files(folder)}<Origin url="https://desk.example"/>'
                        "</Gateway>")
        try:
            tokens_over_http(server.port)
            tokens_of_sessions(server.port)
            origins(server.port, f"http://127.0.0.1:{server.port}", "https://desk.example", ALL)
            log = "".join(server.lines)
            cases.check("tokens of sessions", "no token is in the log", ALL not in log and SOME not in log)
        finally:
            cases.equal("tokens of sessions", "ends well", server.stop(), 0)


def main():
    arguments = parse_arguments()
    server = Server(arguments.server, gateway='<Gateway port="0"><Origin url="https://desk.example"/></Gateway>')
    try:
        paths_without_token(server.port)
        targets(server.port)
        hosts(server.port)
        origins(server.port, f"http://127.0.0.1:{server.port}", "https://desk.example", None)
        bounds(server.port)
        keep_alive(server.port)
        rate_and_messages(server.port)
        cases.check("the server", "is alive", server.is_alive())
    finally:
        cases.equal("the server", "ends well", server.stop(), 0)
    with_tokens(arguments.server)
    limits(arguments.server)
    tls(arguments.server)
    drain(arguments.server)
    return cases.finish()


if __name__ == "__main__":
    sys.exit(main())
