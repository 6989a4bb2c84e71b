#!/usr/bin/python3
"""A polkit authentication agent for one process of the user who starts it:

agent.py PROCESS ADMINISTRATOR PASSWORD DIALOG...

DIALOG is a command that is run with polkit's message, the administrator's name and the password. It prints what a person
typed, fails when that person closed it, and is run again, with "again" as a further argument, after a wrong password.
Prints "ready", "asked MESSAGE" each time polkit asks, and the outcome: "gained", "failed", "closed" or "cancelled"."""

import os
import sys
from pathlib import Path

import gi

gi.require_version("Polkit", "1.0")
gi.require_version("PolkitAgent", "1.0")
from gi.repository import Gio, GLib, Polkit, PolkitAgent  # noqa: E402

POLKIT = "org.freedesktop.PolicyKit1"
AUTHORITY = (POLKIT, "/org/freedesktop/PolicyKit1/Authority", f"{POLKIT}.Authority")
PATH = "/com/norvik/PellomarDownloader/Agent"
INTERFACE = Gio.DBusNodeInfo.new_for_xml("""
    <node><interface name="org.freedesktop.PolicyKit1.AuthenticationAgent">
      <method name="BeginAuthentication">
        <arg type="s"/><arg type="s"/><arg type="s"/><arg type="a{ss}"/><arg type="s"/><arg type="a(sa{sv})"/>
      </method>
      <method name="CancelAuthentication"><arg type="s"/></method>
    </interface></node>""").interfaces[0]


class Agent:
    def __init__(self, process, administrator, *words):
        self.administrator, (password, *self.dialog) = administrator, words
        self.words, self.calls = [administrator, password], {}
        self.bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
        self.bus.register_object(PATH, INTERFACE, self.on_call, None, None)
        started = int(Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[19])
        subject = {
            "pid": GLib.Variant("u", int(process)),
            "start-time": GLib.Variant("t", started),
            "uid": GLib.Variant("i", os.getuid()),
        }
        arguments = GLib.Variant("((sa{sv})ss)", (("unix-process", subject), "zh_CN.UTF-8", PATH))
        self.bus.call_sync(*AUTHORITY, "RegisterAuthenticationAgent", arguments, None, 0, -1)
        print("ready", flush=True)

    def on_call(self, _bus, _sender, _path, _interface, method, arguments, call):
        if method == "BeginAuthentication":
            _, message, _, _, cookie, _ = arguments.unpack()
            print("asked", message, flush=True)
            self.calls[cookie] = call
            self.ask(cookie, message)
        else:
            self.end(arguments.unpack()[0], "cancelled")
            self.stop()
            call.return_value(None)

    def ask(self, cookie, message, *again):
        command = [*self.dialog, message, *self.words, *again]
        dialog = Gio.Subprocess.new(command, Gio.SubprocessFlags.STDOUT_PIPE)
        self.stop = dialog.force_exit

        def on_answer(_, result):
            _, typed, _ = dialog.communicate_utf8_finish(result)
            if not dialog.get_successful():
                self.end(cookie, "failed" if again else "closed")
            elif cookie in self.calls:
                self.try_password(cookie, message, typed.removesuffix("\n"))

        dialog.communicate_utf8_async(None, None, on_answer)

    def try_password(self, cookie, message, password):
        def on_completed(_, is_gained):
            if is_gained:
                self.end(cookie, "gained")
            elif cookie in self.calls:
                self.ask(cookie, message, "again")

        user = Polkit.UnixUser.new_for_name(self.administrator)
        self.session = PolkitAgent.Session.new(user, cookie)
        self.session.connect("request", lambda session, *_: session.response(password))
        self.session.connect("completed", on_completed)
        self.stop = self.session.cancel
        self.session.initiate()

    def end(self, cookie, outcome):
        call = self.calls.pop(cookie, None)
        if call is not None:
            print(outcome, flush=True)
            if outcome in ("closed", "cancelled"):
                call.return_dbus_error(f"{POLKIT}.Error.Cancelled", outcome)
            else:
                call.return_value(None)


if __name__ == "__main__":
    agent = Agent(*sys.argv[1:])
    GLib.MainLoop().run()
