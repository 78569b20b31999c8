"""A nats-server of a test's own, and a client that speaks its protocol in the plain."""

import json
import os
import signal
import socket
import subprocess
import tempfile
import time

# A number, and what has a meaning in the broker's configuration.
PASSWORDS = {"publisher": "123", "server": "p#s {$w} \\ \"o'rd; //", "admin": "admins-secret"}
PATIENCE = 20


def quote(word):
    """As the broker's configuration wants a text, also when it comes from the environment."""
    return '"' + word.replace("\\", "\\\\").replace('"', '\\"') + '"'


class Broker:
    """On a port that is free; keeps the port over kill and start. `with` kills it. `address` None: where the
    configuration says."""

    def __init__(self, program, config=None, address="127.0.0.1"):
        self.program, self.config, self.address, self.port = program, config, address, None
        self.listens = []  # the addresses that it tells of
        self.folder = tempfile.TemporaryDirectory()
        self.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()
        self.folder.cleanup()

    @property
    def url(self):
        return f"nats://127.0.0.1:{self.port}"

    def start(self):
        command = [self.program, "-p", str(self.port or -1), "--ports_file_dir", self.folder.name]
        command += ["-a", self.address] if self.address else []
        environment = dict(os.environ, **{f"PRICE_{role.upper()}_PASSWORD": quote(word)
                                          for role, word in PASSWORDS.items()})
        self.process = subprocess.Popen(command + (["-c", self.config] if self.config else []), env=environment,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        ports = os.path.join(self.folder.name, f"nats-server_{self.process.pid}.ports")
        end = time.monotonic() + PATIENCE
        while True:
            try:
                if self.port is None:
                    with open(ports, encoding="ascii") as file:
                        self.listens = json.load(file)["nats"]
                    self.port = int(self.listens[0].rsplit(":", 1)[1])
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return
            except (OSError, ValueError):
                if self.process.poll() is not None or time.monotonic() > end:
                    raise RuntimeError(f"the broker does not listen: {self.process.stderr.read()}") from None
                time.sleep(0.01)

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()
        self.process.stderr.close()


class PlainClient:
    """Says what it is told to, and collects the answers."""

    def __init__(self, port, **identity):
        self.socket = socket.create_connection(("127.0.0.1", port), PATIENCE)
        self.file = self.socket.makefile("rb")
        self.info = json.loads(self.file.readline()[len("INFO "):])
        self.say("CONNECT " + json.dumps({"verbose": False, "pedantic": False, **identity}))

    def say(self, line):
        try:
            self.socket.sendall(line.encode() + b"\r\n")
        except OSError:
            pass  # it may have hung up already

    def answers(self):
        """What comes up to the answer to a ping, or the end."""
        self.say("PING")
        lines = []
        try:
            while True:
                line = self.file.readline().decode().strip()
                if not line or line == "PONG":
                    return lines + [line]
                lines.append(line)
        except OSError:
            return lines + [""]

    def close(self):
        self.file.close()
        self.socket.close()
