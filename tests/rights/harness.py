"""Tools for root to run, a package, and raw calls of the rights service, as root in the throw-away view."""

import os
import subprocess
import sys
import unittest
from pathlib import Path

if os.environ.get("PELLOMAR_VIEW") != "1":
    sys.exit("adds users and runs tools as root: runs only in the throw-away view")
PROJECT = Path(__file__).resolve().parents[2]
sys.path[1:1] = [str(PROJECT / "tests/support"), str(PROJECT / "tests/host")]
from gi.repository import Gio, GLib
import rights
from rights import BUS_SERVICE, MECHANISM, TRANSACTION, USER, Agent, RightsServices, as_user  # noqa: F401
from waiting import wait_for  # noqa: F401

APPLICATION = Path("/Applications/Pellomar.app")
STAGING = Path("/.pellomar-installer")
SCRIPT = Path("/Library/Application Support/NorvikEmu/VirtualBoxStartup.sh")
INSTALLER, KEXTSTAT = Path("/usr/sbin/installer"), Path("/usr/sbin/kextstat")
PACKAGE = Path(f"/home/{USER}/Downloads/NVInst/Pellomar.pkg")
GO, STARTED = Path("/run/go"), Path("/run/started")
REMOVE = ("/bin/rm", "-rf", str(APPLICATION))
QUERY = (str(KEXTSTAT), "-b", "com.norvik.emu.kext.VBoxDrv")
RESTART = (str(SCRIPT), "restart")
NAME, PATH = rights.ACTION, "/com/norvik/PellomarDownloader"
HOLD = "touch /run/started; while [ ! -e /run/go ]; do sleep 0.02; done; echo done"
REPLACE = f"mkdir {APPLICATION} && echo new >{APPLICATION}/version && touch {STAGING}/done"  # the mark of a commit
services = owner = None  # set by main()


def install(package=PACKAGE):
    return (str(INSTALLER), "-pkg", str(package), "-target", "/")


def make_tool(path, text="true"):
    path.parent.mkdir(parents=True, exist_ok=True)
    for old in path, GO, STARTED:
        old.unlink(missing_ok=True)
    path.write_text(f"#!/bin/bash\n{text}\n")
    path.chmod(0o755)
    os.chown(path, 0, 0)


def version():
    file = APPLICATION / "version"
    return file.read_text().strip() if file.exists() else None


class Caller:
    """A connection of its own to the system bus, as an ordinary user, that calls the service."""

    def __init__(self):
        os.seteuid(owner[0])
        try:
            self.bus = rights.connect_to_bus()
        finally:
            os.seteuid(0)
        self.name = self.bus.get_unique_name()

    def call(self, method, arguments=None, *descriptors):
        """The last part of the error's name, or "" for success; the error's text is in self.reason, and the descriptor of
        a reply in self.reader."""
        files = Gio.UnixFDList.new_from_array([os.dup(descriptor) for descriptor in descriptors])
        try:
            _, received = self.bus.call_with_unix_fd_list_sync(
                NAME, PATH, NAME, method, arguments, None, 0, -1, files, None)
            if received:
                self.reader = received.get(0)
            return ""
        except GLib.Error as error:
            self.reason = error.message
            return (Gio.DBusError.get_remote_error(error) or error.message).rsplit(".")[-1]

    def authorize(self):
        assert self.call("Authorize") == "", self.reason
        return self

    def close(self):
        self.bus.close_sync()

    def start(self, line, *descriptors):
        return self.call("Execute", GLib.Variant("(sas)", (line[0], line[1:])), *descriptors)

    def output(self):
        with os.fdopen(self.reader) as reader:
            return reader.read()

    def run(self, line):
        """The error, or what the command printed."""
        return self.start(line) or self.output()


class RightsTest(unittest.TestCase):
    """Begins with the services running and an old application; RULE is what polkit decides without asking."""

    rule = "YES"

    def setUp(self):
        self.set_up_files()
        services.start(self.rule)
        self.addCleanup(services.stop)

    @staticmethod
    def set_up_files():
        for tool in (INSTALLER, KEXTSTAT, SCRIPT):
            make_tool(tool)
        PACKAGE.unlink(missing_ok=True)
        PACKAGE.write_text("the user's package")
        os.chown(PACKAGE, *owner)
        APPLICATION.mkdir(parents=True, exist_ok=True)
        (APPLICATION / "version").write_text("old\n")

    def start_service_by(self, command):
        """With this command, from now on."""
        self.addCleanup(BUS_SERVICE.write_text, BUS_SERVICE.read_text())
        BUS_SERVICE.write_text(f"[D-BUS Service]\nName={NAME}\nExec={command}\nUser=root\n")

    @staticmethod
    def kill(program):
        wait_for(f"a process of {program}", lambda: services.kill(program))
        # The bus drops its name some time after its program is gone.
        named = program == MECHANISM
        wait_for("its end", lambda: not rights.processes(program) and not (named and services.has_owner(NAME)))


def main():
    """Prepares the machine for the build that the first argument names, and runs the calling module's tests."""
    global services, owner
    rights.add_users()
    services = RightsServices(PROJECT, sys.argv[1], "/run/system.log")
    owner = as_user(USER)["user"], as_user(USER)["group"]
    subprocess.run(["install", "-d", "-o", USER, "-g", USER, PACKAGE.parents[1], PACKAGE.parent], check=True)
    program = unittest.main(argv=[sys.argv[0], *sys.argv[2:]], exit=False, verbosity=2, failfast=True)
    text = services.log.read_text(errors="replace")
    sys.exit(text if "Sanitizer" in text or not program.result.wasSuccessful() else 0)
