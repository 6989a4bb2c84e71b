"""A download server that breaks in every way it is told to."""

import os
import re
import socket
import socketserver
import struct
import threading
import time


class Manner:
    """How a request is answered: with a FAULT (one of FAULTS), and in blocks with a pause in seconds after each.
    When UP_TO bytes of the reply are out, it ends, or goes on as soon as AT_STALL has returned."""

    FAULTS = ("page", "whole", "shifted", "no length", "cut", "reset", "stall")

    def __init__(self, fault="", up_to=1 << 40, at_stall=None, block=65536, pause=0.0):
        self.fault, self.up_to, self.at_stall, self.block, self.pause = fault, up_to, at_stall, block, pause

    @classmethod
    def drawn(cls, draw, is_head, size):
        """Any manner for a document of that SIZE, a sound one more often than not."""
        manner = cls(block=512 << draw.randrange(8), pause=draw.choice((0, 0, 0.0003, 0.002)))
        if draw.random() < (0.1 if is_head else 0.5):
            manner.fault = draw.choice(cls.FAULTS)
            if manner.fault in ("cut", "reset", "stall"):
                manner.up_to = draw.randrange(draw.choice((200, size)))
            if manner.fault == "stall":
                manner.at_stall = lambda: time.sleep(draw.random() / 5)
        return manner


class Reply(socketserver.StreamRequestHandler):
    def handle(self):
        request = b"".join(iter(self.rfile.readline, b"\r\n"))
        is_head = request.startswith(b"HEAD")
        manner = self.server.manner_of(is_head)
        reply = self.composed(manner.fault, request, is_head)
        for at in range(0, len(reply), manner.block):
            if at >= manner.up_to and manner.at_stall is None:
                break
            if at >= manner.up_to:
                manner.at_stall()
                manner.up_to = len(reply)
            self.wfile.write(reply[at : at + manner.block])
            time.sleep(manner.pause)
        if manner.fault == "reset":
            self.request.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            os.close(self.request.detach())

    def composed(self, fault, request, is_head):
        wanted = re.search(rb"bytes=(\d+)", request)
        offset = int(wanted[1]) if wanted else 0
        document = self.server.page if fault == "page" else self.server.document
        start = 0 if fault in ("page", "whole") else offset + (fault == "shifted" and offset > 0)
        body = document[start:]
        status = "404 Not Found" if fault == "page" else "200 OK" if start == 0 else "206 Partial Content"
        if not body:
            status = "416 Range Not Satisfiable"
        head = f"HTTP/1.1 {status}\r\nConnection: close\r\n"
        if start > 0:
            head += f"Content-Range: bytes {start}-{len(document) - 1}/{len(document)}\r\n"
        if fault != "no length":
            head += f"Content-Length: {len(body)}\r\n"
        return f"{head}\r\n".encode() + (b"" if is_head else body)


class BrokenServer(socketserver.ThreadingTCPServer):
    """Serves DOCUMENT, or PAGE with an error's status, at ADDRESS (host:port) within its `with` block: each request
    on a thread of its own, as MANNER_OF says when it is told whether only the headers are wanted."""

    allow_reuse_address = daemon_threads = True
    block_on_close = False
    request_queue_size = 64

    def __init__(self, address, document, manner_of, page=b""):
        host, port = address.split(":")
        super().__init__((host, int(port)), Reply)
        self.document, self.manner_of, self.page = document, manner_of, page
        threading.Thread(target=self.serve_forever, args=(0.01,), daemon=True).start()

    def handle_error(self, *_):
        """Whoever asked is free to go away."""

    def __exit__(self, *_):
        self.shutdown()
        self.server_close()
