"""Runs in the machine, as the user: NAME-PATTERN ROLE-PATTERN SECONDS [gone]

Looks for an object on screen through accessibility until there is one whose name matches (or none, with "gone"), and
prints its middle."""

import re
import sys
import time

import gi

gi.require_version("Atspi", "2.0")
from gi.repository import Atspi, GLib  # noqa: E402

pattern, roles, end, gone = re.compile(sys.argv[1]), sys.argv[2], time.monotonic() + float(sys.argv[3]), sys.argv[4]


def walk(node, depth=0):
    try:
        states = node.get_state_set()
        if depth > 1 and not states.contains(Atspi.StateType.VISIBLE):
            return
        role = node.get_role_name()
        name = Atspi.Text.get_text(node, 0, -1) if role == "password text" else node.get_name() or ""
        box = node.get_component_iface() and node.get_extents(Atspi.CoordType.SCREEN)
        if box and box.width > 0 and states.contains(Atspi.StateType.SHOWING):
            yield name, role, box
        for i in range(node.get_child_count()):
            child = node.get_child_at_index(i)
            if child is not None:
                yield from walk(child, depth + 1)
    except GLib.Error:
        return  # it went away


while True:
    Atspi.get_desktop(0).clear_cache()
    seen = list(walk(Atspi.get_desktop(0)))
    found = [box for name, role, box in seen if pattern.fullmatch(name) and re.search(roles, role)]
    if bool(found) != (gone == "gone"):
        for box in found[-1:]:
            print(box.x + box.width // 2, box.y + box.height // 2)
        break
    if time.monotonic() > end:
        sys.exit("on screen: " + repr([(name, role) for name, role, _ in seen if name]))
    time.sleep(0.2)
