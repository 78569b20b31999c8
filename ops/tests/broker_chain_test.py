"""The programs by way of the shipped broker: publisher, price server, and a client of its gateway.

usage: broker_chain_test.py NATS_SERVER PRICE_SERVER PRICE_PUBLISHER OPS_FOLDER GATEWAY_TESTS
"""

import json
import os
import signal
import subprocess
import sys
import tempfile

from broker_process import PASSWORDS, Broker
from server_process import PriceServer, Table, fetch, wait_for

table = Table()


class BrokerServer(PriceServer):
    """The simulated market SIM of its own, and NORTH from the broker."""

    BASE = ('<PriceServer><Logging level="0"/><Markets><Market id="1" name="SIM"/><Market id="2" name="NORTH"/></Markets>'
            '<Providers><Mds><Simulation/></Mds><Zel url="URL" user="server" passwordFile="PASSWORD"/></Providers>'
            '<Gateway port="0"/></PriceServer>')

    def __init__(self, program, url, password):
        self.BASE = self.BASE.replace("URL", url).replace("PASSWORD", password)
        super().__init__(program)

    def metric(self, name):
        for line in fetch(self.url + "/metrics")[1].splitlines():
            if line.startswith(name + " "):
                return float(line.split()[-1])
        return None

    def state(self):
        page = fetch(self.url + "/metrics")[1]
        return [state for state in ("starting", "running", "lost")
                if f'price_server_provider_state{{provider="zel",state="{state}"}} 1' in page]

    def status(self):
        providers = json.loads(fetch(self.url + "/api/v1/status")[1])["providers"]
        return next(provider["state"] for provider in providers if provider["name"] == "zel")

    def symbols(self, market):
        body = json.loads(fetch(self.url + f"/api/v1/instruments?market={market}")[1])
        return [entry["instrument"] for entry in body["instruments"]]


def write(folder, name, text):
    path = os.path.join(folder, name)
    with open(path, "w", encoding="ascii") as file:
        file.write(text + "\n")
    return path


def take_books(client, count):
    """The next books' sequences; a client hears of nothing else here."""
    return [client.receive_type("image", "update")["sequence"] for _ in range(count)]


def main():
    nats_server, program, publisher_program, ops, gateway_tests = sys.argv[1:6]
    sys.path.insert(0, gateway_tests)
    from ws_client import Client  # pylint: disable=import-outside-toplevel
    with tempfile.TemporaryDirectory() as folder, \
            Broker(nats_server, os.path.join(ops, "broker", "nats-server.conf")) as broker:
        passwords = {role: write(folder, role, word) for role, word in PASSWORDS.items()}
        arguments = [publisher_program, "--broker", broker.url, "--user", "publisher", "--password-file",
                     passwords["publisher"], "--market", "NORTH", "--rate", "500"]

        broker.kill()
        done = subprocess.run(arguments + ["--duration", "1"], capture_output=True, text=True, timeout=60)
        table.check("a publisher without a broker ends with 3", done.returncode == 3, (done.returncode, done.stderr))
        table.check("and says what it misses", "no message broker at nats://127.0.0.1" in done.stderr, done.stderr)

        with BrokerServer(program, broker.url, passwords["server"]) as server:
            table.check("a server without a broker is ready", fetch(server.url + "/-/ready")[0] == 200)
            table.check("has its own instruments", len(server.symbols("SIM")) > 0)
            table.check("and says that the feed is still to begin", server.state() == ["starting"], server.state())
            table.check("and that there is no connection", server.metric("price_server_broker_connected") == 0)

            broker.start()
            publisher = subprocess.Popen(arguments, stderr=subprocess.PIPE, text=True)
            wait_for(lambda: server.state() == ["running"], "feed")
            wait_for(lambda: len(server.symbols("NORTH")) == len(server.symbols("SIM")) or
                     server.symbols("NORTH"), "instruments of the broker")
            symbol = server.symbols("NORTH")[0]
            client = Client(server.port, timeout=30, protocol="price-server.v1")
            client.send({"type": "subscribe", "request": "n", "instrument": symbol, "depth": 5})
            take_books(client, 20)
            table.check("prices come from the publisher to the client", True)
            table.check("and nothing was refused", server.metric("price_server_broker_refused_messages_total") == 0)

            for outage in range(3):
                broker.kill()
                wait_for(lambda: server.state() == ["lost"], "loss")
                table.check(f"outage {outage + 1}: the feed is lost", True)
                images = server.metric("price_server_broker_images_total")
                broker.start()
                wait_for(lambda: server.metric("price_server_broker_instruments_stale") == 0 and
                         server.metric("price_server_broker_images_total") > images, "fresh image")
                take_books(client, 20)
                table.check(f"outage {outage + 1}: prices go on", True)

            publisher.send_signal(signal.SIGSTOP)
            wait_for(lambda: server.metric("price_server_broker_instruments_stale") == 1, "silence to be noticed", 1)
            table.check("a publisher that is silent is noticed within a second", True)
            wait_for(lambda: server.status() == "lost" and server.state() == ["lost"], "state")
            table.check("and is lost in status and metric alike", True)
            publisher.send_signal(signal.SIGCONT)
            wait_for(lambda: server.metric("price_server_broker_instruments_stale") == 0, "end of the silence")
            wait_for(lambda: server.status() == "serving" and server.state() == ["running"], "state")
            table.check("and serves again, though nobody publishes SIM there", True)
            client.close()
            publisher.send_signal(signal.SIGTERM)
            errors = publisher.communicate(timeout=30)[1]
            table.check("a publisher ends well", publisher.returncode == 0, (publisher.returncode, errors))
            table.check("and says what it has done", "messages and" in errors, errors)
    return table.result()


if __name__ == "__main__":
    sys.exit(main())
