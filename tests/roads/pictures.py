#!/usr/bin/python3 -B
"""Takes a picture of the window in every state: pictures.py BUILD FOLDER 1|2|wayland, the scale or the display. In the
throw-away view."""

import random
import sys
from pathlib import Path

import road  # noqa: F401; it finds the stage
from desktop import Camera, Compositor, Display, is_painted, window_called, xdotool
from install import INSTALLS, MISSING, NOT_LOADED, STARTUP, TOOLS, prepare
from machine import Machine
from person import BAR, DOWNLOADING, NETWORK_FAILURE, REFUSED, SILENT, STOPPED, opened
from waiting import step
from window import WINDOW_TITLE

DOCUMENT = random.Random(0).randbytes(8 << 20)
SLOW = {"rate": 2_000_000}
HELD = ["exec sleep 600"]
NO_DRIVER = {"/usr/sbin/kextstat": [NOT_LOADED]}
# Who reads a fifo waits until somebody writes.
INSTALLS_FIFO = f"{INSTALLS}; cd /Applications/Pellomar.app/Contents; mv Info.plist plist; mkfifo Info.plist"
FAILED = ("安装Pellomar失败，请尝试重新下载安装!", "重试下载", BAR)
QUESTION, SETTINGS, HELP = ("确定", "取消", BAR), ("立即前往设置", "重试安装", BAR), ("立即前往", BAR)


def put_file(machine):
    (machine.home / "Downloads").touch()


def put_link(machine):
    (machine.home / "Downloads").mkdir()
    (machine.home / "Downloads/NVInst").symlink_to("/proc")


# Each picture's name, what it shows, what the person does before, and the status and controls that are there then.
PICTURES = {
    "first-screen": ("The first screen", "", ("", "开始"), {}),
    "first-screen-focus": ("The first screen, reached by Tab: the ring of the focus", "Tab", ("", "开始"), {}),
    "checking-network": ("Downloading: the server has not answered yet", "开始",
        ("正在检测网络", "停止", BAR), {"answers": [SILENT]}),
    "downloading": ("Downloading", "开始 40%", (DOWNLOADING, "停止", BAR), {"answers": [{}, SLOW]}),
    "stopped": ("Stopped by the user", "开始 40% 停止", (STOPPED, "继续", BAR), {"answers": [{}, SLOW]}),
    "resumed": ("Resumed, before the server answers", "开始 40% 停止 继续",
        (STOPPED, "停止", BAR), {"answers": [{}, SLOW, SILENT]}),
    "network-failure": ("The network failed during the transfer", "开始",
        NETWORK_FAILURE, {"answers": [{}, SLOW | {"cut": 4 << 20}]}),
    "package-not-found": ("The server has no such package", "开始",
        ("文件不存在，请前往下载新版本Pellomar下载器",), {"answers": [{"length": None}]}),
    "download-failed": ("The transfer could not start", "开始", ("下载失败，请直接双击镜像中的APP开始下载",), {"answers": [{"head": 0}]}),
    "no-temporary-file": ("No temporary file", "开始", ("无法创建临时文件", "停止", BAR), {"prepare": put_link}),
    "no-folder": ("No folder for it: the system's own reason", "开始", ("路径中有一项不是文件夹", "停止", BAR), {"prepare": put_file}),
    "keep-data-question": ("Downloaded, and an old copy is there: the question", "开始",
        ("已完成下载", *QUESTION), {"old": True}),
    "uninstalling": ("Removing the old copy", "开始 确定",
        ("正在卸载Pellomar", BAR), {"old": True, "tools": {"/bin/rm": HELD}}),
    "installing": ("Installing", "开始", ("正在安装Pellomar", BAR), {"tools": {"/usr/sbin/installer": HELD}}),
    "querying-driver": ("Asking for the driver", "开始", ("正在查询vbox驱动状态", BAR), {"tools": {"/usr/sbin/kextstat": HELD}}),
    "installing-driver": ("Starting the driver again", "开始 立即前往设置 重试安装",
        ("正在安装vbox驱动", BAR), {"tools": NO_DRIVER | {STARTUP: HELD}}),
    "launching": ("Launching", "开始", ("正在启动Pellomar", BAR), {"tools": {"/usr/sbin/installer": [INSTALLS_FIFO]}}),
    "launch-failed": ("The application could not be launched", "开始",
        ("启动Pellomar失败", BAR), {"tools": {"/usr/sbin/installer": ["true"]}}),
    "rights-refused": ("Administrator rights not obtained", "开始", REFUSED, {"rights": "none"}),
    "driver-guidance": ("The driver is not loaded, on an older system: guidance", "开始",
        ("安装vbox驱动失败，请重试", *SETTINGS), {"tools": NO_DRIVER}),
    "driver-failure": ("The driver's installation failed", "开始 立即前往设置",
        ("安装vbox驱动失败，请重试", *SETTINGS[1:]), {"tools": NO_DRIVER}),
    "signature-guidance": ("The driver is not loaded, on a newer system: guidance", "开始",
        ("安装Pellomar失败，请前往论坛查看安装教程", *HELP), {"tools": NO_DRIVER, "system": "10.15.7"}),
    "see-forum": ("The same, after the guidance", "开始 立即前往",
        ("安装Pellomar失败，请前往论坛查看安装教程", BAR), {"tools": NO_DRIVER, "system": "10.15.7"}),
    "install-failed": ("The package did not install", "开始", FAILED, {"tools": {"/usr/sbin/installer": ["echo Error"]}}),
    "retried": ("Retry pressed: the download runs without a stop button", "开始 重试下载 40%",
        (DOWNLOADING, BAR), {"tools": {"/usr/sbin/installer": ["echo Error"]}, "answers": [{}, {}, {}, SLOW]}),
    "installer-missing": ("The installer could not be started", "开始",
        ("安装Pellomar失败了，请联系反馈群或者重新尝试进行安装", BAR), {"tools": {"/usr/sbin/installer": MISSING}}),
}  # fmt: skip


def table():
    """The pictures as a page."""
    rows = [f"| {text} | [![{text}]({name}.png)]({name}@2x.png) |" for name, (text, *_) in PICTURES.items()]
    return (
        "# The window in every state\n\n"
        "Made by `scripts/screens` from the real window. Each picture leads to that of a screen of double scale.\n"
        "They are kept in 256 colours; the window itself has no such steps in its shades.\n\n"
        "| | |\n|---|---|\n" + "\n".join(rows) + "\n"
        "| On a Wayland compositor | ![On a Wayland compositor](wayland.png) |\n"
        "| The sample's dialog for the administrator's password | ![The password](password.png) |\n"
        "| The installed (sample) application | ![The application](launched.png) |\n"
    )


def reach(window, steps, screen):
    for action in steps.split():
        if action == "Tab":
            window.activate()
            xdotool("key", "Tab")
            window.wait_for("the ring of the focus", lambda: window.has_ring("开始"))
        elif action.endswith("%"):
            window.wait_for_percent(int(action[:-1]))
        else:
            window.invoke(action)
            if action == "停止":
                window.wait_for_status(STOPPED)
    status, *controls = screen
    window.wait_for("the screen", lambda: window.screen()[0] == set(controls) and (not status or window.says(status)))
    # A change is drawn after it is made: one more turn of the window's event loop comes first.
    window.labels()
    window.labels()


def main(build, folder, kind):
    displays = {"1": Display, "2": lambda: Display("1800x1200"), "wayland": Compositor}
    machine = Machine(Path(build), displays[kind])
    machine.environment = {"QT_SCALE_FACTOR": "2" if kind == "2" else "1"}
    prepare()
    for name in ["downloading"] if kind == "wayland" else PICTURES:
        _, steps, screen, world = PICTURES[name]
        world = {"rights": "root", "document": DOCUMENT} | world | {"tools": TOOLS | world.get("tools", {})}
        with opened(machine, **world) as (window, _):
            window.scale = 2 if kind == "2" else 1
            if kind == "wayland":
                reach(window, steps, screen)
                machine.parts[1].take(Path(folder, "wayland.png"))
                continue
            window.wait_for("the drawn window", lambda: is_painted(window_called(WINDOW_TITLE)))
            reach(window, steps, screen)
            Camera.take_window(Path(folder, f"{name}{'@2x' if kind == '2' else ''}.png"), WINDOW_TITLE, kind == "1")
            step(f"took {name}")
    Path(folder, "README.md").write_text(table())


if __name__ == "__main__":
    main(*sys.argv[1:])
