#!/usr/bin/python3 -B
"""The main road as an ordinary user goes it, with the sample's server, password dialog, tools and package:
demonstration.py BUILD RESULTS [--watched]

RESULTS receives numbered pictures, the log, the events and the commands that ran as root. Watched, the user presses
the buttons, on a display that is there already. In the throw-away view."""

import contextlib
import os
import re
import shutil
import subprocess
import sys
import time
from pathlib import Path

from road import Road  # first: it finds the stage
from desktop import Camera, Display, is_painted, window_called, xdotool
from machine import APPLICATION, BUNDLE, OLD, PRODUCT, PROJECT, REAL, RECORD, STATISTICS, Machine, write
from person import BAR, DOWNLOADING, STOPPED
from rights import ADMINISTRATOR, USER, as_user
from waiting import Blocked, processes, step, wait_for
from window import PASSWORD as PASSWORD_FIELD
from window import WINDOW_TITLE, Screen

PASSWORD, PATIENCE = "pellomar", 900  # a person may read, drink tea and come back
DIALOG = Path("/usr/local/lib/pellomar-sample/password-dialog")
INSTALLER = "/usr/sbin/installer"
HOLD = Path("/run/hold")


@contextlib.contextmanager
def serving(machine):
    """The sample's download server."""
    folder = Path("/var/lib/pellomar-sample")
    serve = [PROJECT / "sample/serve", machine.build / "sample", folder]
    subprocess.run([serve[0], "--background", *serve[1:]], check=True)
    try:
        yield folder / "logs/access.log"
    finally:
        subprocess.run([serve[0], "--stop", folder], check=True)


class Demonstration:
    def __init__(self, machine, results, is_watched):
        self.machine, self.results, self.is_watched = machine, results, is_watched
        self.camera = Camera(results)

    def prepare(self):
        machine = self.machine
        tools = {INSTALLER: [f'while [[ -e {HOLD} ]]; do sleep 0.05; done; exec {REAL}/installer "$@"']}
        machine.begin(Road([], tools=tools, rights="ask"))
        machine.trust_sample()
        write(RECORD, "", 0o666)
        shutil.copy(machine.build / BUNDLE.name / STATISTICS.relative_to(BUNDLE), STATISTICS)
        shutil.copy(machine.build / ".config", machine.config)
        DIALOG.parent.mkdir(parents=True)
        shutil.copy(machine.build / "sample/password-dialog", DIALOG)
        subprocess.run(["chpasswd"], input=f"{ADMINISTRATOR}:{PASSWORD}\n", text=True, check=True)
        package = machine.build / "sample/soft/Pellomar-sample.pkg"
        subprocess.run([REAL / "installer", "-pkg", package, "-target", "/"], check=True, stdout=subprocess.DEVNULL)
        write(OLD, "")
        step(f"{USER} is an ordinary user, {ADMINISTRATOR} an administrator; an old copy is in {APPLICATION}")

    def take(self, name):
        # A change is drawn after it is made: one more turn of the window's event loop comes first.
        self.window.labels()
        self.window.labels()
        self.camera.take(name)
        step(f"{name}: {', '.join(filter(None, self.window.labels()))}")

    def follow(self):
        self.prepare()
        with serving(self.machine) as requests, contextlib.closing(self.machine.open(tells=False)) as self.window:
            self.machine.start_agent(self.window, "right", dialog=DIALOG, password=PASSWORD)
            try:
                self.watch() if self.is_watched else self.press(requests)
                self.arrive()
            except Blocked as blocked:
                step(f"the road is blocked: {blocked}; on screen: {self.window.screen()}")
                if not self.is_watched:
                    self.camera.take("blocked")
                raise
            finally:
                self.collect(requests)

    def press(self, requests):
        window, old = self.window, subprocess.Popen([PRODUCT], stderr=subprocess.DEVNULL, **as_user(USER))
        xdotool("windowminimize", wait_for("the window of the old copy", lambda: window_called("Pellomar")))
        wait_for("the drawn window", lambda: is_painted(window_called(WINDOW_TITLE)))
        self.take("first-screen")
        window.press("开始")
        window.wait_for_percent(25)
        self.take("downloading")
        window.press("停止")
        window.wait_for_screen(STOPPED, "继续", BAR)
        held = self.machine.file("tmp").stat().st_size
        self.take("stopped")
        window.press("继续")
        window.wait_for_percent(50)
        window.wait_for_status(DOWNLOADING)
        self.take("continued")
        self.type_password()
        window.wait_for_screen("是否保留已安装游戏和应用", "确定", "取消", BAR)
        self.take("keep-data-question")
        if old.poll() is None or f'range="bytes={held}-" 206' not in requests.read_text():
            raise Blocked(f"the old copy still runs, or the server was not asked for the bytes from {held} on")
        HOLD.touch()
        window.press("确定")
        window.wait_for_status("正在安装Pellomar")
        self.take("installing")
        HOLD.unlink()

    def type_password(self):
        dialog = Screen()
        dialog.program = "password-dialog"
        dialog.wait_for("the password dialog", lambda: dialog.button("认证"))
        dialog.press("密码", PASSWORD_FIELD)
        xdotool("type", "--delay", 30, PASSWORD)
        self.take("password")
        Camera.take_window(self.results / "password.png", "管理员密码（演示）")
        dialog.press("认证")

    def watch(self):
        step("now it is yours: press 开始 in the window (the package takes a quarter of a minute)")
        step(f"then a dialog of the sample's asks for a password, which is: {PASSWORD}")
        told, deadline = (), time.monotonic() + PATIENCE
        while self.window.process.poll() is None:
            texts = tuple(text for text in self.window.labels() if text and not text.endswith("KB/s"))
            if texts and texts != told:
                told = texts
                step(f"on screen: {', '.join(texts)}")
                if window_called(WINDOW_TITLE) is not None:  # only the window: a user's desktop is private
                    self.camera.count += 1
                    Camera.take_window(self.results / f"{self.camera.count:02d}-on-screen.png", WINDOW_TITLE, False)
            if time.monotonic() > deadline:
                raise Blocked(f"nothing came of it within {PATIENCE} s")
            time.sleep(0.1)

    def arrive(self):
        wait_for("the end of the window", lambda: self.window.process.poll() is not None)
        owners = {Path(f"/proc/{process}").owner() for process in self.machine.wait_for_product()}
        if self.window.process.returncode != 0 or self.machine.agent.asked() != 1 or OLD.exists():
            raise Blocked(f"status {self.window.process.returncode}, asked {self.machine.agent.asked()} times")
        step(f"the window has ended with status 0; the installed product runs, as {', '.join(owners)}")
        if self.is_watched:
            step("close the product's window to end the demonstration; it ends by itself after a minute")
            with contextlib.suppress(Blocked):
                wait_for("the end of the product", lambda: not processes(PRODUCT), 60)
            return
        wait_for("the drawn product", lambda: is_painted(window_called("Pellomar")))
        self.camera.take("launched")
        Camera.take_window(self.results / "launched.png", "Pellomar")
        codes = ["14 814", "14 815", "14 817", "14 818", "14 826", "13"]
        told = lambda: sorted(line.split(" ", 1)[1] for line in self.events())  # noqa: E731
        wait_for(f"the events {codes}", lambda: told() == sorted(codes))
        package = self.machine.file("pkg")
        must_be = [f"/bin/rm -rf {APPLICATION}", f"{INSTALLER} -pkg {package} -target /",
                   "/usr/sbin/kextstat -b com.norvik.emu.kext.VBoxDrv"]  # fmt: skip
        if owners != {USER} or self.commands() != must_be:
            raise Blocked(f"as root ran {self.commands()}")

    def events(self):
        path = self.machine.home / "Library/Logs/Pellomar/WebStatistics.log"
        return sorted(path.read_text().splitlines()) if path.exists() else []

    @staticmethod
    def commands():
        return [line.replace("|", " ") for line in re.findall("(?m)^@.* root runs (.*)$", RECORD.read_text())]

    def collect(self, requests):
        for path in (*(self.machine.home / "Documents").glob("LOG-*"), requests):
            shutil.copy(path, self.results / path.name.replace("access", "server-access"))
        for name, lines in (("events", self.events()), ("root-commands", self.commands())):
            (self.results / f"{name}.txt").write_text("".join(f"{line}\n" for line in lines))
            step(f"{name}: {'; '.join(lines)}")


def main(build, results, *options):
    is_watched = "--watched" in options
    Path(results).mkdir(exist_ok=True)
    # A display is the user's who asked for this: whoever shows a window there has that user's number.
    number = os.environ.get("SUDO_UID") if is_watched else None
    machine = Machine(Path(build), (lambda: None) if is_watched else Display, number)
    try:
        Demonstration(machine, Path(results), is_watched).follow()
    finally:
        machine.stop_programs()
        if "SUDO_UID" in os.environ:
            for path in Path(results).iterdir():
                os.chown(path, int(os.environ["SUDO_UID"]), int(os.environ["SUDO_GID"]))
    step("the road was followed to its end")


if __name__ == "__main__":
    main(*sys.argv[1:])
