"""The program with a person who clicks at random, with two workers in one file, and killed at any moment: real
tools, the real installer among them, and a server that breaks in every way."""

import collections
import os
import random
import re
import shlex
import sys
import threading
import time
import unittest
from pathlib import Path

ARGUMENTS = sys.argv[:5]
import pipeline_test as machine  # noqa: E402
from pipeline_test import APPLICATION, FOLDER, MISSING, OPENED, PROJECT, STARTUP, SUPPORT, TOOLS, TRACE, Row  # noqa: E402

sys.path += [str(PROJECT / "tests/host"), str(PROJECT / "scripts/lib")]
from broken_server import BrokenServer, Manner  # noqa: E402
from packages import file, package  # noqa: E402

FIRST, COUNT = map(int, os.environ.get("PELLOMAR_TEST_CLICKS", "1:50").split(":"))
KILLS = int(os.environ.get("PELLOMAR_TEST_KILLS", 50))
RANDOM = int(os.environ.get("PELLOMAR_TEST_RANDOM", time.time()))
BUILD = Path(machine.BUNDLE).parent
INSTALLS = f'exec "{BUILD}/host/installer/installer" "$@"'
PAGE = random.Random(0).randbytes(5000)
STOP, CONTINUE, RETRY = "stop_button", "continue_button", "retryDownload_button"


def wild_machine(draw):
    return Row([], {
        "/usr/sbin/installer": draw.choice(([INSTALLS], [INSTALLS], [INSTALLS], ["echo Error"], MISSING)),
        "/usr/sbin/kextstat": draw.choice((TOOLS["/usr/sbin/kextstat"], ["echo none"], MISSING)),
        STARTUP: draw.choice((TOOLS[STARTUP], ["echo Error VBoxDrv VirtualBox"], MISSING)),
    }, old_copy=draw.random() < 0.5, system=draw.choice(("", "10.14.6")))


def wild_clicks(draw):
    kinds = {"click": 8, "double": 1, "press": 1, "release": 1, "Space": 1, "Tab": 1}
    clicks = ["consent"] * draw.choice((0, 0, 0, 1, 2)) + draw.choices([*kinds], kinds.values(), k=draw.randrange(3, 12))
    pauses = draw.choice(((0, 0, 1, 5, 20, 60), (20, 60, 100)))
    return [f"!{draw.choice(pauses)} {click}" for click in (*clicks, draw.choice(("close", "leave", "leave")))]


def contents(folder):
    return {path.relative_to(folder): path.read_bytes() for path in folder.rglob("*") if path.is_file()}


def installed():
    """Which application is there: the old one, the new one, none or half of one."""
    plain, found = contents(SUPPORT / "Pellomar.app"), contents(APPLICATION)
    kinds = (("old", {Path("of-the-old-copy"): b""}), ("new", {Path("games"): GAMES.encode()}))
    return next((n for n, more in kinds if found == plain | more), "half" if APPLICATION.exists() else "none")


def setUpModule():
    global DOCUMENT, GAMES
    machine.set_up()
    os.environ |= {"QT_QPA_PLATFORM": "offscreen", "TSAN_OPTIONS": f"{os.environ.get('TSAN_OPTIONS', '')}:halt_on_error=1"}
    GAMES = random.Random(0).randbytes(400_000).hex()
    texts = {path: text.decode() for path, text in contents(SUPPORT / "Pellomar.app").items()} | {"games": GAMES}
    DOCUMENT = package(*(file(f".{APPLICATION}/{path}", text, 0o755) for path, text in texts.items()))


class Clicks(unittest.TestCase):
    def judge_screen(self, trace):
        """The buttons share a spot. Only the second of two workers may show its own beside the first's; nobody
        shows stop together with continue, or anything when retry has been pressed. Whether there were two."""
        visible, working, two = set(), 0, False
        for line in trace.splitlines():
            word, _, rest = line.partition(" ")
            if word == "show":
                visible.add(rest)
            elif word == "hide":
                visible.discard(rest)
                if rest == RETRY and not two:
                    self.assertFalse(visible, line)
                    working = 1
            elif word == ">":
                shown = visible - {"checkbox"}
                self.assertTrue(len(shown) < 2 or (two and not {STOP, CONTINUE} <= shown), shown)
            elif rest.startswith(("_strDownloadUrl:", "CoreImageView continueDownload")):
                two = two or working > 0
                working += 1
            elif re.match("SyncDownload Return Code:[^0]|Error Code|Target File does not exist", rest):
                working -= 1  # a whole file's worker goes on with the installation
        return two

    def play(self, number):
        draw = random.Random(number)
        home = machine.place_machine(wild_machine(draw))
        with BrokenServer(machine.SERVER, DOCUMENT, lambda head: Manner.drawn(draw, head, len(DOCUMENT)), PAGE):
            status = machine.run(home, *wild_clicks(draw))
        trace = TRACE.read_text()
        two = self.judge_screen(trace)
        self.assertEqual(status, 0, "did not leave in time" if status == 137 else "")
        self.assertEqual(trace.count("events submitted\n"), 1)
        self.assertNotEqual(installed(), "half")
        for path in [] if two else home.glob("Downloads/NVInst/*"):
            held = path.read_bytes()
            of_page = len(os.path.commonprefix((held, PAGE)))
            self.assertTrue(held[of_page:] == DOCUMENT[of_page : len(held)], f"{path} holds what was not sent there")
        return re.findall("event [0-9]+", trace) + ["two workers"] * two + [installed()]

    def test_random_clicks(self):
        seen = collections.Counter()
        for number in range(FIRST, FIRST + COUNT):
            try:
                seen.update(self.play(number))
            except AssertionError as problem:
                logs = [path.read_text() for path in (FOLDER / "output", TRACE, *FOLDER.glob("*/Documents/*"))]
                again = ["env", f"PELLOMAR_TEST_CLICKS={number}:1",
                         *(f"{name}={os.environ.get(name, '')}" for name in ("ASAN_OPTIONS", "TSAN_OPTIONS")),
                         PROJECT / "scripts/view", "--share", BUILD, "--", sys.executable, "-B", *ARGUMENTS, "Clicks"]
                command = f"To play sequence {number} again: {shlex.join(map(str, again))}"
                raise AssertionError("\n".join((str(problem), *logs, str(problem), command))) from None
        print(f"{COUNT} sequences:", *(f"{what} x {times}," for what, times in sorted(seen.items())))


class TwoWorkers(unittest.TestCase):
    def test_damaged_package_is_not_installed(self):
        """The first stalls until the second has appended its half; then both append the rest, and finish."""
        go_on, sent = threading.Event(), 4 * 65536
        bodies = iter((Manner("stall", sent, go_on.wait), Manner("stall", 65536, go_on.set)))
        first_half = f"!5 {100 * (sent - 200) // len(DOCUMENT)}%"  # no more of it comes until then
        with BrokenServer(machine.SERVER, DOCUMENT, lambda head: Manner() if head else next(bodies, Manner())):
            home = machine.place_machine(Row([], {"/usr/sbin/installer": [INSTALLS]}))
            machine.run(home, "!0 click", first_half, "!0 click", "!0 click", RETRY)
        trace = TRACE.read_text()
        first, _, second = trace.partition(f"> {RETRY}\n")
        self.assertEqual([first.count(f"event {code}") for code in (815, 822, 818)], [2, 2, 0], trace)
        self.assertIn("event 818", second)
        self.assertEqual(installed(), "new")


class Kill(unittest.TestCase):
    def test_at_any_moment(self):
        draw, found, row = random.Random(RANDOM), collections.Counter(), Row([], {"/usr/sbin/installer": [INSTALLS]}, True)

        def start(moment=60.0):
            return machine.run(home, "start_button", *["确定"] * APPLICATION.exists(), moment=moment)

        with BrokenServer(machine.SERVER, DOCUMENT, lambda _: Manner(pause=0.005)):
            home, begin = machine.place_machine(row), time.monotonic()
            start()
            whole = time.monotonic() - begin
            for number in range(KILLS):
                with self.subTest(number=number, random=RANDOM):
                    home = machine.place_machine(row)
                    start(0.01 + whole * draw.random() ** 0.5)
                    for path in home.glob("Downloads/NVInst/*"):
                        self.assertTrue(DOCUMENT.startswith(path.read_bytes()), path)
                    found[installed()] += 1
                    self.assertNotIn("half", found)
                    self.assertEqual((start(), installed()), (0, "new"))
                    self.assertIn("opens Pellomar, new", OPENED.read_text())
        print(f"{KILLS} kills, PELLOMAR_TEST_RANDOM={RANDOM}:", dict(found))


if __name__ == "__main__":
    if os.environ.get("PELLOMAR_VIEW") != "1":
        print("replaces tools of the machine: runs only in scripts/view", file=sys.stderr)
        sys.exit(77)
    unittest.main()
