"""The protocol's schema and the server agree: on what clients may say, and on all that the server says."""

import itertools
import json
import os
import re
import sys
import time

from gateway_kit import Cases, Client, Server, http, parse_arguments
from json_schema import Validator

cases = Cases("schema")
DOCS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "..", "docs")
INSTRUMENT = "SIM:GOLD-JUN27"


def requests():
    """Requests of every type, with each member good, bad in several ways, missing, and one too many."""
    depths = [1, 5, 1000, "default", "max", 0, -1, -2, 1001, 2.5, "5", "MAX", None, True, [], 1 << 40]
    intervals = [0, 1, 60000, -1, 60001, 0.5, "0", None, True]
    kinds = [["book"], ["trades", "fields"], ["book", "book"], [], "book", ["Book"], ["book", 1], None, {}, [None]]
    ids = ["a", "x" * 64, "€" * 64, "€" * 65, "x" * 65, "", None, 5, True, {}, []]
    for depth in depths:
        yield {"type": "subscribe", "request": "s", "instrument": INSTRUMENT, "depth": depth}
        yield {"type": "change", "request": "c", "subscription": "nothing", "depth": depth}
    for interval in intervals:
        yield {"type": "subscribe", "request": "s", "instrument": INSTRUMENT, "interval_ms": interval}
        yield {"type": "change", "request": "c", "subscription": "nothing", "interval_ms": interval}
    for kind in kinds:
        yield {"type": "subscribe", "request": "s", "instrument": INSTRUMENT, "kinds": kind}
        yield {"type": "change", "request": "c", "subscription": "nothing", "kinds": kind}
    for request in ids:
        yield {"type": "ping", "request": request}
        yield {"type": "subscribe", "request": request, "instrument": INSTRUMENT}
        yield {"type": "unsubscribe", "request": "u", "subscription": request}
        yield {"type": "change", "request": "c", "subscription": request}
    for instrument in (INSTRUMENT, "x", "x" * 256, "€" * 256, "x" * 257, "", None, 5, []):
        yield {"type": "subscribe", "request": "s", "instrument": instrument}
    for token in ("t", "x" * 4096, "x" * 4097, "", None, 5):
        yield {"type": "authenticate", "token": token}
    for image in (True, False, 0, 1, "true", None):
        yield {"type": "change", "request": "c", "subscription": "nothing", "image": image}
    whole = [{"type": "subscribe", "request": "s", "instrument": INSTRUMENT}, {"type": "ping", "request": "p"},
             {"type": "change", "request": "c", "subscription": "nothing"}, {"type": "authenticate", "token": "t"},
             {"type": "unsubscribe", "request": "u", "subscription": "nothing"}]
    for each in whole:
        for name in each:
            yield {key: value for key, value in each.items() if key != name}
        for name in ("extra", "depth", "image", "token", "subscription", "request", "instrument", "Type"):
            yield {**each, name: "x"} if name not in each else each
    for kind in ("hello", "result", "SUBSCRIBE", "", None, 1):
        yield {"type": kind, "request": "x"}
    for value in ({}, [], None, 1, "subscribe", True):
        yield value


MALFORMED = {"bad_json", "bad_type", "bad_member", "bad_value"}


def first_answer(client, said):
    """What is said to a request at once, and not of a component or a price later."""
    while True:
        message = client.receive()
        said.append(message)
        if message["type"] in ("error", "pong") or message["type"] == "result" and message["code"] == 100:
            return message


def what_clients_may_say(port, validator, said):
    group = "what clients may say"
    client = Client(port)
    said.append(client.receive())
    for request in requests():
        client.send(request)
        answer = first_answer(client, said)
        refused = answer["type"] == "error" and answer["code"] in MALFORMED
        if answer.get("where") == "type" and isinstance(request, dict) and request.get("type") == "authenticate":
            refused = False  # this server demands no token, and says so
        cases.equal(group, f"{json.dumps(request)[:90]}", not refused, validator.is_valid(request, "client"))
        if answer["type"] == "result" and request["type"] == "subscribe":
            client.send({"type": "unsubscribe", "request": "undo", "subscription": request["request"]})
            while first_answer(client, said)["request"] != "undo":
                pass
        time.sleep(0.012)  # below the rate
    client.close()


def what_the_server_says(port, validator, said):
    client = Client(port)
    said.append(client.receive())
    listed = json.loads(http(port, "GET", "/api/v1/instruments?limit=5").body)["instruments"]
    for i, entry in enumerate(listed):
        client.send({"type": "subscribe", "request": str(i), "instrument": entry["instrument"], "depth": 3 + i,
                     "kinds": ["book", "trades", "fields"]})
    end = time.monotonic() + 2
    step = itertools.count()
    while time.monotonic() < end:
        said.append(client.receive())
        if next(step) % 50 == 0:
            client.send({"type": "change", "request": "c", "subscription": "0", "depth": 2 + next(step) % 40, "image": True})
    client.close()
    types = {}
    for message in said:
        problems = validator.errors(message, validator.root["$defs"]["server"])
        good, count, first = types.get(message.get("type"), (0, 0, ""))
        types[message.get("type")] = (good + (not problems), count + 1, first or (problems[0] if problems else ""))
    for name, (good, count, first) in sorted(types.items()):
        cases.check("what the server says", f"{name}: {good} of {count}", good == count, first)
    cases.check("what the server says", "most types were seen",
                {"hello", "result", "error", "pong", "image", "update", "trades"} <= set(types), str(sorted(types)))


def what_http_answers(port, validator):
    group = "what HTTP answers"
    client = Client(port)
    client.receive()
    client.send({"type": "subscribe", "request": "one", "instrument": INSTRUMENT, "kinds": ["book", "trades"]})
    while client.receive()["type"] != "image":
        pass
    pages = {"status": ["/api/v1/status"], "sessions": ["/api/v1/sessions"],
             "instruments": ["/api/v1/instruments", "/api/v1/instruments?search=gold&market=SIM&limit=2&offset=1"],
             "subscriptions": ["/api/v1/subscriptions", "/api/v1/subscriptions?market=SIM&symbol=none"],
             "explain": [f"/api/v1/explain?instrument={INSTRUMENT}"],
             "error": ["/api/v1/nothing", "/api/v1/explain", "/api/v1/explain?instrument=SIM:NONE",
                       "/api/v1/instruments?limit=x"]}
    for name, paths in pages.items():
        for path in paths:
            answer = json.loads(http(port, "GET", path).body)
            cases.equal(group, path, validator.errors(answer, validator.root["$defs"][name])[:2], [])
            if name in ("sessions", "subscriptions") and "none" not in path:
                cases.check(group, f"{path} lists something", len(answer[name]) > 0)
    status = json.loads(http(port, "GET", "/api/v1/status").body)
    cases.equal(group, "the simulation serves", status["providers"],
                [{"name": "mds", "state": "serving", "instruments": status["providers"][0]["instruments"]}])
    client.close()


def what_the_document_shows(validator):
    group = "examples of the document"
    with open(os.path.join(DOCS, "protocol.md"), encoding="utf-8") as file:
        text = file.read()
    for block in re.findall(r"```json\n(.*?)```", text, re.S):
        for example in re.split(r"\n(?=\{)", block.strip()):
            filled = re.sub(r"…,\s+", "", example).replace('"…"', '"1790000000000000000"').replace("[…]", "[]")
            filled = filled.replace(", …]", "]")
            try:
                message = json.loads(filled)
            except ValueError as error:
                cases.check(group, example[:60], False, f"{error}: {filled}")
                continue
            if message["type"] == "update":  # shows only what is special in it
                message.update({"exchange_time_ns": None, "receive_time_ns": None})
            fits = validator.is_valid(message, "server") or validator.is_valid(message, "client")
            cases.check(group, example[:60].replace("\n", " "), fits,
                        str(validator.errors(message, validator.root["$defs"]["server"])[:2]))


def load(name):
    with open(os.path.join(DOCS, name), encoding="utf-8") as file:
        return Validator(json.load(file))


def main():
    arguments = parse_arguments()
    validator = load("protocol.schema.json")
    try:
        from jsonschema import Draft202012Validator
        Draft202012Validator.check_schema(validator.root)
        cases.check("the schema", "is one, as the library says", True)
    except ImportError:
        pass  # the validator above stands alone
    what_the_document_shows(validator)
    server = Server(arguments.server)
    said = []
    try:
        what_clients_may_say(server.port, validator, said)
        what_the_server_says(server.port, validator, said)
        what_http_answers(server.port, load("http.schema.json"))
    finally:
        cases.equal("the server", "ends well", server.stop(), 0)
    return cases.finish()


if __name__ == "__main__":
    sys.exit(main())
