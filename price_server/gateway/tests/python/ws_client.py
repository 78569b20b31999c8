"""A WebSocket client over a plain socket, which can break every rule: for tests of the gateway."""

import base64
import json
import os
import socket
import struct

TEXT, BINARY, CLOSE, PING, PONG, CONTINUATION = 1, 2, 8, 9, 10, 0


class Closed(Exception):
    """The server has closed the session; `code` is None when it did so without a close frame."""

    def __init__(self, code, reason=""):
        super().__init__(f"closed: {code} {reason}")
        self.code = code
        self.reason = reason


class Client:
    def __init__(self, port, host="127.0.0.1", path="/ws", headers=(), protocol=None, timeout=10, handshake=True):
        self.socket = socket.create_connection((host, port), timeout=timeout)
        self.buffer = b""
        self.pending = []
        self.status = None
        self.response_headers = {}
        if handshake:
            self.handshake(host, port, path, headers, protocol)

    def handshake(self, host, port, path, headers, protocol):
        key = base64.b64encode(os.urandom(16)).decode()
        lines = [f"GET {path} HTTP/1.1", f"Host: {host}:{port}", "Upgrade: websocket", "Connection: Upgrade",
                 f"Sec-WebSocket-Key: {key}", "Sec-WebSocket-Version: 13"]
        if protocol:
            lines.append(f"Sec-WebSocket-Protocol: {protocol}")
        lines += [f"{name}: {value}" for name, value in headers]
        self.socket.sendall(("\r\n".join(lines) + "\r\n\r\n").encode())
        self.read_response()

    def read_response(self):
        while b"\r\n\r\n" not in self.buffer:
            part = self.socket.recv(65536)
            if not part:
                raise Closed(None, "no answer to the handshake")
            self.buffer += part
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        lines = head.decode("latin-1").split("\r\n")
        self.status = int(lines[0].split()[1])
        self.response_headers = {k.lower(): v.strip() for k, v in (line.split(":", 1) for line in lines[1:])}

    # --- Sending ---

    def send_raw(self, data):
        self.socket.sendall(data)

    def send_frame(self, opcode, payload=b"", fin=True, masked=True, reserved=0, length=None):
        head = bytes([(0x80 if fin else 0) | (reserved << 4) | opcode])
        size = len(payload) if length is None else length
        bit = 0x80 if masked else 0
        if size < 126:
            head += bytes([bit | size])
        elif size < 65536:
            head += bytes([bit | 126]) + struct.pack(">H", size)
        else:
            head += bytes([bit | 127]) + struct.pack(">Q", size)
        if masked:
            mask = os.urandom(4)
            payload = mask + bytes(b ^ mask[i % 4] for i, b in enumerate(payload))
        self.send_raw(head + payload)

    def send(self, *objects):
        self.send_frame(TEXT, "\n".join(json.dumps(o) for o in objects).encode())

    # --- Receiving ---

    def _read(self, count):
        while len(self.buffer) < count:
            part = self.socket.recv(1 << 20)
            if not part:
                raise Closed(None, "the connection ended")
            self.buffer += part
        data, self.buffer = self.buffer[:count], self.buffer[count:]
        return data

    def read_frame(self):
        first, second = self._read(2)
        size = second & 0x7F
        if size == 126:
            size = struct.unpack(">H", self._read(2))[0]
        elif size == 127:
            size = struct.unpack(">Q", self._read(8))[0]
        assert not second & 0x80, "a server must not mask"
        return first & 0x0F, bool(first & 0x80), self._read(size)

    def read_message(self):
        """The next text message; answers pings; raises Closed."""
        parts = b""
        while True:
            opcode, fin, payload = self.read_frame()
            if opcode == CLOSE:
                code = struct.unpack(">H", payload[:2])[0] if len(payload) >= 2 else 1005
                raise Closed(code, payload[2:].decode())
            if opcode == PING:
                self.send_frame(PONG, payload)
                continue
            if opcode == PONG:
                continue
            parts += payload
            if fin:
                return parts.decode()

    def receive(self):
        """The next object."""
        while not self.pending:
            self.pending = [json.loads(line) for line in self.read_message().split("\n")]
        return self.pending.pop(0)

    def receive_type(self, *types):
        while True:
            message = self.receive()
            if message["type"] in types:
                return message

    def close(self):
        self.socket.close()


class Book:
    """Applies images and updates as docs/protocol.md says."""

    def __init__(self):
        self.bids = {}
        self.asks = {}
        self.epoch = None
        self.sequence = None
        self.depth = None

    def apply(self, message):
        if message["type"] == "image":
            self.bids = {level[0]: level[1:] for level in message["bids"]}
            self.asks = {level[0]: level[1:] for level in message["asks"]}
            self.depth = message["depth"]
        else:
            assert message["epoch"] == self.epoch, "an update of another epoch"
            assert message["previous"] == self.sequence, "an update that does not follow"
            for side, name in ((self.bids, "bids"), (self.asks, "asks")):
                for price, direct, implied, orders in message[name]:
                    if direct == "0" and implied == "0":
                        assert price in side, "a level is gone that was not there"
                        del side[price]
                    else:
                        side[price] = [direct, implied, orders]
        self.epoch = message["epoch"]
        self.sequence = message["sequence"]
        assert len(self.bids) <= message["depth"] and len(self.asks) <= message["depth"], "too many levels"

    def as_image(self):
        from decimal import Decimal
        return {"bids": [[p] + v for p, v in sorted(self.bids.items(), key=lambda i: -Decimal(i[0]))],
                "asks": [[p] + v for p, v in sorted(self.asks.items(), key=lambda i: Decimal(i[0]))]}
