"""A desktop without a screen: a session bus, an X server with a window manager or a Wayland compositor, mouse
and keyboard."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

from waiting import Blocked, wait_for

# Without this, root, as whom the tests run, may not connect to a user's session bus.
SESSION_BUS = """<busconfig><include>/usr/share/dbus-1/session.conf</include>
<policy context="mandatory"><allow user="root"/></policy></busconfig>
"""
WESTON = "[shell]\npanel-position=none\nbackground-color=0xff2b3b4b\nlocking=false\nstartup-animation=none\n"


def output(*command):
    """What a command prints, or None where it fails."""
    done = subprocess.run([*map(str, command)], capture_output=True, text=True, check=False)
    return done.stdout.strip() if done.returncode == 0 else None


def xdotool(*arguments):
    return output("xdotool", *arguments)


class Part:
    """A process that runs until close()."""

    def __init__(self, *command, **options):
        self.process = subprocess.Popen([*map(str, command)], stdin=subprocess.DEVNULL, **options)

    def close(self):
        self.process.terminate()
        self.process.wait()


class Session(Part):
    """A session bus of the user whose START as_user() gives."""

    def __init__(self, **start):
        runtime = Path(f"/run/user/{start['user']}")
        runtime.mkdir(mode=0o700, parents=True, exist_ok=True)
        os.chown(runtime, start["user"], start["group"])
        os.environ["XDG_RUNTIME_DIR"] = start["env"]["XDG_RUNTIME_DIR"] = str(runtime)
        configuration = runtime / "session-bus.conf"
        configuration.write_text(SESSION_BUS)
        bus = ("dbus-daemon", f"--config-file={configuration}", "--nofork", "--print-address=1")
        super().__init__(*bus, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, **start)
        address = self.process.stdout.readline().strip()
        if not address:
            raise Blocked("the session bus did not start")
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = address


class Display(Part):
    """An X server without a screen, and a window manager on it."""

    def __init__(self, size="1100x760"):
        reader, writer = os.pipe()
        xvfb = ("Xvfb", "-displayfd", writer, "-screen", "0", f"{size}x24", "-nolisten", "tcp", "-noreset")
        super().__init__(*xvfb, pass_fds=[writer], stderr=subprocess.DEVNULL)
        os.close(writer)
        with os.fdopen(reader) as answer:
            number = answer.readline().strip()
        if not number:
            raise Blocked("Xvfb did not start")
        os.environ["DISPLAY"] = f":{number}"
        os.environ.pop("WAYLAND_DISPLAY", None)
        Part("openbox", stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        # A window manager that follows the convention announces itself on the root window.
        wait_for("the window manager", lambda: xdotool("get_num_desktops") is not None)
        # The first key ever pressed makes the window manager set up its shortcuts anew, and is lost.
        xdotool("key", "Shift_L")
        output("display", "-window", "root", "-size", size, "xc:#2b3b4b")


class Compositor(Part):
    """A Wayland compositor without a screen, in the session that runs. There is no X server and no mouse: whatever
    is pressed is pressed through accessibility. Ends the process with 77 where it is not installed."""

    def __init__(self):
        if not shutil.which("weston") or not list(Path("/usr/lib").glob("*/qt6/plugins/platforms/libqwayland*.so")):
            print("weston, or the toolkit's Wayland plugin, is not installed", file=sys.stderr)
            sys.exit(77)
        runtime = Path(os.environ["XDG_RUNTIME_DIR"])
        settings = runtime / "weston.ini"
        settings.write_text(WESTON)
        # Only with --debug may a program take pictures.
        command = ("weston", "--backend=headless-backend.so", "--use-pixman", "--width=1100", "--height=760", "--debug",
                   f"--config={settings}", "--socket=wayland-pellomar", "--idle-time=0")
        super().__init__(*command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for("the compositor", (runtime / "wayland-pellomar").exists, while_running=self.process)
        os.environ.pop("DISPLAY", None)
        os.environ.update(WAYLAND_DISPLAY="wayland-pellomar", QT_QPA_PLATFORM="wayland")


def geometry(window):
    """Left, top, width and height of an X window; nothing when it is gone."""
    fields = r"(?:Absolute upper-left [XY]|Width|Height): +(-?\d+)"
    return [int(number) for number in re.findall(fields, output("xwininfo", "-id", window) or "")]


def window_called(title):
    """The X window with this title on screen, or None: the largest one, since a dialog bears its window's title."""
    found = (xdotool("search", "--onlyvisible", "--name", f"^{re.escape(title)}$") or "").split()
    sizes = {window: geometry(window)[2:] for window in found}
    return max(filter(sizes.get, found), key=lambda window: sizes[window][0] * sizes[window][1], default=None)


def is_painted(window):
    """Whether a window of ours has been drawn: before that it shows the desktop's one colour."""
    if window is None:
        return False
    colours = output("sh", "-c", f"import -silent -window {window} miff:- | identify -format %k -") or ""
    return colours.isdigit() and int(colours) > 100


def take(picture, *options):
    """Writes what is on screen to the PNG file PICTURE."""
    if "WAYLAND_DISPLAY" not in os.environ:
        subprocess.run(["import", "-silent", "-window", "root", *options, "+repage", picture], check=True)
    else:
        with tempfile.TemporaryDirectory() as home:
            subprocess.run(["weston-screenshooter"], cwd=home, env=os.environ | {"XDG_PICTURES_DIR": home}, check=True)
            shutil.move(next(Path(home).iterdir()), picture)


def take_window(picture, title, with_frame=True):
    """Writes what is where the window with this TITLE is, so also a dialog that lies on it."""
    window = wait_for(f"a window called {title}", lambda: window_called(title))
    x, y, width, height = geometry(window)
    extents = output("xprop", "-notype", "-id", window, "_NET_FRAME_EXTENTS") if with_frame else ""
    left, right, top, bottom = (int(part) for part in extents.split("=")[1].split(",")) if extents else [0] * 4
    take(picture, "-crop", f"{width + left + right}x{height + top + bottom}{x - left:+d}{y - top:+d}")
