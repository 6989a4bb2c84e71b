"""The stage of the demonstration, inside the throw-away view: display, window manager, sample server,
the window as a screen reader sees it, and a hand that moves the mouse.

Every wait is for a condition and has a deadline; a deadline that passes ends the demonstration.
"""

import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time
from pathlib import Path

import gi

gi.require_version("Atspi", "2.0")
from gi.repository import Atspi, GLib  # noqa: E402

WINDOW_TITLE = "Pellomar下载器"
PROGRAM = "PellomarDownloader"
# A second press within the toolkit's double-click time would count as part of a double click.
DOUBLE_CLICK_SECONDS = 0.6
# More white pixels than a button's word has, and fewer than the ring of the focus.
LEAST_RING = 500


# Root, who looks at the windows, is otherwise not let into a user's session.
SESSION_BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <include>/usr/share/dbus-1/session.conf</include>
  <policy context="mandatory"><allow user="root"/></policy>
</busconfig>
"""


class RoadBlocked(Exception):
    """A condition of the road was not met; the text says which."""


def step(text):
    print(f"[{time.monotonic() - step.start:6.2f} s] {text}", flush=True)


step.start = time.monotonic()


def wait_for(what, condition, seconds=30.0, while_running=None):
    """The first true value of CONDITION, asked again and again until the deadline."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if while_running is not None and while_running.poll() is not None:
            raise RoadBlocked(f"{what}: the process ended first, with status {while_running.returncode}")
        if time.monotonic() > deadline:
            raise RoadBlocked(f"{what}: not seen within {seconds:g} s")
        time.sleep(0.02)


def give_back(*folders):
    """What was made through sudo belongs to the user who asked for it."""
    if "SUDO_UID" in os.environ:
        owner = int(os.environ["SUDO_UID"]), int(os.environ["SUDO_GID"])
        for folder in filter(None, folders):
            for path in folder.iterdir():
                os.chown(path, *owner)


class Session:
    """A session bus of its own, and a folder for what belongs to the session. START is what subprocess needs
    to start it as another user, whose session it is then."""

    def __init__(self, log, **start):
        user, group = start.get("user", os.getuid()), start.get("group", os.getgid())
        runtime = Path(f"/run/user/{user}")
        runtime.mkdir(mode=0o700, parents=True, exist_ok=True)
        os.chown(runtime, user, group)
        os.environ["XDG_RUNTIME_DIR"] = str(runtime)
        if "env" in start:
            start["env"]["XDG_RUNTIME_DIR"] = str(runtime)
        configuration = runtime / "session-bus.conf"
        configuration.write_text(SESSION_BUS)
        self.bus = subprocess.Popen(
            ["dbus-daemon", f"--config-file={configuration}", "--nofork", "--print-address=1"],
            stdout=subprocess.PIPE,
            stderr=log,
            text=True,
            **start,
        )
        address = self.bus.stdout.readline().strip()
        if not address:
            raise RoadBlocked("the session bus did not start")
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = address

    def close(self):
        self.bus.terminate()
        self.bus.wait()


class Display:
    """The user's display, or an X server without a screen with a window manager on it."""

    def __init__(self, own=True, size="1100x760"):
        self.own = own
        self.processes = []
        if not own:
            return
        reader, writer = os.pipe()
        self.processes.append(
            subprocess.Popen(
                ["Xvfb", "-displayfd", str(writer), "-screen", "0", f"{size}x24", "-nolisten", "tcp", "-noreset"],
                pass_fds=[writer],
                stderr=subprocess.DEVNULL,
            )
        )
        os.close(writer)
        with os.fdopen(reader) as answer:
            number = answer.readline().strip()
        if not number:
            raise RoadBlocked("Xvfb did not start")
        os.environ["DISPLAY"] = f":{number}"
        os.environ.pop("WAYLAND_DISPLAY", None)
        self.processes.append(
            subprocess.Popen(["openbox"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        )
        # A window manager that follows the convention announces itself on the root window.
        wait_for("the window manager", lambda: xdotool("get_num_desktops") is not None)
        # The first key ever pressed makes the window manager set up its shortcuts anew, and is lost.
        xdotool("key", "Shift_L")
        paint_desktop(size)

    def close(self):
        for process in reversed(self.processes):
            process.terminate()
            process.wait()


def paint_desktop(size):
    subprocess.run(
        ["display", "-window", "root", "-size", size, "xc:#2b3b4b"],
        check=False,
        stderr=subprocess.DEVNULL,
    )


class Compositor:
    """A Wayland compositor without a screen, in the session that runs. There is no X server, and no hand either:
    whatever is pressed is pressed through accessibility. Ends the process with 77 where there is none."""

    SETTINGS = "[shell]\npanel-position=none\nbackground-color=0xff2b3b4b\nlocking=false\nstartup-animation=none\n"

    def __init__(self, size="1100x760"):
        if not shutil.which("weston") or not list(Path("/usr/lib").glob("*/qt6/plugins/platforms/libqwayland*.so")):
            print("weston, or the toolkit's Wayland plugin, is not installed", file=sys.stderr)
            sys.exit(77)
        runtime = Path(os.environ["XDG_RUNTIME_DIR"])
        settings = runtime / "weston.ini"
        settings.write_text(self.SETTINGS)
        width, height = size.split("x")
        self.process = subprocess.Popen(
            [
                *("weston", "--backend=headless-backend.so", "--use-pixman", f"--width={width}", f"--height={height}"),
                # Only then may a program take pictures.
                *("--debug", f"--config={settings}", "--socket=wayland-pellomar", "--idle-time=0"),
            ],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        wait_for("the compositor", (runtime / "wayland-pellomar").exists, while_running=self.process)
        os.environ.pop("DISPLAY", None)
        os.environ.update(WAYLAND_DISPLAY="wayland-pellomar", QT_QPA_PLATFORM="wayland")

    def take(self, picture):
        """Writes what is on screen to the PNG file PICTURE."""
        folder = Path(os.environ["XDG_RUNTIME_DIR"], "pictures")
        folder.mkdir()
        environment = dict(os.environ, XDG_PICTURES_DIR=str(folder))
        subprocess.run(["weston-screenshooter"], cwd=folder, env=environment, check=True)
        (taken,) = folder.iterdir()
        shutil.move(taken, picture)
        folder.rmdir()

    def close(self):
        self.process.terminate()
        self.process.wait()


DISPLAYS = {"x11": Display, "wayland": Compositor}


def succeeds(*command):
    return subprocess.run(command, capture_output=True, check=False).returncode == 0


def xdotool(*arguments):
    """What xdotool prints, or None where it fails."""
    done = subprocess.run(["xdotool", *map(str, arguments)], capture_output=True, text=True, check=False)
    return done.stdout.strip() if done.returncode == 0 else None


def geometry(window):
    """Left, top, width and height of an X window, or None when it is gone."""
    answer = subprocess.run(["xwininfo", "-id", window], capture_output=True, text=True, check=False).stdout
    names = ("Absolute upper-left X", "Absolute upper-left Y", "Width", "Height")
    found = [re.search(rf"{name}: +(-?[0-9]+)", answer) for name in names]
    return tuple(int(value.group(1)) for value in found) if all(found) else None


def window_called(title):
    """The X window with this title that is on screen, or None. A dialog bears its window's title: the
    larger one is the window."""
    found = (xdotool("search", "--onlyvisible", "--name", f"^{re.escape(title)}$") or "").split()
    sizes = {window: geometry(window) for window in found}
    return max(filter(sizes.get, found), key=lambda window: sizes[window][2] * sizes[window][3], default=None)


def is_painted(window):
    """Whether a window of ours has been drawn: before that it shows the desktop's one colour."""
    done = subprocess.run(
        f"import -silent -window {window} miff:- | identify -format %k -",
        shell=True,
        capture_output=True,
        text=True,
        check=False,
    )
    return done.stdout.isdigit() and int(done.stdout) > 100


def serve_sample(serve, documents, folder, rate):
    """Starts the sample's download server, which keeps its logs in FOLDER, and waits for it to listen."""
    server = subprocess.Popen(
        [str(serve), "--rate", rate, str(documents), str(folder)], stdin=subprocess.DEVNULL
    )

    def answers():
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", 18080)) == 0

    wait_for("the sample server on port 18080", answers, while_running=server)
    return server


def running(executable):
    """The process ids of the programs that run from this path."""
    found = []
    for link in Path("/proc").glob("[0-9]*/exe"):
        try:
            if os.readlink(link) == executable:
                found.append(int(link.parent.name))
        except OSError:
            continue  # it ended meanwhile
    return found


class Hold:
    """Stops the next process that runs from this path as soon as it is there, until it is let go.

    It may be done before anybody could look, so it is watched for without a pause.
    """

    def __init__(self, executable):
        self.caught = []
        self.over = False
        self.thread = threading.Thread(target=self.watch, args=(executable,), daemon=True)
        self.thread.start()

    def watch(self, executable):
        while not self.caught and not self.over:
            self.caught = running(executable)
        self.send(signal.SIGSTOP)

    def send(self, number):
        for process in self.caught:
            try:
                os.kill(process, number)
            except ProcessLookupError:
                pass

    def let_go(self):
        self.over = True
        self.thread.join()
        self.send(signal.SIGCONT)


class Accessible:
    """One object of a window, asked afresh at every call; an object that went away has no properties."""

    def __init__(self, node):
        self.node = node

    def name(self):
        try:
            return self.node.get_name() or ""
        except GLib.Error:
            return ""

    def role(self):
        try:
            return self.node.get_role_name() or ""
        except GLib.Error:
            return ""

    def is_showing(self):
        try:
            return self.node.get_state_set().contains(Atspi.StateType.SHOWING)
        except GLib.Error:
            return False

    def value(self):
        try:
            return self.node.get_value_iface().get_current_value()
        except (GLib.Error, AttributeError):
            return 0.0

    def centre(self):
        try:
            box = self.node.get_component_iface().get_extents(Atspi.CoordType.SCREEN)
        except (GLib.Error, AttributeError):
            return None
        return (box.x + box.width // 2, box.y + box.height // 2) if box.width > 0 else None

    def children(self):
        try:
            nodes = [self.node.get_child_at_index(i) for i in range(self.node.get_child_count())]
        except GLib.Error:
            return []
        return [Accessible(node) for node in nodes if node is not None]

    def walk(self):
        yield self
        for child in self.children():
            yield from child.walk()


class Screen:
    """What a program shows on screen, and presses on it."""

    program = PROGRAM
    last_press = 0.0
    scale = 1  # pixels for each point

    def root(self):
        Atspi.Accessible.clear_cache(Atspi.get_desktop(0))
        for application in Accessible(Atspi.get_desktop(0)).children():
            if application.name() == self.program:
                return application
        return None

    def showing(self, role=None, name=None):
        """The objects on screen with this role and name."""
        root = self.root()
        if root is None:
            return []
        return [
            item
            for item in root.walk()
            if (name is None or item.name() == name) and (role is None or item.role() == role) and item.is_showing()
        ]

    def button(self, name):
        found = self.showing("push button", name)
        return found[0] if found else None

    def white(self, name):
        """How many pixels of a button, the largest there is, are white: its word's, and the ring's."""
        x, y = self.button(name).centre()
        left, top, width, height = (number * self.scale for number in (x - 110, y - 30, 220, 60))
        place = f"{width}x{height}+{left}+{top}"
        picture = ["import", "-silent", "-window", "root", "-crop", place, "-depth", "8", "gray:-"]
        return subprocess.run(picture, capture_output=True, check=True).stdout.count(255)

    def has_ring(self, name):
        """Whether a button has the focus, and shows it."""
        button = self.button(name)
        has_focus = button is not None and button.node.get_state_set().contains(Atspi.StateType.FOCUSED)
        return has_focus and self.white(name) > LEAST_RING * self.scale**2

    def labels(self):
        return [item.name() for item in self.showing("label")]

    def says(self, text):
        return text in self.labels()

    def wait_for(self, what, condition, seconds=30.0):
        return wait_for(what, condition, seconds)

    def screen(self):
        """The names of the buttons, boxes and bars on screen, and every text."""
        roles = ("push button", "check box", "progress bar")
        return {item.name() for item in self.showing() if item.role() in roles}, self.labels()

    def wait_for_screen(self, status, *controls):
        """Waits until this text and exactly these controls show."""
        self.wait_for(f"{status} with {controls}", lambda: self.says(status) and self.screen()[0] == set(controls))

    def invoke(self, name):
        """Presses a button as a screen reader does."""
        node = self.wait_for(f"the button {name}", lambda: self.button(name)).node
        names = [Atspi.Action.get_action_name(node, i) for i in range(Atspi.Action.get_n_actions(node))]
        Atspi.Action.do_action(node, names.index("Press"))

    def press(self, name):
        """A real click in the middle of the button called NAME."""
        x, y = self.wait_for(f"the button {name}", lambda: (lambda b: b and b.centre())(self.button(name)))
        time.sleep(max(0.0, self.last_press + DOUBLE_CLICK_SECONDS - time.monotonic()))
        xdotool("mousemove", x, y, "click", 1)
        self.last_press = time.monotonic()
        step(f"pressed {name}")


class Window(Screen):
    """The running downloader: its process, what its window shows, and presses on it. START is what subprocess
    needs to start it as another user."""

    def __init__(self, executable, home, **start):
        environment = dict(start.pop("env", os.environ), HOME=str(home), QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1")
        self.home = home
        self.process = subprocess.Popen(
            [str(executable)], env=environment, stdin=subprocess.DEVNULL, cwd=str(home), **start
        )

    # What it shows

    def percent(self):
        bars = self.showing("progress bar")
        return bars[0].value() if bars else 0.0

    def wait_for_percent(self, percent, seconds=30.0):
        self.wait_for(f"{percent} percent", lambda: self.percent() >= percent, seconds)

    def log(self):
        files = sorted((self.home / "Documents").glob("LOG-*.txt"))
        return files[-1].read_text(errors="replace") if files else ""

    def wait_for(self, what, condition, seconds=30.0):
        return wait_for(what, condition, seconds, while_running=self.process)

    def wait_for_status(self, text, seconds=30.0):
        self.wait_for(f"the status {text}", lambda: self.says(text), seconds)
        step(f"status: {text}")

    # What is done to it

    def activate(self):
        window = wait_for("the window", lambda: window_called(WINDOW_TITLE))
        xdotool("windowactivate", "--sync", window)

    def close(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait()


class PasswordDialog(Screen):
    """The sample's password dialog."""

    program = "password-dialog"
    title = "管理员密码（演示）"

    def is_up(self):
        return self.button("认证")

    def type_password(self, password):
        field = self.wait_for("the password's field", lambda: self.showing("password text", "密码"))[0]
        x, y = self.wait_for("the place of the password's field", field.centre)
        xdotool("mousemove", x, y, "click", 1)
        xdotool("type", "--delay", 30, password)
        step(f"typed {password} into the password dialog")


class Camera:
    """Numbered pictures of the whole screen, and pictures of one window alone for the README."""

    def __init__(self, folder, screens=None):
        self.folder = folder
        self.screens = screens
        self.count = 0

    def next_picture(self, name):
        self.count += 1
        return str(self.folder / f"{self.count:02d}-{name}.png")

    def take(self, name, title=WINDOW_TITLE):
        picture = self.next_picture(name)
        subprocess.run(["import", "-silent", "-window", "root", picture], check=True)
        if self.screens is not None:
            place = self.place(title, with_frame=True)
            subprocess.run(
                ["convert", picture, "-crop", place, "+repage", str(self.screens / f"{name}.png")], check=True
            )

    def take_window(self, name):
        """Only where the window is, if there is an X server to ask: a user's desktop is private."""
        if window_called(WINDOW_TITLE) is not None:
            place = self.place(WINDOW_TITLE, with_frame=False)
            succeeds("import", "-silent", "-window", "root", "-crop", place, "+repage", self.next_picture(name))

    @staticmethod
    def place(title, with_frame):
        """Where the window is, and so a dialog that lies on it, as a geometry of ImageMagick's."""
        window = window_called(title)
        if window is None:
            raise RoadBlocked(f"no window called {title} to take a picture of")
        x, y, width, height = geometry(window)
        left = right = top = bottom = 0
        if with_frame:
            answer = subprocess.run(
                ["xprop", "-notype", "-id", window, "_NET_FRAME_EXTENTS"], capture_output=True, text=True, check=True
            ).stdout
            left, right, top, bottom = (int(part) for part in answer.split("=")[1].split(","))
        return f"{width + left + right}x{height + top + bottom}{x - left:+d}{y - top:+d}"


def recorder(execs):
    """The beginning of a command that writes to the file EXECS every program that it and its children start,
    or nothing where that can't be recorded. It leaves the way to other users open, which a filter would close."""
    if succeeds("strace", "-o", "/dev/null", "true"):
        return ["strace", "-D", "-f", "-z", "-qq", "-e", "trace=execve", "-s", "4096", "-o", str(execs)]
    step("strace cannot look into processes here: the commands are not recorded")
    return []


def recorded_commands(execs, tools):
    """The command lines of TOOLS among the recorded starts, in their order."""
    commands = []
    if not execs.exists():
        return commands
    for line in execs.read_text(errors="replace").splitlines():
        started = re.search(r'execve\("((?:[^"\\]|\\.)*)", \[(.*)\], 0x[0-9a-f]+ .*\) = 0$', line)
        if started and started.group(1) in tools:
            arguments = re.findall(r'"((?:[^"\\]|\\.)*)"', started.group(2))
            commands.append(" ".join([started.group(1), *arguments[1:]]))
    return commands
