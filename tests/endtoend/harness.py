"""The base of the end-to-end tests, and how a file of them runs inside the throw-away view."""

import argparse
import contextlib
import hashlib
import itertools
import os
import re
import shutil
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts/lib"))
import world  # noqa: E402
from downloader import Downloader, processes  # noqa: E402, F401
from stage import running, wait_for, xdotool  # noqa: E402, F401

CANNOT = 77
SANITIZER_REPORT = re.compile(r"(Address|Leak)Sanitizer|ThreadSanitizer|runtime error: ")
BAR = "下载进度"


class EndToEndTest(unittest.TestCase):
    """Each test has a fresh disk image, a fresh home and no product on the machine."""

    world = None
    homes = itertools.count(1)

    def setUp(self):
        self.programs = []
        self.show_logs = False
        self.problems_before = self.problems()
        self.home = self.new_home()
        self.world.fresh_disk()
        if os.geteuid() == 0:
            self.world.install_tools()
            shutil.rmtree(world.APPLICATION, ignore_errors=True)
            shutil.rmtree(world.FALLBACK.parent, ignore_errors=True)

    def tearDown(self):
        self.world.stop_serving()
        self.world.forget_requests()
        while self.programs:
            self.put_away(self.programs.pop())
        # A tool that outlives its program would go on in the next test.
        world.let_go()
        wait_for("the end of the host's tools", lambda: not processes("installer") and not processes("kextstat"))

    def put_away(self, program):
        """Ends a program and removes its home; what it logged is shown if something was wrong with it."""
        program.kill()
        log = program.log() + program.inherited.read_text(errors="replace")
        shutil.rmtree(program.home, ignore_errors=True)
        if self.show_logs or self.problems() > self.problems_before:
            print(f"---- log of {self.id()}\n{log}----", file=sys.stderr)
        self.assertNotRegex(log, SANITIZER_REPORT)

    @contextlib.contextmanager
    def row(self, **names):
        """A row of a table: a subtest that starts afresh."""
        with self.subTest(**names):
            try:
                yield
            except BaseException:
                self.show_logs = True
                raise
            finally:
                self.tearDown()
                self.setUp()

    def problems(self):
        result = self._outcome.result
        return len(result.failures) + len(result.errors)

    def new_home(self, name="home"):
        home = self.world.scratch / f"{name}-{next(self.homes)}"
        home.mkdir()
        return home

    def open(self, home=None, **options):
        program = Downloader(self.world, home or self.home, **options)
        self.programs.append(program)
        return program

    def start(self, **options):
        """A downloader whose start button has been pressed."""
        program = self.open(**options)
        program.press("开始")
        return program

    def assert_closes(self, program, submits=1):
        program.close_window()
        self.assert_left(program, submits)
        self.assertEqual(program.lines().count("window close"), 1)

    def assert_left(self, program, submits=1):
        self.assertEqual(program.exit_status(), 0)
        self.assertEqual(program.events().count("13"), submits)

    def assert_whole(self, path, original=None):
        self.assertEqual(digest(path), digest(original or self.world.soft / "package.pkg"))


def digest(path):
    return hashlib.sha256(Path(path).read_bytes()).hexdigest()


def main(ordinary_user=False):
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--server", required=True, help="the host:port that the build downloads from")
    options, rest = parser.parse_known_args()
    if os.environ.get("PELLOMAR_VIEW") != "1":
        print("changes the machine: runs only in the throw-away view", file=sys.stderr)
        sys.exit(CANNOT)
    if not re.fullmatch(r"127\.0\.0\.1:\d+", options.server):
        print(f"this build downloads from {options.server}, where no test server can be", file=sys.stderr)
        sys.exit(CANNOT)
    EndToEndTest.world = world.World(options.build, options.server, ordinary_user)
    try:
        program = unittest.main(argv=[sys.argv[0], *rest], exit=False, verbosity=2, warnings="ignore")
    finally:
        EndToEndTest.world.close()
    sys.exit(not program.result.wasSuccessful())
