"""One scenario: a machine, what the user does in the window, and all that must be seen, in order."""

import contextlib
import dataclasses
import difflib
import random
import re
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
from desktop import xdotool
from machine import ADDRESS, ERRORS, HOLD, trace
from server import FaultServer
from waiting import Blocked, wait_for
from window import ALERT, FOCUSED

FLAG = "Library/Application Support/PellomarData/CoverInstallFlag"
SMALL_DISK = Path("/mnt/small")
HELD = f"cat {HOLD} >/dev/null; "  # makes a tool wait for "> proceed"
# The download worker may log these after the install worker has begun; the last three are the log's first lines.
NOT_COMPARED = ("SyncHead", "SyncDownload", "CoreImageView hitTest", "PellomarDownloader ", "Qt ", "~/Documents/")
NOT_COMPARED = tuple(f"log {text}" for text in NOT_COMPARED)
DOCUMENT = random.Random(0).randbytes(100_000)  # any cut, shift or repetition shows


@dataclasses.dataclass
class Scenario:
    """LINES are what must be seen, in this order; a line that begins with "> " is what the user does (see act)."""

    lines: list = ()
    tools: dict = dataclasses.field(default_factory=dict)  # instead of the scripted ones
    real: bool = False  # the other tools are the real ones
    old: bool = False  # an old copy of the product is there
    system: str = ""  # the system's version; empty: the kernel's
    home: str = "user"
    stale: tuple = ()  # files in the home
    before: tuple = ()  # the beginning of the window's command line
    rights: str = "YES"  # polkit's rule; or "ask", "root", who starts the window, or "none", without a system bus
    agent: str = None  # what answers the password dialog
    document: bytes = DOCUMENT
    answers: tuple = ({},)  # of the server, one a request
    asked: list = None  # the first bytes that were asked for, None for the whole, HEAD for a probe
    holds: int = None  # how many of the document's bytes are in the temporary file in the end
    flag: bool = False  # whether it is there in the end
    held: int = 0  # authorizations that are left when nothing is under way
    logged: str = ""  # part of what the tools print that must stand in the log
    prepare: object = None  # called with the machine before the window is opened


def act(machine, window, server, action):
    match action.split():
        case ["Escape" | "Return" | "KP_Enter" | "space"]:  # a key, for what has the focus
            window.wait_for("the focus", lambda: any(item.has(FOCUSED) for item in window.showing()))
            xdotool("key", action)
        case ["focus", button]:
            window.focus(button)
        case ["behind", button]:  # a button behind a dialog
            window.invoke(button)
        case ["close"]:  # the dialog refuses
            window.refuses_to_close()
        case ["quit"]:
            window.ask_to_close()
        case ["picture", name]:
            # A change is drawn after it is made: one more turn of the window's event loop comes first.
            window.labels(), window.labels()
            machine.camera(name)
        case ["stall"]:
            window.wait_for("the stall", lambda: server.stalled)
        case ["release"]:  # the server goes on
            window.labels()  # answered by the window's main thread when it has dealt with the last press
            server.release()
        case ["proceed"]:  # a held tool, or the launch, goes on
            HOLD.write_text(Path("/opt/product/Contents/Info.plist").read_text())
        case ["space", "on", "disk"]:
            subprocess.run(["mount", "-o", "remount,size=1m", SMALL_DISK], check=True)
        case ["agent", answer]:  # answers the password dialogs from now on
            machine.start_agent(window, answer)
        case ["asked"]:
            window.wait_for("the password dialog", lambda: machine.agent.asked() == 1)
        case ["no", "rights"]:  # are held while the dialog is open
            window.wait_for("the end of the rights", lambda: machine.held_rights(window) == 0)
        case ["no", "rule"]:  # polkit asks for a password from now on
            machine.rights.stop()
            machine.rights.start()
        case [percent] if percent.endswith("%"):
            window.wait_for_percent(int(percent[:-1]))
        case [button, clicks]:  # so many quick clicks
            seen = window.log().count("hitTest")
            window.press(button, clicks=int(clicks[1:]))
            window.wait_for("the clicks", lambda: window.log().count("hitTest") == seen + int(clicks[1:]))
        case [button] if window.showing(ALERT):
            window.press(button)  # with the mouse, so that it comes after the keys
        case [button]:
            window.invoke(button)


def compared(machine):
    names = {machine.help_page: "the help page"}
    return [line for line in trace(machine.home, names) if not line.startswith(NOT_COMPARED)]


def differences(scenario, machine, window, server):
    """All that is not as it must be."""
    lines = [line.replace("user ", f"{machine.owner} ") for line in scenario.lines if not line.startswith("> ")]
    log, seen, logs = window.log(), compared(machine), [*(machine.home / "Documents").glob("*")]
    yield from difflib.ndiff(lines, seen) if lines != seen else ()
    asked = [first if method == "GET" else method for method, _, first in server.requests]
    held = machine.file("tmp").read_bytes() if scenario.holds is not None else b""
    announced = [path for path in logs if f"] {path}\n" in ERRORS.read_text() and path.stat().st_mode & 0o777 == 0o600]
    named = [path for path in logs if re.search(r"^[ -~]+/LOG-\d{14}\.txt$", str(path))]
    begins = bool(re.match(r".*\] PellomarDownloader \d+\.\d+\.\d+ on ", log))
    for what, value, right in (
        ("exit status", window.process.poll(), 0),
        ("the flag is there", (machine.home / FLAG).exists(), scenario.flag),
        (f"in the log: {scenario.logged}", scenario.logged in log, True),
        ("a secret in the log", "secret" in log, False),
        ("logs by their names", named, logs), ("logs that are announced and their owner's alone", announced, logs),
        ("the log begins with the version", begins, bool(logs)),
        ("asked for", asked, scenario.asked or asked),
        ("the first bytes of the document are held", held == DOCUMENT[:scenario.holds or 0], True),
    ):
        if value != right:
            yield f"{what}: {value}, not {right}"


def run_lines(scenario, machine, window, server):
    def wait_until_seen(lines, wait=window.wait_for):
        count = sum(not line.startswith("> ") for line in lines)
        wait(f"all before {scenario.lines[len(lines):][:1] or 'the end'}", lambda: len(compared(machine)) >= count)

    for number, line in enumerate(scenario.lines):
        if line.startswith("> "):
            wait_until_seen(scenario.lines[:number])
            act(machine, window, server, line[2:])
    if not {"log window close", "log launch Pellomar.app successful"} & {*scenario.lines}:
        wait_until_seen(scenario.lines)
        window.wait_for("the end of what is under way", window.is_idle)
        held = machine.held_rights(window)
        if held != scenario.held:
            raise Blocked(f"{held} authorizations are held in the end, not {scenario.held}")
        scenario.lines += ["log window close", "events submitted"]
        window.ask_to_close()
    wait_for("the end of the window", lambda: window.process.poll() is not None)
    wait_until_seen(scenario.lines, wait_for)
    if "> asked" in scenario.lines:
        wait_for("the end of the password dialog", lambda: "cancelled" in machine.agent.lines())


@contextlib.contextmanager
def opened(machine, scenario):
    """The window on its first screen, and its server."""
    machine.begin(scenario)
    server = FaultServer(scenario.answers, ADDRESS, document=scenario.document)
    with server, contextlib.closing(machine.open(*scenario.before)) as window:
        try:
            if scenario.agent:
                machine.start_agent(window, scenario.agent)
            yield window, server
        except Exception:
            print(window.screen(), window.log(), server.requests, flush=True)
            raise


def check(scenario, machine):
    scenario = dataclasses.replace(scenario, lines=list(scenario.lines))
    with opened(machine, scenario) as (window, server):
        problem = []
        try:
            run_lines(scenario, machine, window, server)
        except Blocked as blocked:
            problem = [str(blocked)]
        problem += differences(scenario, machine, window, server)
        if problem:
            raise AssertionError("\n".join(problem))
