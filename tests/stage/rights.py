"""Administrator rights inside the throw-away view: the system bus, polkit, the rights mechanism with the
files that its package installs, an ordinary user, an administrator with a password, and somebody who
answers the password dialog.

Every wait is for a condition and has a deadline.
"""

import os
import pwd
import shutil
import subprocess
from pathlib import Path

from waiting import processes, wait_for as wait_until

ACTION = "com.norvik.PellomarDownloader"
MECHANISM = Path("/usr/libexec/pellomar-downloader-rights")
BUS_SERVICE = Path(f"/usr/share/dbus-1/system-services/{ACTION}.service")
RULE = Path("/etc/polkit-1/rules.d/10-pellomar-downloader.rules")
USER = "pellomar-visitor"
ADMINISTRATOR = "pellomar-keeper"
PASSWORD = "open sesame 芝麻开门"
AGENT = Path("/usr/local/bin/pellomar-sample-agent")
# What a user's programs need of the environment to meet on the desktop, and what sanitizers are told.
KEPT = (
    *("DISPLAY", "XAUTHORITY", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS"),
    "QT_QPA_PLATFORM",
    *("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"),
)


def as_user(name):
    """What subprocess needs to start something as this user, with that user's home."""
    user = pwd.getpwnam(name)
    environment = {"PATH": os.environ["PATH"], "HOME": user.pw_dir, "USER": name, "LANG": "C.UTF-8"}
    environment["QT_LINUX_ACCESSIBILITY_ALWAYS_ON"] = "1"
    for kept in KEPT:
        if kept in os.environ:
            environment[kept] = os.environ[kept]
    return {"user": user.pw_uid, "group": user.pw_gid, "extra_groups": [], "env": environment}


def add_users(*options, password=PASSWORD):
    """An ordinary user without a right to anything, made with these OPTIONS of useradd's, and an administrator
    with a password."""
    for name, own in ((USER, options), (ADMINISTRATOR, ["--groups", "sudo"])):
        subprocess.run(["useradd", "--create-home", "--shell", "/bin/bash", *own, name], check=True)
    subprocess.run(["chpasswd"], input=f"{ADMINISTRATOR}:{password}\n", text=True, check=True)


class RightsStage:
    """Installs the mechanism from a build and runs the system's side of the rights. LOG is a path that
    receives what the bus and all that it starts print, the mechanism's journal lines among them. RECORDER is
    the beginning of a command that records what the bus starts, if anybody wants to know."""

    def __init__(self, project, build, log, recorder=()):
        self.log = Path(log)
        self.recorder = recorder
        self.bus = None
        self.polkit = None
        packaging = Path(project) / "packaging"
        shutil.copy(Path(build) / "host/rights" / MECHANISM.name, MECHANISM)
        MECHANISM.chmod(0o755)
        for source, target in (
            (packaging / f"{ACTION}.service", BUS_SERVICE),
            (packaging / f"{ACTION}.conf", Path(f"/usr/share/dbus-1/system.d/{ACTION}.conf")),
            (packaging / f"{ACTION}.policy", Path(f"/usr/share/polkit-1/actions/{ACTION}.policy")),
        ):
            shutil.copyfile(source, target)
            target.chmod(0o644)
        shutil.copyfile(Path(project) / "tests/stage/agent.py", AGENT)
        AGENT.chmod(0o755)

    def start_bus(self):
        Path("/run/dbus").mkdir(exist_ok=True)
        with self.log.open("ab") as log:
            self.bus = subprocess.Popen(
                [*self.recorder, "dbus-daemon", "--system", "--nofork", "--nopidfile"],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
            )
        wait_until("the system bus", lambda: self.has_owner("org.freedesktop.DBus"))

    def start_polkit(self):
        with self.log.open("ab") as log:
            self.polkit = subprocess.Popen(
                ["/usr/lib/polkit-1/polkitd", "--no-debug"], stdin=subprocess.DEVNULL, stdout=log, stderr=log
            )
        wait_until("polkit", lambda: self.has_owner("org.freedesktop.PolicyKit1"))

    def start(self, rule=None):
        """RULE is what polkit says without asking anybody: YES, NO, or None for the password dialog."""
        RULE.unlink(missing_ok=True)
        if rule is not None:
            RULE.write_text(
                "polkit.addRule(function(action, subject) {\n"
                f'    if (action.id == "{ACTION}") return polkit.Result.{rule};\n'
                "});\n"
            )
            RULE.chmod(0o644)
        self.start_bus()
        self.start_polkit()

    def stop(self):
        """Ends what was started, and what the bus has started."""
        for process in (self.polkit, self.bus):
            if process is not None and process.poll() is None:
                process.kill()
                process.wait()
        for program in (MECHANISM, "/usr/lib/polkit-1/polkitd"):
            wait_until(f"the end of {program}", lambda: not self.kill(program))
        self.bus = self.polkit = None

    @staticmethod
    def kill(program):
        """Kills the processes of a program, and tells which there were."""
        found = processes(program)
        for process in found:
            try:
                os.kill(process, 9)
            except ProcessLookupError:
                pass
        return found

    @staticmethod
    def has_owner(name):
        done = subprocess.run(
            ["dbus-send", "--system", "--print-reply=literal", "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
             "org.freedesktop.DBus.NameHasOwner", f"string:{name}"],
            capture_output=True, text=True, check=False,
        )  # fmt: skip
        return "boolean true" in done.stdout

    @staticmethod
    def connections():
        """The process id of each connection to the system bus."""
        from gi.repository import Gio, GLib

        bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
        def ask(method, *arguments):
            given = GLib.Variant("(s)", arguments) if arguments else None
            name = "org.freedesktop.DBus"
            return bus.call_sync(name, "/org/freedesktop/DBus", name, method, given, None, 0, -1).unpack()[0]
        return [ask("GetConnectionUnixProcessID", name) for name in ask("ListNames") if name.startswith(":")]

    def mechanism(self):
        """The process id of the running mechanism, or None."""
        found = processes(MECHANISM)
        return found[0] if found else None

    def journal(self):
        """The lines that the mechanism has written so far."""
        text = self.log.read_text(errors="replace")
        return [line for line in text.splitlines() if line.startswith(MECHANISM.name + ":")]


class Agent:
    """Answers the password dialogs of one process, as the user whose process it is. ANSWER is "right",
    "wrong", "close" (the user closes the dialog) or "wait" (nobody answers); or a real dialog of the program
    DIALOG comes up, and says the password."""

    def __init__(self, process, answer="right", user=USER, dialog=None, password=PASSWORD):
        self.output = Path(f"/run/pellomar-agent-{process}")
        with self.output.open("wb") as output:
            self.process = subprocess.Popen(
                [str(AGENT), "--process", str(process), "--administrator", ADMINISTRATOR, "--answer", answer,
                 *(["--dialog", str(dialog)] if dialog is not None else [])],
                stdin=subprocess.PIPE,
                stdout=output,
                **as_user(user),
            )  # fmt: skip
        self.process.stdin.write(password.encode() + b"\n")
        self.process.stdin.flush()
        wait_until("the authentication agent", lambda: "ready" in self.lines())

    def lines(self):
        return self.output.read_text().splitlines()

    def asked(self):
        """How often polkit asked."""
        return sum(line.startswith("asked") for line in self.lines())

    def close(self):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
