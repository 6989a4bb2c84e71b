#!/usr/bin/python3
"""The rights service, by raw calls on a real bus: what it refuses, what ends a grant, and that the installed application
survives each attempt that fails."""

import os
import shutil
import socket
import subprocess
import unittest
from concurrent.futures import ThreadPoolExecutor
from itertools import product
from pathlib import Path

import harness
from harness import (APPLICATION, GO, HOLD, INSTALLER, KEXTSTAT, MECHANISM, PACKAGE, QUERY, REMOVE, REPLACE, RESTART,
                     SCRIPT, STAGING, STARTED, TRANSACTION, Gio, GLib, RightsTest, install, main, make_tool, version,
                     wait_for)  # fmt: skip

REPORT = r"""while read -r name value; do
    [[ $name == SigBlk: ]] && echo "$value"
    [[ $name == SigIgn: ]] && echo "$((0x$value >> 12 & 1))"
done </proc/$$/status
echo "$UID $(umask) $PWD"; cd /proc/$$; echo "$(tr '\0' '|' <cmdline) $(tr '\0' '|' <environ) $(readlink fd/0)"
for open in fd/*; do n=${open#fd/}; [[ $n -lt 3 || $n == 255 ]] || readlink $open; done"""


class Refusals(RightsTest):
    def test_all_but_the_four_commands(self):
        caller, app, package = self.caller().authorize(), str(APPLICATION), str(PACKAGE)
        for line in (
            [""], ["/usr/bin/rm", *REMOVE[1:]], ["/bin//rm", *REMOVE[1:]], ["/bin/rm"], ["/bin/rm", "-rf", app + "/"],
            ["/bin/rm", "-rf"], ["/bin/rm", app], ["/bin/rm", "-rf", app, "/etc"], ["/bin/rm", *install()[1:]],
            [*install()[:4], "/tmp"], [*install(), "-force"], [*install()[:1], "-target", "/", "-pkg", package],
            [*QUERY[:2], "com.norvik.emu.kext.VBoxNetFlt"], [*QUERY[:2], QUERY[2] + "\n"], [*QUERY, *QUERY[1:]],
            [str(SCRIPT)], [str(SCRIPT), "stop"], [str(SCRIPT) + "\vforged", "restart"],
        ):  # fmt: skip
            with self.subTest(line):
                self.assertEqual(caller.run(line), "NotAllowed")
        lines, refused = (REMOVE, install(), QUERY, RESTART), len(harness.stage.journal())
        self.assertEqual([caller.run(line) for line in lines], [""] * 4)
        for logged, line in zip(harness.stage.journal()[refused:], lines, strict=True):
            self.assertRegex(logged, f": started {line[0]} as process [0-9]+ for {caller.name} of user {harness.owner[0]}$")

    def test_a_package_that_is_not_the_callers_own_file(self):
        secret = Path("/root/secret/Pellomar.pkg")
        folder = PACKAGE.parent / "odd"
        odd = folder / "Pellomar.pkg"
        shutil.rmtree(secret.parent, ignore_errors=True)
        secret.parent.mkdir(mode=0o700)
        secret.write_text("secret")
        os.chown(secret, *harness.owner)  # the folder above it is what the caller cannot enter

        def own_link(target):
            odd.symlink_to(target)
            os.lchown(odd, *harness.owner)

        reasons = set()
        for make, path in (
            (lambda: own_link(PACKAGE), odd), (odd.mkdir, odd), (lambda: os.mkfifo(odd), odd), (lambda: None, odd),
            (lambda: os.mknod(odd, 0o020666, os.makedev(1, 5)), odd), (lambda: odd.write_text("root's"), odd),
            (lambda: own_link(secret), odd), (lambda: None, secret), (lambda: None, secret.parent / "none/Pellomar.pkg"),
            (lambda: None, "Pellomar.pkg"), (lambda: None, PACKAGE.parent / "x/../Pellomar.pkg"),
            (lambda: (odd.parent / "other.pkg").write_text(""), odd.parent / "other.pkg"),
        ):  # fmt: skip
            shutil.rmtree(folder, ignore_errors=True)
            folder.mkdir()
            make()
            caller = self.caller().authorize()
            with self.subTest(path=path):
                self.assertEqual(caller.run(install(path)), "NotAllowed")
                reasons.add(caller.reason)
        self.assertEqual(len(reasons), 1, "an error text reveals files that the caller cannot see")
        (folder.parent / "linked").symlink_to(PACKAGE.parent)
        self.assertEqual(self.caller().authorize().run(install(folder.parent / "linked/Pellomar.pkg")), "")

    def test_an_output_that_is_not_a_pipes_write_end(self):
        caller, file = self.caller().authorize(), os.open("/run/victim", os.O_CREAT | os.O_RDWR)
        reader, (end, other) = os.pipe()[0], socket.socketpair()
        self.addCleanup(lambda: (end.close(), other.close()))
        for kind, output in ("file", file), ("socket", end.fileno()), ("read end", reader):
            with self.subTest(kind):
                self.assertEqual(caller.execute(QUERY, output), "NotAllowed")

    def test_a_tool_that_others_could_change(self):
        for prepare in (KEXTSTAT.unlink, lambda: os.chown(KEXTSTAT, *harness.owner), lambda: KEXTSTAT.chmod(0o775)):
            make_tool(KEXTSTAT, f"touch {STARTED}")
            prepare()
            self.assertEqual(self.caller().authorize().run(QUERY), "NotStarted")
        SCRIPT.parent.chmod(0o757)
        self.addCleanup(SCRIPT.parent.chmod, 0o755)
        self.assertEqual(self.caller().authorize().run(RESTART), "NotStarted")
        self.assertFalse(STARTED.exists())


class Grants(RightsTest):
    def test_what_uses_a_grant_up(self):
        other = self.caller()
        for ending, restart in ("true", ""), ("exit 1", "NotAllowed"), ("kill -9 $$", "NotAllowed"):
            make_tool(INSTALLER, "echo ran; " + ending)
            caller = self.caller().authorize()
            with self.subTest(ending):
                self.assertEqual((other.run(QUERY), caller.run(install())), ("NotAuthorized", "ran\n"))
                self.assertEqual((caller.run(RESTART), caller.run(REMOVE) if restart else ""), (restart, restart))
                self.assertEqual((caller.run(QUERY), caller.run(QUERY)), ("", "NotAllowed"), "status is no failure")
                self.assertEqual((caller.call("Release"), caller.run(QUERY)), ("", "NotAuthorized"))

    def test_a_forged_end_of_a_connection_ends_no_grant(self):
        victim, attacker = self.caller().authorize(), self.caller()
        service = attacker.bus.call_sync("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetNameOwner",
                                         GLib.Variant("(s)", (harness.NAME,)), None, 0, -1).unpack()[0]  # fmt: skip
        attacker.bus.emit_signal(service, "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                                 GLib.Variant("(sss)", (victim.name, victim.name, "")))  # fmt: skip
        self.assertEqual((attacker.run(QUERY), victim.run(QUERY)), ("NotAuthorized", ""), "in the order sent")

    def test_the_idle_service_exits(self):
        for program in MECHANISM, TRANSACTION:
            wait_for("nothing left over", lambda: not harness.rights.processes(program))
        service = subprocess.Popen([MECHANISM, "0"], stderr=subprocess.DEVNULL)
        for ending in "Release", "close":
            self.assertEqual((version(), STAGING.exists()), ("old", False))
            wait_for("the service's end", lambda: service.poll() is not None)
            Path("/usr/share/dbus-1/system-services/" + harness.NAME + ".service").write_text(
                f"[D-BUS Service]\nName={harness.NAME}\nExec={MECHANISM} 0\nUser=root\n")
            caller = self.caller().authorize()
            first = harness.stage.mechanism()
            self.assertEqual((caller.run(QUERY), harness.stage.mechanism()), ("", first), "it stays for a grant")
            caller.call("Release") if ending == "Release" else caller.close()
            wait_for("the service's end", lambda: harness.stage.mechanism() != first)

    def test_tools_run_in_clean_surroundings(self):
        make_tool(INSTALLER, REPORT)
        words = "|".join(["/bin/bash", *install()])
        environment = "PATH=/usr/sbin:/usr/bin:/sbin:/bin|LC_ALL=C|HOME=/root|INSTALLER_PACKAGE_FD=3"
        signals = "0000000000000000\n0"  # none is blocked, a broken pipe is not ignored
        self.assertEqual(self.caller().authorize().run(install()),
                         f"{signals}\n0 0022 /\n{words}| {environment}| /dev/null\n{PACKAGE}\n")  # fmt: skip

    def test_the_installer_reads_the_file_that_was_checked(self):
        make_tool(INSTALLER, HOLD + "; cat <&3")
        caller = self.caller().authorize()
        self.assertEqual(caller.start(install()), "")
        PACKAGE.rename(PACKAGE.with_suffix(".old"))
        PACKAGE.symlink_to("/etc/shadow")
        GO.touch()
        self.assertEqual(caller.output(), "done\nthe user's package")


class Application(RightsTest):
    """The installed application while it is replaced."""

    def ends_with(self, expected):
        self.caller().authorize()  # is answered when the attempt before is over
        self.assertEqual((version(), STAGING.exists()), (expected, False))
        shutil.rmtree(APPLICATION, ignore_errors=True)
        self.make_application()

    def test_each_ending_of_an_attempt(self):
        def killed(*programs):
            return lambda caller: ([self.kill(program) for program in programs], caller.call("Release"))

        for end in ("exit 1", "kill -9 $$", "true", REPLACE, lambda caller: caller.call("Release"), harness.Caller.close,
                    killed(MECHANISM), killed(TRANSACTION), killed(TRANSACTION, MECHANISM)):  # fmt: skip
            with self.subTest(end):
                caller = self.caller().authorize()
                self.assertEqual((caller.run(REMOVE), version()), ("", None))
                if isinstance(end, str):
                    make_tool(INSTALLER, end)
                    self.assertEqual(caller.run(install()), "")
                else:
                    end(caller)
                self.ends_with("new" if end == REPLACE else "old")

    def test_an_installer_that_outlives_its_caller_or_the_service(self):
        for outcome, kill in product(("new", "old"), (False, True)):
            with self.subTest(outcome, kill=kill):
                for path in GO, STARTED:
                    path.unlink(missing_ok=True)
                make_tool(INSTALLER, f"{HOLD}; {REPLACE if outcome == 'new' else 'exit 1'}")
                caller = self.caller().authorize()
                self.assertEqual((caller.run(REMOVE), caller.start(install())), ("", ""))
                wait_for("the installer", STARTED.exists)
                self.kill(MECHANISM) if kill else caller.call("Release")
                GO.touch()
                self.assertEqual(caller.output(), "done\n")
                self.ends_with(outcome)

    def test_attempts_take_turns(self):
        first, second = self.caller().authorize(), self.caller()
        self.assertEqual(first.run(REMOVE), "")
        with ThreadPoolExecutor() as aside:
            asking = aside.submit(second.call, "Authorize")
            wait_for("polkit's answer", lambda: second.run(QUERY) == "")
            self.assertFalse(asking.done(), "another attempt is not over")
            first.call("Release")
            self.assertEqual((asking.result(), version()), ("", "old"))

    def test_without_the_program_that_sets_it_aside(self):
        hidden = TRANSACTION.rename("/usr/libexec/hidden")
        self.addCleanup(hidden.rename, TRANSACTION)
        caller = self.caller().authorize()
        self.assertEqual((caller.run(REMOVE), APPLICATION.exists()), ("", False))
        self.assertTrue(any("not set aside" in line for line in harness.stage.journal()))
        make_tool(INSTALLER, REPLACE)
        self.assertEqual((caller.run(install()), version()), ("", "new"))


if __name__ == "__main__":
    main()
