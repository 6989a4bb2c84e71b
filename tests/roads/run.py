#!/usr/bin/python3 -B
"""Follows roads in the throw-away view: run.py BUILD NAME, or the names of all: run.py --list"""

import dataclasses
import os
import re
import sys
from pathlib import Path

from road import follow  # first: it finds the stage
from download import DOWNLOAD_ROADS
from install import INSTALL_ROADS, TOOLS, prepare
from desktop import Compositor, Display
from machine import Machine
from person import PERSON_ROADS
from stress import STRESS_ROADS
from waiting import step

ROADS = {re.sub("[,']", "", name).replace(" ", "-"): road for name, road in (INSTALL_ROADS | DOWNLOAD_ROADS).items()}
ROADS |= {road.__name__.replace("_", "-"): road for road in PERSON_ROADS + STRESS_ROADS}


def main(build, *names):
    if os.environ.get("PELLOMAR_VIEW") != "1":
        sys.exit("changes the machine: runs only in the throw-away view")
    machine = Machine(Path(build), Compositor if names == ("wayland",) else Display)
    prepare()
    for name in names:
        roads = ROADS[name]
        if callable(roads):
            roads(machine)
            continue
        for part, road in roads.items() if isinstance(roads, dict) else [(name, roads)]:
            step(part)
            follow(dataclasses.replace(road, tools=TOOLS | road.tools), machine)


if __name__ == "__main__":
    if sys.argv[1:] == ["--list"]:
        print(*ROADS, sep="\n")
    else:
        main(*sys.argv[1:])
