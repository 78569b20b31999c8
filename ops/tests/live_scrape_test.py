"""The metrics of a running price_server, seen by Prometheus' own tools: promtool accepts the page, a Prometheus that
scrapes it finds an answer to every query of the dashboard, and no alert is about a metric that is not there.

usage: live_scrape_test.py PRICE_SERVER OPS_FOLDER GATEWAY_TESTS_FOLDER
"""

import json
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import urllib.parse

from server_process import PriceServer, Table, fetch, wait_for

FIXED = {
    "unifier_subscriptions_pending_provider": "number of subscriptions pending provider selection logic",
    "unifier_subscriptions_zel": "number of subscriptions using the ZEL provider",
    "unifier_subscriptions_mds": "number of subscriptions using the in-process MDS provider",
    "unifier_subscriptions_synthetic": "number of subscriptions using the unifier synthetics feature",
    "unifier_subscriptions_synthetic_flexible":
        "number of subscriptions using the unifier synthetics feature on the flexible api",
}


def dashboard_queries(path):
    with open(path) as file:
        dashboard = json.load(file)
    panels = [panel for top in dashboard["panels"] for panel in [top, *top.get("panels", [])]]
    return [(panel["title"], target["expr"]) for panel in panels for target in panel.get("targets", [])], panels


def alert_queries(path):
    """name and expression of every rule: the layout of our own file, no YAML parser needed."""
    with open(path) as file:
        text = file.read()
    return re.findall(r"- alert: (\w+)\n\s+expr: (?:>-\n\s+)?(.+)\n", text)


def metric_names(query):
    """The metrics that a query names: words that are no functions, labels or keywords."""
    query = re.sub(r'\{[^}]*\}|"[^"]*"|\[[^\]]*\]', "", query)
    query = re.sub(r"\b(by|without|on|ignoring) *\([^)]*\)", "", query)
    words = re.findall(r"[a-zA-Z_:][\w:]*(?! *\()\b", query)
    return {word for word in words if word not in ("and", "or", "unless", "up", "by") and "_" in word
            and not re.search(rf"\b{word} *\(", query)}


def series_names(page):
    return {line.split("{")[0].split(" ")[0] for line in page.splitlines() if line and not line.startswith("#")}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Prometheus:
    """Scrapes the price server once a second into a folder of its own."""

    def __init__(self, target, rules):
        self.folder = tempfile.TemporaryDirectory()
        config = os.path.join(self.folder.name, "prometheus.yml")
        with open(config, "w") as file:
            file.write("global: {scrape_interval: 1s, evaluation_interval: 1s}\n"
                       f"rule_files: ['{rules}']\n"
                       "scrape_configs:\n  - job_name: price_server\n"
                       f"    static_configs: [{{targets: ['127.0.0.1:{target}']}}]\n")
        self.url = f"http://127.0.0.1:{free_port()}"
        self.log = open(os.path.join(self.folder.name, "log"), "w+")
        self.process = subprocess.Popen(
            [shutil.which("prometheus"), f"--config.file={config}", f"--web.listen-address={self.url[7:]}",
             f"--storage.tsdb.path={self.folder.name}/data"], stdout=self.log, stderr=subprocess.STDOUT)

    def query(self, text):
        """The result; None while there is no answer."""
        status, body = fetch(f"{self.url}/api/v1/query?query={urllib.parse.quote(text)}")
        if status is None or status == 503:
            return None
        answer = json.loads(body)
        if answer["status"] != "success":
            raise AssertionError(f"{text}: {answer}")
        return answer["data"]["result"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait(timeout=60)
        self.log.close()
        self.folder.cleanup()


def check_page(table, page):
    lint = subprocess.run(["promtool", "check", "metrics"], input=page, capture_output=True, text=True)
    table.check("promtool check metrics says nothing", lint.returncode == 0 and not lint.stdout + lint.stderr,
                lint.stdout + lint.stderr)
    for name, help_text in FIXED.items():
        table.check(f"{name} has its text and no labels",
                    f"# HELP {name} {help_text}\n" in page and re.search(rf"^{name} \d", page, re.M))
    helped = set(re.findall(r"^# HELP (\S+) \S", page, re.M))
    typed = set(re.findall(r"^# TYPE (\S+) ", page, re.M))
    table.check("every metric has a type and a help text", helped == typed and len(helped) > 30, helped ^ typed)


def check_names(table, page, queries):
    names = series_names(page)
    for where, query in queries:
        unknown = metric_names(query) - names
        table.check(f"{where}: its metrics are on the page", metric_names(query) and not unknown,
                    f"{unknown or 'no metric'} in {query}")


def check_answers(table, prometheus, queries):
    for where, query in queries:
        text = query.replace("$__rate_interval", "1m").replace("$job", "price_server").replace("$instance", ".*")
        table.check(f"dashboard, {where}: {text}", prometheus.query(text))


def main():
    program, ops, gateway_tests = sys.argv[1:]
    sys.path.insert(0, gateway_tests)
    from ws_client import Client

    table = Table()
    for tool in ("promtool", "prometheus"):
        if shutil.which(tool) is None:
            table.check(f"{tool} is installed (package prometheus)", False)
            return table.result()
    dashboard, panels = dashboard_queries(os.path.join(ops, "grafana/dashboard.json"))
    alerts = alert_queries(os.path.join(ops, "prometheus/alerts.yml"))
    table.check("the dashboard has its rows", [p["title"] for p in panels if p["type"] == "row"]
                == ["Health", "Queue", "Manager", "Delivery", "Gateway", "Process"])
    table.check("the dashboard's panels have numbers of their own", len({p["id"] for p in panels}) == len(panels))
    table.check("the dashboard has queries and there are alerts", len(dashboard) > 30 and len(alerts) > 10,
                (len(dashboard), len(alerts)))
    with PriceServer(program) as server:
        client = Client(server.port, protocol="price-server.v1")
        client.receive_type("hello")
        client.send({"type": "subscribe", "request": "a", "instrument": "SIM:GOLD-JUN27", "kinds": ["book", "trades"]})
        client.receive_type("image")
        with Prometheus(server.port, os.path.join(ops, "prometheus/alerts.yml")) as prometheus:
            page = fetch(server.url + "/metrics")[1]
            check_page(table, page)
            check_names(table, page, dashboard)
            check_names(table, page, [(f"alert {name}", query) for name, query in alerts
                                      if metric_names(query)])
            for name, query in alerts:
                table.check(f"alert {name} names a metric", metric_names(query) or query.startswith("up{"))
            # Rates need two scrapes, and something between them.
            wait_for(lambda: prometheus.query(
                "rate(price_server_callback_seconds_count{kind=\"book\"}[1m]) > 0"), "second scrape")
            wait_for(lambda: prometheus.query(
                "sum(rate(data_queue_action_latency_seconds_count[1m])) > 0"), "second probe")
            check_answers(table, prometheus, dashboard)
            firing = prometheus.query('ALERTS{alertstate="firing"}')
            table.check("no alert fires on a healthy server", firing == [], firing)
        client.close()
        table.check("the server ends well", server.stop() == 0, server.lines)
    with PriceServer(program, sections='<Metrics enabled="no"/>') as server:
        names = series_names(fetch(server.url + "/metrics")[1])
        table.check("metrics that are switched off leave the fixed gauges", set(FIXED) <= names
                    and not {n for n in names if n.startswith(("data_queue", "process_", "price_server_ready"))}, names)
    return table.result()


if __name__ == "__main__":
    sys.exit(main())
