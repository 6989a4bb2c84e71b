"""The installed application survives every attempt to replace it that does not succeed, however it ends."""

import itertools
import os
import shutil
import unittest
from pathlib import Path

from harness import BUILD, run, snapshot

APP = "Applications/Pellomar.app"
STAGING = ".pellomar-installer"
CALLS = "mkdirat renameat2 renameat fchownat fchmodat utimensat unlinkat openat2 fsync syncfs".split()
TOOL = BUILD / "host/installer/pellomar-installer-transaction"


class Transaction(unittest.TestCase):
    """Runs the tool in a root of its own, since it knows no other place than /."""

    def setUp(self):
        self.base = Path("/tmp/roots")
        self.root = self.base / "root"
        self.addCleanup(run, "umount", "-R", self.base)

    def make_root(self, layered=False, size="64m"):
        """On one file system or, as in an overlay without redirects, where a folder cannot be renamed."""
        run("umount", "-R", self.base)
        self.base.mkdir(exist_ok=True)
        self.mount("-t", "tmpfs", "-o", f"size={size}", "none", self.base)
        lower = self.base / "lower" if layered else self.root
        for folder, mode in ((lower / APP / "b/empty", 0o711), (lower / APP / "a", 0o750), (lower / "Applications", 0o775)):
            folder.mkdir(parents=True, exist_ok=True)
            folder.chmod(mode)
        for name in ("run", "a/data", "b/data", "z"):
            (lower / APP / name).write_text("old " + name)
            (lower / APP / name).chmod(0o640)
        (lower / APP / "a/link").symlink_to("../run")
        for name in ("usr", "proc", "dev"):
            (lower / name).mkdir()
        for name in ("bin", "lib", "lib64"):
            (lower / name).symlink_to(f"usr/{name}")
        shutil.copy(TOOL, lower / "tool")
        if layered:
            for name in ("upper", "work", "root"):
                (self.base / name).mkdir()
            layers = f"lowerdir={lower},upperdir={self.base}/upper,workdir={self.base}/work,redirect_dir=off"
            self.mount("-t", "overlay", "-o", layers, "none", self.root)
        for name in ("usr", "proc", "dev"):
            self.mount("--rbind", f"/{name}", self.root / name)
        return snapshot(self.root / "Applications")

    def mount(self, *arguments):
        self.assertEqual(run("mount", *arguments).returncode, 0, arguments)

    def tool(self, verb, *before):
        return run(*before, "chroot", self.root, "/tool", verb)

    def assert_ends_with(self, expected):
        outcome = self.tool("end")
        self.assertEqual((outcome.returncode, outcome.stderr), (0, ""))
        self.assertEqual(snapshot(self.root / "Applications"), expected)
        self.assertFalse((self.root / STAGING).exists())

    def test_fault_at_each_system_call(self):
        if run("strace", "true").returncode != 0:
            self.skipTest("no permission to trace here")
        trace, faults = self.base.parent / "trace", 0
        for layered, verb, call, fault in itertools.product(
            (False, True), ("begin", "end"), CALLS, ("signal=KILL", "error=EIO")
        ):
            for number in itertools.count(1):
                before = self.make_root(layered)
                if verb == "end":
                    self.assertEqual(self.tool("begin").returncode, 0)
                    self.assertFalse((self.root / APP).exists())
                tracing = ("strace", "-f", "-o", trace, "-e", f"trace={call}", "-e", f"inject={call}:{fault}:when={number}")
                outcome = self.tool(verb, *tracing)
                if not any(word in trace.read_text() for word in ("INJECTED", "killed by")):
                    self.assertEqual(outcome.returncode, 0)
                    break
                faults += 1
                with self.subTest(verb, layered=layered, call=call, fault=fault, number=number):
                    self.assert_ends_with(before)
        print(faults, "faults")


if __name__ == "__main__":
    unittest.main()
