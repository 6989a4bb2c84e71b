"""Roads whose point is no order of lines: ways out at any moment, odd homes and disks, a clock that jumps, presses and
keys, and whole roads with the real tools."""

import contextlib
import os
import random
import re
import subprocess
import time
from pathlib import Path

from desktop import is_painted, xdotool
from install import TOOLS
from machine import ADDRESS, OLD, PRODUCT, SAMPLE, STATISTICS, trace, write
from road import DOCUMENT, Road
from server import FaultServer
from waiting import processes, wait_for
from window import CHECK_BOX, Atspi

NUMBER = int(os.environ.get("PELLOMAR_TEST_NUMBER", time.time()))  # of the random choices, which it plays again
TIMES = float(os.environ.get("PELLOMAR_TEST_TIMES", 1))  # how often as many of them
BAR = "下载进度"
DOWNLOADING, STOPPED = "正在下载Pellomar", "已停止下载"
NETWORK_FAILURE = ("网络异常，请稍后重试", "继续", BAR)
REFUSED = ("获取权限失败，请重试", "重试安装", BAR)
SMALL_DISK, READ_ONLY = Path("/mnt/small"), Path("/home/只读 家")
HANGS = "#!/bin/sh\nexec sleep 600\n"
SILENT = {"head": 0, "ending": "stall"}


@contextlib.contextmanager
def opened(machine, *before, answers=({},), document=DOCUMENT, home="user", prepare=None, **road):
    """A window on its first screen, without rights unless the ROAD says otherwise, and its server."""
    machine.begin(Road([], home=home, prepare=prepare, **{"rights": "none", "tools": TOOLS} | road))
    server = FaultServer(answers, ADDRESS, document=document)
    with server, contextlib.closing(machine.open(*before)) as window:
        try:
            yield window, server
        except Exception:
            print(window.screen(), window.log(), server.requests, flush=True)
            raise


def expect_left(machine, window):
    """That it has ended well, and told that once."""
    wait_for("the window's end", lambda: window.process.poll() is not None)
    assert window.process.returncode == 0, window.process.returncode
    wait_for("the last event", lambda: "events submitted" in trace(machine.home)[1])
    assert trace(machine.home)[1].count("events submitted") == 1


def expect_closed(machine, window):
    window.ask_to_close()
    expect_left(machine, window)
    assert window.lines().count("window close") == 1


def expect_launched(machine, window):
    expect_left(machine, window)
    assert machine.wait_for_product() and not OLD.exists()


def expect_downloaded(machine, window, document=DOCUMENT):
    """Whole, and no further: nobody here has the rights to install it."""
    window.wait_for_screen(*REFUSED)
    assert machine.file("tmp").read_bytes() == document


def closing(machine):
    with opened(machine) as (window, _):
        expect_closed(machine, window)
    with opened(machine, answers=[SILENT]) as (window, _):
        window.invoke("开始")
        window.wait_for_screen("正在检测网络", "停止", BAR)
        expect_closed(machine, window)
    with opened(machine, rights="root", tools=TOOLS | {"/usr/sbin/installer": ["exec sleep 600"]}) as (window, _):
        window.invoke("开始")
        window.wait_for_screen("正在安装Pellomar", BAR)
        expect_closed(machine, window)


def closing_at_any_moment(machine):
    draw, document = random.Random(NUMBER), bytes(200 << 20)
    for number in range(round(10 * TIMES)):
        # From the press itself, through the probe and the first block, to the midst of it.
        moment = draw.choice((0.02, 0.1, 0.4)) * draw.random()
        print(f"close {number} after {moment:.3f} s", flush=True)
        with opened(machine, document=document) as (window, _):
            window.invoke("开始")
            time.sleep(moment)
            expect_closed(machine, window)


def launching(machine):
    """While the window repaints."""
    repainting = subprocess.Popen(["sh", "-c", "while xrefresh; do :; done"])
    for _ in range(round(5 * TIMES)):
        with opened(machine, rights="root") as (window, _):
            window.invoke("开始")
            expect_left(machine, window)
    assert repainting.poll() is None
    repainting.kill()


def statistics_tool(machine):
    """May be missing, and may hang."""
    for prepare in (lambda _: STATISTICS.unlink(), lambda _: write(STATISTICS, HANGS, 0o755)):
        with opened(machine, rights="root", prepare=prepare) as (window, _):
            window.invoke("开始")
            wait_for("the window's end", lambda: window.process.poll() is not None)
            assert window.process.returncode == 0
            wait_for("the product", lambda: any("opens" in line for line in trace(machine.home)[1]))


def double_clicks(machine):
    """Only the first press of a series counts, wherever the next one lands."""
    rows = (
        # The middle of the button; continue has stop's place, and a little off begins a new series.
        ("开始", 400, 290, DOWNLOADING, "停止"),
        ("停止", 394, 440, STOPPED, "继续"),
        ("继续", 406, 440, DOWNLOADING, "停止"),
    )
    for presses in (2, 3):
        with opened(machine, answers=[{}, {"rate": 20_000}]) as (window, _):
            (number,) = window.windows()
            for row, (name, x, y, status, after) in enumerate(rows, 1):
                window.wait_for(f"the button {name}", lambda: window.button(name))
                # Events arrive in order: when the window has seen the last click, it has dealt with all.
                move = ("mousemove", "--window", number)
                xdotool(*move, x, y, "click", "--repeat", presses, "--delay", 60, 1, *move, 4, 4, "click", 3)
                hits = row * (presses + 1)
                window.wait_for("the last click", lambda: window.lines().count("CoreImageView hitTest") == hits)
                window.wait_for_screen(status, after, BAR)
            clicked = [line for line in window.lines() if line.endswith("has been clicked")]
            assert clicked == [f"{name}_button has been clicked" for name in ("start", "stop", "continue")], clicked


def keys(machine):
    with opened(machine, answers=[{}, {"rate": 20_000}]) as (window, _):
        (number,) = window.windows()
        xdotool("windowactivate", "--sync", number, "key", "space")  # while no button has the focus
        rows = ("开始", "space", "停止"), ("停止", "Return", "继续"), ("继续", "KP_Enter", "停止")
        for row, (name, key, after) in enumerate(rows, 1):
            window.wait_for(f"the drawn button {name}", lambda: window.white(name) > 0)
            assert not window.has_ring(name)
            window.wait_for(f"the focus on {name}", lambda: xdotool("key", "Tab") or window.has_ring(name))
            xdotool("key", key, key, "mousemove", "--window", number, 4, 4, "click", 3)
            window.wait_for("the click", lambda: window.lines().count("CoreImageView hitTest") == row)
            window.wait_for(f"the button {after}", lambda: window.button(after))
        assert sum(line.endswith("has been clicked") for line in window.lines()) == 3


def mount(folder, *options):
    folder.mkdir(parents=True, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", *options, "tmpfs", folder], check=True)


def link(name):
    """Puts one of the home's folders on the small disk."""
    return lambda machine: (machine.home / name).symlink_to(SMALL_DISK)


def full_disk(machine):
    mount(SMALL_DISK, "-o", "size=20m,mode=1777")
    document, in_the_way = random.Random(1).randbytes(10 << 20), SMALL_DISK / "in-the-way"
    in_the_way.write_bytes(bytes(16 << 20))
    with opened(machine, document=document, prepare=link("Downloads")) as (window, _):
        window.invoke("开始")
        window.wait_for_screen(*NETWORK_FAILURE)
        held = machine.file("tmp").read_bytes()
        assert len(held) > 1 << 20 and document.startswith(held)
        in_the_way.unlink()
        window.invoke("继续")
        expect_downloaded(machine, window, document)

    def fill(machine):
        link("Documents")(machine)
        with contextlib.suppress(OSError):
            in_the_way.write_bytes(bytes(32 << 20))

    # The log's disk is full.
    with opened(machine, prepare=fill) as (window, _):
        window.invoke("开始")
        expect_downloaded(machine, window)
        assert window.log() == ""


def unwritable_homes(machine):
    mount(READ_ONLY, "-o", "ro")
    rows = ((None, "没有写入权限，请检查文件夹权限", "Permission denied"),
            (READ_ONLY, "磁盘是只读的，无法写入", "Read-only file system"))  # fmt: skip
    for folder, reason, cause in rows:

        def prepare(machine):
            machine.home.chmod(0o555)
            machine.home = folder or machine.home

        with opened(machine, prepare=prepare) as (window, server):
            window.invoke("开始")
            window.wait_for_screen(reason, "停止", BAR)
            assert f"create temp file failed:{cause}\n" in machine.errors()
            window.invoke("停止")
            assert server.requests == []
            window.invoke("继续")
            window.wait_for_screen(*NETWORK_FAILURE)
            assert [method for method, *_ in server.requests] == ["HEAD"]


def clock_that_jumps(machine):
    (library,) = Path("/usr/lib").glob("*/faketime/libfaketime.so.1")
    clock, percents, document = Path("/run/clock"), [0], random.Random(2).randbytes(1 << 20)
    clock.write_text("+0s")
    settings = ("FAKETIME_DONT_FAKE_MONOTONIC=1", "FAKETIME_NO_CACHE=1", f"FAKETIME_TIMESTAMP_FILE={clock}")
    before = ("env", *settings, f"LD_PRELOAD={library}", "ASAN_OPTIONS=verify_asan_link_order=0")
    with opened(machine, *before, answers=[{}, {"rate": 500_000}], document=document) as (window, _):
        window.invoke("开始")
        for percent, offset in ((20, "-5s"), (60, "+1d"), (100, "+1d")):
            while percents[-1] < percent:
                percents.append(window.percent())
                speeds = [int(text[:-5]) << 10 for text in window.labels() if text.endswith(" KB/s")]
                assert all(0 <= speed < len(document) for speed in speeds), speeds
            clock.write_text(offset)
        assert percents == sorted(percents), percents
        expect_downloaded(machine, window, document)
        days = set(re.findall(r"(?m)^(\S+) .*Pellomar.*\]", window.log()))
        assert len(days) == 2, days


def log(machine):
    proxy = (f"http_proxy=http://visitor:secret@{ADDRESS[0]}:{ADDRESS[1]}", "no_proxy=")
    with opened(machine, "env", *proxy) as (window, _):
        window.invoke("开始")
        expect_downloaded(machine, window)
        (path,) = (machine.home / "Documents").iterdir()
        assert re.fullmatch(r"LOG-\d{14}\.txt", path.name)
        assert re.search(rf"\] {path}\n", machine.errors()) and str(path) not in window.log()
        lines = [line for line in window.lines() if not line.startswith("@")]
        assert re.match(r"PellomarDownloader \d+\.\d+\.\d+ on ", lines[0]), lines
        assert lines[2] == "start_button has been clicked"
        assert "secret" not in window.log()
        assert path.stat().st_mode & 0o777 == 0o600
        assert "Content-Length: " in window.log()
    with opened(machine, "env", "http_proxy=http://visitor:secret/@127.0.0.1:1", "no_proxy=") as (window, _):
        window.invoke("开始")
        window.wait_for_screen("下载失败，请直接双击镜像中的APP开始下载")
        assert "secret" not in window.log()


def no_log(machine):
    """Where there can be none, the streams stay; they may be closed or unread, too."""
    closed, unread = ("sh", "-c", 'exec "$0" <&- >&- 2>&-'), ("bash", "-c", 'exec "$0" 2> >(true)')
    rows = (("用 户", 0o755, ()), ("用 户", 0o755, closed), ("用 户", 0o755, unread), ("user", 0o555, ()))
    for home, mode, before in rows:

        def prepare(machine):
            (machine.home / "Documents").mkdir(mode)
            os.chown(machine.home / "Documents", machine.home.stat().st_uid, -1)

        with opened(machine, *before, home=home, prepare=prepare) as (window, _):
            window.invoke("开始")
            expect_downloaded(machine, window)
            assert list((machine.home / "Documents").iterdir()) == []
            assert ("Pre-auth failed" in machine.errors()) != bool(before)


def unreadable_configuration(machine):
    with opened(machine, prepare=lambda machine: machine.config.chmod(0)) as (window, server):
        window.invoke("开始")
        window.wait_for_screen("下载失败，请直接双击镜像中的APP开始下载")
        assert f"Open of File for reading failed:{machine.config.parent}/Pellomar下载器.app/../.config!" in window.log()
        assert "CoreImageView startDownload url:" in window.lines() and server.requests == []


def open_password_dialog(machine):
    """Leaves the window alive, and ends with it: when it is the worker that asks, and when it is the main thread."""
    for is_retry in (False, True):
        for is_killed in (False, True):
            with opened(machine, rights="ask", old=True) as (window, _):
                if not is_retry:
                    machine.start_agent(window, "wait")
                window.invoke("开始")
                if is_retry:
                    window.wait_for_screen(*REFUSED)
                    machine.start_agent(window, "wait")
                    window.press("重试安装")
                window.wait_for("the dialog", lambda: machine.agent.asked() == 1)
                window.wait_for_screen("已完成下载", BAR)
                (number,) = window.windows()
                xdotool("windowminimize", "--sync", number, "windowactivate", "--sync", number)
                window.wait_for("the drawn window", lambda: is_painted(number))
                if is_killed:
                    window.close()
                else:
                    expect_closed(machine, window)
                wait_for("the end of the dialog", lambda: "cancelled" in machine.agent.lines())
                assert OLD.exists()


def whole_road(machine, rights="YES"):
    """With the real tools and package, through accessibility alone."""
    machine.trust_sample()
    document = (machine.build / SAMPLE).read_bytes()
    answers = [{}, {"rate": 6_000_000}, {}]
    with opened(machine, answers=answers, document=document, rights=rights, old=True, tools={}) as (window, server):
        assert window.screen() == ({"开始"}, [])
        (agreement,) = [item for item in window.root().walk() if item.role() == CHECK_BOX]
        assert agreement.name() == "同意许可协议" and agreement.has(Atspi.StateType.CHECKED)
        window.invoke("开始")
        window.wait_for_screen(DOWNLOADING, "停止", BAR)
        window.wait_for_percent(20)
        window.wait_for("a speed", lambda: any(re.fullmatch(r"[1-9]\d* KB/s", text) for text in window.labels()))
        window.invoke("停止")
        window.wait_for_screen(STOPPED, "继续", BAR)
        held = machine.file("tmp").stat().st_size
        assert window.percent() == held * 100 // len(document)
        window.invoke("继续")
        window.wait_for_screen("是否保留已安装游戏和应用", "确定", "取消", BAR)
        assert {"已完成下载", "安装向导"} < set(window.labels()) and window.percent() == 100
        assert server.requests[-1][2] == held, server.requests
        window.invoke("确定")
        expect_launched(machine, window)
        assert machine.file("pkg").read_bytes() == document
        assert {Path(f"/proc/{process}").owner() for process in processes(PRODUCT)} == {machine.owner}


def wayland(machine):
    whole_road(machine, "root")


def half_package(machine):
    """Is refused where the server calls it whole, which costs nobody the product they had, and fetched anew."""
    machine.trust_sample()
    document = (machine.build / SAMPLE).read_bytes()
    answers = [{}, {"cut": 6 << 20}, {}, {"status": 416, "body": ""}, {}]
    with opened(machine, answers=answers, document=document, rights="YES", old=True, tools={}) as (window, _):
        window.invoke("开始")
        window.wait_for_screen(*NETWORK_FAILURE)
        window.invoke("继续")
        window.invoke("确定")
        window.wait_for_screen("安装Pellomar失败，请尝试重新下载安装!", "重试下载", BAR)
        assert machine.file("pkg").stat().st_size == 6 << 20
        wait_for("the old copy", OLD.exists)
        window.invoke("重试下载")
        window.invoke("确定")
        expect_launched(machine, window)
        codes = (814, 821, 814, 815, 817, 822, 814, 815, 817, 818, 826)
        events = [line for line in trace(machine.home)[1] if line.startswith("event")]
        assert events == [f"event {code}" for code in codes] + ["events submitted"], events


PERSON_ROADS = (closing, closing_at_any_moment, launching, statistics_tool, double_clicks, keys, full_disk,
                unwritable_homes, clock_that_jumps, log, no_log, unreadable_configuration, open_password_dialog,
                whole_road, wayland, half_package)  # fmt: skip
