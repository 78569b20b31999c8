"""Books of recorded markets: what updates make of an image is what the server's images show."""

import collections
import glob
import json
import sys
import threading
import time
from decimal import Decimal

from gateway_kit import Cases, Client, Server, http, parse_arguments
from ws_client import Book

cases = Cases("books")
DEPTHS = (5, 20, 200)
PATIENCE = 120  # seconds


def recorded(folder):
    return sorted(name for name in glob.glob(f"{folder}/three_segments/*.csv.zst")
                  + glob.glob(f"{folder}/many_instruments/*.csv.zst") if "golden" not in name and "_bbo" not in name)


def is_sorted(book):
    bids = [Decimal(level[0]) for level in book["bids"]]
    asks = [Decimal(level[0]) for level in book["asks"]]
    return bids == sorted(set(bids), reverse=True) and asks == sorted(set(asks))


def cut(book, depth):
    return {side: book[side][:depth] for side in ("bids", "asks")}


class History:
    """The newest books that a session has had, by instrument, depth, epoch and sequence."""
    MOST = 200_000

    def __init__(self):
        self.books = collections.OrderedDict()

    def add(self, key, book):
        self.books[key] = book
        if len(self.books) > self.MOST:
            self.books.popitem(last=False)

    def get(self, key):
        return self.books.get(key)


class Follower:
    """Applies what one session brings, and compares it: its images with the books that it has applied, each with what
    the other session had, and with the books of other depths."""

    def __init__(self, port, instruments, asks_images, keep):
        self.client = Client(port, timeout=10, protocol="price-server.v1")
        self.hello = self.client.receive_type("hello")
        self.asks_images = asks_images
        self.keep = keep
        self.books, self.names, self.history, self.other = {}, {}, History(), None
        self.across = self.between = 0
        self.images = self.updates = self.compared = self.asked = 0
        self.differences, self.broken, self.conflated = [], [], 0
        for instrument in instruments:
            for depth in DEPTHS if keep else DEPTHS[:2]:
                request = f"{instrument}/{depth}"
                self.names[(instrument, depth)] = request
                self.client.send({"type": "subscribe", "request": request, "instrument": instrument, "depth": depth,
                                  "kinds": ["book", "trades"]})
                time.sleep(0.011)  # below the rate

    def run(self, end):
        next_ask, order = time.monotonic(), 0
        keys = list(self.names)
        while not end.is_set():
            if self.asks_images and time.monotonic() >= next_ask:
                next_ask = time.monotonic() + 0.02
                self.client.send({"type": "change", "request": f"i{order}", "image": True,
                                  "subscription": self.names[keys[order % len(keys)]]})
                order += 1
                self.asked += 1
            self.take(self.client.receive())

    def take(self, message):
        kind = message["type"]
        if kind == "conflated":
            self.conflated += message["count"]
        if kind == "error":
            self.broken.append(str(message))
        if kind not in ("image", "update"):
            return
        key = (message["instrument"], message["depth"])
        book = self.books.setdefault(key, Book())
        if kind == "image":
            self.images += 1
            same = (book.epoch, book.sequence) == (message["epoch"], message["sequence"])
            if same:
                self.compared += 1
                if book.as_image() != {side: message[side] for side in ("bids", "asks")}:
                    self.differences.append(f"{key} at {message['sequence']}")
            if not is_sorted(message):
                self.broken.append(f"{key}: an image out of order")
        else:
            self.updates += 1
        try:
            book.apply(message)
        except AssertionError as error:
            self.broken.append(f"{key}: {error}")
        if self.keep:
            self.note((*key, book.epoch, book.sequence), book.as_image())
        elif kind == "image":
            self.note((*key, book.epoch, book.sequence), {side: message[side] for side in ("bids", "asks")})

    def note(self, key, book):
        self.history.add(key, book)
        instrument, depth, epoch, sequence = key
        theirs = self.other.history.get(key)
        if theirs is not None:
            self.across += 1
            self.expect(theirs == book, f"{key}: another session had another book")
        if not self.keep:
            return
        at = DEPTHS.index(depth)
        for other in DEPTHS[at - 1:at] + DEPTHS[at + 1:at + 2] if at else DEPTHS[1:2]:
            same = self.history.get((instrument, other, epoch, sequence))
            if same is not None:
                self.between += 1
                self.expect(cut(same, min(depth, other)) == cut(book, min(depth, other)), f"{key}: not as at {other}")

    def expect(self, is_true, difference):
        if not is_true:
            self.differences.append(difference)


def wait(applied, asked, seconds, least):
    """At least so long, and until enough was compared: how long that takes is the machine's affair."""
    begin = time.monotonic()
    next_word = begin + 30
    while time.monotonic() < begin + seconds + PATIENCE:
        time.sleep(0.25)
        if time.monotonic() >= begin + seconds and min(asked.compared, asked.across + applied.across) >= least:
            break
        if time.monotonic() >= next_word:
            next_word += 30
            print(f"{time.monotonic() - begin:.0f} s: {applied.updates + asked.updates} updates applied, "
                  f"{len(applied.differences) + len(asked.differences)} differences", file=sys.stderr, flush=True)
    return time.monotonic() - begin


def main():
    arguments = parse_arguments(("seconds", float, 8), ("speed", str, "20"))
    files = recorded(arguments.data)
    if not files:
        print(f"there is no recorded data in {arguments.data!r}")
        return 1
    speed = "1" if arguments.sanitized else arguments.speed  # what it can do; a flood leaves nothing to compare
    least = 5 if arguments.sanitized else 50  # comparisons of each kind, or the test has seen nothing
    server = Server(arguments.server, arguments=["--replay", *files, "--loop", "--speed", speed],
                    duration=int(arguments.seconds) + 2 * PATIENCE)
    try:
        listed = json.loads(http(server.port, "GET", "/api/v1/instruments?limit=1000").body)["instruments"]
        instruments = [entry["instrument"] for entry in listed]
        followers = [Follower(server.port, instruments, asks_images=i == 1, keep=i == 0) for i in range(2)]
        followers[0].other, followers[1].other = followers[1], followers[0]
        end = threading.Event()
        threads = [threading.Thread(target=follower.run, args=(end,)) for follower in followers]
        for thread in threads:
            thread.start()
        lasted = wait(*followers, arguments.seconds, least)
        end.set()
        for thread in threads:
            thread.join()
    finally:
        cases.equal("the server", "ends well", server.stop(), 0)
    applied, asked = followers
    for name, follower in (("applying", applied), ("asking", asked)):
        cases.equal("protocol", f"{name} session: rules that were broken", follower.broken[:5], [])
        cases.equal("books", f"{name} session: differences", follower.differences[:5], [])
        follower.client.close()
    cases.check("images against applied books", f"{asked.compared} compared on one session", asked.compared >= least)
    across = asked.across + applied.across
    cases.check("books of one session against those of another", f"{across} compared", across >= least)
    cases.check("depths", f"{applied.between} compared", applied.between >= least)
    print(f"{len(instruments)} instruments at speed {speed}, depths {DEPTHS}, {lasted:.1f} s: "
          f"{applied.images + asked.images} images, {applied.updates + asked.updates} updates applied, "
          f"{asked.compared + across + applied.between} comparisons, {applied.conflated + asked.conflated} books conflated")
    return cases.finish()


if __name__ == "__main__":
    sys.exit(main())
