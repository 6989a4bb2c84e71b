"""Random clicks, kills at any moment, and two workers in one file. NUMBER plays the random choices again, though not
the threads' pace; there are TIMES as many as usual."""

import os
import random
import re
import time

from desktop import output, xdotool
from install import INSTALLS, MISSING, STARTUP, TOOLS
from machine import APPLICATION, OLD, PRODUCT, REAL, SAMPLE, trace
from person import BAR, NUMBER, TIMES, expect_launched, opened
from road import DOCUMENT
from waiting import processes, wait_for
from window import ALERT

STOP, CONTINUE, RETRY = "停止", "继续", "重试下载"
PAGE = random.Random(1).randbytes(5000)


def any_answer(draw):
    """A sound one more often than not."""
    cut = draw.randrange(draw.choice((200, len(DOCUMENT))))
    faults = ({"status": 404, "body": PAGE}, {"range": "ignore"}, {"range": "shift"}, {"length": None}, {"cut": cut},
              {"cut": cut, "ending": "reset"})  # fmt: skip
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


def judge(lines):
    """The buttons share a place. Only the second of two workers may show its own beside the first's; stop and continue
    never show together. Returns whether there were two workers at a time."""
    visible, working, two = set(), 0, False
    for line in lines:
        word, _, rest = line.partition(" ")
        if word == "show":
            visible |= {rest} - {BAR}
        elif word == "hide":
            visible.discard(rest)
            working = 1 if rest == RETRY and not two else working
        elif rest.startswith(("_strDownloadUrl:", "CoreImageView continueDownload")):
            two = two or working > 0
            working += 1
        elif re.match("SyncDownload Return Code:[^0]|Error Code|Target File does not", rest):
            working -= 1  # a whole file's worker goes on with the installation
        is_changing = word in ("show", "hide")  # one shows, and then the other hides
        assert is_changing or len(visible) < 2 or (two and not {STOP, CONTINUE} <= visible), (line, visible)
    return two


def random_clicks(machine):
    for number in range(NUMBER, NUMBER + round(6 * TIMES)):
        print(f"PELLOMAR_TEST_NUMBER={number} plays this again", flush=True)
        draw = random.Random(number)
        tools = TOOLS | {
            "/usr/sbin/installer": draw.choice(([INSTALLS], [INSTALLS], ["echo Error"], MISSING)),
            "/usr/sbin/kextstat": draw.choice((TOOLS["/usr/sbin/kextstat"], ["echo none"], MISSING)),
            STARTUP: draw.choice((TOOLS[STARTUP], ["echo Error VBoxDrv VirtualBox"], MISSING)),
        }
        world = {"tools": tools, "old": draw.random() < 0.5, "system": draw.choice(("", "10.14.6")), "rights": "root"}
        with opened(machine, answers=lambda *_: any_answer(draw), **world) as (window, _):
            xdotool(*any_clicks(draw, *window.windows()))

            def has_left():
                if window.process.poll() is None and window.showing(ALERT):
                    xdotool("key", "Return")
                elif window.process.poll() is None:
                    output("wmctrl", "-c", "Pellomar下载器")
                return window.process.poll() is not None

            wait_for("the window's end", has_left)
            assert window.process.returncode == 0, window.process.returncode
            wait_for("the last event", lambda: "events submitted" in trace(machine.home)[1])
            lines, started = trace(machine.home)
            assert started.count("events submitted") == 1, started
            if not judge(lines):
                for path in (machine.home / "Downloads").rglob("Pellomar.*"):
                    held = path.read_bytes()
                    page = len(os.path.commonprefix((held, PAGE)))
                    assert held[page:] == DOCUMENT[page : len(held)], f"{path} holds what was not sent there"


def contents(folder):
    return {str(path.relative_to(folder)): path.read_bytes() for path in folder.rglob("*") if path.is_file()}


def installed(machine):
    """Which product is there: the old one, the new one, none or half of one."""
    found, new = contents(APPLICATION), contents(machine.build / f"sample/root{APPLICATION}")
    old = {str(path.relative_to(APPLICATION)): b"" for path in (OLD, PRODUCT)}
    return "new" if found == new else "old" if found == old else "half" if APPLICATION.exists() else "none"


def kills(machine):
    """At any moment: the old product or the new one stands, never neither."""
    machine.trust_sample()
    draw, document = random.Random(NUMBER), (machine.build / SAMPLE).read_bytes()
    for number in range(round(5 * TIMES)):
        line, pause = draw.randrange(12, 35), draw.choice((0, 0.2)) * draw.random()
        with opened(machine, document=document, rights="YES", old=True, tools={}) as (window, _):
            window.invoke("开始")

            def is_there():
                if window.process.poll() is None and window.showing(ALERT):
                    xdotool("key", "Return")
                return window.process.poll() is not None or len(trace(machine.home)[0]) >= line

            wait_for(f"line {line}", is_there)
            time.sleep(pause)
            window.close()
            wait_for("the end of the installer", lambda: not processes(REAL / "installer"))
            for path in (machine.home / "Downloads").rglob("Pellomar.*"):
                assert document.startswith(path.read_bytes()), path
        print(f"kill {number} at line {line}, PELLOMAR_TEST_NUMBER={NUMBER}: {installed(machine)}", flush=True)
        wait_for("the old product or the new one", lambda: installed(machine) in ("old", "new"))


def two_workers(machine):
    """Continue at once after stop, on a stalled transfer: both write, and the package is refused."""
    machine.trust_sample()
    document = (machine.build / SAMPLE).read_bytes()
    stalls = {"cut": 4 << 20, "ending": "stall"}
    answers = [{}, stalls, {}, stalls, {}]
    with opened(machine, answers=answers, document=document, rights="root", tools={}) as (window, server):
        window.invoke("开始")
        window.wait_for_percent((4 << 20) * 100 // len(document))
        window.invoke(STOP)
        window.invoke(CONTINUE)
        window.wait_for("the second worker", lambda: server.stalled == 2)
        server.release()

        def events():
            return [line for line in trace(machine.home)[1] if line.startswith("event ")]

        window.wait_for("both refusals", lambda: events().count("event 822") == 2)
        assert (events().count("event 815"), events().count("event 818")) == (2, 0), events()
        window.invoke(RETRY)
        expect_launched(machine, window)


STRESS_ROADS = (random_clicks, kills, two_workers)
