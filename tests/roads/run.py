#!/usr/bin/python3 -B
"""Follows roads in the throw-away view: run.py BUILD NAME, or the names of all: run.py --list

Or takes a picture of the window in every state: run.py BUILD --pictures FOLDER 1|2, the scale."""

import os
import re
import sys
from pathlib import Path

from road import follow  # first: it finds the stage
from desktop import Compositor, Display, take_window
from download import DOWNLOAD_ROADS
from install import INSTALL_ROADS
from machine import Machine
from stress import STRESS_ROADS
from waiting import step
from whole import WHOLE_ROADS
from window import WINDOW_TITLE

ROADS = {re.sub("[,']", "", name).replace(" ", "-"): road for name, road in (INSTALL_ROADS | DOWNLOAD_ROADS).items()}
ROADS |= {road.__name__.replace("_", "-"): road for road in STRESS_ROADS + WHOLE_ROADS}


def main(build, name, *options):
    display = (lambda: None) if "--watched" in options else Compositor if name == "wayland" else Display
    # A display is the user's who asked for this: whoever shows a window there has that user's number.
    machine = Machine(Path(build), display, os.environ.get("SUDO_UID") if "--watched" in options else None)
    for part, road in parts(name):
        step(part)
        road(machine, *options) if callable(road) else follow(road, machine)


def parts(name):
    road = ROADS[name]
    return road.items() if isinstance(road, dict) else [(name, road)]


def take_pictures(build, folder, scale):
    os.environ["QT_SCALE_FACTOR"] = scale
    machine = Machine(Path(build), lambda: Display("1800x1200" if scale == "2" else "1100x760"))
    suffix = "@2x.png" if scale == "2" else ".png"
    machine.camera = lambda name: take_window(Path(folder, name + suffix), WINDOW_TITLE, scale == "1")
    for part, road in (part for name in ROADS for part in parts(name)):
        if not callable(road) and any("> picture" in line for line in road.lines):
            step(part)
            follow(road, machine)


if __name__ == "__main__":
    if sys.argv[1:] == ["--list"]:
        print(*ROADS, sep="\n")
    elif os.environ.get("PELLOMAR_VIEW") != "1":
        sys.exit("changes the machine: runs only in the throw-away view")
    elif sys.argv[2] == "--pictures":
        take_pictures(sys.argv[1], *sys.argv[3:])
    else:
        main(*sys.argv[1:])
