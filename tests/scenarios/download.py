"""Downloads: the server's answers to the probe, to a fresh download and to a resumed one; presses, disks and homes. All
end when the installation asks for rights, which are refused."""

import subprocess
from pathlib import Path

from install import BROKEN, CLOSED, CONTINUE_PRESSED, DOWNLOADING, FINISHED, OLD_COPY_CLOSED, PRESSED
from install import RECEIVED, REFUSED, SECOND_SCREEN, START, STOP_SHOWN, TRIES_AGAIN, URL, start
from machine import ADDRESS, write
from scenario import DOCUMENT, SMALL_DISK, Scenario

ALL, HALF = len(DOCUMENT), 40_000
PROBE = "HEAD"

COMPLETE = [*DOWNLOADING, *FINISHED, *REFUSED]
BROKEN_OFF = [*DOWNLOADING, *BROKEN]
DISK_FULL = [*DOWNLOADING, "log Write of File failed:No space left on device", *BROKEN]
CONTINUED = [*CONTINUE_PRESSED, *STOP_SHOWN]
STOPPED = ["log stop_button has been clicked", "log CoreImageView stopDownload", "hide 停止", "show 继续"]
GIVEN_UP = ["hide 停止", "hide 下载进度", "log Webstatic:Download Faild", "event 821"]
NOT_FOUND = ["log Target File does not exists", "status 文件不存在，请前往下载新版本Pellomar下载器", *GIVEN_UP,
             "> picture package-not-found"]
MOUNTED = "/Volumes/Pellomar下载器/.config"
REDIRECTED = {"status": 302, "headers": {"Location": "http://127.0.0.1:1/"}}
UNREADABLE = "log Open of File for reading failed:/media/Pellomar/Pellomar下载器.app/../.config!"


def not_started(code):
    return [f"log Error Code:{code}", "status 下载失败，请直接双击镜像中的APP开始下载", *GIVEN_UP, "> picture download-failed"]


def scenario(lines, *answers, **more):
    return Scenario([*START, *lines], rights="none", answers=answers or ({},), **more)


def fresh(answer, lines=COMPLETE, holds=ALL, **more):
    return scenario(lines, {}, answer, {}, holds=holds, **more)


def resumed(answer, holds=HALF, lines=BROKEN_OFF, then=(*TRIES_AGAIN, *COMPLETE)):
    """The first attempt gets HALF, the second one breaks off, and the third one completes the file."""
    return scenario([*BROKEN_OFF, *TRIES_AGAIN, *lines, *then], {}, {"cut": HALF}, {}, answer, {},
                    holds=ALL if then else holds, asked=[PROBE, None, *[PROBE, HALF] * (2 if then else 1)])


def clock(time):
    """The window's clock, as libfaketime has it."""
    text = (f"export LD_PRELOAD=$(echo /usr/lib/*/faketime/libfaketime.so.1) {time} ASAN_OPTIONS=verify_asan_link_order=0; "
            'exec "$0"')
    return "bash", "-c", text


def connect_for_minutes(_):
    Path("/proc/sys/net/ipv4/tcp_syn_retries").write_text("10")


def mount(folder, options):
    subprocess.run(["mount", "--mkdir", "-t", "tmpfs", "-o", options, "tmpfs", folder], check=True)


def mount_small(machine):
    mount(SMALL_DISK, f"size={4096 * 10},mode=1777")
    (machine.home / "Downloads").symlink_to(SMALL_DISK)


def put_link(machine):
    (machine.home / "Downloads").mkdir()
    (machine.home / "Downloads/NVInst").symlink_to("/proc")


def unusable(status, reason, prepare, *picture):
    """The temporary folder or file cannot be made. The server is asked only when the user continues; nothing is written."""
    return Scenario(
        [*PRESSED, f"log CoreImageView startDownload url:{URL}", *SECOND_SCREEN,
         f"log create temp file failed:{reason}", f"status {status}", *picture, "> 停止", *STOPPED,
         *TRIES_AGAIN, "log Open of File for appending failed:~/Downloads/NVInst/Pellomar.tmp!", *BROKEN],
        rights="none", prepare=prepare, asked=[PROBE])


def behind_proxy(proxy):
    return "env", "no_proxy=", f"http_proxy=http://{proxy}"


def configure_mounted(machine):
    machine.config.unlink()
    write(MOUNTED, "other")


STALL_AT_ONCE = {"cut": None, "ending": "stall"}

DOWNLOAD_SCENARIOS = {
    "answers to the probe": {
        "close": scenario(not_started(52), {"cut": None}, asked=[PROBE]),
        "refuse": scenario(not_started(7), {"arrival": "refuse"}),
        "no length": scenario(NOT_FOUND, {"length": None}, asked=[PROBE]),
        # The transfer has not begun, so nothing is stopped.
        "stop during a stall": scenario(["> stall", "> picture checking-network", "> 停止", *STOPPED, "> release",
                                         *DOWNLOADING, *RECEIVED, "hide 继续", OLD_COPY_CLOSED, *REFUSED],
                                        STALL_AT_ONCE, {}, holds=ALL),
        "page of an error": scenario(COMPLETE, {"status": 404, "body": 8}, holds=8),
        "redirect": scenario(COMPLETE, REDIRECTED, asked=[PROBE, None]),
    },
    "answers to a fresh download": {
        "cut": fresh({"cut": HALF}, [*BROKEN_OFF, "> picture network-failure", *TRIES_AGAIN, *COMPLETE],
                     asked=[PROBE, None, PROBE, HALF]),
        "breaks each time": scenario([*BROKEN_OFF, *[*TRIES_AGAIN, *BROKEN_OFF] * 3, *TRIES_AGAIN, *not_started(52)],
                                     {}, {"cut": 1}, {}, {"cut": 0}, {}, {"cut": HALF}, {}, {"cut": -1}, {"cut": None},
                                     holds=ALL - 1, asked=[PROBE, None, PROBE, 1, PROBE, 1, PROBE, 1 + HALF, PROBE]),
        "reset": fresh({"cut": HALF, "ending": "reset"}, [*BROKEN_OFF, *TRIES_AGAIN, *COMPLETE],
                       logged=", Connection reset by peer"),
        # Given up after 30 seconds of a clock that is three times as fast. The kernel, and libcurl by itself, would try for
        # longer than the test waits.
        "unanswered": fresh({"arrival": "ignore"}, BROKEN_OFF, holds=0, before=clock("FAKETIME='+0 x3'"),
                            prepare=connect_for_minutes, logged="SyncDownload Return Code:28"),
        "stop during a stall": fresh({"cut": HALF, "ending": "stall"},
                                     [*DOWNLOADING, "> 40%", "> stall", "> 停止 ×3", *STOPPED, "> release",
                                      "status 已停止下载", "> 继续 ×2", *CONTINUED, *COMPLETE],
                                     asked=[PROBE, None, PROBE, HALF]),
        "no length": fresh({"length": None}),
        "a folder in the file's place": scenario(COMPLETE, {}, stale=["Downloads/NVInst/Pellomar.tmp/deep"], holds=ALL),
        "a file in the folder's place": scenario(COMPLETE, {}, stale=["Downloads/NVInst"], holds=ALL),
        "a link in the file's place": scenario(COMPLETE, {}, stale=["Downloads/NVInst/Pellomar.pkg"], holds=ALL,
                                               prepare=lambda machine: machine.file("tmp").symlink_to("/etc/hosts")),
        "longer than its stated length": fresh({"length": ALL - 1}, holds=ALL - 1),
        "5 GB": scenario(BROKEN_OFF, {"length": 5_000_000_000}, holds=ALL),
        "compressed": fresh({"headers": {"Content-Encoding": "gzip"}}),
    },
    "answers to a resumed download": {
        "range ignored": resumed({"range": "ignore"}),
        "redirect": resumed(REDIRECTED),
        # The file counts as complete; the installer will refuse it.
        "nothing left": resumed({"status": 416, "body": 0}, lines=COMPLETE, then=()),
        "refuse": scenario([*BROKEN_OFF, *TRIES_AGAIN, *not_started(7)], {}, {"cut": HALF}, {"arrival": "refuse"},
                           holds=HALF),
    },
    "closed on the first screen": Scenario(),
    "by keys, and closed before the server answers": Scenario(
        ["> picture first-screen", "> focus 开始", "> picture first-screen-focus", "> space", *START[1:], *DOWNLOADING,
         "> 20%", "> picture downloading", "> focus 停止", "> Return", *STOPPED, "status 已停止下载", "> picture stopped",
         "> focus 继续", "> KP_Enter", *CONTINUED, "> stall", "> picture resumed", *CLOSED],
        rights="none", answers=({}, {"rate": 4_000}, STALL_AT_ONCE)),
    "disks, logs and settings": {
        # The first block that does not fit, smaller than a stream's buffer, is written in part; then there is no room at all.
        "full disk": scenario(
            [*DISK_FULL, *TRIES_AGAIN, *DISK_FULL, "> space on disk", *TRIES_AGAIN, *COMPLETE], {}, {"rate": 60_000}, {},
            prepare=mount_small, asked=[PROBE, None, *[PROBE, 4096 * 10] * 2], holds=ALL),
        "unwritable home": unusable("没有写入权限，请检查文件夹权限", "Permission denied", lambda machine: machine.home.chmod(0o555)),
        "read-only disk": unusable("磁盘是只读的，无法写入", "Read-only file system", lambda machine: mount(machine.home, "ro")),
        "file for a folder": unusable("路径中有一项不是文件夹", "Not a directory",
                                      lambda machine: (machine.home / "Downloads").touch(), "> picture no-folder"),
        "temporary file that cannot be made": unusable(
            "无法创建临时文件", "No such file or directory", put_link, "> picture no-temporary-file"),
        "no log, where the home's name is not ASCII": scenario(COMPLETE, home="用 户"),
        "a log of the same second": scenario(COMPLETE, stale=["Documents/LOG-20260102130405.txt"],
                                             before=clock("FAKETIME_DONT_FAKE_MONOTONIC=1 FAKETIME='2026-01-02 13:04:05'")),
        "configuration of the mounted image": Scenario(
            [*start(URL.replace("package", "other"), [f"log Config File does not exists!:{MOUNTED}"]), *COMPLETE],
            rights="none", prepare=configure_mounted),
        "a proxy's password": scenario(COMPLETE, before=behind_proxy("visitor:secret@{}:{}".format(*ADDRESS)),
                                       logged="Content-Length: "),
        "malformed proxy": scenario(not_started(5), before=behind_proxy("visitor:secret/@127.0.0.1:1")),
        "unreadable configuration": Scenario(
            [*start("", [UNREADABLE]), *not_started(3)], rights="none",
            prepare=lambda machine: machine.config.chmod(0)),
    },
}
