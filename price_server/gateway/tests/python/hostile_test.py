"""Hostile frames and handshakes by the thousand, from a fixed seed: the server stays healthy, and its memory flat."""

import json
import random
import socket
import sys
import time

from gateway_kit import Cases, Client, Server, frame, http, parse_arguments

cases = Cases("hostile clients")
INSTRUMENT = "SIM:GOLD-JUN27"
MEBIBYTE = 1 << 20
FRAMES_PER_SESSION = 25


def handshake(port):
    return (f"GET /ws HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
            "Sec-WebSocket-Protocol: price-server.v1\r\n\r\n").encode()


def mutate(rng, data):
    """One to four changes of bytes, ranges or length."""
    data = bytearray(data)
    for _ in range(rng.randint(1, 4)):
        place = rng.randrange(len(data) + 1)
        kind = rng.randrange(6)
        if kind == 0 and data:
            data[min(place, len(data) - 1)] = rng.randrange(256)
        elif kind == 1 and data:
            data[min(place, len(data) - 1)] ^= 1 << rng.randrange(8)
        elif kind == 2:
            data[place:place] = rng.randbytes(rng.randint(1, 40))
        elif kind == 3:
            del data[place:place + rng.randint(1, 20)]
        elif kind == 4:
            data[place:place] = data[place:place + rng.randint(1, 60)]
        else:
            del data[place:]
    return bytes(data)


def make_text(rng):
    """A request that makes sense, nearly, or not at all."""
    texts = [
        {"type": "ping", "request": "p"},
        {"type": "subscribe", "request": str(rng.randrange(30)), "instrument": INSTRUMENT, "depth": rng.randint(-3, 1002)},
        {"type": "subscribe", "request": "x", "instrument": "".join(chr(rng.randint(32, 0x2FFF)) for _ in range(9))},
        {"type": "change", "request": "c", "subscription": str(rng.randrange(30)), "image": True,
         "depth": rng.randint(1, 50)},
        {"type": "change", "request": "c", "subscription": str(rng.randrange(30)),
         "kinds": rng.choice([["trades"], ["book", "fields"], [], ["nothing"], 5])},
        {"type": "unsubscribe", "request": "u", "subscription": str(rng.randrange(30))},
        {"type": "authenticate", "token": "x" * rng.randrange(100)},
        [1, [2, [3, {"a": None}]]],
    ]
    text = json.dumps(rng.choice(texts)).encode()
    return mutate(rng, text) if rng.random() < 0.5 else text


def make_frame(rng):
    roll = rng.random()
    if roll < 0.55:
        return frame(1, make_text(rng), mask=rng.randbytes(4))
    if roll < 0.75:
        return mutate(rng, frame(1, make_text(rng), mask=rng.randbytes(4)))
    if roll < 0.85:
        return frame(rng.choice((9, 10)), rng.randbytes(rng.randrange(126)), mask=rng.randbytes(4))
    if roll < 0.95:
        return frame(rng.randrange(16), rng.randbytes(rng.randrange(300)), fin=rng.random() < 0.5,
                     reserved=rng.choice((0, 0, 0, rng.randrange(8))),
                     mask=rng.choice((None, rng.randbytes(4))))
    return rng.randbytes(rng.randrange(1, 400))


def send_and_drain(port, data, silent):
    """Says it all, then that nothing more comes, and takes what the server says to it."""
    with socket.create_connection(("127.0.0.1", port), timeout=20) as connection:
        try:
            connection.sendall(data)
            connection.shutdown(socket.SHUT_WR)
            while connection.recv(1 << 16):
                pass
        except socket.timeout:
            silent.append(data)
        except OSError:
            pass  # the server has had enough


def is_healthy(port):
    began = time.monotonic()
    client = Client(port, timeout=5)
    client.receive_type("hello")
    client.send({"type": "subscribe", "request": "s", "instrument": INSTRUMENT})
    image = client.receive_type("image", "error")
    client.send({"type": "ping", "request": "p"})
    client.receive_type("pong")
    client.close()
    return image["type"] == "image" and len(image["bids"]) > 0 and time.monotonic() - began < 3


def main():
    arguments = parse_arguments(("count", int, 100_000), ("seed", int, 20270601))
    rng = random.Random(arguments.seed)
    server = Server(arguments.server, gateway='<Gateway port="0"><Limits httpRequestsPerSecond="1000000"/></Gateway>',
                    duration=3600)
    silent = []
    frames = handshakes = 0
    samples = []
    try:
        while not is_healthy(server.port):
            time.sleep(0.05)  # the simulated market begins empty
        warm_up = arguments.count // 4
        next_look = 0
        while frames + handshakes < arguments.count:
            done = frames + handshakes
            if done >= next_look:
                next_look = done + arguments.count // 10
                cases.check("healthy", f"after {done}", server.is_alive() and is_healthy(server.port))
                samples.append((done, server.rss_bytes()))
            if rng.random() < 0.9:
                send_and_drain(server.port, mutate(rng, handshake(server.port)) if rng.random() < 0.9
                               else rng.randbytes(rng.randrange(1, 2000)), silent)
                handshakes += 1
            else:
                some = [make_frame(rng) for _ in range(FRAMES_PER_SESSION)]
                run_frames(server.port, some, silent)
                frames += len(some)
        time.sleep(0.5)
        cases.check("healthy", "at the end", server.is_alive() and is_healthy(server.port))
        cases.equal("healthy", "connections that hung", len(silent), 0)
        left = json.loads(http(server.port, "GET", "/api/v1/sessions").body)["sessions"]
        cases.equal("healthy", "sessions that are left", len(left), 0)
        subscriptions = json.loads(http(server.port, "GET", "/api/v1/subscriptions").body)["subscriptions"]
        holders = [h["holder"] for s in subscriptions for h in s["holders"] if h["holder"].startswith("gateway-")]
        cases.equal("healthy", "holders that are left", holders, [])
        last = server.rss_bytes()
        first = next(rss for done, rss in samples if done >= warm_up)
        if not arguments.sanitized:
            cases.check("memory", f"flat after a quarter: {first / MEBIBYTE:.1f} MiB, then {last / MEBIBYTE:.1f} MiB",
                        last - first < 8 * MEBIBYTE)
    finally:
        cases.equal("the server", "ends well", server.stop(), 0)
    print(f"seed {arguments.seed}: {frames} frames, {handshakes} handshakes; resident MiB: "
          + ", ".join(f"{done}: {rss / MEBIBYTE:.1f}" for done, rss in samples) + f", end: {last / MEBIBYTE:.1f}")
    return cases.finish()


def run_frames(port, some, silent):
    with socket.create_connection(("127.0.0.1", port), timeout=20) as connection:
        try:
            connection.sendall(handshake(port))
            answer = b""
            while b"\r\n\r\n" not in answer:
                part = connection.recv(1 << 16)
                if not part:
                    return
                answer += part
            connection.sendall(b"".join(some))
            connection.shutdown(socket.SHUT_WR)
            while connection.recv(1 << 16):
                pass
        except socket.timeout:
            silent.append(b"".join(some))
        except OSError:
            pass


if __name__ == "__main__":
    sys.exit(main())
