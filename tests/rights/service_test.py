#!/usr/bin/python3
"""The rights service, by raw calls on a real bus: what it refuses, what ends a grant, what a failed attempt leaves."""

import os
import shutil
import subprocess
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import harness
from harness import (APPLICATION, GO, HOLD, INSTALLER, KEXTSTAT, MECHANISM, PACKAGE, QUERY, REMOVE,
                     REPLACE, RESTART, SCRIPT, STAGING, STARTED, TRANSACTION, Caller, GLib, RightsTest, install,
                     main, make_tool, version, wait_for)

# The blocked signals, and of the ignored ones the digit of the broken pipe.
REPORT = r"""sed -nE 's/^SigBlk:\s+//p; s/^SigIgn:.*(.)...$/\1/p' /proc/self/status
echo "$UID $(umask) $PWD"; cd /proc/$$; echo "$(tr '\0' '|' <cmdline) $(tr '\0' '|' <environ) $(readlink fd/0)"
for open in fd/*; do n=${open#fd/}; [[ $n -lt 3 || $n == 255 ]] || readlink $open; done"""


class Refusals(RightsTest):
    def test_all_but_the_four_commands(self):
        caller, app, package = Caller().authorize(), str(APPLICATION), str(PACKAGE)
        for line in (
            [""], ["/usr/bin/rm", *REMOVE[1:]], ["/bin//rm", *REMOVE[1:]], ["/bin/rm"], ["/bin/rm", "-rf", app + "/"],
            ["/bin/rm", "-rf"], ["/bin/rm", app], ["/bin/rm", "-rf", app, "/etc"], ["/bin/rm", *install()[1:]],
            [*install()[:4], "/tmp"], [*install(), "-force"], [*install()[:1], "-target", "/", "-pkg", package],
            [*QUERY[:2], "com.norvik.emu.kext.VBoxNetFlt"], [*QUERY[:2], QUERY[2] + "\n"], [*QUERY, *QUERY[1:]],
            install("Pellomar.pkg"), install(PACKAGE.parent / "../Pellomar.pkg"), install("/tmp/other.pkg"),
            [str(SCRIPT)], [str(SCRIPT), "stop"], [str(SCRIPT) + "\vforged", "restart"],
        ):
            with self.subTest(line):
                self.assertEqual(caller.run(line), "NotAllowed")
        lines, journal = (REMOVE, install(), QUERY, RESTART), harness.services.journal()
        self.assertIn(f"refused {caller.name}: not a command of an installation", journal[-1])
        self.assertEqual(Caller().run(QUERY), "NotAuthorized")  # not logged: anybody could fill the journal
        self.assertEqual([caller.run(line) for line in lines], [""] * 4)
        for logged, line in zip(harness.services.journal()[len(journal):], lines, strict=True):
            self.assertRegex(logged, f": started {line[0]} as process [0-9]+ for {caller.name} of user {harness.owner[0]}$")

    def test_descriptors_of_a_caller(self):
        caller, count = Caller().authorize(), 16
        with open("/dev/null") as file:
            for method in "Authorize", "Execute":
                with self.subTest(method):
                    self.assertEqual(caller.call(method, None, *[file.fileno()] * count), "AccessDenied")
            self.assertEqual(caller.start(QUERY, file.fileno()), "AccessDenied")
        self.assertEqual(caller.run(QUERY), "")

    def test_a_tool_that_others_could_change(self):
        for prepare in (KEXTSTAT.unlink, lambda: os.chown(KEXTSTAT, *harness.owner), lambda: KEXTSTAT.chmod(0o775)):
            make_tool(KEXTSTAT, f"touch {STARTED}")
            prepare()
            self.assertEqual((Caller().authorize().run(QUERY), STARTED.exists()), ("NotStarted", False))
        library, support, moved = SCRIPT.parents[2], SCRIPT.parents[1], Path("/opt/support")
        support.rename(moved)
        support.symlink_to(moved)
        self.addCleanup(lambda: (support.unlink(), moved.rename(support)))
        for path, number, mode, answer in ((SCRIPT.parent, 0, 0o757, "NotStarted"), (library, 0, 0o775, "NotStarted"),
                                           (moved.parent, 0, 0o775, "NotStarted"),
                                           (library, harness.owner[0], 0o755, "NotStarted"), (library, 0, 0o755, "")):
            os.chown(path, number, 0)
            path.chmod(mode)
            with self.subTest(path, number=number, mode=mode):
                self.assertEqual(Caller().authorize().run(RESTART), answer)
            os.chown(path, 0, 0)
            path.chmod(0o755)


class Grants(RightsTest):
    def test_what_uses_a_grant_up(self):
        other = Caller()
        for ending, restart in ("true", ""), ("exit 1", "NotAllowed"), ("kill -9 $$", "NotAllowed"):
            make_tool(INSTALLER, "echo ran; " + ending)
            caller = Caller().authorize()
            with self.subTest(ending):
                self.assertEqual((other.run(QUERY), caller.run(install())), ("NotAuthorized", "ran\n"))
                self.assertEqual((caller.run(RESTART), caller.run(REMOVE) if restart else ""), (restart, restart))
                self.assertEqual((caller.run(QUERY), caller.run(QUERY)), ("", "NotAllowed"), "the query stays allowed")

    def test_a_forged_end_of_a_connection_ends_no_grant(self):
        victim, attacker = Caller().authorize(), Caller()
        service = harness.rights.ask_bus("GetNameOwner", harness.NAME)
        attacker.bus.emit_signal(service, "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                                 GLib.Variant("(sss)", (victim.name, victim.name, "")))
        self.assertEqual((attacker.run(QUERY), victim.run(QUERY)), ("NotAuthorized", ""), "in the order sent")

    def test_the_idle_service_exits(self):
        service = subprocess.Popen([MECHANISM, "1"], stderr=subprocess.DEVNULL)
        wait_for("the end of a service that nobody calls", lambda: service.poll() is not None)
        self.start_service_by(f"{MECHANISM} 0")
        make_tool(INSTALLER, HOLD)
        for is_running in True, False:
            with self.subTest(is_running=is_running):
                caller = Caller().authorize()
                first = harness.services.mechanism()
                self.assertEqual((caller.start(["/bin/rm"]), harness.services.mechanism()), ("NotAllowed", first))
                if is_running:
                    caller.start(install())
                caller.close()
                GO.touch()
                wait_for("the service's end", lambda: harness.services.mechanism() != first)

    def test_tools_run_in_a_clean_environment(self):
        make_tool(INSTALLER, REPORT)
        words = "|".join(["/bin/bash", *install()])
        environment = "PATH=/usr/sbin:/usr/bin:/sbin:/bin|LC_ALL=C|HOME=/root|"
        environment += f"INSTALLER_PACKAGE_USER={harness.owner[0]}"
        self.assertEqual(Caller().authorize().run(install()),
                         f"{'0' * 16}\n0\n0 0022 /\n{words}| {environment}| /dev/null\n")


def begin():
    caller = Caller().authorize()
    assert (caller.run(REMOVE), version()) == ("", None)
    return caller


class Application(RightsTest):
    def ends_with(self, expected):
        Caller().authorize()  # is answered when the attempt before is over
        self.assertEqual((version(), STAGING.exists()), (expected, False))
        (APPLICATION / "version").write_text("old\n")

    def test_each_ending_of_an_attempt(self):
        for name, end, expected in (
            ("installer fails", "exit 1", "old"), ("installer killed", "kill -9 $$", "old"),
            ("installer does nothing", "true", "old"), ("installed", REPLACE, "new"),
            ("connection closed", Caller.close, "old"),
            ("service killed", lambda _: self.kill(MECHANISM), "old"),
            ("begun again", lambda caller: (caller.close(), begin().close()), "old"),
            ("transaction killed", lambda caller: (self.kill(TRANSACTION), caller.close()), "old"),
            ("both killed", lambda _: (self.kill(TRANSACTION), self.kill(MECHANISM)), "old"),
        ):
            with self.subTest(name):
                caller = begin()
                if isinstance(end, str):
                    make_tool(INSTALLER, end)
                    self.assertEqual(caller.run(install()), "")
                else:
                    end(caller)
                self.ends_with(expected)

    def test_an_installer_that_outlives_its_caller_or_the_service(self):
        unit = (harness.PROJECT / "packaging/pellomar-downloader-rights.service").read_text()
        self.assertIn("\nKillMode=process\n", unit, "the service manager ends no installer either")
        for outcome, kill in ("new", False), ("new", True), ("old", False), ("old", True):
            with self.subTest(outcome, kill=kill):
                make_tool(INSTALLER, f"{HOLD}; {REPLACE if outcome == 'new' else 'exit 1'}")
                caller = begin()
                self.assertEqual(caller.start(install()), "")
                wait_for("the installer", STARTED.exists)
                self.kill(MECHANISM) if kill else caller.close()
                GO.touch()
                self.assertEqual(caller.output(), "done\n")
                self.ends_with(outcome)

    def test_attempts_run_one_at_a_time(self):
        self.addCleanup(shutil.move, shutil.copy("/bin/rm", "/bin/the-real-rm"), "/bin/rm")
        make_tool(Path("/bin/rm"), HOLD)
        first, second = Caller().authorize(), Caller()
        self.assertEqual(first.start(REMOVE), "")
        wait_for("the removal", STARTED.exists)
        first.close()
        with ThreadPoolExecutor() as aside:
            asking = aside.submit(second.call, "Authorize")
            wait_for("its turn's process", lambda: len(harness.rights.processes(TRANSACTION)) == 2)
            self.assertFalse(asking.done(), "another attempt's removal runs")
            GO.touch()
            self.assertEqual((asking.result(), version()), ("", "old"))


if __name__ == "__main__":
    main()
