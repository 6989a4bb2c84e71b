#!/usr/bin/python3 -B
"""Runs scenarios in the throw-away view: run.py BUILD NAME, or the names of all: run.py --list

Or takes a picture of the window in every state: run.py BUILD --pictures FOLDER 1|2, the scale."""

import os
import re
import sys
import traceback
from pathlib import Path

from scenario import check  # first: it finds tests/support
from desktop import Compositor, Display, take_window
from download import DOWNLOAD_SCENARIOS
from install import INSTALL_SCENARIOS
from machine import Machine
from stress import STRESS_SCENARIOS
from waiting import step
from whole import WHOLE_SCENARIOS
from window import WINDOW_TITLE

TABLE = INSTALL_SCENARIOS | DOWNLOAD_SCENARIOS
SCENARIOS = {re.sub("[,']", "", name).replace(" ", "-"): scenario for name, scenario in TABLE.items()}
SCENARIOS |= {scenario.__name__.replace("_", "-"): scenario for scenario in STRESS_SCENARIOS + WHOLE_SCENARIOS}


def main(build, name, *options):
    display = (lambda: None) if "--watched" in options else Compositor if name == "wayland" else Display
    # The display belongs to the user who started this, and accepts only windows of that user's number.
    machine = Machine(Path(build), display, os.environ.get("SUDO_UID") if "--watched" in options else None)
    failed = []
    for part, scenario in parts(name):
        step(part)
        try:
            scenario(machine, *options) if callable(scenario) else check(scenario, machine)
        except Exception:
            traceback.print_exc()
            failed.append(part)
    sys.exit(f"failed: {'; '.join(failed)}" if failed else 0)


def parts(name):
    scenario = SCENARIOS[name]
    return scenario.items() if isinstance(scenario, dict) else [(name, scenario)]


def take_pictures(build, folder, scale):
    os.environ["QT_SCALE_FACTOR"] = scale
    machine = Machine(Path(build), lambda: Display("1800x1200" if scale == "2" else "1100x760"))
    suffix = "@2x.png" if scale == "2" else ".png"
    frame = ["-frame"] if scale == "1" else []
    machine.camera = lambda name: take_window(Path(folder, name + suffix), WINDOW_TITLE, *frame)
    for part, scenario in (part for name in SCENARIOS for part in parts(name)):
        if not callable(scenario) and any("> picture" in line for line in scenario.lines):
            step(part)
            check(scenario, machine)


if __name__ == "__main__":
    if sys.argv[1:] == ["--list"]:
        print(*SCENARIOS, sep="\n")
    elif os.environ.get("PELLOMAR_VIEW") != "1":
        sys.exit("changes the machine: runs only in the throw-away view")
    elif sys.argv[2] == "--pictures":
        take_pictures(sys.argv[1], *sys.argv[3:])
    else:
        main(*sys.argv[1:])
