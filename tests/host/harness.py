"""What the tests of the tools share. PELLOMAR_BUILD in the environment is the build folder, if not build/dev."""

import functools
import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

BUILD = Path(os.environ.get("PELLOMAR_BUILD", Path(__file__).parents[2] / "build/dev")).resolve()
INSTALLER, SIGNER = BUILD / "host/installer/installer", BUILD / "host/sign-package/sign-package"
IS_SANITIZED = re.search(rb"lib[at]san", INSTALLER.read_bytes()) is not None
APP, STAGING, RECEIPTS = "Applications/Pellomar.app", ".pellomar-installer", "var/lib/pellomar-installer/receipts"


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)


@functools.cache
def may_trace():
    return run("strace", "true").returncode == 0


def tracing(*options):
    """The beginning of a command line that injects faults; where that is not permitted, the test is skipped."""
    if not may_trace():
        raise unittest.SkipTest("no permission to trace here")
    return "strace", "-f", "-o/dev/null", "-EASAN_OPTIONS=detect_leaks=0", *options  # the leak checker traces, too


def snapshot(folder):
    """All that is below: path to mode and content."""

    def content(path):
        return os.readlink(path) if path.is_symlink() else path.read_text() if path.is_file() else None

    return {str(path.relative_to(folder)): (oct(path.lstat().st_mode), content(path)) for path in folder.rglob("*")}


def contents(folder):
    """The files and links below, without the receipts."""
    found = {name: content for name, (_, content) in snapshot(folder).items() if not name.startswith("var/")}
    return {name: content for name, content in found.items() if content is not None}


class HostTest(unittest.TestCase):
    """A target, and a place outside it: all that an installer could reach in a test."""

    def setUp(self):
        self.scratch = Path(self.enterContext(tempfile.TemporaryDirectory(prefix="host-")))
        self.world, self.target, self.outside = (self.scratch / name for name in ("w", "w/target", "w/outside"))
        self.trusted = self.scratch / "trusted"  # empty: unsigned packages are let through
        for folder in (self.target, self.outside, self.trusted):
            folder.mkdir(parents=True)
        (self.outside / "kept").write_text("kept")
        self.path = self.scratch / "恐怖 terror invalid.pkg"
        self.command = [INSTALLER, "-pkg", self.path, "-target", self.target, "-trusted", self.trusted]

    def install(self, package, *before):
        self.path.write_bytes(package)
        return run(*before, *self.command)

    def assert_installed(self, outcome):
        self.assertRegex(outcome.stdout, "installer: The install was successful.\n$")
        # These words are how the caller recognises a failure.
        self.assertNotRegex(outcome.stdout, "(?i)error|invalid")
        self.assertEqual(outcome.returncode, 0)

    def assert_refused(self, outcome, cause):
        lines = re.findall("^installer: Error - .+$", outcome.stdout, re.MULTILINE)
        self.assertEqual(len(lines), 1, outcome.stdout)
        self.assertIn(cause, lines[0])
        self.assertNotIn("successful", outcome.stdout)
        self.assertNotEqual(outcome.returncode, 0)

    def assert_outcome(self, outcome, cause):
        self.assert_refused(outcome, cause) if cause else self.assert_installed(outcome)

    def assert_all_refused(self, rows):
        """Rows of a name, a package and the cause; the target stays as it is."""
        for name, package, cause in rows:
            with self.subTest(name):
                before = snapshot(self.world)
                self.assert_refused(self.install(package), cause)
                self.assertEqual(snapshot(self.world), before)
