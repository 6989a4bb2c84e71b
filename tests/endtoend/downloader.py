"""A running downloader: what a screen reader finds in its window, what is done to it, what it leaves."""

import os
import subprocess
from pathlib import Path

from stage import WINDOW_TITLE, Accessible, Atspi, GLib, RoadBlocked, Window, geometry, wait_for, xdotool

READABLE = ("push button", "check box", "progress bar")
DIALOG = "alert"


class Downloader(Window):
    def __init__(self, world, home, accessible=True, command=(), **streams):
        self.world = world
        self.home = home
        self.last_press = 0.0
        self.inherited = home.with_name(f"{home.name}.stderr")
        environment = dict(os.environ, HOME=str(home))
        environment["QT_LINUX_ACCESSIBILITY_ALWAYS_ON"] = "1" if accessible else "0"
        with open(self.inherited, "ab") as errors:
            self.process = subprocess.Popen(
                [*command, str(world.executable())],
                env=environment,
                **{"stdin": subprocess.DEVNULL, "stdout": errors, "stderr": errors, **streams},
            )

    # What it shows

    def root(self):
        Atspi.Accessible.clear_cache(Atspi.get_desktop(0))
        for application in Accessible(Atspi.get_desktop(0)).children():
            try:
                if application.node.get_process_id() == self.process.pid:
                    return application
            except GLib.Error:
                continue  # it ended meanwhile
        return None

    def screen(self):
        """The names of the buttons, boxes and bars on screen, and every text."""
        items = self.showing()
        controls = {item.name() for item in items if item.role() in READABLE}
        return controls, [item.name() for item in items if item.role() == "label"]

    def wait_for_screen(self, status, *controls):
        """Waits until the status line and exactly these controls show."""
        seen = []

        def as_expected():
            seen[:] = self.screen()
            return seen[0] == set(controls) and status in seen[1]

        try:
            self.wait_for("", as_expected, 20)
        except RoadBlocked as problem:
            raise RoadBlocked(f"not {status} with {controls}, but {seen}{problem}") from None

    def wait_for_status(self, text, seconds=30.0):
        self.wait_for(f"the status {text}", lambda: self.says(text), seconds)

    def window(self):
        """The main window's number for the X server, once it is on screen."""
        return self.wait_for("the window", self.windows)[0]

    def dialog(self):
        return self.wait_for("the dialog", lambda: self.windows()[1:])[0]

    def windows(self):
        """The windows on screen, the widest first: a dialog bears its window's title."""
        found = xdotool("search", "--all", "--onlyvisible", "--pid", self.process.pid, "--name", f"^{WINDOW_TITLE}$")
        places = {int(number): geometry(number) for number in (found or "").split()}
        return sorted(filter(places.get, places), key=lambda number: -places[number][2])

    # What is done to it

    def press(self, name):
        """Presses a button as a screen reader does."""
        button = self.wait_for(f"the button {name}", lambda: self.button(name))
        node = button.node
        names = [Atspi.Action.get_action_name(node, i) for i in range(Atspi.Action.get_n_actions(node))]
        Atspi.Action.do_action(node, names.index("Press"))

    def point(self, name):
        """Puts the pointer on the middle of a button."""
        # By its place in the window, which may learn late where the window manager has put it.
        x, y = self.wait_for(f"the button {name}", lambda: (lambda b: b and b.centre())(self.button(name)))
        frame = Atspi.Component.get_extents(self.root().children()[0].node, Atspi.CoordType.SCREEN)
        xdotool("mousemove", "--window", self.window(), x - frame.x, y - frame.y)

    def close_window(self):
        self.world.x.close_window(self.window())

    def exit_status(self, seconds=20.0):
        return wait_for(
            "the end of the process",
            lambda: None if self.process.poll() is None else [self.process.returncode],
            seconds,
        )[0]

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()

    # What it leaves

    def log_files(self):
        return sorted((self.home / "Documents").glob("LOG-*.txt"))

    def lines(self):
        """The log without what differs from run to run at the head of each line."""
        return [line.split("] ", 1)[-1] for line in self.log().splitlines()]

    def wait_for_line(self, line, count=1):
        self.wait_for(f"{count} × {line} in the log", lambda: self.lines().count(line) >= count)

    def inherited_lines(self):
        return [line.split("] ", 1)[-1] for line in self.inherited.read_text(errors="replace").splitlines()]

    def events(self):
        """What the statistics tool was told, once no copy of it runs any more."""
        wait_for("the end of the statistics tools", lambda: not processes("WebStatistics"))
        path = self.home / "Library/Logs/Pellomar/WebStatistics.log"
        lines = path.read_text().splitlines() if path.exists() else []
        return [line.split(" ", 1)[1] for line in lines]

    def file(self, ending="tmp"):
        return self.home / f"Downloads/NVInst/Pellomar.{ending}"


def processes(name):
    """The processes of this name, 15 characters at most."""
    found = []
    for path in Path("/proc").glob("[0-9]*/comm"):
        try:
            if path.read_text() == f"{name}\n":
                found.append(int(path.parent.name))
        except OSError:
            continue  # it ended meanwhile
    return found
