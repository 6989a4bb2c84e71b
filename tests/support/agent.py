#!/usr/bin/python3
"""A polkit authentication agent for one process of the user who starts it:

agent.py PROCESS ADMINISTRATOR PASSWORD DIALOG...

DIALOG is a command that is run with polkit's message, the administrator's name and the password. It prints what a
user typed, fails when the user closed it, and is run again, with "again" added, after a wrong password.
Prints "ready", "asked MESSAGE" each time polkit asks, and the outcome: "gained", "failed", "closed" or "cancelled"."""

import os
import sys

import gi

gi.require_version("Polkit", "1.0")
gi.require_version("PolkitAgent", "1.0")
from gi.repository import Gio, GLib, Polkit, PolkitAgent

PATH = "/com/norvik/PellomarDownloader/Agent"
INTERFACE = Gio.DBusNodeInfo.new_for_xml("""
    <node><interface name="org.freedesktop.PolicyKit1.AuthenticationAgent">
      <method name="BeginAuthentication"><arg type="s"/><arg type="s"/><arg type="s"/><arg type="a{ss}"/><arg type="s"/>
        <arg type="a(sa{sv})"/></method>
      <method name="CancelAuthentication"><arg type="s"/></method>
    </interface></node>""").interfaces[0]


class Agent:
    def __init__(self, process, *words):
        self.words, self.dialog, self.calls = words[:2], words[2:], {}
        self.bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)  # closed, with the agent on it, when not kept
        self.bus.register_object(PATH, INTERFACE, self.on_call, None, None)
        subject = Polkit.UnixProcess.new_for_owner(int(process), 0, os.getuid())
        Polkit.Authority.get_sync().register_authentication_agent_sync(subject, "zh_CN.UTF-8", PATH)
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
        dialog = Gio.Subprocess.new([*self.dialog, message, *self.words, *again], Gio.SubprocessFlags.STDOUT_PIPE)
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

        self.session = PolkitAgent.Session.new(Polkit.UnixUser.new_for_name(self.words[0]), cookie)
        self.session.connect("request", lambda session, *_: session.response(password))
        self.session.connect("completed", on_completed)
        self.stop = self.session.cancel
        self.session.initiate()

    def end(self, cookie, outcome):
        if call := self.calls.pop(cookie, None):
            print(outcome, flush=True)
            if outcome in ("closed", "cancelled"):
                call.return_dbus_error("org.freedesktop.PolicyKit1.Error.Cancelled", outcome)
            else:
                call.return_value(None)


agent = Agent(*sys.argv[1:])
GLib.MainLoop().run()
