"""The installed application survives every attempt to replace it that does not succeed, however it ends."""

import itertools
import os
import shutil
import unittest
from pathlib import Path

from harness import BUILD, INSTALLER, main, run, snapshot
from packages import file, package

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
        for name, mode in ((f"{APP}/b/empty", 0o711), (f"{APP}/a", 0o750), ("Applications", 0o775)):
            (lower / name).mkdir(parents=True, exist_ok=True)
            (lower / name).chmod(mode)
        for name in ("run", "a/data", "b/data", "z"):
            (lower / APP / name).write_text("old " + name)
            (lower / APP / name).chmod(0o640)
        (lower / APP / "a/link").symlink_to("../run")
        for name in ("usr", "proc", "dev", "run"):
            (lower / name).mkdir()
        for name in ("bin", "lib", "lib64"):
            (lower / name).symlink_to(f"usr/{name}")
        shutil.copy(TOOL, lower / "tool")
        shutil.copy(INSTALLER, lower / "installer")
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

    def install(self, content, *before):
        (self.root / "package").write_bytes(content)
        return run(*before, "chroot", self.root, "/installer", "-pkg", "/package", "-target", "/")

    def assert_ends_with(self, expected):
        outcome = self.tool("end")
        self.assertEqual((outcome.returncode, outcome.stderr), (0, ""))
        self.assertEqual(snapshot(self.root / "Applications"), expected)
        self.assertFalse((self.root / STAGING).exists())

    def test_fault_at_each_system_call(self):
        if run("strace", "true").returncode != 0:
            self.skipTest("no permission to trace here")
        trace, faults = self.base.parent / "trace", 0
        kinds = ((False, "signal=KILL"), (True, "signal=KILL"), (True, "error=EIO"))
        for (layered, fault), verb, call in itertools.product(kinds, ("begin", "end"), CALLS):
            for number in itertools.count(1):
                before = self.make_root(layered)
                if verb == "end":
                    self.assertEqual(self.tool("begin").returncode, 0)
                    self.assertFalse((self.root / APP).exists())
                tracing = ("strace", "-f", "-EASAN_OPTIONS=detect_leaks=0", "-o", trace, "-e", f"trace={call}",
                           "-e", f"inject={call}:{fault}:when={number}")
                outcome = self.tool(verb, *tracing)
                if not any(word in trace.read_text() for word in ("INJECTED", "killed by")):
                    self.assertEqual(outcome.returncode, 0)
                    break
                faults += 1
                with self.subTest(verb, layered=layered, call=call, fault=fault, number=number):
                    if verb == "begin" and outcome.returncode == 1:
                        self.assertEqual(snapshot(self.root / "Applications"), before)
                    self.assert_ends_with(before)
        print(faults, "faults")

    def test_attempts(self):
        """Each after `begin`: what is done, and what stands after `end`."""
        new = package(file(f"{APP}/run", "new"))
        script = package(file(f"{APP}/run", "new"), scripts=[file("postinstall", "#!/bin/sh\nkill -9 $PPID", 0o755)])
        large = package(file(f"{APP}/run", "n" * 3_000_000))
        rows = (
            ("nothing", lambda: None, "old run"),
            ("installed", lambda: self.install(new), "new"),
            ("refused", lambda: self.install(b"not a package"), "old run"),
            ("worker killed after the swap", lambda: self.install(script), "old run"),
            ("never ended, begun again", lambda: self.tool("begin"), "old run"),
            ("installed without it, begun again", lambda: (self.install(package(file("a"))), self.tool("begin")), None),
            ("something put there", lambda: (self.root / APP).mkdir(), None),
            ("no room for both", lambda: self.install_with(2_200_000, large, "removed first"), "n" * 3_000_000),
            ("no room even without it", lambda: self.install_with(1_000_000, large, ""), "old run"),
        )
        for layered, (name, act, expected) in itertools.product((False, True), rows):
            with self.subTest(name, layered=layered):
                self.make_root(layered)
                (self.root / APP / "z").write_text("z" * 1_500_000)
                self.assertEqual(self.tool("begin").returncode, 0)
                act()
                self.tool("end")
                found = self.root / APP / "run"
                self.assertEqual(found.read_text() if found.exists() else None, expected)
                self.assertFalse((self.root / STAGING).exists())

    def install_with(self, left, content, told):
        """With that many bytes free on the disk."""
        free = os.statvfs(self.base)
        (self.base / "filling").write_bytes(bytes(free.f_bavail * free.f_frsize - left))
        self.assertIn(told, self.install(content).stderr)

    def test_links(self):
        """The application may be one. Its folder may not: what is removed would be elsewhere."""
        self.make_root()
        shutil.rmtree(self.root / APP)
        for link, status in ((APP, 0), ("Applications", 1)):
            shutil.rmtree(self.root / "elsewhere", ignore_errors=True)
            shutil.move(self.root / link, self.root / "elsewhere") if status else None
            (self.root / link).symlink_to("elsewhere")
            before = snapshot(self.root / "Applications")
            self.assertEqual(self.tool("begin").returncode, status)
            self.assert_ends_with(before)


if __name__ == "__main__":
    main()
