"""One road: a machine, what a person does in front of the window, and all that must be seen, in order."""

import contextlib
import dataclasses
import difflib
import random
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "stage"))
from desktop import xdotool  # noqa: E402
from machine import ADDRESS, trace  # noqa: E402
from server import FaultServer  # noqa: E402
from waiting import Blocked, wait_for  # noqa: E402
from window import ALERT, Atspi  # noqa: E402

FLAG = "Library/Application Support/PellomarData/CoverInstallFlag"
# The download worker may log these when the install worker is under way already.
UNTOLD = ("SyncHead", "SyncDownload", "CoreImageView hitTest", "PellomarDownloader ", "Qt ", "~/Documents/")
UNTOLD = tuple(f"log {text}" for text in UNTOLD)  # the last three open the log
DOCUMENT = random.Random(0).randbytes(100_000)  # any cut, shift or repetition shows


@dataclasses.dataclass
class Road:
    """LINES tell what is seen, one after the other, and, after "> ", what the person does: presses the button of that
    name, or the one "behind" a dialog, or the key; waits for so many percent ("20%") or for the server's "stall", and has it "release" that; has the
    password dialogs answered from now on ("agent right", see Agent); takes polkit's rule away ("no rule")."""

    lines: list
    tools: dict = dataclasses.field(default_factory=dict)
    old: bool = False  # an old copy of the product is there
    system: str = ""  # its version; empty: only the kernel tells one
    home: str = "user"
    stale: tuple = ()  # files in the home
    rights: str = "YES"  # polkit's rule; or "ask", "root", who starts the window, or "none", without a system bus
    agent: str = None  # what answers the password dialog
    answers: tuple = ({},)  # of the server, one a request
    asked: list = None  # the first bytes that were asked for, None for a HEAD
    holds: int = None  # how many of the document's bytes are in the temporary file in the end
    flag: bool = False  # whether it is there in the end
    held: int = 0  # authorizations that are left when nothing is under way
    logged: str = ""  # part of what the tools print that must stand in the log
    prepare: object = None  # is given the machine


def is_started(line):
    """By the program, which does not wait for it."""
    return line.startswith(("event", "opens"))


def act(machine, window, server, action):
    if action in ("Escape", "Return"):
        focused = Atspi.StateType.FOCUSED
        window.wait_for("the dialog's focus", lambda: any(item.has(focused) for item in window.showing()))
        xdotool("key", action)
    elif action.startswith("behind "):
        window.invoke(action[7:])
    elif action == "close":
        window.refuses_to_close()
    elif action.endswith("%"):
        window.wait_for_percent(int(action[:-1]))
    elif action == "stall":
        window.wait_for("the stall", lambda: server.stalled)
    elif action.startswith("agent "):
        machine.start_agent(window, action[6:])
    elif action == "no rule":
        machine.rights.stop()
        machine.rights.start()
    elif action == "release":
        window.labels()  # answered by the window's main thread when it has dealt with the last press
        server.release()
    elif window.showing(ALERT):
        window.press(action)  # with the mouse: so it comes after the keys
    else:
        window.invoke(action)


def differences(road, machine, window, server, status):
    """All that is not as it must be."""
    lines = [line.replace("user ", f"{machine.owner} ") for line in road.lines if not line.startswith("> ")]
    names = {machine.setting("PELLOMAR_HELP_URL"): "the help page"}
    told = [[line for line in part if not line.startswith(UNTOLD)] for part in trace(machine.home, names)]
    seen = [line for line in lines if not is_started(line)]
    started = [line for line in lines if is_started(line) or " runs " in line]
    for must_be, is_so in zip((seen, started), told):
        yield from difflib.ndiff(must_be, is_so) if must_be != is_so else ()
    if status != 0:
        yield f"ended with status {status}"
    if (machine.home / FLAG).exists() != road.flag:
        yield f"the flag is {'missing' if road.flag else 'there'}"
    if road.logged not in window.log():
        yield f"not in the log: {road.logged}"
    asked = [first if method == "GET" else method for method, _, first in server.requests]
    if road.asked not in (None, asked):
        yield f"asked for {asked}, not {road.asked}"
    if road.holds is not None and machine.file("tmp").read_bytes() != DOCUMENT[: road.holds]:
        yield f"{machine.file('tmp').stat().st_size} bytes are held, which are not the document's first {road.holds}"


def play(road, machine, window, server):
    def wait_until_told(lines):
        count = sum(not line.startswith("> ") and not is_started(line) for line in lines)

        def is_told():
            return sum(not line.startswith(UNTOLD) for line in trace(machine.home)[0]) >= count

        window.wait_for(f"all before {road.lines[len(lines) :][:1] or 'the end'}", is_told)

    for number, line in enumerate(road.lines):
        if line.startswith("> "):
            wait_until_told(road.lines[:number])
            act(machine, window, server, line[2:])
    if "events submitted" not in road.lines:
        wait_until_told(road.lines)
        window.wait_for("the end of what is under way", window.is_idle)
        held = machine.held_rights(window)
        if held != road.held:
            raise Blocked(f"{held} authorizations are held in the end, not {road.held}")
        road.lines += ["log window close", "events submitted"]
        window.ask_to_close()
    wait_for("the end of the window", lambda: window.process.poll() is not None)
    count = sum(is_started(line) or " runs " in line for line in road.lines)
    wait_for("all that was started", lambda: len(trace(machine.home)[1]) >= count)


def follow(road, machine):
    road = dataclasses.replace(road, lines=list(road.lines))
    machine.begin(road)
    document = FaultServer(road.answers, ADDRESS, document=DOCUMENT)
    with document as server, contextlib.closing(machine.open()) as window:
        problem, screen = [], None
        try:
            if road.agent:
                machine.start_agent(window, road.agent)
            play(road, machine, window, server)
        except Blocked as blocked:
            problem, screen = [str(blocked)], window.screen()
        problem += differences(road, machine, window, server, window.process.poll())
        if problem:
            raise AssertionError("\n".join([*problem, f"on screen: {screen}", window.log(), *problem]))
