"""What no list of lines can say: random clicks, kills and closing at any moment, two workers in one file, and a
window that can log nothing. NUMBER repeats the random choices, but not the timing."""

import os
import random
import re
import subprocess
import time

from scenario import DOCUMENT, SMALL_DISK, Scenario, opened  # first: it finds tests/support
from desktop import output, xdotool
from download import mount
from install import MISSING
from machine import APPLICATION, INSTALLER, INSTALLS, KEXTSTAT, LOADED, OLD, PRODUCT, REAL, SAMPLE, STARTUP, trace
from waiting import processes, wait_for
from whole import BAR, expect_launched
from window import ALERT, WINDOW_TITLE

NUMBER = int(os.environ.get("PELLOMAR_TEST_NUMBER", time.time()))
TIMES = float(os.environ.get("PELLOMAR_TEST_TIMES", 1))  # how often as many of them as usual
STOP, CONTINUE, RETRY = "停止", "继续", "重试下载"
PAGE = random.Random(1).randbytes(5000)


def expect_left(machine, window, lines=()):
    """That it ended well, reported that once, and logged each of these LINES once."""
    wait_for("the window's end", lambda: window.process.poll() is not None)
    assert window.process.returncode == 0, window.process.returncode
    wait_for("the last event", lambda: "events submitted" in trace(machine.home))
    assert trace(machine.home).count("events submitted") == 1
    assert [window.lines().count(line) for line in lines] == [1] * len(lines)


def closing_at_any_moment(machine):
    draw, scenario = random.Random(NUMBER), Scenario(rights="none", document=bytes(200 << 20))
    for number in range(round(10 * TIMES)):
        # From the press itself, through the probe and the first block, to the middle of the transfer.
        moment = draw.choice((0.02, 0.1, 0.4)) * draw.random()
        print(f"close {number} after {moment:.3f} s, PELLOMAR_TEST_NUMBER={NUMBER}", flush=True)
        with opened(machine, scenario) as (window, _):
            window.invoke("开始")
            time.sleep(moment)
            window.ask_to_close()
            expect_left(machine, window, ["window close"])


def launching(machine):
    """While the window repaints."""
    repainting = subprocess.Popen(["sh", "-c", "while xrefresh; do :; done"])
    for _ in range(round(5 * TIMES)):
        with opened(machine, Scenario(rights="root")) as (window, _):
            window.invoke("开始")
            expect_left(machine, window, ["launch Pellomar.app successful"])
    assert repainting.poll() is None
    repainting.kill()


def any_answer(draw):
    """A correct answer in most cases, else a faulty one."""
    cut = draw.randrange(draw.choice((200, len(DOCUMENT))))
    faults = ({"status": 404, "body": PAGE}, {"range": "ignore"}, {"range": "shift"}, {"length": None}, {"cut": cut},
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


def dismissed_until(window, condition=lambda: False):
    """For wait_for: whether this CONDITION holds or the window has ended; answers its dialogs meanwhile."""
    if window.process.poll() is None and window.showing(ALERT):
        xdotool("key", "Return")
    return window.process.poll() is not None or condition()


def random_clicks(machine):
    for number in range(NUMBER, NUMBER + round(6 * TIMES)):
        print(f"PELLOMAR_TEST_NUMBER={number} repeats this", flush=True)
        draw = random.Random(number)
        tools = {
            INSTALLER: draw.choice(([INSTALLS], [INSTALLS], ["echo Error"], MISSING)),
            KEXTSTAT: draw.choice(([LOADED], ["echo none"], MISSING)),
            STARTUP: draw.choice((["true"], ["echo Error VBoxDrv VirtualBox"], MISSING)),
        }
        scenario = Scenario(tools=tools, old=draw.random() < 0.5, system=draw.choice(("", "10.14.6")), rights="root",
                            answers=[any_answer(draw) for _ in range(40)])
        with opened(machine, scenario) as (window, _):
            xdotool(*any_clicks(draw, *window.windows()))
            wait_for("the window's end", lambda: dismissed_until(window, lambda: output("wmctrl", "-c", WINDOW_TITLE)))
            expect_left(machine, window)
            if not judge(trace(machine.home)):
                for path in (machine.home / "Downloads").rglob("Pellomar.*"):
                    held = path.read_bytes()
                    page = len(os.path.commonprefix((held, PAGE)))
                    assert held[page:] == DOCUMENT[page: len(held)], f"{path} holds what was not sent there"


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
        line, pause = draw.randrange(14, 42), draw.choice((0, 0.2)) * draw.random()
        with opened(machine, Scenario(document=document, old=True, real=True)) as (window, _):
            window.invoke("开始")
            wait_for(f"line {line}", lambda: dismissed_until(window, lambda: len(trace(machine.home)) >= line))
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
    scenario = Scenario(document=document, answers=({}, stalls, {}, stalls, {}), rights="root", real=True)
    with opened(machine, scenario) as (window, server):
        window.invoke("开始")
        window.wait_for_percent((4 << 20) * 100 // len(document))
        window.invoke(STOP)
        window.invoke(CONTINUE)
        window.wait_for("the second worker", lambda: len(server.stalled) == 2)
        server.release()

        def events():
            return [line for line in trace(machine.home) if line.startswith("event ")]

        window.wait_for("both refusals", lambda: events().count("event 822") == 2)
        assert (events().count("event 815"), events().count("event 818")) == (2, 0), events()
        window.invoke(RETRY)
        expect_launched(machine, window)


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
        before = ("bash", "-c", text)
        with opened(machine, Scenario(before=before, rights="none", prepare=prepare)) as (window, _):
            window.invoke("开始")
            window.wait_for_status("获取权限失败，请重试")
            assert machine.file("tmp").read_bytes() == DOCUMENT and window.log() == ""


STRESS_SCENARIOS = (
    random_clicks, kills, two_workers, closing_at_any_moment, launching, nowhere_to_log)
