"""Scenarios that cannot be written as a list of lines: random clicks, closing at any moment, and a log that cannot be
written. RANDOM_START repeats the random choices, but not the timing."""

import os
import random
import time

from scenario import DOCUMENT, SMALL_DISK, Scenario, opened  # first: it adds tests/support to the path
from desktop import output, xdotool
from download import mount
from install import MISSING
from machine import INSTALLER, INSTALLS, KEXTSTAT, LOADED, STARTUP, trace
from waiting import wait_for
from window import ALERT, WINDOW_TITLE

RANDOM_START = int(os.environ.get("PELLOMAR_TEST_RANDOM_START", time.time()))
TIMES = float(os.environ.get("PELLOMAR_TEST_TIMES", 1))  # multiplies how often a scenario is repeated


def repeated(times):
    """A source of random numbers for each repetition, whose start is printed."""
    for start in range(RANDOM_START, RANDOM_START + round(times * TIMES)):
        print(f"PELLOMAR_TEST_RANDOM_START={start} begins with these random choices", flush=True)
        yield random.Random(start)


def expect_good_end(machine, window, line=None):
    """That the window ended well, reported that once, and logged this LINE once."""
    wait_for("the window's end", lambda: window.process.poll() is not None)
    wait_for("the last event", lambda: "events submitted" in trace(machine.home))
    seen = window.process.returncode, trace(machine.home).count("events submitted"), window.lines().count(line)
    assert seen == (0, 1, 1 if line else 0), f"status, submissions and lines {line}: {seen}"


def closing_at_any_moment(machine):
    for draw in repeated(10):
        with opened(machine, Scenario(rights="none", document=bytes(200 << 20))) as (window, _):
            window.invoke("开始")
            # From the press itself, through the probe and the first block, to the middle of the transfer.
            time.sleep(draw.choice((0.02, 0.1, 0.4)) * draw.random())
            window.ask_to_close()
            expect_good_end(machine, window, "window close")


def any_answer(draw):
    """A correct answer in most cases, else a faulty one."""
    cut = draw.randrange(draw.choice((200, len(DOCUMENT))))
    faults = ({"status": 404, "body": 5000}, {"range": "ignore"}, {"length": None}, {"cut": cut},
              {"cut": cut, "ending": "reset"})
    return {"rate": draw.choice((0, 0, 200_000, 1_000_000)), **(draw.choice(faults) if draw.random() < 0.3 else {})}


def any_clicks(draw, window):
    kinds = {"click": 8, "double": 2, "space": 2, "Tab": 2, "Return": 1}
    pauses = draw.choice(((0, 0, 0.001, 0.005, 0.02, 0.06), (0.02, 0.06, 0.1)))
    words = ["mousemove", "--window", window, 400, 290, "click", 1]  # on start; the other buttons share a place
    for kind in draw.choices([*kinds], kinds.values(), k=draw.randrange(3, 12)):
        there = ("mousemove", "--window", window, 400 + draw.randrange(-9, 9), 440, "click", "--repeat")
        action = (*there, 1 + (kind == "double"), 1) if kind in ("click", "double") else ("key", kind)
        words += ["sleep", draw.choice(pauses), *action]
    return words


def random_clicks(machine):
    """Two workers may write to one file then, so the file is not looked at."""
    for draw in repeated(6):
        tools = {
            INSTALLER: draw.choice(([INSTALLS], [INSTALLS], ["echo Error"], MISSING)),
            KEXTSTAT: draw.choice(([LOADED], ["echo none"], MISSING)),
            STARTUP: draw.choice((["true"], ["echo Error VBoxDrv VirtualBox"], MISSING)),
        }
        scenario = Scenario(tools=tools, old=draw.random() < 0.5, system=draw.choice(("", "10.14.6")), rights="root",
                            answers=[any_answer(draw) for _ in range(40)])
        with opened(machine, scenario) as (window, _):
            xdotool(*any_clicks(draw, *window.windows()))

            def is_closed():
                if window.process.poll() is None and window.showing(ALERT):
                    xdotool("key", "Return")  # answers the dialog, which refuses to close
                return window.process.poll() is not None or output("wmctrl", "-c", WINDOW_TITLE)

            wait_for("the window's end", is_closed)
            expect_good_end(machine, window)


def nowhere_to_log(machine):
    """The log's disk is full, or it has no folder and the standard streams are closed or unread."""

    def fill_disk(machine):
        mount(SMALL_DISK, "size=4096,mode=1777")
        (SMALL_DISK / "in-the-way").write_bytes(bytes(4096))
        (machine.home / "Documents").symlink_to(SMALL_DISK)

    def put_folder(machine):
        (machine.home / "Documents").mkdir()

    streams = ('exec "$0" <&- >&- 2>&-', put_folder), ('exec "$0" 2> >(true)', put_folder), ('exec "$0"', fill_disk)
    for text, prepare in streams:
        with opened(machine, Scenario(before=("bash", "-c", text), rights="none", prepare=prepare)) as (window, _):
            window.invoke("开始")
            window.wait_for_status("获取权限失败，请重试")
            assert machine.file("tmp").read_bytes() == DOCUMENT and window.log() == "", text


STRESS_SCENARIOS = (random_clicks, closing_at_any_moment, nowhere_to_log)
