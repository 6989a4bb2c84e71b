"""The installed application survives every attempt to replace it that does not succeed, however it ends."""

import contextlib
import fcntl
import itertools
import os
import re
import shutil
import subprocess
import unittest
from pathlib import Path

from harness import APP, BUILD, INSTALLER, IS_SANITIZED, STAGING, contents, run, snapshot, tracing
from packages import file, package

CHANGES = "mkdirat renameat2 renameat fchown fchmod utimensat unlinkat".split()
CALLS = [*CHANGES, "openat2", "fsync", "syncfs"]
BASE, ROOT = Path("/tmp/roots"), Path("/tmp/roots/root")
TOOL = BUILD / "host/installer/pellomar-installer-transaction"
MAKE_TREE = """cp $0 $1 /usr/local/bin; mkdir -p /tmp/tree/{usr,proc,dev,run,Applications/Pellomar.app/{a,b/empty}}
cd /tmp/tree; ln -s usr/{bin,lib,lib64} usr/local/bin/{installer,pellomar-installer-transaction} .; cd Applications
chmod 775 .; cd Pellomar.app; chmod 750 a; chmod 711 b/empty; ln -s ../run a/link
for name in run a/data; do echo -n "old $name" >$name; done; chmod 640 run a/data"""
LAYERS = f"none {ROOT} overlay lowerdir={BASE}/lower,upperdir={BASE}/upper,workdir={BASE}/work,redirect_dir=off 0 0\n"
SHARED = "".join(f"/{name} {ROOT}/{name} none rbind 0 0\n" for name in ("usr", "proc", "dev"))


class Transaction(unittest.TestCase):
    """Runs the tool in a root of its own, since it knows no other place than /."""

    @classmethod
    def setUpClass(cls):
        subprocess.run(("bash", "-euc", MAKE_TREE, TOOL, INSTALLER), check=True)
        BASE.mkdir()

    def setUp(self):
        self.addCleanup(run, "umount", "-R", BASE)

    def make_root(self, layered=False):
        """On one file system or in layers, an overlay, in which no folder can be renamed."""
        run("umount", "-R", BASE)
        self.mount(f"none {BASE} tmpfs size=64m 0 0\n")
        shutil.copytree("/tmp/tree", BASE / "lower" if layered else ROOT, symlinks=True)
        for folder in ("upper", "work", "root") if layered else ():
            (BASE / folder).mkdir()
        self.mount(layered * LAYERS + SHARED)
        return snapshot(ROOT / "Applications")

    def mount(self, table):
        """A process for each mount would take most of the test's time."""
        Path("/tmp/table").write_text(table)
        done = run("mount", "--all", "--fstab", "/tmp/table")
        self.assertEqual(done.returncode, 0, done.stderr)

    @contextlib.contextmanager
    def holding(self):
        """During an attempt, which is killed in the end; what it answered."""
        command = ("chroot", ROOT, f"/{TOOL.name}", "hold")
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as hold:
            yield hold.stdout.read(1)
            hold.kill()

    def set_aside(self):
        with self.holding() as answer:
            self.assertEqual((answer, (ROOT / APP).exists()), (b"+", False))

    def end(self):
        return run("chroot", ROOT, f"/{TOOL.name}", "end")

    def install(self, content, *before):
        (ROOT / "package").write_bytes(content)
        return run(*before, "chroot", ROOT, "/installer", "-pkg", "/package", "-target", "/")

    def assert_ends_with(self, expected):
        outcome = self.end()
        self.assertEqual((outcome.returncode, outcome.stderr), (0, ""))
        self.assertEqual(snapshot(ROOT / "Applications"), expected)
        self.assertFalse((ROOT / STAGING).exists())

    def test_fault_at_each_system_call(self):
        trace = BASE.parent / "trace"
        rows = [(True, "error=EIO", call) for call in CALLS]
        if not IS_SANITIZED:  # sanitizers report nothing of a killed program
            rows += [(layered, "signal=KILL", call) for layered in (True, False) for call in CHANGES]
        for layered, fault, call in rows:
            for number in itertools.count(1):
                before = self.make_root(layered)
                options = tracing("-o", trace, f"-etrace={call}", f"-einject={call}:{fault}:when={number}")
                outcome = run(*options, "chroot", ROOT, f"/{TOOL.name}", "hold", stdin=subprocess.DEVNULL)
                if not any(word in trace.read_text() for word in ("INJECTED", "killed by")):
                    self.assertEqual(outcome.returncode, 0)
                    break
                with self.subTest(call, layered=layered, fault=fault, number=number):
                    if outcome.returncode == 0:
                        self.assertEqual(snapshot(ROOT / "Applications"), before)
                    self.assert_ends_with(before)

    def test_attempts(self):
        """Each after the application is set aside: what is done, and what stands in the end."""
        new = package(file(f"{APP}/run", "new"))
        script = package(file(f"{APP}/run", "new"), scripts=[file("postinstall", "#!/bin/sh\nkill -9 $PPID", 0o755)])
        kill = [file("postinstall", "#!/bin/sh\nread -r _ _ _ p _ </proc/$PPID/stat; kill -9 $p $PPID", 0o755)]
        both = package(file(f"{APP}/run", "new"), file("Library/x"), scripts=kill)
        make = file("preinstall", f"#!/bin/sh\nmkdir /{APP} && exit 1", 0o755)
        unusable_folder = package(file(f"{APP}/run", "new"), scripts=[make])
        payload = [file(f"{APP}/run", "n" * 3_000_000)]
        large, unusable = package(*payload), package(*payload, scripts=[file("preinstall", "")])
        stated = b"<pkg-info identifier='a' version='1'><payload installKBytes='50000'/></pkg-info>"
        rows = (
            ("installed", lambda: self.install(new), "new"),
            ("refused", lambda: self.install(b"not a package"), "old run"),
            ("worker killed after the swap", lambda: self.install(script), "old run"),
            ("never ended, begun again", self.set_aside, "old run"),
            ("installed without it", lambda: self.install(package(file("a"))), None),
            ("something put there", lambda: (ROOT / APP).write_text("mine"), "old run"),
            ("folder put there by a package that fails", lambda: self.install(unusable_folder), "old run"),
            ("no room for both", lambda: self.install_with(2_200_000, large, "removed first"), "n" * 3_000_000),
            ("no room, size overstated", lambda: self.install_with(2_200_000, package(*payload, info=stated), ""), "old run"),
            ("no room, no program as script", lambda: self.install_with(2_200_000, unusable, ""), "old run"),
            ("killed, then a folder removed", lambda: ((ROOT / "Library").mkdir(), self.install(both),
                                                       shutil.rmtree(ROOT / "Library")), "old run"),
            ("no room even without it", lambda: self.install_with(1_000_000, large, ""), "old run"),
        )
        for layered, (name, act, expected) in itertools.product((False, True), rows):
            with self.subTest(name, layered=layered):
                self.make_root(layered)
                (ROOT / APP / "z").write_text("z" * 1_500_000)
                self.set_aside()
                act()
                self.end()
                found = contents(ROOT / "Applications").get("Pellomar.app/run")
                self.assertEqual((found, (ROOT / STAGING).exists()), (expected, False))

    def install_with(self, left, content, reported):
        """With that many bytes free on the disk."""
        free = os.statvfs(BASE)
        (BASE / "filling").write_bytes(bytes(free.f_bavail * free.f_frsize - left))
        self.assertIn(reported, self.install(content).stderr)

    def test_patience_with_a_running_installer(self):
        self.make_root()
        (ROOT / STAGING).mkdir(mode=0o700)
        folder = os.open(ROOT / STAGING, os.O_RDONLY)
        self.addCleanup(os.close, folder)
        fcntl.flock(folder, fcntl.LOCK_EX)
        trace = BASE.parent / "trace"
        sleeps = tracing("-o", trace, "-etrace=clock_nanosleep", "-einject=clock_nanosleep:retval=0")
        outcome = run(*sleeps, "chroot", ROOT, f"/{TOOL.name}", "end")
        self.assertIn("another install is under way", outcome.stderr)
        slept = sum(int(part) for part in re.findall(r"tv_nsec=([0-9]+)", trace.read_text()))
        self.assertGreaterEqual(slept / 1e9, 30 * 60, "two scripts may take ten minutes each")

    def test_links(self):
        """The application may be one. Its folder may not: what is removed would be elsewhere. The turn is kept all the
        same, since an installation follows."""
        for link, to, expected in ((APP, "../elsewhere", b"+"), ("Applications", "elsewhere", b"-")):
            self.make_root()
            (ROOT / link).rename(ROOT / "elsewhere")
            (ROOT / link).symlink_to(to)
            before = snapshot(ROOT / "Applications")
            with self.holding() as answer:
                turn = run("flock", "--nonblock", ROOT / "run/pellomar-installer.lock", "true").returncode
                self.assertEqual((answer, turn), (expected, 1))
            self.assert_ends_with(before)
