"""The installed application survives every attempt to replace it that does not succeed, however it ends."""

import itertools
import os
import unittest
from pathlib import Path

from harness import BUILD, INSTALLER, contents, main, run, snapshot
from packages import file, package

APP = "Applications/Pellomar.app"
STAGING = ".pellomar-installer"
CALLS = "mkdirat renameat2 renameat fchownat fchmodat utimensat unlinkat openat2 fsync syncfs".split()
TOOL = BUILD / "host/installer/pellomar-installer-transaction"


# A root on one file system or, where the first argument is True, an overlay in which no folder can be renamed.
MAKE_ROOT = """cd /tmp
[[ -e model ]] || {
    mkdir -p model/{usr,proc,dev,run,Applications/Pellomar.app/{a,b/empty}}; cp $1 $2 model; ln -s usr/{bin,lib,lib64} model
    cd model/Applications; chmod 775 .; cd Pellomar.app; chmod 750 a; chmod 711 b/empty; ln -s ../run a/link
    for name in run a/data b/data z; do echo -n "old $name" >$name; done; chmod 640 run a/data b/data z; cd /tmp
}
mkdir -p roots; mount -t tmpfs -o size=64m none roots; cp -a model roots/root; cd roots
if [[ $0 == True ]]; then
    mv root lower; mkdir upper work root
    mount -t overlay -o lowerdir=$PWD/lower,upperdir=$PWD/upper,workdir=$PWD/work,redirect_dir=off none root
fi
for name in usr proc dev; do mount --rbind /$name root/$name; done"""


class Transaction(unittest.TestCase):
    """Runs the tool in a root of its own, since it knows no other place than /."""

    def setUp(self):
        self.base, self.root = Path("/tmp/roots"), Path("/tmp/roots/root")
        self.addCleanup(run, "umount", "-R", self.base)

    def make_root(self, layered=False):
        run("umount", "-R", self.base)
        made = run("bash", "-euc", MAKE_ROOT, str(layered), TOOL, INSTALLER)
        self.assertEqual(made.returncode, 0, made.stderr)
        return snapshot(self.root / "Applications")

    def tool(self, verb, *before):
        return run(*before, "chroot", self.root, f"/{TOOL.name}", verb)

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
                found = contents(self.root / "Applications").get("Pellomar.app/run")
                self.assertEqual((found, (self.root / STAGING).exists()), (expected, False))

    def install_with(self, left, content, reported):
        """With that many bytes free on the disk."""
        free = os.statvfs(self.base)
        (self.base / "filling").write_bytes(bytes(free.f_bavail * free.f_frsize - left))
        self.assertIn(reported, self.install(content).stderr)

    def test_links(self):
        """The application may be one. Its folder may not: what is removed would be elsewhere."""
        for link, to, status in ((APP, "../elsewhere", 0), ("Applications", "elsewhere", 1)):
            self.make_root()
            (self.root / link).rename(self.root / "elsewhere")
            (self.root / link).symlink_to(to)
            before = snapshot(self.root / "Applications")
            self.assertEqual(self.tool("begin").returncode, status)
            self.assert_ends_with(before)


if __name__ == "__main__":
    main()
