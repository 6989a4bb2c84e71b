#!/usr/bin/env python3
"""The tests' HTTP server, which gives right and faulty answers.

As a program, for `FaultServer([{}, {"cut": 40_000, "ending": "stall"}], document=DOCUMENT)`:

    server.py --document DOCUMENT -- "" "cut=40000 ending=stall"

It prints its port, then a line for each request: method, path and the first byte asked for ("-" where no range is).
The end of its standard input ends it.

Answers are taken in order, one a request (a download is a HEAD and then a GET), and the last one repeats. Each is a
dict of the following, {} being the right answer. Every connection is closed after one answer.

    status   in place of 200, 206 or 416; the range is ignored
    body     in place of the document: bytes, or a number of bytes (of the document, repeated)
    length   in place of the right Content-Length; None: no such header
    range    "honour", "ignore" (200 and all of it) or "shift" (206 with what begins one byte too early)
    headers  a dict of further headers
    redirect an address: 302 and a Location
    head     how many bytes of status line and headers are sent
    cut      how many bytes of the body are sent; negative: all but so many
    ending   after `head` or `cut`: "close", "reset", or "stall": the rest follows on release()
    rate     bytes of the body a second, until release()
    arrival  of the client that would get this answer: "refuse", from when the answer before it begins, and for good
"""

import contextlib
import re
import socket
import struct
import sys
import threading
from pathlib import Path


class FaultServer:
    """port: where it listens; requests: (method, path, first byte or None) in order; stalled: the connections that
    wait for release() now. It serves in a `with` block; any thread may use it."""

    def __init__(self, answers=({},), address=("127.0.0.1", 0), document=bytes(range(251)) * 400, prints=False):
        self._answers, self._document, self._prints = answers, document, prints
        self._listener = socket.create_server(address, backlog=128)
        self.port, self.requests, self.stalled = self._listener.getsockname()[1], [], []
        self._lock, self._released = threading.Lock(), threading.Event()

    def __enter__(self):
        threading.Thread(target=self._accept, daemon=True).start()
        self._prepare_for(0)
        return self

    def __exit__(self, *_):
        self.release()
        self._close()
        self._listener.close()

    def release(self):
        """Ends every stall and every rate, also of answers that are still to come."""
        self._released.set()

    def _close(self):
        with contextlib.suppress(OSError):  # refuses already
            self._listener.shutdown(socket.SHUT_RDWR)

    def _answer(self, number):
        return self._answers[min(number, len(self._answers) - 1)]

    def _prepare_for(self, number):
        if self._answer(number).get("arrival") == "refuse":
            self._close()

    def _accept(self):
        with contextlib.suppress(OSError):  # it is closed
            while True:
                connection, _ = self._listener.accept()
                threading.Thread(target=self._respond, args=(connection,), daemon=True).start()

    def _respond(self, connection):
        with contextlib.suppress(OSError), connection, connection.makefile("rb") as request:  # clients may leave
            head = b"".join(iter(lambda: request.readline().rstrip(b"\r\n") + b"\n", b"\n")).decode()
            if not head:
                return
            method, path, _ = head.split("\n", 1)[0].split(" ")
            first = next(map(int, re.findall(r"(?mi)^range: *bytes=(\d+)-", head)), None)
            with self._lock:
                number = len(self.requests)
                self._prepare_for(number + 1)
                self.requests.append((method, path, first))
                if self._prints:
                    print(method, path, "-" if first is None else first, flush=True)
            answer = self._answer(number)
            self._send(connection, answer, *self._composed(answer, method, first))

    def _composed(self, answer, method, first):
        """Status line with headers, and the body."""
        body, status = answer.get("body", self._document), 200
        headers = {"Connection": "close"} | answer.get("headers", {})
        if isinstance(body, int):
            body = (self._document * (body // len(self._document) + 1))[:body]
        if "redirect" in answer:
            status, headers["Location"] = 302, answer["redirect"]
        elif "status" not in answer and first is not None and answer.get("range") != "ignore":
            first -= answer.get("range") == "shift"
            status, part = (206, f"{first}-{len(body) - 1}") if first < len(body) else (416, "*")
            headers["Content-Range"] = f"bytes {part}/{len(body)}"
            body = body[first:]
        length = answer.get("length", len(body))
        if length is not None:
            headers["Content-Length"] = length
        head = [f"HTTP/1.1 {answer.get('status', status)} Status", *(f"{key}: {text}" for key, text in headers.items())]
        return "".join(f"{line}\r\n" for line in [*head, ""]).encode(), b"" if method == "HEAD" else body

    def _send(self, connection, answer, head, body):
        if "head" in answer:
            up_to, rest = answer["head"], memoryview(head + body)
        else:
            connection.sendall(head)
            up_to, rest = answer.get("cut", len(body)), memoryview(body)
        up_to, rate = (len(rest) if up_to < 0 else 0) + min(up_to, len(rest)), answer.get("rate", 0)
        block = max(1, min(16384, rate // 20)) if rate else max(1, up_to)
        for at in range(0, up_to, block):
            connection.sendall(rest[at: min(at + block, up_to)])
            if rate:
                self._released.wait(block / rate)
        if up_to < len(rest) and answer.get("ending") == "stall":
            self.stalled.append(connection)
            self._released.wait()
            self.stalled.remove(connection)
            connection.sendall(rest[up_to:])
        elif answer.get("ending") == "reset":
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def value(text):
    return int(text) if text.lstrip("-").isdigit() else None if text == "None" else text


def main(_document, document, _answers, *answers):
    answers = [dict(word.split("=", 1) for word in answer.split()) for answer in answers]
    answers = [{key: value(text) for key, text in answer.items()} for answer in answers]
    with FaultServer(answers, document=Path(document).read_bytes(), prints=True) as server:
        print(server.port, flush=True)
        sys.stdin.read()


if __name__ == "__main__":
    main(*sys.argv[1:])
