#!/usr/bin/env python3
"""The tests' HTTP server, which misbehaves as it is told.

As a module, in a `with` block:

    with FaultServer([{}, {"cut": 40_000}, {"status": 404, "body": 8}, {}], document=package) as server:
        ...                     # server.port, server.requests, server.stalled, server.release()

As a program, one argument an answer, for `FaultServer("{}", {"cut": 40_000, "ending": "stall"})`:

    server.py [--listen HOST:PORT] [--document FILE] "" "cut=40000 ending=stall"

It prints its port, then a line for each request: method, path and the first byte asked for ("-" where no range is).
A line on its standard input releases what is stalled, the end of its standard input ends it.

Answers are taken in order, one a request (a download is a HEAD and then a GET), and the last one repeats. Each is a
dict of the following, {} being the right answer; instead of a list, a function of (method, path, first byte or None)
may give them. Every connection is closed after one answer.

    status   in place of 200, 206 or 416; from 300 on the range is ignored
    body     in place of the document: bytes, text, or a number of bytes (of the document, repeated)
    length   in place of the right Content-Length; None: no such header
    range    "honour", "ignore" (200 and all of it) or "shift" (206 with what begins one byte too early)
    headers  a dict of further headers
    redirect an address: 302 and a Location
    raw      text in place of the status line, the headers and the body
    head     how many bytes of status line and headers are sent
    cut      how many bytes of the body are sent; negative: all but so many
    ending   after `head` or `cut`: "close", "reset", or "stall": the rest follows on release()
    rate     bytes of the body a second
    arrival  of the client that would get this answer: "refuse" (from now on, for good) or "hole" (its connecting
             hangs until release()); both begin when the answer before it does
"""

import argparse
import ast
import contextlib
import re
import socket
import struct
import sys
import threading
import time


class FaultServer:
    """port: where it listens; requests: (method, path, first byte or None) in order; stalled: how many clients wait
    for release() now, the ones in a hole not counted. Any thread may use them."""

    def __init__(self, answers=({},), address=("127.0.0.1", 0), document=bytes(range(251)) * 400, on_request=None):
        self._answers, self._document, self._on_request = answers, document, on_request
        self._listener = socket.create_server(address, backlog=128)
        self._address = self._listener.getsockname()[:2]
        self.port, self.requests, self.stalled = self._address[1], [], 0
        self._lock, self._released, self._parked = threading.Lock(), threading.Event(), threading.Event()
        self._hole = None

    def __enter__(self):
        threading.Thread(target=self._accept, daemon=True).start()
        self._prepare_for(0)
        return self

    def __exit__(self, *_):
        self.release()
        self._close()
        self._listener.close()

    def release(self):
        """Ends every stall and every hole, also of answers that are still to come."""
        self._released.set()
        if self._hole is not None:
            self._listener.listen(128)
            for filler in self._hole:
                filler.close()

    def _close(self):
        with contextlib.suppress(OSError):  # refuses already
            self._listener.shutdown(socket.SHUT_RDWR)

    def _answer(self, number):
        return {} if callable(self._answers) else self._answers[min(number, len(self._answers) - 1)]

    def _prepare_for(self, number):
        arrival = self._answer(number).get("arrival")
        if arrival == "refuse":
            self._close()
        elif arrival == "hole" and self._hole is None and not self._released.is_set():
            self._hole = []
            self._hole.append(socket.create_connection(self._address))  # halts the accepting thread
            self._parked.wait()
            self._listener.listen(0)
            self._hole.append(socket.create_connection(self._address))  # fills the queue: the next SYN is dropped

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            if self._hole is not None and not self._released.is_set():
                self._parked.set()
                self._released.wait()
            threading.Thread(target=self._respond, args=(connection,), daemon=True).start()

    def _respond(self, connection):
        with contextlib.suppress(OSError), connection, connection.makefile("rb") as request:  # clients may leave
            head = b"".join(iter(lambda: request.readline().rstrip(b"\r\n") + b"\n", b"\n")).decode()
            if not head:
                return
            method, path, _ = head.split("\n", 1)[0].split(" ")
            first = re.search(r"(?mi)^range: *bytes=(\d+)-", head)
            first = int(first[1]) if first else None
            with self._lock:
                number = len(self.requests)
                self._prepare_for(number + 1)
                self.requests.append((method, path, first))
                if self._on_request is not None:
                    self._on_request(method, path, first)
            answer = self._answers(method, path, first) if callable(self._answers) else self._answer(number)
            self._send(connection, answer, *self._composed(answer, method, first))

    def _composed(self, answer, method, first):
        """Status line with headers, and the body."""
        body = answer.get("body", self._document)
        if isinstance(body, int):
            body = (self._document * (body // len(self._document) + 1))[:body]
        body = body.encode() if isinstance(body, str) else body
        status, headers = 200, dict(answer.get("headers", {}))
        if "redirect" in answer:
            status, headers["Location"] = 302, answer["redirect"]
        elif answer.get("status", 200) // 100 == 2 and first is not None and answer.get("range") != "ignore":
            first -= answer.get("range") == "shift"
            status, part = (206, f"{first}-{len(body) - 1}") if first < len(body) else (416, "*")
            headers["Content-Range"] = f"bytes {part}/{len(body)}"
            body = body[first:]
        length = answer.get("length", len(body))
        if length is not None:
            headers["Content-Length"] = length
        head = f"HTTP/1.1 {answer.get('status', status)} Status\r\nConnection: close\r\n"
        head += "".join(f"{name}: {value}\r\n" for name, value in headers.items()) + "\r\n"
        if "raw" in answer:
            head, body = answer["raw"], b""
        return head.encode(), b"" if method == "HEAD" else body

    def _send(self, connection, answer, head, body):
        up_to = answer.get("head")
        if up_to is None:
            connection.sendall(head)
            up_to, rest = answer.get("cut", len(body)), body
        else:
            rest = head + body
        up_to = max(0, len(rest) + up_to) if up_to < 0 else min(up_to, len(rest))
        rest, rate = memoryview(rest), answer.get("rate", 0)
        block = max(1, min(16384, rate // 20)) if rate else max(1, up_to)
        for at in range(0, up_to, block):
            connection.sendall(rest[at : min(at + block, up_to)])
            if rate:
                time.sleep(block / rate)
        if up_to < len(rest) and answer.get("ending") == "stall":
            with self._lock:
                self.stalled += 1
            self._released.wait()
            with self._lock:
                self.stalled -= 1
            connection.sendall(rest[up_to:])
        elif answer.get("ending") == "reset":
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def parsed(words):
    """The answer that "key=value key=value" names; a value that is no Python literal is text."""

    def value(text):
        try:
            return ast.literal_eval(text)
        except (ValueError, SyntaxError):
            return text

    return {key: value(text) for key, text in (word.split("=", 1) for word in words.split())}


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("--listen", default="127.0.0.1:0")
    arguments.add_argument("--document", type=argparse.FileType("rb"))
    arguments.add_argument("answers", nargs="*", type=parsed)
    given = arguments.parse_args()
    host, port = given.listen.rsplit(":", 1)
    document = {"document": given.document.read()} if given.document else {}

    def report(method, path, first):
        print(method, path, "-" if first is None else first, flush=True)

    with FaultServer(given.answers or [{}], (host, int(port)), on_request=report, **document) as server:
        print(server.port, flush=True)
        for _ in sys.stdin:
            server.release()


if __name__ == "__main__":
    main()
