"""What the gateway's tests over real sockets share: the server as a process, and a table of cases."""

import argparse
import os
import re
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time

from ws_client import Client, Closed

LIMITS = {"message_bytes": 65536, "header_bytes": 16384}


class Server:
    """The built program in a process of its own, on a port that is free. `config` is the text of section Gateway's
    inside and attributes; None: the built-in configuration."""

    def __init__(self, program, arguments=(), gateway=None, duration=600):
        self.folder = tempfile.TemporaryDirectory()
        command = [os.path.abspath(program), "--duration", str(duration), *arguments]
        if gateway is None:
            command += ["--port", "0"]
        else:
            command += ["--config", self.write("server.xml", CONFIG.replace("GATEWAY", gateway))]
        self.lines = []
        self.has_url = threading.Event()
        self.url = None
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                                        errors="replace", cwd=self.folder.name)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        if not self.has_url.wait(60):
            self.stop()
            raise RuntimeError("the server does not listen:\n" + "".join(self.lines[-20:]))
        self.port = int(self.url.rstrip("/").rsplit(":", 1)[1])
        self.wait_until_ready()

    def write(self, name, text):
        path = os.path.join(self.folder.name, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def _read(self):
        for line in self.process.stderr:
            if len(self.lines) < 5000:
                self.lines.append(line)
            found = re.search(r"listening on (https?://\S+)", line)
            if found:
                self.url = found.group(1)
                self.has_url.set()
        self.has_url.set()

    def wait_until_ready(self):
        if self.url is None:
            raise RuntimeError("the server has ended:\n" + "".join(self.lines[-20:]))
        if self.url.startswith("https"):
            time.sleep(1)
            return
        end = time.monotonic() + 60
        while time.monotonic() < end:
            try:
                if http(self.port, "GET", "/-/ready").status == 200:
                    return
            except OSError:
                pass
            time.sleep(0.02)
        raise RuntimeError("the server is not ready")

    def is_alive(self):
        return self.process.poll() is None

    def rss_bytes(self):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            return int(re.search(r"VmRSS:\s+(\d+) kB", status.read()).group(1)) * 1024

    def stop(self):
        """Asks it to end; its exit code."""
        if self.is_alive():
            self.process.send_signal(signal.SIGTERM)
        try:
            code = self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            code = "hung"
        self.reader.join(5)
        self.folder.cleanup()
        return code


CONFIG = """<?xml version="1.0" encoding="UTF-8"?>
<PriceServer>
  <General SkipUnchangedSnapshots="yes"/>
  <Logging level="10" format="text"/>
  <Markets>
    <Market id="1" name="SIM" defaultDepth="10" maxDepth="1000"/>
    <Market id="2" name="OTHER" defaultDepth="10" maxDepth="1000"/>
  </Markets>
  <Providers><Mds><Simulation seed="1" updatesPerSecond="400"/></Mds></Providers>
  GATEWAY
</PriceServer>
"""


class Answer:
    def __init__(self, data, was_closed):
        head, _, self.body = data.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        parts = lines[0].split(" ")
        self.status = int(parts[1]) if len(parts) > 1 and parts[1].isdigit() else None
        self.headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            self.headers[name.lower()] = value.strip()
        self.was_closed = was_closed
        self.data = data


def exchange(connection, data, timeout=5, until=None):
    """Sends bytes, and reads one answer: up to its Content-Length, or the end."""
    connection.settimeout(timeout)
    try:
        connection.sendall(data)
    except (BrokenPipeError, ConnectionResetError):
        pass  # the answer may be there already
    return read_answer(connection, is_head=data.startswith(b"HEAD"))


def read_answer(connection, is_head=False, rest=b""):
    data = rest
    while True:
        head, mark, body = data.partition(b"\r\n\r\n")
        if mark:
            length = re.search(rb"(?i)content-length: *(\d+)", head)
            status = head[9:12]
            if is_head or status in (b"304", b"101"):
                return Answer(data, False)
            if length and len(body) >= int(length.group(1)):
                return Answer(data, False)
        try:
            part = connection.recv(65536)
        except (socket.timeout, ConnectionResetError):
            return Answer(data, False)
        if not part:
            return Answer(data, True)
        data += part


def http(port, method, target, headers=(), body=b"", host=None, wrap=None, timeout=5):
    """One request on a connection of its own. `headers` with a Host replaces the usual one."""
    with socket.create_connection(("127.0.0.1", port), timeout=timeout) as plain:
        connection = wrap(plain) if wrap else plain
        lines = [f"{method} {target} HTTP/1.1"]
        if not any(name.lower() == "host" for name, _ in headers):
            lines.append(f"Host: {host or f'127.0.0.1:{port}'}")
        lines += [f"{name}: {value}" for name, value in headers]
        return exchange(connection, ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1") + body, timeout)


def frame(opcode, payload=b"", fin=True, reserved=0, mask=b"\x11\x22\x33\x44", encoding=None):
    """A frame of a client. `encoding`: bytes of the length, 1, 2 or 8; None: as few as will do."""
    size = len(payload)
    bit = 0x80 if mask is not None else 0
    if encoding is None:
        encoding = 1 if size < 126 else 2 if size < 65536 else 8
    length = {1: lambda: bytes([bit | size]), 2: lambda: bytes([bit | 126]) + struct.pack(">H", size),
              8: lambda: bytes([bit | 127]) + struct.pack(">Q", size)}[encoding]()
    if mask is not None:
        whole = (mask * (size // 4 + 1))[:size]
        payload = (int.from_bytes(payload, "big") ^ int.from_bytes(whole, "big")).to_bytes(size, "big") if size else b""
    return bytes([(0x80 if fin else 0) | (reserved << 4) | opcode]) + length + (mask or b"") + payload


class Cases:
    """A table of what was tried and what came of it."""

    def __init__(self, title):
        self.title = title
        self.count = 0
        self.failures = []
        self.groups = {}
        self.lock = threading.Lock()
        self.began = time.monotonic()

    def check(self, group, name, ok, detail=""):
        with self.lock:
            self.count += 1
            good, all_of_it = self.groups.get(group, (0, 0))
            self.groups[group] = (good + bool(ok), all_of_it + 1)
            if not ok:
                self.failures.append(f"{group}: {name}: {detail}")
        return ok

    def equal(self, group, name, seen, expected):
        return self.check(group, name, seen == expected, f"expected {expected!r}, saw {seen!r}")

    def one_of(self, group, name, seen, expected):
        return self.check(group, name, seen in expected, f"expected one of {expected!r}, saw {seen!r}")

    def finish(self):
        print(f"{self.title}: {self.count} cases, {len(self.failures)} failed, "
              f"{time.monotonic() - self.began:.1f} s")
        for group, (good, all_of_it) in self.groups.items():
            print(f"  {group:<44} {good:>6} of {all_of_it}")
        for failure in self.failures[:60]:
            print("FAILED " + failure)
        return 1 if self.failures else 0


def parse_arguments(*extra):
    parser = argparse.ArgumentParser()
    parser.add_argument("--server", required=True, help="the built program")
    parser.add_argument("--data", default="", help="folder of recorded data")
    parser.add_argument("--sanitized", action="store_true",
                        help="the program is built with a sanitizer: it is slow, and its memory says nothing")
    for name, kind, default in extra:
        parser.add_argument("--" + name, type=kind, default=default)
    return parser.parse_args()


__all__ = ["Answer", "Cases", "Client", "Closed", "LIMITS", "Server", "exchange", "frame", "http", "parse_arguments",
           "read_answer"]
