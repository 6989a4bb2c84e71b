"""Administrator rights inside the throw-away view: the system bus, polkit, the rights service with the files that its
package installs, an ordinary user, an administrator with a password, and an agent that answers the password dialog."""

import contextlib
import os
import pwd
import subprocess
from pathlib import Path

from gi.repository import Gio, GLib
from desktop import Part
from waiting import processes, wait_for

ACTION = "com.norvik.PellomarDownloader"
MECHANISM = Path("/usr/libexec/pellomar-downloader-rights")
TRANSACTION = Path("/usr/libexec/pellomar-installer-transaction")
BUS_SERVICE = Path(f"/usr/share/dbus-1/system-services/{ACTION}.service")
RULE = Path("/etc/polkit-1/rules.d/10-pellomar-downloader.rules")
USER = "pellomar-visitor"
ADMINISTRATOR = "pellomar-keeper"
PASSWORD = "pellomar"
POLKIT, AGENT = "/usr/lib/polkit-1/polkitd", Path("/usr/local/bin/pellomar-sample-agent")
# The variables by which a user's programs find the desktop, and the sanitizers' settings.
KEPT = ("PATH", "DISPLAY", "XAUTHORITY", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS",
        "QT_QPA_PLATFORM", "QT_SCALE_FACTOR", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS")


def as_user(name):
    """What subprocess needs to start something as this user, with that user's home."""
    user = pwd.getpwnam(name)
    own = {"HOME": user.pw_dir, "USER": name, "LANG": "C.UTF-8", "QT_LINUX_ACCESSIBILITY_ALWAYS_ON": "1"}
    environment = own | {name: os.environ[name] for name in KEPT if name in os.environ}
    return {"user": user.pw_uid, "group": user.pw_gid, "extra_groups": [], "env": environment}


def add_users(*options):
    """An ordinary user, made with these OPTIONS of useradd's, and an administrator with a password."""
    for name, own in ((USER, options), (ADMINISTRATOR, ["--groups", "sudo"])):
        subprocess.run(["useradd", "--create-home", "--shell", "/bin/bash", *own, name], check=True)
    subprocess.run(["chpasswd"], input=f"{ADMINISTRATOR}:{PASSWORD}\n", text=True, check=True)


def connect_to_bus():
    """Makes a new connection to the system bus, which may have been started again since the last one."""
    flags = Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION
    return Gio.DBusConnection.new_for_address_sync("unix:path=/run/dbus/system_bus_socket", flags, None, None)


def ask_bus(method, *arguments):
    bus = connect_to_bus()
    given, name = GLib.Variant("(s)", arguments) if arguments else None, "org.freedesktop.DBus"
    try:
        return bus.call_sync(name, "/org/freedesktop/DBus", name, method, given, None, 0, -1).unpack()[0]
    finally:
        bus.close_sync()


class RightsServices:
    """Installs the rights service from a build and runs the system's side of the rights. LOG is a path that receives
    what the bus and all that it starts print, the service's journal lines among them."""

    def __init__(self, project, build, log):
        self.log, self.bus, self.polkit = Path(log), None, None
        packaging = Path(project) / "packaging"
        for source, target, mode in (
            (Path(build) / "rights/service" / MECHANISM.name, MECHANISM, "755"),
            (Path(build) / "host/installer" / TRANSACTION.name, TRANSACTION, "755"),
            (packaging / f"{ACTION}.service", BUS_SERVICE, "644"),
            (packaging / f"{ACTION}.conf", f"/usr/share/dbus-1/system.d/{ACTION}.conf", "644"),
            (packaging / f"{ACTION}.policy", f"/usr/share/polkit-1/actions/{ACTION}.policy", "644"),
            (Path(project) / "tests/support/agent.py", AGENT, "755"),
        ):
            subprocess.run(["install", "-m", mode, source, target], check=True)

    def run(self, name, *command):
        """Starts what owns this NAME on the bus, and waits until it does."""
        with self.log.open("ab") as log:
            part = Part(*command, stdout=log, stderr=log)
        wait_for(name, lambda: self.has_owner(name))
        return part

    def start_bus(self):
        Path("/run/dbus").mkdir(exist_ok=True)
        self.bus = self.run("org.freedesktop.DBus", "dbus-daemon", "--system", "--nofork", "--nopidfile")

    def start_polkit(self):
        self.polkit = self.run("org.freedesktop.PolicyKit1", POLKIT, "--no-debug")

    def start(self, rule=None):
        """RULE is what polkit says without asking anybody: YES, NO, or None for the password dialog."""
        condition = f'if (action.id == "{ACTION}") return polkit.Result.{rule};' if rule else ""
        RULE.write_text(f"polkit.addRule(function(action, subject) {{ {condition} }});\n")
        RULE.chmod(0o644)
        self.start_bus()
        self.start_polkit()

    def stop(self):
        """Ends what was started, and what the bus has started."""
        for part in filter(None, (self.polkit, self.bus)):
            part.close()
        for program in (MECHANISM, POLKIT):
            wait_for(f"the end of {program}", lambda: not self.kill(program))
        self.bus = self.polkit = None

    @staticmethod
    def kill(program):
        """Kills the processes of a program, and returns which there were."""
        found = processes(program)
        for process in found:
            with contextlib.suppress(ProcessLookupError):
                os.kill(process, 9)
        return found

    @staticmethod
    def has_owner(name):
        with contextlib.suppress(GLib.Error):
            return ask_bus("NameHasOwner", name)
        return False

    @staticmethod
    def connections():
        """The process id of each connection to the system bus, but for our own."""
        found = []
        for name in ask_bus("ListNames"):
            with contextlib.suppress(GLib.Error):  # it is gone
                found.append(ask_bus("GetConnectionUnixProcessID", name))
        return found

    @staticmethod
    def mechanism():
        """The process id of the running mechanism, or None."""
        return next(iter(processes(MECHANISM)), None)

    def journal(self):
        """The mechanism's lines so far."""
        lines = self.log.read_text(errors="replace").splitlines()
        return [line for line in lines if line.startswith(MECHANISM.name + ":")]


# What the user does at the password dialog, as an agent's DIALOG (see agent.py).
DIALOGS = {"right": 'echo "$2"', "close": "false", "wait": "exec sleep 600", "slow": 'sleep 6; echo "$2"'}


class Agent(Part):
    """Answers the password dialogs of one process, as the user whose process it is. ANSWER is one of DIALOGS, or the
    path of a program that shows a dialog."""

    def __init__(self, process, answer="right", user=USER):
        self.output = Path(f"/run/pellomar-agent-{process}")
        dialog = ["bash", "-c", DIALOGS[answer]] if answer in DIALOGS else [answer]
        with self.output.open("wb") as output:
            super().__init__(AGENT, process, ADMINISTRATOR, PASSWORD, *dialog, stdout=output, **as_user(user))
        wait_for("the authentication agent", lambda: "ready" in self.lines())

    def lines(self):
        return self.output.read_text().splitlines()

    def asked(self):
        return sum(line.startswith("asked") for line in self.lines())
