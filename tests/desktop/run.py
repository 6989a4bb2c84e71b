"""A whole installation on a real desktop: see scripts/desktop."""

import sys
from pathlib import Path

from guest import Blocked, Guest  # first: it finds tests/support
from waiting import step

TEMPORARY = "/home/player/Downloads/NVInst/Pellomar.tmp"
STAGING = "/.pellomar-installer"
DRIVER = "com.norvik.emu.kext.VBoxDrv"
RIGHTS = ".*的密码.*"
SLOWLY, QUICKLY = "20k", "250k"  # bytes a second: on a busy machine, minutes pass before a button is pressed
SERVICE = "/sys/fs/cgroup/system.slice/pellomar-downloader-rights.service"
# Unpacking takes half a second: too short for a shell's loop, or for a program that is not preferred by the scheduler.
STOP_INSTALLER = f"""
import os, time
while not os.path.exists("{STAGING}/new"):
    time.sleep(0.005)
open("{SERVICE}/cgroup.freeze", "w").write("1")
"""
PREFERRED = "--property=CPUSchedulingPolicy=fifo", "--property=CPUSchedulingPriority=1"
HELP_PAGE = ".*驱动程序无法加载怎么办.*"


class DesktopRun:
    def __init__(self, guest, image, package):
        self.guest, self.image = guest, image
        self.length = package.stat().st_size

    def take(self, name):
        step(f"picture {self.guest.take(name).name}")

    def see(self, text, picture=None):
        self.guest.see(text)
        if picture:
            self.take(picture)

    def bytes_there(self):
        return int(self.guest.run("stat", "-c", "%s", TEMPORARY, check=False) or 0)

    def answer(self, password, picture=None):
        """Types at the agent's dialog, which has the focus, and presses its button."""
        self.see(RIGHTS, picture)
        self.guest.fill(password)
        self.guest.press(r"授权\(A\)", "button")

    def boot(self, picture):
        self.guest.power_on()
        self.guest.run("systemctl", "is-system-running", "--wait", check=False)
        self.guest.run("mount", "-o", "ro", "/dev/vdb", "/mnt")
        self.wait_for_session()
        self.take(picture)

    def serve(self, rate):
        serve = ("bash", "/mnt/serve", "--background", "--rate", rate, "/mnt/documents", "/run/serve")
        self.guest.run("systemd-run", "--property=Type=forking", *serve)

    def wait_for_session(self):
        self.guest.wait_for("the session", lambda: self.guest.run("pgrep", "-u", "player", "xfdesktop", check=False))
        self.see("所有应用程序")

    def install_package(self):
        """As the image's text says: with the command for users without sudo."""
        self.guest.insert(self.image)
        mounted = ("findmnt", "-n", "-o", "TARGET", "/dev/sr0")
        self.place = self.guest.wait_for("the image", lambda: self.guest.run(*mounted, check=False)).strip()
        self.see("请先安装软件包.txt", "disk-image-mounted")
        package = self.guest.run("bash", "-c", f"echo '{self.place}'/*.deb").strip()
        self.guest.run_as_user("systemd-run", "--user", "pkexec", "apt-get", "install", "-y", package)
        self.answer("sesame", "password-for-the-debian-package")
        self.guest.wait_for("the package", lambda: self.guest.run("dpkg", "-s", "pellomar-downloader", check=False))

    def start_from_image(self):
        for name in ("Pellomar下载器.app", "Contents", "MacOS", "PellomarDownloader"):
            self.guest.press(name, "table cell")
            self.guest.see(f'"{name}".*', "status bar")
            self.guest.keys("ret")
        self.see("开始", "started-from-image")

    def start_from_menu(self):
        self.guest.keys("alt", "f2")
        self.guest.see("应用程序查找器|Application Finder.*")
        self.guest.type("pellomar-downloader\n")
        self.see("开始")

    def download(self):
        self.serve(SLOWLY)
        self.guest.press("开始")
        self.see("正在下载Pellomar", "downloading")
        self.guest.press("停止")
        self.see("已停止下载", "stopped")
        there = self.bytes_there()
        self.serve(QUICKLY)
        self.guest.press("继续")
        self.guest.wait_for("more bytes", lambda: self.bytes_there() > there > 0)

    def refuse_and_allow(self):
        """The agent's dialog cancelled, mistyped and answered."""
        self.see(RIGHTS, "password-dialog")
        self.guest.press(r"取消\(C\)", "button")
        self.see("获取权限失败，请重试", "dialog-cancelled")
        self.install_again(RIGHTS)
        self.answer("mistyped")
        self.see(".*失败.*", "wrong-password")
        self.answer("sesame")

    def install_again(self, covering):
        """Presses the button when what covered it has gone."""
        self.guest.see(covering, "", "gone")
        self.guest.press("重试安装")

    def be_guided(self):
        """The driver is not loaded; the start script loads it."""
        self.see("(?s)检测到您的电脑未能成功安装驱动程序.*", "driver-guidance")
        self.expect("no driver", DRIVER not in self.guest.run("kextstat", "-b", DRIVER))
        self.guest.press("立即前往设置", "button")
        self.see(HELP_PAGE)
        self.guest.wait_for("the page", self.guest.is_painted)
        self.take("help-page-on-the-driver")
        self.guest.run("pkill", "-f", "epiphany")  # it may be too busy to take a key, which the next window then gets
        self.install_again(HELP_PAGE)
        self.answer("sesame")
        self.see("Pellomar 已启动", "launched")
        self.expect("the driver", DRIVER in self.guest.run("kextstat", "-b", DRIVER))
        journal = self.guest.run("journalctl", "--no-pager", "-t", "pellomar-downloader-rights")
        self.expect("the journal names what ran as root", "started /usr/sbin/installer as process" in journal)
        self.guest.run("pkill", "-x", "Pellomar")

    def log_out(self):
        """In the middle of a download: nothing of the session is left running."""
        self.serve(SLOWLY)
        self.start_from_menu()
        self.guest.press("开始")
        self.guest.wait_for("some bytes", lambda: self.bytes_there() > 100_000)
        self.guest.run_as_user("xfce4-session-logout", "--logout")
        of_session = ("pgrep", "-u", "player", "PellomarDown|xfce4-session")
        self.guest.wait_for("the end of the session", lambda: not self.guest.run(*of_session, check=False))
        self.expect("a partial download", 0 < self.bytes_there() < self.length)
        self.guest.wait_for("the greeter", self.guest.is_painted)
        self.take("logged-out")
        self.guest.run("systemctl", "restart", "lightdm")  # logs the user in
        self.wait_for_session()
        self.expect("the saved session starts no download", not self.guest.run("pgrep", "PellomarDown", check=False))

    def lose_power(self):
        """While the new version is unpacked: the old one is there after the next boot."""
        before = self.product()
        self.serve(QUICKLY)
        self.start_from_menu()
        self.guest.press("开始")
        self.answer("sesame")
        self.see("是否保留已安装游戏和应用", "keep-games-question")
        self.guest.run("systemd-run", *PREFERRED, "python3", "-c", STOP_INSTALLER)
        self.guest.press("确定.*", "button")
        self.guest.wait_for("the unpacking", lambda: "frozen 1" in self.guest.run("cat", f"{SERVICE}/cgroup.events"))
        self.take("installing-before-the-power-cut")
        self.expect("no application for a while", not self.product())
        self.guest.cut_power()
        self.boot("after-the-power-cut")
        self.expect("the old application", self.product() == before)
        self.expect("nothing left", self.guest.run("test", "!", "-e", STAGING, check=False) is not None)

    def product(self):
        """The names, kinds, sizes and times of all that is installed."""
        return self.guest.run("find", "/Applications", "-mindepth", "1", "-printf", "%p %y %s %t\\n", check=False)

    def expect(self, what, is_so):
        if not is_so:
            raise Blocked(f"not so: {what}")
        step(f"checked: {what}")

    def keep(self):
        """Leaves the logs, the journal and the state of /Applications beside the pictures."""
        # Without the lines of the agent, which repeat each command that ran here.
        journal = "journalctl --no-pager | awk '/^[^ ]/ { own = /qemu-ga/ } !own'"
        logs = "tail -n +1 /home/player/Documents/LOG-*.txt"
        for name, command in ("journal", journal), ("applications", "ls -lR /Applications"), ("logs", logs):
            (self.guest.folder / f"{name}.txt").write_text(self.guest.run("bash", "-c", command, check=False) or "")

    def run(self):
        self.boot("desktop")
        self.install_package()
        self.start_from_image()
        self.download()
        self.refuse_and_allow()
        self.be_guided()
        self.log_out()
        self.lose_power()


def main(architecture, machine, build, results):
    build, results = Path(build), Path(results)
    guest = Guest(architecture, machine, results, results / "kit.iso", "player")
    desktop = DesktopRun(guest, build / "Pellomar下载器.iso", build / "sample/soft/Pellomar-sample.pkg")
    try:
        desktop.run()
        step("all steps were reached")
    except Blocked as error:
        step(f"not reached: {error}")
        if guest.process and guest.process.poll() is None:
            desktop.take("not-reached")
        sys.exit(1)
    finally:
        if guest.process and guest.process.poll() is None:
            desktop.keep()
            guest.cut_power()
        for left_over in (guest.disk, guest.kit, guest.folder / "screen.png"):
            left_over.unlink(missing_ok=True)


if __name__ == "__main__":
    main(*sys.argv[1:])
