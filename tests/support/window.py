"""A program's window as a screen reader finds it: what it shows, and presses on it."""

import os
import subprocess
import time

import gi

gi.require_version("Atspi", "2.0")
from gi.repository import Atspi, GLib
import waiting
from desktop import is_painted, output, window_called, xdotool

WINDOW_TITLE = "Pellomar下载器"
# Names of roles differ between releases, and so does this constant's name, but not its value.
BUTTON = getattr(Atspi.Role, "BUTTON", None) or Atspi.Role.PUSH_BUTTON
LABEL, BAR, CHECK_BOX = Atspi.Role.LABEL, Atspi.Role.PROGRESS_BAR, Atspi.Role.CHECK_BOX
ALERT, PASSWORD, FOCUSED = Atspi.Role.ALERT, Atspi.Role.PASSWORD_TEXT, Atspi.StateType.FOCUSED
# A second press within the toolkit's double-click time would count as part of a double click.
DOUBLE_CLICK_SECONDS = 0.6

Atspi.set_timeout(20_000, 60_000)


class Accessible:
    """One object of a window, read anew at every call; an object that is gone has no properties."""

    def __init__(self, node):
        self.node = node

    def ask(self, question, otherwise=None):
        try:
            return question(self.node)
        except (GLib.Error, AttributeError):
            return otherwise

    def name(self):
        return self.ask(lambda node: node.get_name(), "") or ""

    def role(self):
        return self.ask(lambda node: node.get_role())

    def has(self, state):
        return self.ask(lambda node: node.get_state_set().contains(state), False)

    def centre(self):  # in pixels, or None
        box = self.ask(lambda node: node.get_component_iface().get_extents(Atspi.CoordType.SCREEN))
        scale = int(os.environ.get("QT_SCALE_FACTOR", 1))
        return (scale * (box.x + box.width // 2), scale * (box.y + box.height // 2)) if box and box.width > 0 else None

    def children(self):
        nodes = self.ask(lambda node: [node.get_child_at_index(i) for i in range(node.get_child_count())], [])
        return [Accessible(node) for node in nodes if node is not None]

    def walk(self, state=None):
        """This object and all below it; with STATE, only those that have it, and what is below these."""
        if state is None or self.has(state):
            yield self
            for child in self.children():
                yield from child.walk(state)


class Screen:
    """What a program shows on screen, and presses on it."""

    process, last_press = None, 0.0

    def __init__(self, program="PellomarDownloader"):
        self.program = program

    def all(self):
        desktop = Atspi.get_desktop(0)
        desktop.clear_cache()
        root = next((item for item in Accessible(desktop).children() if item.name() == self.program), None)
        return root.walk() if root else ()

    def showing(self, role=None, name=None):
        """The objects on screen with this role and name."""
        found = (item for item in self.all() if role is None or item.role() == role)
        return [item for item in found if name in (None, item.name()) and item.has(Atspi.StateType.SHOWING)]

    def button(self, name):
        return next(iter(self.showing(BUTTON, name)), None)

    def labels(self):
        return [item.name() for item in self.showing(LABEL)]

    def screen(self):
        """The names of the buttons, boxes and bars on screen, and every text."""
        found = [(item.role(), item.name()) for item in self.showing()]
        controls = {name for role, name in found if role in (BUTTON, CHECK_BOX, BAR)}
        return controls, [name for role, name in found if role == LABEL]

    def wait_for(self, what, condition):
        return waiting.wait_for(what, condition, while_running=self.process)

    def wait_for_screen(self, status, *controls):
        """Waits until this text and exactly these controls show."""
        self.wait_for(f"{status}, {controls}", lambda: status in self.labels() and self.screen()[0] == set(controls))

    def invoke(self, name):
        """Presses a button as a screen reader does."""
        node = self.wait_for(f"the button {name}", lambda: self.button(name)).node
        names = [Atspi.Action.get_action_name(node, i) for i in range(Atspi.Action.get_n_actions(node))]
        Atspi.Action.do_action(node, names.index("Press"))

    def press(self, name, role=BUTTON, clicks=1):
        """Real clicks in the middle of what is called NAME."""
        x, y = self.wait_for(name, lambda: next((item.centre() for item in self.showing(role, name)), None))
        time.sleep(max(0.0, self.last_press + DOUBLE_CLICK_SECONDS - time.monotonic()))
        xdotool("mousemove", x, y, "click", "--repeat", clicks, "--delay", 60, 1)
        self.last_press = time.monotonic()


class Window(Screen):
    """The running downloader. START is what subprocess needs to start it as another user, BEFORE the beginning of its
    command line."""

    def __init__(self, executable, home, *before, **start):
        super().__init__()
        self.home, command = home, [*map(str, before), str(executable)]
        start["env"] = start.get("env", os.environ) | {"HOME": str(home), "QT_LINUX_ACCESSIBILITY_ALWAYS_ON": "1"}
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, cwd=str(home), **start)

    def wait_until_open(self):
        self.wait_for("the first screen", lambda: self.button("开始"))
        self.threads = len(os.listdir(f"/proc/{self.process.pid}/task"))

    def wait_until_drawn(self):
        self.wait_for("the drawn window", lambda: is_painted(window_called(WINDOW_TITLE)))

    def percent(self):
        bar = next(iter(self.showing(BAR)), Accessible(None))
        return bar.ask(lambda node: node.get_value_iface().get_current_value(), 0.0)

    def wait_for_percent(self, percent):
        self.wait_for(f"{percent} percent", lambda: self.percent() >= percent)

    def wait_for_status(self, text):
        self.wait_for(f"the status {text}", lambda: text in self.labels())

    def log(self):
        files = sorted((self.home / "Documents").glob("LOG-*.txt"))
        return files[-1].read_text(errors="replace") if files else ""

    def lines(self):
        """The log without the hour and the process at the head of each line."""
        return [line.split("] ", 1)[-1] for line in self.log().splitlines()]

    def focus(self, name):
        """Reaches a button with the key Tab."""
        self.wait_until_drawn()
        # No button has the focus yet, so the space acts on none.
        xdotool("windowactivate", "--sync", window_called(WINDOW_TITLE), "key", "space")
        self.wait_for(f"the focus on {name}", lambda: xdotool("key", "Tab") or self.button(name).has(FOCUSED))

    def windows(self):
        """The numbers of its X windows on screen: a dialog bears its window's title."""
        of_ours = ("--all", "--onlyvisible", "--pid", self.process.pid, "--name", f"^{WINDOW_TITLE}$")
        return self.wait_for("a window", lambda: (xdotool("search", *of_ours) or "").split())

    def ask_to_close(self):
        """Has the window manager ask each of its windows to close, as a taskbar does."""
        for window in self.windows():
            output("wmctrl", "-i", "-c", window)

    def refuses_to_close(self):
        """Asks its windows to close, and returns when they have dealt with that and a dialog is still there."""
        dialog = self.wait_for("the dialog", lambda: self.showing(ALERT))[0]
        self.wait_for("its window", lambda: len(self.windows()) == 2)
        place = dialog.centre()
        self.ask_to_close()
        # The window gets these after the requests.
        for window in self.windows():
            xdotool("windowmove", window, 5, 5)
        self.wait_for("the moved dialog", lambda: dialog.centre() not in (place, None))

    def is_idle(self):
        """Whether no thread of a download or an installation runs: no more threads than on the first screen."""
        return len(os.listdir(f"/proc/{self.process.pid}/task")) <= self.threads

    def close(self):
        self.process.kill()
        self.process.wait()
