"""After a power cut at any moment, the next run leaves the old version or the new one, and the old one after a failure."""

import os
import shutil
import subprocess
from pathlib import Path

from harness import INSTALLER, RECEIPTS, HostTest, contents, run, tracing
from packages import file, package

FAILING = file("postinstall", "#!/bin/sh\nsync; exit 3", 0o755)
NAMES = "A.app/run", "A.app/b/c", "file"


class PowerCut(HostTest):
    def mount(self, image):
        self.assertEqual(run("mount", "-o", "loop", image, self.target).returncode, 0)

    def images(self, image, *command):
        """What is on the disk after each call that waits for it, and at the end; nothing more is written to either."""
        events, images = self.scratch / "events", []
        os.mkfifo(events)
        stop = "-etrace=fsync,syncfs,renameat2", "-einject=fsync,syncfs:signal=STOP"
        process = subprocess.Popen((*tracing("-o", events, *stop), *command), stdout=subprocess.DEVNULL)
        calls = ""
        with events.open() as lines:
            for line in lines:
                calls += line.split()[1].partition("(")[0] + " "
                if "stopped by SIGSTOP" in line:
                    images.append(shutil.copy(image, self.scratch / f"cut-{len(images)}"))
                    run("kill", "-CONT", line.split()[0])
        process.wait()
        events.unlink()
        self.assertLess(calls.find("syncfs"), calls.find("renameat2"), "the new is on disk before the old is moved")
        return [*images, shutil.copy(image, self.scratch / "cut-last")]

    def test_power_cut(self):
        image, old, new = self.scratch / "image", dict.fromkeys(NAMES, "old"), dict.fromkeys(NAMES, "new")
        known = Path("/proc/filesystems").read_text()
        systems = [(name, options) for name, options in (("ext4", "-q"), ("btrfs", "-qM")) if name in known]
        print("power cuts on", *systems)
        if not systems:
            self.skipTest("this kernel has neither ext4 nor btrfs")
        for system, options in systems:
            for scripts, allowed in (((), (old, new)), ((FAILING,), (old,))):
                with self.subTest(system, scripts=scripts):
                    image.unlink(missing_ok=True)
                    with image.open("wb") as sparse:
                        sparse.truncate(64 << 20)
                    self.assertEqual(run(f"mkfs.{system}", options, image).returncode, 0)
                    self.mount(image)
                    self.path.write_bytes(package(*(file(name, "old") for name in NAMES)))
                    self.assert_installed(run(*self.command))
                    os.sync()
                    self.path.write_bytes(package(*(file(name, "new") for name in NAMES), scripts=scripts))
                    cuts = self.images(image, *self.command)
                    run("umount", self.target)
                    self.assertGreater(len(cuts), 3)
                    for cut in cuts:
                        self.mount(cut)
                        self.assert_refused(run(INSTALLER, "-pkg", "absent", "-target", self.target), "opened")
                        found = contents(self.target)
                        receipts = (self.target / RECEIPTS).exists()
                        run("umount", self.target)
                        self.assertIn(found, allowed, cut)
                        self.assertTrue(receipts)
