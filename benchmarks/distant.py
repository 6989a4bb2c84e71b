#!/usr/bin/python3
"""Measures a download over a connection with latency, in its own network namespace.

Called as: unshare --net distant.py SOCKET DELAY HOME window|command COMMAND...
SOCKET is the server's; DELAY is the one-way latency in seconds. The kernel delays the packets (tc netem) or, if it
can't, a relay does.
"""
import asyncio
import json
import shutil
import subprocess
import sys
import threading

from measure import measured, measured_window


async def carry(reader, writer, delay):
    under_way = asyncio.Queue()
    loop = asyncio.get_running_loop()

    async def deliver():
        while True:
            due, data = await under_way.get()
            await asyncio.sleep(max(0, due - loop.time()))
            if not data:
                writer.close()
                return
            writer.write(data)
            await writer.drain()

    delivery = asyncio.create_task(deliver())
    try:
        while data := await reader.read(65536):
            under_way.put_nowait((loop.time() + delay, data))
    except ConnectionError:
        pass
    under_way.put_nowait((loop.time() + delay, b""))
    await asyncio.gather(delivery, return_exceptions=True)


async def relay(socket, delay, ready):
    async def connected(reader, writer):
        server_reader, server_writer = await asyncio.open_unix_connection(socket)
        await asyncio.gather(carry(reader, server_writer, delay), carry(server_reader, writer, delay))

    async with await asyncio.start_server(connected, "127.0.0.1", 18080) as server:
        ready.set()
        await server.serve_forever()


def main():
    socket, delay, home, kind, *command = sys.argv[1:]
    delay = float(delay)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    kernel_delays = shutil.which("tc") is not None and subprocess.run(
        ["tc", "qdisc", "add", "dev", "lo", "root", "netem", "delay", f"{delay * 1000:g}ms", "limit", "100000"],
        stderr=subprocess.DEVNULL, check=False).returncode == 0
    ready = threading.Event()
    threading.Thread(target=lambda: asyncio.run(relay(socket, 0 if kernel_delays else delay, ready)),
                     daemon=True).start()
    ready.wait()
    result = measured_window(command[0], home) if kind == "window" else measured(command, home)
    print(json.dumps(result | {"delayed_by": "netem" if kernel_delays else "relay"}))


main()
