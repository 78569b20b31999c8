"""A price_server that is told to stop, over real sockets: not ready at once, clients are served for the grace that is
configured, and then told 1001.

usage: drain_test.py PRICE_SERVER GATEWAY_TESTS_FOLDER
"""

import signal
import sys
import time

from server_process import PriceServer, Table, fetch, wait_for

GRACE = 1.5
SLACK = 5  # a machine with other work


def read_to_the_end(client):
    """How many images and updates came, and the code that the session ended with."""
    from ws_client import Closed
    prices = 0
    try:
        while True:
            prices += client.receive()["type"] in ("image", "update")
    except Closed as closed:
        return prices, closed.code


def subscribe(port):
    from ws_client import Client
    client = Client(port, protocol="price-server.v1")
    client.receive_type("hello")
    client.send({"type": "subscribe", "request": "a", "instrument": "SIM:GOLD-JUN27"})
    client.receive_type("image")
    return client


def check_grace(table, program):
    with PriceServer(program, gateway=f'drain_ms="{int(GRACE * 1000)}"') as server:
        client = subscribe(server.port)
        begin = time.monotonic()
        server.process.send_signal(signal.SIGTERM)
        # The signal's way takes a moment; the grace is far longer.
        status, body = wait_for(lambda: (lambda answer: answer if answer[0] != 200 else None)(
            fetch(server.url + "/-/ready")), "refusal of readiness")
        noticed = time.monotonic() - begin
        table.check("ready is 503 long before the grace is over", status == 503 and noticed < GRACE / 2,
                    (status, body, noticed))
        table.check("it says why", body == "not ready\n", body)
        table.check("healthy is 200 meanwhile", fetch(server.url + "/-/healthy")[0] == 200)
        table.check("the metric says so too", "\nprice_server_ready 0\n" in fetch(server.url + "/metrics")[1])
        late = subscribe(server.port)
        table.check("a client that comes in the grace is served", True)
        prices, code = read_to_the_end(client)
        lasted = time.monotonic() - begin
        table.check("the session is told 1001", code == 1001, code)
        table.check("it had prices to the end", prices > 5, prices)
        table.check("it lasted for the grace", GRACE <= lasted < GRACE + SLACK, lasted)
        table.check("the late session is told 1001", read_to_the_end(late)[1] == 1001)
        table.check("the process ends with 0", server.process.wait(timeout=60) == 0, server.lines)
        table.check("nobody listens any more", fetch(server.url + "/-/healthy")[0] is None)


def check_no_grace(table, program):
    with PriceServer(program) as server:
        client = subscribe(server.port)
        begin = time.monotonic()
        server.process.send_signal(signal.SIGTERM)
        code = read_to_the_end(client)[1]
        table.check("without a grace the session is told 1001 at once", code == 1001
                    and time.monotonic() - begin < SLACK, (code, time.monotonic() - begin))
        table.check("and the process ends with 0", server.process.wait(timeout=60) == 0, server.lines)


def check_second_signal(table, program):
    with PriceServer(program, gateway='drain_ms="600000"') as server:
        server.process.send_signal(signal.SIGTERM)
        wait_for(lambda: fetch(server.url + "/-/ready")[0] == 503, "refusal of readiness")
        time.sleep(0.4)  # closer together two signals are one request
        server.process.send_signal(signal.SIGTERM)
        table.check("a second signal ends a long grace, with 130", server.process.wait(timeout=60) == 130)


def main():
    program, gateway_tests = sys.argv[1:]
    sys.path.insert(0, gateway_tests)
    table = Table()
    check_grace(table, program)
    check_no_grace(table, program)
    check_second_signal(table, program)
    return table.result()


if __name__ == "__main__":
    sys.exit(main())
