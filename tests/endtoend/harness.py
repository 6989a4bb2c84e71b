"""The built bundle on a desktop of its own inside the throw-away view, and a download server for it."""

import contextlib
import hashlib
import os
import pwd
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/stage"))
from stage import DISPLAYS, WINDOW_TITLE, Session, Window, running, serve_sample, wait_for, xdotool  # noqa: E402

SCRATCH = Path("/tmp/endtoend")
PACKAGE = SCRATCH / "documents/soft/Pellomar-sample.pkg"
SMALL_DISK = SCRATCH / "small-disk"
APPLICATION = Path("/Applications/Pellomar.app")
ADDRESS = ("127.0.0.1", 18080)
BAR = "下载进度"


class Downloader(Window, contextlib.AbstractContextManager):
    """A downloader with a disk image and a home of its own; nothing of it is left after its `with` block."""

    def __init__(self, home="home"):
        self.folder = Path(tempfile.mkdtemp(dir=SCRATCH))
        self.disk = shutil.copytree(SCRATCH / "disk", self.folder / "disk")
        self.config = self.disk / ".config"
        self.executable = self.disk / "Pellomar下载器.app/Contents/MacOS/PellomarDownloader"
        self.tool = self.executable.with_name("WebStatistics")
        self.home = self.folder / home
        self.home.mkdir()
        self.inherited = self.folder / "stderr"
        shutil.rmtree(APPLICATION, ignore_errors=True)

    def open(self, *command):
        environment = dict(os.environ, HOME=str(self.home), QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1")
        with open(self.inherited, "wb") as errors:
            self.process = subprocess.Popen(
                [*command, self.executable], env=environment, stdin=subprocess.DEVNULL, stdout=errors, stderr=errors
            )
        self.wait_for("the first screen", lambda: self.button("开始"))

    def start(self, *command):
        self.open(*command)
        self.press("开始")

    def __exit__(self, problem, *_):
        if problem:
            print(self.screen(), self.inherited.read_text(), self.log(), file=sys.stderr)
        self.process.kill()
        self.process.wait()
        shutil.rmtree(self.folder)

    def windows(self):
        """The numbers of its windows on screen: a dialog bears its window's title."""
        of_ours = ("--all", "--onlyvisible", "--pid", self.process.pid, "--name", f"^{WINDOW_TITLE}$")
        return self.wait_for("a window", lambda: (xdotool("search", *of_ours) or "").split())

    press = Window.invoke
    click = Window.press

    def close(self):
        """Has the window manager ask every window of it to close, as a taskbar does."""
        for window in self.windows():
            subprocess.run(["wmctrl", "-i", "-c", window], check=True)

    def lines(self):
        """The log without the hour and the process at the head of each line."""
        return [line.split("] ", 1)[-1] for line in self.log().splitlines()]

    def events(self):
        """What the statistics tool was told, once no copy of it runs any more."""
        wait_for("the end of the statistics tools", lambda: not running(str(self.tool)))
        path = self.home / "Library/Logs/Pellomar/WebStatistics.log"
        return [line.split(" ", 1)[1] for line in path.read_text().splitlines()] if path.exists() else []

    def file(self, ending):
        return self.home / f"Downloads/NVInst/Pellomar.{ending}"


class Server(contextlib.AbstractContextManager):
    """The sample's download server."""

    def __init__(self, rate="0"):
        self.folder = Path(tempfile.mkdtemp(dir=SCRATCH))
        self.process = serve_sample(SCRATCH / "sample/serve", SCRATCH / "documents", self.folder, rate)

    def requests(self, method):
        lines = (self.folder / "logs/access.log").read_text().splitlines()
        return [line for line in lines if f'"{method} ' in line]

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()


class EndToEndTest(unittest.TestCase):
    def assert_left(self, program):
        self.assertEqual(program.process.wait(30), 0)
        self.assertEqual(program.events().count("13"), 1)

    def assert_launched(self, program):
        self.assertEqual(program.process.wait(60), 0)
        wait_for("the product", lambda: running(str(APPLICATION / "Contents/MacOS/Pellomar")))

    def assert_whole(self, path):
        self.assertEqual(hashlib.sha256(path.read_bytes()).digest(), hashlib.sha256(PACKAGE.read_bytes()).digest())


def main(user=None, prepare=lambda build: None):
    """Runs the tests as root, or as USER after root has run PREPARE."""
    if os.environ.get("PELLOMAR_VIEW") != "1":
        sys.exit("changes the machine: runs only in the throw-away view")
    build = Path(sys.argv.pop(1))
    shutil.copytree(build / "Pellomar下载器.app", SCRATCH / "disk/Pellomar下载器.app")
    shutil.copy(build / ".config", SCRATCH / "disk")
    shutil.copytree(build / "sample/soft", PACKAGE.parent)
    shutil.copytree(PROJECT / "sample", SCRATCH / "sample")
    for tool in ("installer", "kextstat"):
        shutil.copy(build / "host" / tool / tool, "/usr/sbin")
    SMALL_DISK.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=20m", "tmpfs", SMALL_DISK], check=True)
    prepare(build)
    if user is not None:
        entry = pwd.getpwnam(user)
        subprocess.run(["chown", "-R", f"{entry.pw_uid}:{entry.pw_gid}", SCRATCH, "/run/user"], check=True)
        os.setgroups([])
        os.setgid(entry.pw_gid)
        os.setuid(entry.pw_uid)
    os.environ["HOME"] = str(SCRATCH)
    # Whatever runs is left to the view, which ends with this process.
    display = DISPLAYS[os.environ.get("PELLOMAR_TEST_DISPLAY", "x11")]
    desktop = Session(subprocess.DEVNULL), display()  # noqa: F841
    unittest.main(verbosity=2, warnings="ignore")
