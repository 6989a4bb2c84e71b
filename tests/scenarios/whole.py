"""A whole installation with the real tools and the real package: on a Wayland compositor, and as scripts/run shows it, for
an ordinary user, with the sample's server and password dialog."""

import contextlib
import itertools
import os
import re
import shutil
import subprocess
import time
from pathlib import Path

from scenario import HELD, Scenario, act, opened  # first: it adds tests/support to the path
from desktop import is_painted, take, take_window, window_called, xdotool
from machine import APPLICATION, INSTALLER, OLD, PRODUCT, PROJECT, REAL, SAMPLE, trace, write
from rights import ADMINISTRATOR, PASSWORD, USER, as_user
from waiting import Blocked, processes, step, wait_for
from window import CHECK_BOX, WINDOW_TITLE, Atspi, Screen
from window import PASSWORD as PASSWORD_FIELD

BAR, READING_TIME = "下载进度", 900  # seconds; the user may leave and come back
DOWNLOADING = "正在下载Pellomar"
HELD_INSTALLER = {INSTALLER: [f'{HELD}exec {REAL}/installer "$@"']}


def install_through_the_window(machine, window, picture, type_password=lambda: None):
    """Returns the size of the partial download, in bytes, when it was stopped."""
    document = (machine.build / SAMPLE).read_bytes()
    click = window.press if "DISPLAY" in os.environ else window.invoke
    assert window.screen() == ({"开始"}, []), window.screen()
    (agreement,) = [item for item in window.all() if item.role() == CHECK_BOX]
    assert agreement.name() == "同意许可协议" and agreement.has(Atspi.StateType.CHECKED), "the agreement is not ticked"
    picture("first-screen")
    click("开始")
    window.wait_for_screen(DOWNLOADING, "停止", BAR)
    window.wait_for("a speed", lambda: any(re.fullmatch(r"[1-9]\d* KB/s", text) for text in window.labels()))
    picture("downloading")
    click("停止")
    window.wait_for_screen("已停止下载", "继续", BAR)
    held = machine.file("tmp").stat().st_size
    window.wait_for("the bar's last frame", lambda: window.percent() == held * 100 // len(document))
    picture("stopped")
    click("继续")
    window.wait_for("the press", lambda: not window.button("继续"))
    picture("continued")
    type_password()
    window.wait_for_screen("是否保留已安装游戏和应用", "确定", "取消", BAR)
    texts = window.labels()
    assert {"已完成下载", "安装向导"} < {*texts} and window.percent() == 100, (texts, window.percent())
    picture("keep-data-question")
    click("确定")
    window.wait_for_status("正在安装Pellomar")
    picture("installing")
    act(machine, window, None, "proceed")
    expect_launched(machine, window)
    assert machine.file("pkg").read_bytes() == document, "the package is not what the server has"
    return held


def expect_launched(machine, window):
    wait_for("the end of the window", lambda: window.process.poll() is not None)
    owners = {Path(f"/proc/{process}").owner() for process in wait_for("the product", lambda: processes(PRODUCT))}
    seen = window.process.returncode, owners, OLD.exists()
    assert seen == (0, {machine.owner}, False), f"status, owners of the product, old copy: {seen}"


def wayland(machine, file="/run/wayland.png"):
    machine.trust_sample()
    document = (machine.build / SAMPLE).read_bytes()
    scenario = Scenario(real=True, tools=HELD_INSTALLER, old=True, rights="root", document=document,
                        answers=({}, {"rate": 30_000}) * 2)
    with opened(machine, scenario) as (window, server):
        at = {"downloading": lambda: take(file), "continued": server.release}
        held = install_through_the_window(machine, window, lambda name: at.get(name, bool)())
        assert server.requests[-1][2] == held, f"stopped at {held}, then {server.requests}"


def watch(window, picture):
    step("press 开始 in the window; the download takes about 15 seconds")
    step(f"then type this password in the sample's password dialog: {PASSWORD}")
    shown, deadline = [], time.monotonic() + READING_TIME
    while window.process.poll() is None:
        texts = [text for text in window.labels() if text and not text.endswith("KB/s")]
        if texts not in ([], shown):
            shown = texts
            picture("on-screen")
        if time.monotonic() > deadline:
            raise Blocked(f"the window is still there after {READING_TIME} s")
        time.sleep(0.1)


def demonstration(machine, results="/run/results", *options):
    """RESULTS receives numbered pictures, the log, the events and the commands that ran as root. If it is watched, the
    user presses the buttons, on a display of the user's own."""
    results, is_watched = Path(results), "--watched" in options
    files, numbers = Path("/var/lib/pellomar-sample"), itertools.count(1)
    results.mkdir(exist_ok=True)
    machine.begin(Scenario(real=True, tools={} if is_watched else HELD_INSTALLER, rights="ask"))
    machine.trust_sample()
    shutil.copy(machine.build / ".config", machine.config)
    dialog = shutil.copy(machine.build / "sample/password-dialog", "/usr/local/bin")
    install = [REAL / "installer", "-pkg", machine.build / SAMPLE, "-target", "/"]
    subprocess.run(install, check=True, stdout=subprocess.DEVNULL)
    write(OLD, "")
    step(f"{USER} is an ordinary user, {ADMINISTRATOR} an administrator; an old copy is in {APPLICATION}")

    def serve(rate):
        """A server that runs is replaced."""
        command = [PROJECT / "sample/serve", "--background", "--rate", rate, machine.build / "sample", files]
        subprocess.run(command, check=True)

    def picture(name, title=None):
        # A change is drawn after it is made, in the next turn of the window's event loop.
        step(f"{name}: {', '.join(filter(None, window.labels() and window.labels()))}")
        file = results / f"{next(numbers):02d}-{name}.png"
        if not is_watched:
            take(file)
        elif window_called(WINDOW_TITLE):  # only the window: a user's desktop is private
            take_window(file, WINDOW_TITLE)
        if title:
            take_window(results / f"{name}.png", title, "-frame")
        if name == "stopped":
            serve("1600k")

    def type_password():
        screen = Screen("password-dialog")
        screen.press("密码", PASSWORD_FIELD)
        xdotool("type", "--delay", 30, PASSWORD)
        picture("password", "管理员密码（演示）")
        screen.press("认证")

    serve("800k" if is_watched else "40k")  # on a busy machine, minutes pass before 停止 is pressed
    try:
        with contextlib.closing(machine.open()) as window:
            machine.start_agent(window, dialog)
            if is_watched:
                watch(window, picture)
                expect_launched(machine, window)
                step("close the product's window to end the demonstration; it ends automatically after a minute")
                with contextlib.suppress(Blocked):
                    wait_for("the end of the product", lambda: not processes(PRODUCT), 60)
            else:
                old = subprocess.Popen([PRODUCT], stderr=subprocess.DEVNULL, **as_user(USER))
                xdotool("windowminimize", wait_for("the window of the old copy", lambda: window_called("Pellomar")))
                window.wait_until_drawn()
                held = install_through_the_window(machine, window, picture, type_password)
                wait_for("the drawn product", lambda: is_painted(window_called("Pellomar")))
                picture("launched", "Pellomar")
                assert old.poll() is not None, "the old copy is still running"
                assert machine.agent.asked() == 1, machine.agent.lines()
                assert f'range="bytes={held}-" 206' in (files / "logs/access.log").read_text(), f"no range from {held}"
    finally:
        subprocess.run([PROJECT / "sample/serve", "--stop", files], check=True)
        lines = trace(machine.home)
        commands = [line[10:].replace("|", " ") for line in lines if line.startswith("root runs ")]
        events = [line for line in lines if line.startswith("event")]
        shutil.copy(files / "logs/access.log", results / "server-access.log")
        for path in (machine.home / "Documents").iterdir():
            (results / path.name).write_text(re.sub("(?m)^@.*\n", "", path.read_text()))
        for name, texts in (("events", events), ("root-commands", commands)):
            (results / f"{name}.txt").write_text("".join(f"{text}\n" for text in texts))
            step(f"{name}: {'; '.join(texts)}")
        subprocess.run(["chown", "-R", "--reference", results.parent, results], check=True)
        machine.stop_programs()
    must_be = [f"/bin/rm -rf {APPLICATION}", "/usr/sbin/installer -pkg ~/Downloads/NVInst/Pellomar.pkg -target /",
               "/usr/sbin/kextstat -b com.norvik.emu.kext.VBoxDrv"]
    codes = ["event 814", "event 815", "event 817", "event 818", "event 826", "events submitted"]
    assert is_watched or (events, commands) == (codes, must_be), f"not {codes}, or not {must_be}"
    step("the installation reached its end")


WHOLE_SCENARIOS = (wayland, demonstration)
