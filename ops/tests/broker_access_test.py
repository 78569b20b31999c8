"""The shipped configuration of the broker: who may come in, and what each role may do.

usage: broker_access_test.py NATS_SERVER OPS_FOLDER
"""

import os
import sys

from broker_process import PASSWORDS, Broker, PlainClient
from server_process import Table

# role: what it may publish, and may not; what it may subscribe, and may not
RIGHTS = {
    "publisher": (["zel.prices.M.A", "zel.control.M"], ["zel.requests.M", "other"],
                  ["zel.requests.M"], ["zel.prices.>", "zel.control.*", ">", "other"]),
    "server": (["zel.requests.M"], ["zel.prices.M.A", "zel.control.M", "other"],
               ["zel.prices.>", "zel.shard.3.>", "zel.control.*"], ["zel.requests.M", ">", "other"]),
}


def is_refused(port, **identity):
    client = PlainClient(port, **identity)
    answers = client.answers()
    client.close()
    return "PONG" not in answers and any("Authorization Violation" in answer for answer in answers)


def main():
    program, folder = sys.argv[1:3]
    table = Table()
    with Broker(program, os.path.join(folder, "broker", "nats-server.conf"), address=None) as broker:
        table.check("it listens on loopback and nowhere else", broker.listens == [broker.url], broker.listens)
        table.check("a client that does not say who it is is refused", is_refused(broker.port))
        table.check("and one with an empty name", is_refused(broker.port, user="", **{"pass": ""}))
        table.check("and one with a token", is_refused(broker.port, auth_token=PASSWORDS["server"]))
        for role, word in PASSWORDS.items():
            table.check(f"{role} with a wrong password is refused", is_refused(broker.port, user=role, **{"pass": "x"}))
            table.check(f"{role} without one", is_refused(broker.port, user=role))
            table.check(f"{role} with the right one is let in",
                        not is_refused(broker.port, user=role, **{"pass": word}))
        for role, (publishes, not_publishes, subscribes, not_subscribes) in RIGHTS.items():
            client = PlainClient(broker.port, user=role, **{"pass": PASSWORDS[role]})
            for subject, allowed in [(s, True) for s in publishes] + [(s, False) for s in not_publishes]:
                client.say(f"PUB {subject} 1\r\nx")
                answers = client.answers()
                table.check(f"{role} {'may' if allowed else 'may not'} publish {subject}",
                            (answers == ["PONG"]) == allowed, answers)
            for subject, allowed in [(s, True) for s in subscribes] + [(s, False) for s in not_subscribes]:
                client.say(f"SUB {subject} {len(subject)}{int(allowed)}")
                answers = client.answers()
                table.check(f"{role} {'may' if allowed else 'may not'} subscribe {subject}",
                            (answers == ["PONG"]) == allowed, answers)
            client.close()
    return table.result()


if __name__ == "__main__":
    sys.exit(main())
