"""A virtual machine with a desktop: its power, its mouse and keyboard, commands in it, what is on its screen."""

import base64
import contextlib
import json
import socket
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
import waiting
from waiting import PATIENCE, Blocked

SHARED_KEYS = {" ": "spc", "-": "minus", ".": "dot", "/": "slash", "\n": "ret"}
HARDWARE = {  # by architecture; the processor is emulated, so that it is the same on every machine
    "amd64": ["qemu-system-x86_64", "-cpu", "Nehalem", "-vga", "std", "-device", "ide-cd,id=cd"],
    "arm64": ["qemu-system-aarch64", "-machine", "virt", "-cpu", "cortex-a72", "-device", "virtio-gpu", "-device",
              "virtio-keyboard", "-device", "virtio-scsi", "-device", "scsi-cd,id=cd"],
}
CONSOLES = {"amd64": "ttyS0", "arm64": "ttyAMA0"}
LOOKING = 20  # seconds that one look at the screen takes at most


class Channel:
    """JSON lines over a socket of QEMU's, a request and its answer at a time."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(path)
        self.lines = self.socket.makefile("rb")

    def ask(self, command, **arguments):
        words = {"execute": command, "arguments": {key.replace("_", "-"): value for key, value in arguments.items()}}
        self.socket.sendall(json.dumps(words).encode() + b"\n")
        while True:
            line = self.lines.readline()
            if not line:
                raise Blocked(f"the machine ended before it answered {command}")
            answer = json.loads(line.lstrip(b"\xff"))
            if "error" in answer:
                raise Blocked(f"{command}: {answer['error']['desc']}")
            if "return" in answer:
                return answer["return"]


class Guest:
    """MACHINE is the path of the machine's disk, kernel and first root file system, without their extensions. It starts
    from that disk and writes what changes, and its pictures, into FOLDER. KIT is an image that it sees as a second disk;
    USER is logged in on its desktop."""

    def __init__(self, architecture, machine, folder, kit, user):
        self.architecture, self.machine, self.folder, self.kit, self.user = architecture, machine, folder, kit, user
        self.pictures = 0
        self.process = None
        self.disk = folder / "disk.qcow2"
        subprocess.run(
            ["qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw", "-b", f"{machine}.disk", self.disk], check=True
        )

    def power_on(self):
        """Returns when commands can be run in it."""
        control, agent = self.folder / "control", self.folder / "agent"
        command = ["setpriv", "--pdeathsig", "KILL", "nice", "-n", "10", *HARDWARE[self.architecture], "-accel", "tcg"]
        command += ["-smp", "1", "-m", "3072", "-nodefaults", "-display", "none"]
        command += ["-kernel", f"{self.machine}.kernel", "-initrd", f"{self.machine}.initrd"]
        command += ["-append", f"root=/dev/vda rw quiet console={CONSOLES[self.architecture]}"]
        command += ["-serial", f"file:{self.folder}/console.txt"]
        command += ["-drive", f"file={self.disk},format=qcow2,if=none,id=disk", "-device", "virtio-blk,drive=disk"]
        command += ["-drive", f"file={self.kit},format=raw,if=virtio,readonly=on"]
        command += ["-device", "virtio-tablet", "-device", "virtio-serial"]
        command += ["-qmp", f"unix:{control},server=on,wait=off"]
        command += ["-chardev", f"socket,path={agent},server=on,wait=off,id=agent"]
        command += ["-device", "virtserialport,chardev=agent,name=org.qemu.guest_agent.0"]
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL)
        self.wait_for("the machine", lambda: agent.exists() and control.exists())
        self.control = Channel(str(control))
        self.control.ask("qmp_capabilities")
        self.agent = self.wait_for("the machine's agent", lambda: self.agent_at(str(agent)))

    def clock(self):
        """Seconds, without those in which the machine was ready to run and others had the processor."""
        waited = [0]  # by its threads, in nanoseconds
        for thread in Path(f"/proc/{self.process.pid}/task").glob("*/schedstat"):
            with contextlib.suppress(OSError):  # it ended meanwhile
                waited.append(int(thread.read_text().split()[1]))
        return time.monotonic() - max(waited) / 1e9

    def wait_for(self, what, condition, seconds=PATIENCE, pause=0.5):
        return waiting.wait_for(what, condition, seconds, self.process, pause, self.clock)

    @staticmethod
    def agent_at(path):
        """Asks until the agent runs: it does not get what was asked before."""
        channel, number = Channel(path), time.monotonic_ns()
        channel.socket.settimeout(5)
        try:
            while channel.ask("guest-sync", id=number) != number:
                pass
        except TimeoutError:
            channel.lines.close()
            channel.socket.close()
            return None
        channel.socket.settimeout(PATIENCE)
        return channel

    def cut_power(self):
        """What the machine has not written to its disk is lost."""
        self.process.kill()
        self.process.wait()
        for name in ("control", "agent"):
            (self.folder / name).unlink()

    def run(self, *command, check=True):
        """Runs a command as root; returns what it prints, or None if it fails."""
        words = {"path": command[0], "arg": list(command[1:]), "capture-output": True}
        process = self.agent.ask("guest-exec", **words)["pid"]

        def ended():
            state = self.agent.ask("guest-exec-status", pid=process)
            return state if state["exited"] else None

        state = self.wait_for(" ".join(command)[:80], ended, pause=0.2)
        text, errors = (base64.b64decode(state.get(name, "")) for name in ("out-data", "err-data"))
        if state.get("exitcode") == 0:
            return text.decode()
        if check:
            raise Blocked(f"{' '.join(command)[:80]}: {state.get('exitcode')}\n{(text + errors).decode()}")
        return None

    def run_as_user(self, *command, **options):
        """Runs a command with the user's rights, outside the session, where it reaches the session's bus and screen."""
        number = self.run("id", "-u", self.user).strip()
        place = f"/run/user/{number}"
        words = [f"XDG_RUNTIME_DIR={place}", f"DBUS_SESSION_BUS_ADDRESS=unix:path={place}/bus", "DISPLAY=:0"]
        return self.run("runuser", "-u", self.user, "--", "env", "LANG=zh_CN.UTF-8", *words, *command, **options)

    def look(self, name, role="", *gone, check=False):
        """Where on screen the object is whose whole name matches, or None; with "gone", true if there is none."""
        command = ("python3", "-B", "-W", "ignore", "/mnt/look.py", name, role, str(LOOKING), *gone)
        answer = self.run_as_user(*command, check=check)
        return answer and (tuple(map(int, answer.split())) or "gone")

    def see(self, name, role="", *gone):
        """Waits until that object is there, or has gone."""
        try:
            return self.wait_for(" ".join((name, *gone)), lambda: self.look(name, role, *gone))
        except Blocked:
            return self.look(name, role, *gone, check=True)  # what is on screen is in its failure

    def press(self, name, role=""):
        """Clicks on an object, once it is there."""
        x, y = self.see(name, role)
        width, height = self.size
        places = [
            [{"type": "abs", "data": {"axis": axis, "value": value * 0x7FFF // limit}} for axis, value, limit in place]
            # The mouse does not report its last place again, even if the pointer has been moved away since.
            for place in ([("x", 0, 1), ("y", 0, 1)], [("x", x, width), ("y", y, height)])
        ]
        clicks = [{"type": "btn", "data": {"button": "left", "down": down}} for down in (True, False)]
        for events in (*places, *([click] for click in clicks)):
            self.control.ask("input-send-event", events=events)
            time.sleep(0.08)  # until the mouse is asked again

    def keys(self, *names):
        """Presses keys together."""
        self.control.ask("send-key", keys=[{"type": "qcode", "data": name} for name in names])
        time.sleep(0.15)  # longer than a key is held

    def type(self, text):
        for letter in text:
            self.keys(SHARED_KEYS.get(letter, letter))

    def fill(self, text):
        """Types at a password's field, until the field has taken all of it: it may not be ready yet."""

        def is_taken():
            self.keys("ctrl", "a")
            self.type(text)
            return self.look(f".{{{len(text)}}}", "password text")

        self.wait_for("the field for the password", is_taken)

    def is_painted(self):
        """Whether the middle of the screen shows more than one colour and the mouse."""
        picture = self.folder / "screen.png"
        self.control.ask("screendump", filename=str(picture), format="png")
        middle = ["convert", picture, "-gravity", "center", "-crop", "50%x50%+0+0", "-strip", "png:-"]
        return len(subprocess.run(middle, capture_output=True, check=True).stdout) > 3000

    def take(self, name):
        """A picture of the screen."""
        self.pictures += 1
        picture = self.folder / f"{self.pictures:02d}-{name}.png"
        self.control.ask("screendump", filename=str(picture), format="png")
        header = picture.read_bytes()[16:24]
        self.size = int.from_bytes(header[:4], "big"), int.from_bytes(header[4:], "big")
        return picture

    def insert(self, image):
        self.control.ask("blockdev-change-medium", id="cd", filename=str(image), format="raw")
