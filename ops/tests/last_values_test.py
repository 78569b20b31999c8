"""What the broker keeps: a publisher is killed, and a price server that starts afterwards shows the last books as stale.

usage: last_values_test.py NATS_SERVER PRICE_SERVER PRICE_PUBLISHER OPS_FOLDER GATEWAY_TESTS
"""

import os
import signal
import subprocess
import sys
import tempfile
import time

from broker_chain_test import BrokerServer, write
from broker_process import PASSWORDS, Broker
from server_process import Table, wait_for

LONGER_THAN_A_ROUND = 4  # seconds; what has changed is put with the broker every two


def is_stale(image):
    return bool(image["stale"])


def main():
    nats_server, program, publisher_program, ops, gateway_tests = sys.argv[1:6]
    sys.path.insert(0, gateway_tests)
    from ws_client import Client  # pylint: disable=import-outside-toplevel
    table = Table()
    with tempfile.TemporaryDirectory() as folder, \
            Broker(nats_server, os.path.join(ops, "broker", "nats-server.conf")) as broker:
        passwords = {role: write(folder, role, word) for role, word in PASSWORDS.items()}
        arguments = [publisher_program, "--broker", broker.url, "--user", "publisher", "--password-file",
                     passwords["publisher"], "--market", "NORTH", "--rate", "500"]
        with subprocess.Popen(arguments, stderr=subprocess.PIPE, text=True) as publisher:
            time.sleep(LONGER_THAN_A_ROUND)
            publisher.send_signal(signal.SIGKILL)
            errors = publisher.communicate()[1]
        table.check("the publisher may do what it needs", "does not let" not in errors and "keeps no" not in errors, errors)

        with BrokerServer(program, broker.url, passwords["server"]) as server:
            wait_for(lambda: server.symbols("NORTH"), "instruments of the dead publisher")
            symbols = server.symbols("NORTH")
            table.check("a server that starts afterwards lists its instruments", len(symbols) > 1, symbols)
            table.check("and says that the feed is lost", server.state() == ["lost"], server.state())
            client = Client(server.port, timeout=30, protocol="price-server.v1")
            client.send({"type": "subscribe", "request": "n", "instrument": symbols[0], "depth": 5})
            book = client.receive_type("image")
            table.check("a client sees the last book", len(book["bids"]) > 0 and len(book["asks"]) > 0, book)
            table.check("as stale", is_stale(book), book)
            table.check("and no image is counted as live", server.metric("price_server_broker_images_total") == 0)

            with subprocess.Popen(arguments, stderr=subprocess.PIPE, text=True) as publisher:
                fresh = wait_for(lambda: next((message for message in [client.receive_type("image", "update")]
                                               if not message.get("stale", ["?"])), None), "fresh book")
                table.check("a publisher that is there again makes it fresh", not is_stale(fresh), fresh)
                wait_for(lambda: server.state() == ["running"], "feed")
                table.check("and the feed runs", server.metric("price_server_broker_refused_messages_total") == 0)
                publisher.send_signal(signal.SIGTERM)
                publisher.communicate(timeout=30)
            client.close()
            table.check("nothing was refused to the server for want of a right",
                        not any("does not let" in line for line in server.lines), server.lines)
    return table.result()


if __name__ == "__main__":
    sys.exit(main())
