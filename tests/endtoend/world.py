"""The world that the downloader is put in: a desktop and a download server of its own inside the throw-away
view, the bundle on a disk image's folder, and host tools that do what a test wants.
"""

import ctypes
import os
import shutil
import socket
import subprocess
from pathlib import Path

from stage import Display, Session, wait_for

PROJECT = Path(__file__).resolve().parents[2]
BUNDLE = "Pellomar下载器.app"
APPLICATION = Path("/Applications/Pellomar.app")
FALLBACK = Path("/Volumes/Pellomar下载器/.config")
ORDINARY_USER = 65534
PACKAGE_BYTES = 6_000_000
HUGE_BYTES = 4 << 30

# Stands in for the installer: what it leaves tells that the application was started.
QUICK_INSTALLER = f"""#!/bin/sh
mkdir -p {APPLICATION}/Contents/MacOS
cat >{APPLICATION}/Contents/Info.plist <<END
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>CFBundleExecutable</key><string>Pellomar</string></dict></plist>
END
printf '#!/bin/sh\\necho started >>"$HOME/started"\\n' >{APPLICATION}/Contents/MacOS/Pellomar
chmod 755 {APPLICATION}/Contents/MacOS/Pellomar
echo "installer: The install was successful."
"""
BROKEN_INSTALLER = "#!/bin/sh\necho 'installer: Error - the package is damaged'\n"
DRIVER_LOADED = "#!/bin/sh\necho '1 0 com.norvik.emu.kext.VBoxDrv (6.1)'\n"
DRIVER_ABSENT = "#!/bin/sh\necho 'Index Refs Name'\n"
STARTUP = Path("/Library/Application Support/NorvikEmu/VirtualBoxStartup.sh")

LET_GO = Path("/run/let-go")


def held(script):
    """SCRIPT, at work until `let_go`."""
    return f"#!/bin/sh\nuntil [ -e {LET_GO} ]; do sleep 0.02; done\n{script}"


def let_go():
    LET_GO.touch()


class World:
    """Lives as long as its view: nothing here is ever put back."""

    def __init__(self, build, server, ordinary_user=False):
        self.build = build
        self.address = server
        self.scratch = Path("/tmp/endtoend")
        self.documents = self.scratch / "documents"
        self.disk = self.scratch / "disk"
        self.soft = self.documents / "soft"
        self.soft.mkdir(parents=True)
        (self.soft / "package.pkg").write_bytes(os.urandom(PACKAGE_BYTES))
        with open(self.soft / "huge.pkg", "wb") as huge:
            huge.truncate(HUGE_BYTES)
        shutil.copytree(build / BUNDLE, self.scratch / "master" / BUNDLE)
        shutil.copytree(PROJECT / "sample", self.scratch / "sample")
        self.server = None
        if ordinary_user:
            self.become_ordinary_user()
        self.session_log = open(self.scratch / "session-bus.log", "w")
        self.session = Session(self.session_log)
        self.display = Display(own=True)
        self.x = XClient()

    def become_ordinary_user(self):
        runtime = Path(f"/run/user/{ORDINARY_USER}")
        runtime.mkdir(mode=0o700)
        for path in (runtime, self.scratch, *self.scratch.rglob("*")):
            os.chown(path, ORDINARY_USER, ORDINARY_USER, follow_symlinks=False)
        os.environ["HOME"] = str(self.scratch)
        os.setgroups([])
        os.setgid(ORDINARY_USER)
        os.setuid(ORDINARY_USER)

    # The disk image

    def fresh_disk(self):
        shutil.rmtree(self.disk, ignore_errors=True)
        shutil.copytree(self.scratch / "master", self.disk)
        self.offer("package.pkg")

    def offer(self, content):
        (self.disk / ".config").write_bytes(content if isinstance(content, bytes) else content.encode())

    def executable(self):
        return self.disk / BUNDLE / "Contents/MacOS/PellomarDownloader"

    def statistics_tool(self):
        return self.executable().with_name("WebStatistics")

    # The host's tools

    @staticmethod
    def install_tools(installer=QUICK_INSTALLER, kextstat=DRIVER_LOADED):
        LET_GO.unlink(missing_ok=True)
        put_program("/usr/sbin/installer", installer)
        put_program("/usr/sbin/kextstat", kextstat)

    # The download server

    def serve(self, rate="0", documents=None):
        self.stop_serving()
        command = [self.scratch / "sample/serve", "--listen", self.address, "--rate", rate]
        self.server = subprocess.Popen(
            [*map(str, command), str(documents or self.documents), str(self.scratch / "server")],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
        )
        wait_for("the download server", self.is_serving, while_running=self.server)

    def endpoint(self):
        host, _, port = self.address.rpartition(":")
        return host, int(port)

    def is_serving(self):
        with socket.socket() as probe:
            return probe.connect_ex(self.endpoint()) == 0

    def stop_serving(self):
        if self.server is not None:
            self.server.terminate()
            self.server.wait()
            self.server = None

    def requests(self):
        """The lines of the server's log since it was last forgotten."""
        path = self.scratch / "server/logs/access.log"
        return path.read_text().splitlines() if path.exists() else []

    def forget_requests(self):
        (self.scratch / "server/logs/access.log").unlink(missing_ok=True)

    def close(self):
        self.stop_serving()
        self.display.close()
        self.session.close()
        self.session_log.close()


class XClient:
    """What only a client of the X server itself can ask for."""

    class ClientMessage(ctypes.Structure):
        _fields_ = [
            ("type", ctypes.c_int),
            ("serial", ctypes.c_ulong),
            ("send_event", ctypes.c_int),
            ("display", ctypes.c_void_p),
            ("window", ctypes.c_ulong),
            ("message_type", ctypes.c_ulong),
            ("format", ctypes.c_int),
            ("data", ctypes.c_long * 5),
            ("rest_of_an_event", ctypes.c_long * 24),
        ]

    def __init__(self):
        self.x11 = ctypes.CDLL("libX11.so.6")
        self.x11.XInitThreads()
        self.x11.XOpenDisplay.restype = ctypes.c_void_p
        self.x11.XDefaultRootWindow.restype = ctypes.c_ulong
        self.x11.XInternAtom.restype = ctypes.c_ulong
        # A window may be gone when a request arrives; the library's own answer is to end this process.
        self.ignore = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p)(lambda *_: 0)
        self.x11.XSetErrorHandler(self.ignore)
        self.display = ctypes.c_void_p(self.x11.XOpenDisplay(None))
        self.root = ctypes.c_ulong(self.x11.XDefaultRootWindow(self.display))
        self.close_atom = self.x11.XInternAtom(self.display, b"_NET_CLOSE_WINDOW", 0)

    def close_window(self, window):
        """What a taskbar does: the window manager turns it into its close request to the program."""
        client_message, from_a_pager, redirect_and_notify = 33, 2, (1 << 20) | (1 << 19)
        message = self.ClientMessage(
            type=client_message, send_event=1, window=window, message_type=self.close_atom, format=32
        )
        message.data[1] = from_a_pager
        self.x11.XSendEvent(self.display, self.root, 0, ctypes.c_long(redirect_and_notify), ctypes.byref(message))
        self.x11.XSync(self.display, 0)

    def expose(self, window):
        """The window has to paint itself again."""
        self.x11.XClearArea(self.display, ctypes.c_ulong(window), 0, 0, 0, 0, 1)
        self.x11.XSync(self.display, 0)


def put_program(path, content):
    path = Path(path)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.unlink(missing_ok=True)
    path.write_bytes(content.encode() if isinstance(content, str) else content)
    path.chmod(0o755)
