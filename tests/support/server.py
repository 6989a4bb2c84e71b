#!/usr/bin/env python3
"""The tests' HTTP server, which gives right and faulty answers.

As a program, it runs a command that finds the server's address in the environment as SERVER: server.py COMMAND...
The first 100,000 bytes of the command's own file are the document, and the path says which answer is wanted, for example
http://ADDRESS/cut=40000/ending=stall. The answer to an address with a query is that address.

In a `with` block, answers are taken in order, one for each request (a download is a HEAD and then a GET), and the last
one repeats. Each is a dict of the following; {} is the right answer. Every connection is closed after one answer.

    status   instead of 200 or 206; the range is ignored
    body     instead of the document: bytes, or a number of bytes (of the document, repeated)
    length   instead of the right Content-Length; None: no such header
    range    "ignore": 200 and all of it
    headers  a dict of further headers
    cut      how many bytes of the body are sent; negative: all but so many; None: not even the status line
    ending   after `cut`: "close", "reset", or "stall": the rest follows on release()
    rate     bytes of the body a second, until release()
    arrival  "refuse": from when the answer before this one begins, connections are refused; "ignore": they are neither
             refused nor accepted
"""

import http.server
import os
import re
import socket
import struct
import subprocess
import sys
import threading
from pathlib import Path


class FaultServer(http.server.ThreadingHTTPServer):
    """port: where it listens; requests: (method, path, first byte or None) in order; stalled: the connections that
    wait for release() now. It serves in a `with` block; any thread may use it."""

    request_queue_size = 128

    def __init__(self, answers=({},), address=("127.0.0.1", 0), document=bytes(range(251)) * 400):
        super().__init__(address, Handler)
        self.answers, self.document = answers, document
        self.port, self.requests, self.stalled = self.server_address[1], [], []
        self.lock, self.released = threading.Lock(), threading.Event()

    def __enter__(self):
        threading.Thread(target=self.serve_forever, args=(0.01,), daemon=True).start()
        self.prepare_for(0)
        return self

    def __exit__(self, *_):
        self.release()
        self.shutdown()
        self.server_close()

    def release(self):
        """Ends every stall and every rate, also of answers that are still to come."""
        self.released.set()

    def answer(self, number):
        return self.answers[min(number, len(self.answers) - 1)] if self.answers else {}

    def prepare_for(self, number):
        match self.answer(number).get("arrival"):
            case "refuse":
                self.shutdown()
                self.server_close()
            case "ignore":  # the kernel ignores connections while its queue is full
                self.shutdown()
                self.socket.listen(0)
                self.waiting = [socket.socket() for _ in range(3)]
                for waiting in self.waiting:
                    waiting.setblocking(False)
                    waiting.connect_ex(self.server_address)

    def take(self, request):
        """The answer to a request."""
        with self.lock:
            number = len(self.requests)
            self.prepare_for(number + 1)
            self.requests.append(request)
        return self.answer(number) if self.answers else answer_of(*request)

    def shutdown_request(self, request):
        request.close()  # without telling the client that all was sent

    def handle_error(self, *_):
        pass  # clients may leave


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        first = next(map(int, re.findall(r"bytes=(\d+)-", self.headers.get("Range", ""))), None)
        answer = self.server.take((self.command, self.path, first))
        body, status = answer.get("body", self.server.document), answer.get("status", 200)
        headers = {"Connection": "close"} | answer.get("headers", {})
        if isinstance(body, int):
            body = (self.server.document * (body // len(self.server.document) + 1))[:body]
        if first is not None and "status" not in answer and answer.get("range") != "ignore":
            status, headers["Content-Range"] = 206, f"bytes {first}-{len(body) - 1}/{len(body)}"
            body = body[first:]
        length = answer.get("length", len(body))
        if length is not None:
            headers["Content-Length"] = length
        lines = [f"HTTP/1.1 {status} Status", *(f"{key}: {text}" for key, text in headers.items()), "", ""]
        self.send("\r\n".join(lines).encode(), b"" if self.command == "HEAD" else body, answer)

    do_HEAD = do_GET

    def send(self, head, body, answer):
        cut, rate, released = answer.get("cut", len(body)), answer.get("rate", 0), self.server.released
        if cut is None:
            up_to, rest = 0, head + body
        else:
            self.connection.sendall(head)
            up_to, rest = len(body) + cut if cut < 0 else min(cut, len(body)), memoryview(body)
        block = min(16384, rate // 20) if rate else max(1, up_to)
        for at in range(0, up_to, block):
            self.connection.sendall(rest[at:min(at + block, up_to)])
            if rate:
                released.wait(block / rate)
        if up_to < len(rest) and answer.get("ending") == "stall":
            self.server.stalled.append(self.connection)
            released.wait()
            self.server.stalled.remove(self.connection)
            self.connection.sendall(rest[up_to:])
        elif answer.get("ending") == "reset":
            self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def answer_of(method, path, _):
    """The answer that a path asks for."""
    if "?" in path:
        return {"body": f"{method} {path}".encode()}
    words = dict(word.split("=") for word in path.split("/") if "=" in word)
    return {key: int(text) if text.lstrip("-").isdigit() else {"None": None}.get(text, text) for key, text in words.items()}


def main(*command):
    with FaultServer((), document=Path(command[0]).read_bytes()[:100_000]) as server:
        address = "{}:{}".format(*server.server_address)
        done = subprocess.run(command, env=os.environ | {"SERVER": address}, check=False)
    sys.exit(done.returncode)


if __name__ == "__main__":
    main(*sys.argv[1:])
