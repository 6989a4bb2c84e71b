"""A desktop without a screen: a session bus, an X server with a window manager or a Wayland compositor, mouse
and keyboard."""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from waiting import Blocked, wait_for

# Root, who looks at the windows, is otherwise not let into a user's session.
SESSION_BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <include>/usr/share/dbus-1/session.conf</include>
  <policy context="mandatory"><allow user="root"/></policy>
</busconfig>
"""
WESTON = "[shell]\npanel-position=none\nbackground-color=0xff2b3b4b\nlocking=false\nstartup-animation=none\n"


def output(*command):
    """What a command prints, or None where it fails."""
    done = subprocess.run([*map(str, command)], capture_output=True, text=True, check=False)
    return done.stdout.strip() if done.returncode == 0 else None


def xdotool(*arguments):
    return output("xdotool", *arguments)


class Part:
    """Something that runs while the stage is needed."""

    def __init__(self, *command, **options):
        self.process = subprocess.Popen([*map(str, command)], stdin=subprocess.DEVNULL, **options)

    def close(self):
        self.process.terminate()
        self.process.wait()


class Session(Part):
    """A session bus. START is what subprocess needs to start it as another user, whose session it is then."""

    def __init__(self, log=subprocess.DEVNULL, **start):
        user, group = start.get("user", os.getuid()), start.get("group", os.getgid())
        runtime = Path(f"/run/user/{user}")
        runtime.mkdir(mode=0o700, parents=True, exist_ok=True)
        os.chown(runtime, user, group)
        os.environ["XDG_RUNTIME_DIR"] = str(runtime)
        if "env" in start:
            start["env"]["XDG_RUNTIME_DIR"] = str(runtime)
        configuration = runtime / "session-bus.conf"
        configuration.write_text(SESSION_BUS)
        bus = ("dbus-daemon", f"--config-file={configuration}", "--nofork", "--print-address=1")
        super().__init__(*bus, stdout=subprocess.PIPE, stderr=log, text=True, **start)
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
        self.manager = Part("openbox", stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        # A window manager that follows the convention announces itself on the root window.
        wait_for("the window manager", lambda: xdotool("get_num_desktops") is not None)
        # The first key ever pressed makes the window manager set up its shortcuts anew, and is lost.
        xdotool("key", "Shift_L")
        output("display", "-window", "root", "-size", size, "xc:#2b3b4b")

    def close(self):
        self.manager.close()
        super().close()


class Compositor(Part):
    """A Wayland compositor without a screen, in the session that runs. There is no X server and no mouse: whatever
    is pressed is pressed through accessibility. Ends the process with 77 where it is not installed."""

    def __init__(self, size="1100x760"):
        if not shutil.which("weston") or not list(Path("/usr/lib").glob("*/qt6/plugins/platforms/libqwayland*.so")):
            print("weston, or the toolkit's Wayland plugin, is not installed", file=sys.stderr)
            sys.exit(77)
        runtime = Path(os.environ["XDG_RUNTIME_DIR"])
        settings = runtime / "weston.ini"
        settings.write_text(WESTON)
        width, height = size.split("x")
        command = ("weston", "--backend=headless-backend.so", "--use-pixman", f"--width={width}", f"--height={height}")
        # Only with --debug may a program take pictures.
        options = ("--debug", f"--config={settings}", "--socket=wayland-pellomar", "--idle-time=0")
        super().__init__(*command, *options, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
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


def geometry(window):
    """Left, top, width and height of an X window, or None when it is gone."""
    answer = output("xwininfo", "-id", window) or ""
    names = ("Absolute upper-left X", "Absolute upper-left Y", "Width", "Height")
    found = [re.search(rf"{name}: +(-?[0-9]+)", answer) for name in names]
    return tuple(int(value.group(1)) for value in found) if all(found) else None


def window_called(title):
    """The X window with this title that is on screen, or None. A dialog bears its window's title: the larger one is
    the window."""
    found = (xdotool("search", "--onlyvisible", "--name", f"^{re.escape(title)}$") or "").split()
    sizes = {window: geometry(window) for window in found}
    return max(filter(sizes.get, found), key=lambda window: sizes[window][2] * sizes[window][3], default=None)


def is_painted(window):
    """Whether a window of ours has been drawn: before that it shows the desktop's one colour."""
    if window is None:
        return False
    colours = output("sh", "-c", f"import -silent -window {window} miff:- | identify -format %k -") or ""
    return colours.isdigit() and int(colours) > 100


class Camera:
    """Pictures of the whole screen in FOLDER, with a number each, and of one window alone."""

    def __init__(self, folder):
        self.folder, self.count = folder, 0

    def take(self, name):
        self.count += 1
        picture = self.folder / f"{self.count:02d}-{name}.png"
        subprocess.run(["import", "-silent", "-window", "root", picture], check=True)

    @staticmethod
    def take_window(picture, title, with_frame=True):
        """Writes what is where the window with this TITLE is, so also a dialog that lies on it."""
        window = wait_for(f"a window called {title}", lambda: window_called(title))
        x, y, width, height = geometry(window)
        extents = output("xprop", "-notype", "-id", window, "_NET_FRAME_EXTENTS") if with_frame else ""
        left, right, top, bottom = (int(part) for part in extents.split("=")[1].split(",")) if extents else [0] * 4
        place = f"{width + left + right}x{height + top + bottom}{x - left:+d}{y - top:+d}"
        subprocess.run(["import", "-silent", "-window", "root", "-crop", place, "+repage", picture], check=True)
