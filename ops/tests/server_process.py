"""A price_server, and other programs, as child processes of a test."""

import os
import queue
import re
import signal
import subprocess
import tempfile
import threading
import time
import urllib.error
import urllib.request

PATIENCE = 60


def wait_for(condition, what, patience=PATIENCE):
    """The first true value of `condition`, which is looked at again and again."""
    end = time.monotonic() + patience
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"in {patience} s there was no {what}")
        time.sleep(0.02)


def fetch(url, patience=10):
    """Status and body of a GET; (None, reason) when there is no answer."""
    try:
        with urllib.request.urlopen(url, timeout=patience) as answer:
            return answer.status, answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()
    except OSError as error:
        return None, str(error)


class PriceServer:
    """Runs the program with a simulated market on a port that is free, and waits until it is ready; `with` ends it.
    `gateway`: attributes of <Gateway>; `sections`: more of the configuration."""

    BASE = ('<PriceServer><Logging level="30"/><Markets><Market id="1" name="SIM"/></Markets>'
            '<Providers><Mds><Simulation updatesPerSecond="{rate}"/></Mds></Providers><Gateway port="0" {gateway}/>'
            '{sections}</PriceServer>')

    def __init__(self, program, gateway="", rate=500, sections=""):
        self.folder = tempfile.TemporaryDirectory()
        path = os.path.join(self.folder.name, "server.xml")
        with open(path, "w") as file:
            file.write(self.BASE.format(gateway=gateway, rate=rate, sections=sections))
        self.process = subprocess.Popen([program, "--config", path], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE, text=True)
        self.lines = []
        self.urls = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()
        self.url = self.urls.get(timeout=PATIENCE).rstrip("/")
        self.port = int(self.url.rsplit(":", 1)[1])
        wait_for(lambda: fetch(self.url + "/-/ready")[0] == 200, "readiness")

    def _read(self):
        for line in self.process.stderr:
            self.lines.append(line)
            found = re.search(r"page and prices at (\S+)", line)
            if found:
                self.urls.put(found.group(1))

    def stop(self):
        """Exit code."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        return self.process.wait(timeout=PATIENCE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self.stop()
        finally:
            if self.process.poll() is None:
                self.process.kill()
                self.process.wait()
            self.folder.cleanup()


class Table:
    """Cases with what came of them; counts and prints."""

    def __init__(self):
        self.failures = 0
        self.cases = 0

    def check(self, name, is_good, detail=""):
        self.cases += 1
        self.failures += not is_good
        print(f"{'ok    ' if is_good else 'FAILED'}  {name}{'' if is_good or not detail else ': ' + str(detail)}",
              flush=True)

    def result(self):
        print(f"{self.cases} cases, {self.failures} failures")
        return 1 if self.failures or not self.cases else 0
