"""Waiting for conditions, and the processes of a program."""

import contextlib
import os
import time
from pathlib import Path

from gi.repository import GLib

PATIENCE = float(os.environ.get("PELLOMAR_TEST_PATIENCE", 90))  # seconds; a sanitizer's build on a busy machine is slow


class Blocked(Exception):
    """A condition was not met in time; the text says which."""


def step(text):
    print(f"[{time.monotonic() - step.start:6.2f} s] {text}", flush=True)


step.start = time.monotonic()


def wait_for(what, condition, seconds=PATIENCE, while_running=None, pause=0.01, clock=time.monotonic):
    """The first true value of CONDITION, asked again and again until CLOCK reaches the deadline."""
    deadline = clock() + seconds
    while True:
        has_ended = while_running is not None and while_running.poll() is not None
        value = condition()
        if value:
            return value
        if has_ended:
            raise Blocked(f"{what}: the process ended first, with status {while_running.returncode}")
        if clock() > deadline:
            raise Blocked(f"{what}: not seen within {seconds:g} s")
        while GLib.MainContext.default().iteration(False):
            pass  # what windows report meanwhile
        time.sleep(pause)


def processes(executable):
    """The process ids of the programs that run from this path, zombies not counted."""
    found = []
    for link in Path("/proc").glob("[0-9]*/exe"):
        with contextlib.suppress(OSError):  # it ended meanwhile
            if os.readlink(link).removesuffix(" (deleted)") == str(executable):
                found.append(int(link.parent.name))
    return found
