"""A cluster to look at: what scripts/cluster starts.

usage: cluster_show.py NATS_SERVER PRICE_SERVER PRICE_PUBLISHER OPS_FOLDER
"""

import sys
import time

import cluster_kit
from broker_process import PASSWORDS


def main():
    nats, server, publisher, ops = sys.argv[1:5]
    cluster_kit.MARKET = "SIM"
    cluster = cluster_kit.Cluster({"nats": nats, "server": server}, ops, shards=20)
    try:
        password = cluster.write("publisher.password", PASSWORDS["publisher"] + "\n")
        cluster.publisher = cluster_kit.Process(
            [publisher, "--broker", cluster.urls(), "--user", "publisher", "--password-file", password, "--quiet"],
            log=cluster.log("publisher"))
        names = ["ps1", "ps2", "ps3", "ps4"]
        for name in names:
            cluster.start_server(name)
        for number, broker in enumerate(cluster.brokers):
            print(f"broker {number + 1}: process {broker.process.pid}, port {cluster.broker_ports[number]}")
        print(f"publisher: process {cluster.publisher.process.pid}")
        for name in names:
            print(f"{name}: process {cluster.servers[name].process.pid}, http://127.0.0.1:{cluster.ports[name]}/")
        print(f"logs in {cluster.folder.name}; kill what you like; Ctrl+C ends all", flush=True)
        shown = None
        while True:
            now = {name: cluster.shards_of(name) for name in names}
            if now != shown:
                shown = now
                print("  ".join(f"{name}: {','.join(map(str, shards)) or '-'}" for name, shards in now.items()), flush=True)
            time.sleep(0.2)
    except KeyboardInterrupt:
        return 0
    finally:
        cluster.close()


if __name__ == "__main__":
    sys.exit(main())
