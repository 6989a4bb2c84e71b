#!/usr/bin/python3
"""A polkit authentication agent for one process of the user who starts it. Reads the administrator's password
from the first line of its input, and answers by itself or, with --dialog, lets a person answer the sample's
dialog, which says that password. Prints "ready", then "asked MESSAGE" for each time polkit asks, "again" for a
dialog that comes back after a wrong password, and what became of it: "gained", "failed", "closed" or
"cancelled" (nobody wants the answer any more).
"""

import argparse
import os
import pwd
import sys

import gi

gi.require_version("Polkit", "1.0")
gi.require_version("PolkitAgent", "1.0")
from gi.repository import Gio, GLib, Polkit, PolkitAgent  # noqa: E402

POLKIT = "org.freedesktop.PolicyKit1"
AUTHORITY = (POLKIT, "/org/freedesktop/PolicyKit1/Authority", f"{POLKIT}.Authority")
PATH = "/com/norvik/PellomarDownloader/Agent"
INTERFACE = Gio.DBusNodeInfo.new_for_xml(
    """
    <node><interface name="org.freedesktop.PolicyKit1.AuthenticationAgent">
      <method name="BeginAuthentication">
        <arg type="s"/><arg type="s"/><arg type="s"/><arg type="a{ss}"/><arg type="s"/><arg type="a(sa{sv})"/>
      </method>
      <method name="CancelAuthentication"><arg type="s"/></method>
    </interface></node>
    """
).interfaces[0]


def say(text):
    print(text, flush=True)


class Agent:
    def __init__(self, options, password):
        self.answer = options.answer
        self.administrator = pwd.getpwnam(options.administrator).pw_uid
        self.password = password if options.answer != "wrong" else "not " + password
        self.dialog = options.dialog
        self.dialogs = {}
        self.sessions = {}
        self.waiting = {}
        self.bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
        self.bus.register_object(PATH, INTERFACE, self.on_call, None, None)
        start_time = int(open(f"/proc/{options.process}/stat").read().rpartition(")")[2].split()[19])
        subject = {
            "pid": GLib.Variant("u", options.process),
            "start-time": GLib.Variant("t", start_time),
            "uid": GLib.Variant("i", os.getuid()),
        }
        arguments = GLib.Variant("((sa{sv})ss)", (("unix-process", subject), "zh_CN.UTF-8", PATH))
        self.bus.call_sync(*AUTHORITY, "RegisterAuthenticationAgent", arguments, None, 0, -1)

    def on_call(self, _bus, _sender, _path, _interface, method, arguments, call):
        if method == "BeginAuthentication":
            _action, message, _icon, _details, cookie, identities = arguments.unpack()
            say(f"asked {message}")
            offered = [details.get("uid") for kind, details in identities if kind == "unix-user"]
            if self.administrator not in offered:
                say(f"the administrator is not offered, but {offered}")
            self.waiting[cookie] = call
            if self.dialog is not None:
                self.show_dialog(cookie, message)
            else:
                self.begin(cookie)
        else:
            (cookie,) = arguments.unpack()
            dialog, session = self.dialogs.pop(cookie, None), self.sessions.pop(cookie, None)
            if dialog is not None:
                dialog.force_exit()
            if session is not None:
                session.cancel()
            self.end(cookie, "cancelled", "org.freedesktop.PolicyKit1.Error.Cancelled")
            call.return_value(None)

    def begin(self, cookie):
        if self.answer == "close":
            self.end(cookie, "closed", "org.freedesktop.PolicyKit1.Error.Cancelled")
        elif self.answer in ("right", "wrong"):
            self.try_password(cookie, self.password, lambda: self.end(cookie, "failed"))

    def show_dialog(self, cookie, message, *again):
        name = pwd.getpwuid(self.administrator).pw_name
        words = [self.dialog, message, name, self.password, *again]
        dialog = Gio.Subprocess.new(words, Gio.SubprocessFlags.STDOUT_PIPE)
        self.dialogs[cookie] = dialog
        dialog.communicate_utf8_async(None, None, self.on_answer, cookie, message)

    def on_answer(self, dialog, result, cookie, message):
        _, typed, _ = dialog.communicate_utf8_finish(result)
        if self.dialogs.pop(cookie, None) is None:
            return  # cancelled meanwhile
        if not dialog.get_successful():
            self.end(cookie, "closed", "org.freedesktop.PolicyKit1.Error.Cancelled")
            return

        def ask_again():
            say("again")
            self.show_dialog(cookie, message, "again")

        self.try_password(cookie, typed.removesuffix("\n"), ask_again)

    def try_password(self, cookie, password, on_failure):
        session = PolkitAgent.Session.new(Polkit.UnixUser.new(self.administrator), cookie)
        self.sessions[cookie] = session
        session.connect("request", lambda asking, _prompt, _echo: asking.response(password))
        session.connect("completed", lambda _session, gained: self.completed(cookie, gained, on_failure))
        session.initiate()

    def completed(self, cookie, gained, on_failure):
        if self.sessions.pop(cookie, None) is None:
            return  # cancelled meanwhile
        if gained:
            self.end(cookie, "gained")
        else:
            on_failure()

    def end(self, cookie, outcome, error=None):
        call = self.waiting.pop(cookie, None)
        if call is None:
            return
        say(outcome)
        if error is None:
            call.return_value(None)
        else:
            call.return_dbus_error(error, outcome)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--process", type=int, required=True)
    parser.add_argument("--administrator", required=True)
    parser.add_argument("--answer", choices=("right", "wrong", "close", "wait"), default="right")
    parser.add_argument("--dialog", help="the program that a person answers")
    agent = Agent(parser.parse_args(), sys.stdin.readline().rstrip("\n"))
    say("ready")
    GLib.MainLoop().run()
    del agent


if __name__ == "__main__":
    main()
