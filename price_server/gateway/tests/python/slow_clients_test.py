"""Clients that stop reading: they get the latest books, or are let go, and nobody else notices."""

import json
import socket
import statistics
import sys
import threading
import time

from books_test import recorded
from gateway_kit import Cases, Client, Closed, Server, http, parse_arguments
from ws_client import Book

cases = Cases("slow clients")
STALLED, HEALTHY = 10, 3
DEPTH = 10  # of the healthy ones, and among those of the stalled ones
MEBIBYTE = 1 << 20


def open_session(port, scopes, small):
    client = Client.__new__(Client)
    client.buffer, client.pending, client.status, client.response_headers = b"", [], None, {}
    client.socket = socket.socket()
    if small:
        client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 65536)
    client.socket.settimeout(30)
    client.socket.connect(("127.0.0.1", port))
    client.handshake("127.0.0.1", port, "/ws", (), "price-server.v1")
    client.receive_type("hello")
    for i, (name, depth) in enumerate(scopes):
        client.send({"type": "subscribe", "request": str(i), "instrument": name, "depth": depth})
    return client


class Healthy(threading.Thread):
    """Reads everything, applies every book, and measures from ping to pong."""

    def __init__(self, port, instruments):
        super().__init__(daemon=True)
        self.client = open_session(port, [(name, DEPTH) for name in instruments], small=False)
        self.times, self.books, self.messages = [], {}, 0
        self.conflated, self.error = 0, None
        self.stops = False

    def run(self):
        try:
            sent, next_ping = None, time.monotonic()
            while not self.stops:
                if sent is None and time.monotonic() >= next_ping:
                    sent = time.monotonic()
                    self.client.send({"type": "ping", "request": "p"})
                message = self.client.receive()
                self.messages += 1
                if message["type"] == "pong":
                    now = time.monotonic()
                    self.times.append((now, now - sent))
                    sent, next_ping = None, now + 0.02
                elif message["type"] in ("image", "update"):
                    self.books.setdefault(message["instrument"], Book()).apply(message)
                elif message["type"] == "conflated":
                    self.conflated += message["count"]
        except Exception as error:  # reported by the test
            self.error = error

    def median_ms(self, begin, end):
        return 1000 * statistics.median(took for at, took in self.times if begin <= at <= end)


class Drain(threading.Thread):
    """Takes all there is and looks at nothing but the close."""

    def __init__(self, client):
        super().__init__(daemon=True)
        self.client = client
        self.code = "open"

    def run(self):
        try:
            while True:
                self.client.read_message()
        except Closed as closed:
            self.code = closed.code
        except OSError as error:
            self.code = str(error)


class Woken(threading.Thread):
    """Reads for some time, and keeps it for later."""

    def __init__(self, client, seconds):
        super().__init__(daemon=True)
        self.client, self.seconds, self.texts, self.code = client, seconds, [], None

    def run(self):
        end = time.monotonic() + self.seconds
        try:
            while time.monotonic() < end:
                self.texts.append(self.client.read_message())
        except Closed as closed:
            self.code = closed.code

    def messages(self):
        return [[json.loads(line) for line in text.split("\n")] for text in self.texts]


def sessions(port):
    return json.loads(http(port, "GET", "/api/v1/sessions").body)["sessions"]


def wait_for(what, seconds):
    end = time.monotonic() + seconds
    while not what():
        if time.monotonic() > end:
            return False
        time.sleep(0.1)
    return True


def check_resumed(name, messages, asleep, woke):
    """Every book applies; leaps are announced; and of what others got between its sleep and its waking (their sequences
    then) it gets nothing: the first book that is newer than its sleep is no older than its waking."""
    books, announced, broken, old, leaps = {}, set(), [], [], {}
    for message in (m for some in messages for m in some):
        kind, instrument = message["type"], message.get("instrument")
        if kind == "conflated":
            announced.add((instrument, message["depth"]))
        elif kind in ("image", "update"):
            key = (instrument, message["depth"])
            book = books.setdefault(key, Book())
            before = book.sequence
            try:
                book.apply(message)
            except AssertionError as error:
                broken.append(f"{key}: {error}")
            leap = message["sequence"] - before if before is not None else 0
            if leap > leaps.get(key, (0, True))[0]:
                leaps[key] = (leap, key in announced)
            announced.discard(key)
            if message["depth"] == DEPTH and asleep.get(instrument, 0) < message["sequence"] < woke.get(instrument, 0):
                old.append(f"{instrument} at {message['sequence']}")
    silent = [f"{i}: {leap}" for i, (leap, is_announced) in leaps.items()
              if i[1] >= DEPTH and leap > 50 and not is_announced]
    leapt = sum(1 for leap in leaps.values() if leap[0] > 50)
    cases.equal("woken", f"{name}: books that do not apply", broken[:3], [])
    cases.equal("woken", f"{name}: leaps without `conflated`", silent[:3], [])
    cases.equal("woken", f"{name}: `conflated` without a book after it", sorted(announced)[1:], [])
    cases.check("woken", f"{name}: {leapt} books leapt", leapt > 0)
    cases.equal("woken", f"{name}: books from while it slept", old[:3], [])
    missed = sum(woke[i] - asleep.get(i, woke[i]) for i in woke)
    cases.check("woken", f"{name}: others got {missed} books meanwhile", missed > 100)


def main():
    arguments = parse_arguments(("recorded", int, 0), ("speed", str, "20"), ("rounds", int, 1))
    if arguments.recorded:
        files = [name for name in recorded(arguments.data) if "three_segments" in name]
        server = Server(arguments.server, arguments=["--replay", *files, "--loop", "--speed", arguments.speed],
                        duration=3600)
    else:
        server = Server(arguments.server, gateway='<Gateway port="0"/>', duration=3600)
    port = server.port
    try:
        listed = json.loads(http(port, "GET", "/api/v1/instruments?limit=1000").body)["instruments"]
        instruments = [entry["instrument"] for entry in listed][:60]
        scopes = [(name, depth) for name in instruments for depth in range(1, 1 + 180 // len(instruments))]
        healthy = [Healthy(port, instruments[:3]) for i in range(HEALTHY)]
        for each in healthy:
            each.start()
        # One client reads what the stalled ones will have: their books are there before memory is measured.
        deep = Drain(open_session(port, scopes, small=False))
        deep.start()
        time.sleep(5)
        for number in range(arguments.rounds):
            one_round(server, number, scopes, healthy, arguments.sanitized)
        for i, each in enumerate(healthy):
            each.stops = True
            each.join(10)
            cases.equal("healthy", f"session {i} is well", each.error, None)
            cases.check("healthy", f"session {i}: {each.messages} objects, {len(each.times)} pings", len(each.times) > 50)
        # A server that is behind on a busy machine spares all of them the same books; of a session's own there are none.
        left_out = {each.conflated for each in healthy}
        cases.check("healthy", f"books left out for each: {left_out}", len(left_out) == 1, left_out)
    finally:
        cases.equal("the server", "ends well", server.stop(), 0)
    return cases.finish()


def sequences(healthy):
    return {name: book.sequence for each in healthy for name, book in dict(each.books).items() if book.sequence}


def one_round(server, number, scopes, healthy, sanitized):
    port = server.port
    quiet_began, rss_at_first = time.monotonic(), server.rss_bytes()
    time.sleep(4)
    quiet_ended, rss_before = time.monotonic(), server.rss_bytes()
    drift = rss_before - rss_at_first
    stalled = [open_session(port, scopes, small=True) for _ in range(STALLED)]
    names = {f"{c.socket.getsockname()[0]}:{c.socket.getsockname()[1]}": c for c in stalled}

    def of_stalled():
        return [view for view in sessions(port) if view["remote"] in names]
    waker_names = list(names)[:STALLED // 2]
    began = time.monotonic()
    conflating = wait_for(lambda: sum(1 for v in of_stalled() if v["conflated"] > 0) == STALLED, 9)
    cases.check("stalled", f"round {number}: all conflate", conflating, str(of_stalled()))
    still = wait_for(lambda: all(v["lag_ms"] > 300 for v in of_stalled()), 6)
    cases.check("stalled", f"round {number}: none takes anything", still, str(of_stalled()))
    asleep = sequences(healthy)
    time.sleep(1.5)
    views = of_stalled()
    rss = server.rss_bytes()
    each = (rss - rss_before) / STALLED
    if not sanitized:
        cases.check("stalled", f"round {number}: memory of each, {each / MEBIBYTE:.2f} MiB", each < 1.25 * MEBIBYTE,
                    f"grown by {drift / MEBIBYTE:.1f} MiB in the time before")
    cases.check("stalled", f"round {number}: unsent within the bound",
                all(v["unsent_bytes"] <= MEBIBYTE for v in views), str([v["unsent_bytes"] for v in views]))
    stall_ended = time.monotonic()
    woke = sequences(healthy)
    # What the client's system had no room for is sent again within a second.
    woken = [Woken(names[name], 2.5) for name in waker_names]
    for each_woken in woken:
        each_woken.start()
    for each_woken in woken:
        each_woken.join()
    lags = [v["lag_ms"] for v in sessions(port) if v["remote"] in waker_names]
    cases.check("woken", f"round {number}: nothing old waits", all(lag < 2000 for lag in lags), str(lags))
    for name in waker_names:
        names[name].close()
    for name, each_woken in zip(waker_names, woken):
        cases.equal("woken", f"round {number}: {name} stays", each_woken.code, None)
        check_resumed(f"round {number}: {name}", each_woken.messages(), asleep, woke)
    sleepers = [name for name in names if name not in waker_names]
    drains = {}

    def are_gone():
        """Each wakes when it has been let go: who sleeps on is cut off three seconds later."""
        there = {v["remote"] for v in sessions(port)}
        for name in sleepers:
            if name not in there and name not in drains:
                drains[name] = Drain(names[name])
                drains[name].start()
        return len(drains) == len(sleepers)

    gone = wait_for(are_gone, 35 if sanitized else 14)
    ended = time.monotonic()
    cases.check("stalled", f"round {number}: let go after stall_ms, at {ended - began:.1f} s",
                gone and ended - began < (40 if sanitized else 14))
    for name, drain in drains.items():
        drain.join(10)
        cases.equal("stalled", f"round {number}: {name} is told why", drain.code, 1013)
        names[name].close()
    # How long pings take beside stalled sessions is printed, not judged: it is a measurement.
    print(f"round {number}: {STALLED} stalled, {len(scopes)} subscriptions each; resident "
          f"{rss_before / MEBIBYTE:.1f} MiB (grown by {drift / MEBIBYTE:.1f} in 4 s before), then {rss / MEBIBYTE:.1f} MiB, {each / MEBIBYTE:.2f} MiB each; unsent "
          f"{[v['unsent_bytes'] for v in views]}; conflated {[v['conflated'] for v in views]}; ping medians "
          + ", ".join(f"{h.median_ms(quiet_began, quiet_ended):.2f} -> {h.median_ms(quiet_ended, stall_ended):.2f} ms"
                      for h in healthy))


if __name__ == "__main__":
    sys.exit(main())
