"""Runs in the machine, as the user: NAME-PATTERN ROLE-PATTERN SECONDS [gone]

Looks for an object on screen until there is one whose whole name matches (or none, with "gone"), and prints its middle.
"""

import re
import sys

sys.path.insert(0, "/mnt/support")
from waiting import Blocked, wait_for
from window import Accessible, Atspi

name_pattern, role_pattern, seconds, *gone = sys.argv[1:]
seen = []


def role_of(item):
    return item.ask(lambda node: node.get_role_name(), "")


def name_of(item):
    return item.ask(lambda node: Atspi.Text.get_text(node, 0, -1)) if role_of(item) == "password text" else item.name()


def look():
    """The places, as words, of what matches; or whether nothing does."""
    desktop = Atspi.get_desktop(0)
    desktop.clear_cache()
    windows = [window for application in Accessible(desktop).children() for window in application.children()]
    items = [item for window in windows for item in window.walk(Atspi.StateType.VISIBLE)]
    seen[:] = [(item, name_of(item) or "", role_of(item)) for item in items if item.has(Atspi.StateType.SHOWING)]
    named = [item for item, name, role in seen if re.fullmatch(name_pattern, name) and re.search(role_pattern, role)]
    places = [place for place in map(Accessible.centre, named) if place]
    return not places if gone else [f"{x} {y}" for x, y in places]


try:
    found = wait_for(name_pattern, look, float(seconds), pause=0.2)
    print("" if gone else found[-1])
except Blocked:
    sys.exit("on screen: " + repr([(name, role) for _, name, role in seen if name]))
