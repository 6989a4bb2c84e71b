#!/usr/bin/python3
"""Starts a downloader on a desktop of its own, presses its start button, and prints what came of it:
the address that it would download from, and the statistics tool's events.

start.py STAGE EXECUTABLE, as the user whose HOME it is
"""

import os
import re
import sys
from pathlib import Path

stage_folder, executable = sys.argv[1:]
sys.path.insert(0, stage_folder)
from stage import Display, Session, Window, wait_for  # noqa: E402

HOME = Path(os.environ["HOME"])
EVENTS = HOME / "Library/Logs/Pellomar/WebStatistics.log"
PARTS = []


def events():
    return [line.split(" ", 1)[1] for line in EVENTS.read_text().splitlines()] if EVENTS.exists() else []


try:
    PARTS.append(Session(sys.stderr))
    PARTS.append(Display(own=True))
    window = Window(executable, HOME)
    PARTS.append(window)
    window.press("开始")
    address = window.wait_for("the address", lambda: re.search(r"startDownload url:(.*)", window.log()))
    # Without a server the attempt fails, and by then every event has been sent.
    window.wait_for_status("下载失败，请直接双击镜像中的APP开始下载")
    print("address", address.group(1))
    has_tool = (Path(executable).resolve().with_name("WebStatistics")).exists()
    if has_tool:
        wait_for("the event of the start", lambda: "14 814" in events())
    print("events", *events())
finally:
    for part in reversed(PARTS):
        part.close()
