"""An instrument that is renamed under a subscription: the client is told, and its prices go on."""

import sys
import time

from gateway_kit import Cases, Client, Server, parse_arguments
from ws_client import Book

OLD, NEW = "SIM:GOLD-JUN27", "SIM:GOLD-LATE"
cases = Cases("renames")


def follow(client):
    """Applies what comes until 50 books have come under the new name; returns the renames and the objects behind."""
    book, renames, behind = Book(), [], []
    end = time.monotonic() + 20
    while time.monotonic() < end and len(behind) < 50:
        message = client.receive()
        if message["type"] == "renamed":
            renames.append(message)
        elif message["type"] in ("image", "update"):
            book.apply(message)
            if renames:
                behind.append(message)
    return renames, behind


def main():
    arguments = parse_arguments()
    # The simulated market begins at midnight of its own time.
    server = Server(arguments.server, ["--rename", OLD, NEW.split(":")[1], "2027-01-01T00:00:03Z"])
    try:
        client = Client(server.port, protocol="price-server.v1")
        client.send({"type": "subscribe", "request": "g", "instrument": OLD, "depth": 5})
        renames, behind = follow(client)
        cases.equal("client", "is told once", len(renames), 1)
        cases.equal("client", "of which instrument", [r["instrument"] for r in renames], [OLD])
        cases.equal("client", "what it is called now", [r["symbol"] for r in renames], [NEW.split(":")[1]])
        cases.equal("prices", "go on", len(behind), 50)
        cases.equal("prices", "begin with an image", behind[:1] and behind[0]["type"], "image")
        cases.equal("prices", "of the new epoch", [m["epoch"] for m in behind[:1]], [r["epoch"] for r in renames])
        cases.check("prices", "of no older one", all(m["epoch"] >= behind[0]["epoch"] for m in behind))
        cases.equal("prices", "keep the name that was subscribed", {m["instrument"] for m in behind}, {OLD})
        client.send({"type": "subscribe", "request": "n", "instrument": NEW, "depth": 3})
        answer = client.receive_type("error", "image")
        cases.equal("who comes later", "gets the new name", (answer["type"], answer.get("instrument")), ("image", NEW))
        client.close()
    finally:
        server.stop()
    return cases.finish()


if __name__ == "__main__":
    sys.exit(main())
