"""A desktop without a screen: a session bus, an X server with a window manager or a Wayland compositor, mouse
and keyboard."""

import os
import re
import shutil
import subprocess
import tempfile
from pathlib import Path

from waiting import Blocked, wait_for

# Without this, root, as whom the tests run, may not connect to a user's session bus.
SESSION_BUS = """<busconfig><include>/usr/share/dbus-1/session.conf</include>
<policy context="mandatory"><allow user="root"/></policy></busconfig>
"""
WESTON = "[shell]\npanel-position=none\nbackground-color=0xff2b3b4b\nlocking=false\nstartup-animation=none\n"


def output(*command):
    """What a command prints, or None if it fails."""
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
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = self.process.stdout.readline().strip()


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
        # The first key ever pressed makes the window manager set up its shortcuts again, and is lost.
        xdotool("key", "Shift_L")
        output("display", "-window", "root", "-size", size, "xc:#2b3b4b")


class Compositor(Part):
    """A Wayland compositor without a screen, in the running session. It has no X server and no mouse: buttons are
    pressed through accessibility."""

    def __init__(self):
        runtime = Path(os.environ["XDG_RUNTIME_DIR"])
        settings = runtime / "weston.ini"
        settings.write_text(WESTON)
        # Programs may take pictures only with --debug.
        command = ("weston", "--backend=headless-backend.so", "--use-pixman", "--width=1100", "--height=760", "--debug",
                   f"--config={settings}", "--socket=wayland-pellomar", "--idle-time=0")
        super().__init__(*command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for("the compositor", (runtime / "wayland-pellomar").exists, while_running=self.process)
        os.environ.pop("DISPLAY", None)
        os.environ.update(WAYLAND_DISPLAY="wayland-pellomar", QT_QPA_PLATFORM="wayland")


def window_called(title):
    """The X window with this title, or None. The first one is the lowest: a dialog has its window's title."""
    return next(iter((xdotool("search", "--onlyvisible", "--name", f"^{re.escape(title)}$") or "").split()), None)


def is_painted(window):
    """True if a window of ours has been drawn: before that it shows the desktop's one colour."""
    if window is None:
        return False
    colours = output("sh", "-c", f"import -silent -window {window} miff:- | identify -format %k -") or ""
    return colours.isdigit() and int(colours) > 100


def take(picture, *options):
    """Writes what is on screen to the PNG file PICTURE."""
    if "WAYLAND_DISPLAY" not in os.environ:
        subprocess.run(["import", "-silent", *(options or ("-window", "root")), "+repage", picture], check=True)
    else:
        with tempfile.TemporaryDirectory() as home:
            subprocess.run(["weston-screenshooter"], cwd=home, env=os.environ | {"XDG_PICTURES_DIR": home}, check=True)
            shutil.move(next(Path(home).iterdir()), picture)


def take_window(picture, title, *frame):
    """Writes the window with this TITLE, and the dialog that lies on it; with "-frame", the window's frame, too."""
    take(picture, *frame, "-screen", "-window", wait_for(f"a window called {title}", lambda: window_called(title)))
