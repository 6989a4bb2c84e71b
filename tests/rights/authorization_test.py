#!/usr/bin/python3
"""The window's side of the rights: the authorization calls of an ordinary user, and of root."""

import itertools
import os
import re
import select
import shutil
import signal
import subprocess
import sys
from pathlib import Path

import harness
from harness import (APPLICATION, BUS_SERVICE, GO, HOLD, INSTALLER, MECHANISM, PACKAGE, QUERY, REMOVE, RESTART,
                     STAGING, STARTED, TRANSACTION, USER, Agent, RightsTest, as_user, install, main, make_tool, version,
                     wait_for)

from packages import file, package
from rights import ADMINISTRATOR
from waiting import PATIENCE

SUCCESS, DENIED, NOT_STARTED, NOT_CREATED = "0", "-60005", "-60031", "-60033"
PROBE = Path("/usr/local/bin/rights_probe")


class Probe:
    """A process that makes the authorization calls it is asked to make, on the main THREAD or a worker."""

    def __init__(self, test, thread="worker", user=USER, **settings):
        subprocess.run(["install", Path(sys.argv[1]) / "tests/rights/rights_probe", PROBE], check=True)
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "text": True}
        start = as_user(user)
        start["env"] |= settings
        self.process = subprocess.Popen([PROBE, thread], **pipes, **start)
        test.addCleanup(self.close)

    def begin(self, *words):
        self.process.stdin.write("\t".join(words) + "\n")
        self.process.stdin.flush()

    def answer(self):
        if not select.select([self.process.stdout], [], [], PATIENCE)[0]:
            self.process.kill()
            raise AssertionError(f"no answer within {PATIENCE} s")
        return self.process.stdout.readline().rstrip("\n")

    def ask(self, *words):
        self.begin(*words)
        return self.answer()

    def authorized(self):
        answers = self.ask("create"), self.ask("ask")
        assert answers == (SUCCESS, SUCCESS), answers
        return self

    def close(self):
        self.process.stdin.close()  # which lets a sanitizer report
        self.process.stdout.close()
        assert self.process.wait(PATIENCE) in (0, -signal.SIGKILL), self.process.returncode


class AllowedWithoutPassword(RightsTest):
    def test_nothing_is_created_where_something_is_missing(self):
        polkit = Path("/usr/share/dbus-1/system-services/org.freedesktop.PolicyKit1.service")
        for path, thread in (polkit, "worker"), (BUS_SERVICE, "worker"), (MECHANISM, "main"):
            harness.services.stop()
            hidden = path.rename(path.with_suffix(".hidden"))
            harness.services.start_bus()
            if path != polkit:
                harness.services.start_polkit()
            with self.subTest(path):
                self.assertEqual(Probe(self, thread).ask("create"), NOT_CREATED)
            hidden.rename(path)
        harness.services.stop()
        self.assertEqual(Probe(self, "main").ask("create"), NOT_CREATED, "no bus")

    def test_the_service_killed_around_a_command(self):
        probe = Probe(self).authorized()
        self.kill(MECHANISM)
        self.assertEqual(probe.ask(*QUERY), DENIED)
        make_tool(INSTALLER, HOLD)
        probe.authorized().begin(*install())
        wait_for("the installer", STARTED.exists)
        self.kill(MECHANISM)
        GO.touch()
        self.assertEqual((probe.answer(), probe.ask(*QUERY)), (f"{SUCCESS}done\t", DENIED), "the tool keeps running")

    def test_root_runs_the_same_commands(self):
        probe = Probe(self, "worker", "root").authorized()
        answers = [probe.ask(*line) for line in (("/bin/rm", "-rf", "/Applications"), QUERY, QUERY)]
        INSTALLER.chmod(0o777)
        self.assertEqual([*answers, probe.ask(*install())], [DENIED, SUCCESS, DENIED, NOT_STARTED])

    def test_where_it_cannot_be_set_aside(self):
        """Nothing is removed. The installer that follows replaces the old application itself, or refuses."""
        apps, away, new = APPLICATION.parent, Path("/opt/away"), package(file("Applications/Pellomar.app/version", "new"))
        rows = (
            ("linked", f"mv {apps} {away}; ln -s {away} {apps}", f"rm {apps}; mv {away} {apps}", "old"),
            ("mounted", f"cp -a {apps} {away}; mount --bind {away} {apps}", f"umount {apps}; rm -r {away}", "old"),
            ("file system of its own", f"cp -a {apps} {away}; mount -t tmpfs none {apps}; cp -a {away}/. {apps}",
             f"umount {apps}; rm -r {away}", "old"),
            ("others' staging folder", f"mkdir -m 755 {STAGING}", f"rmdir {STAGING}", "old"),
            ("no program", f"mv {TRANSACTION} {away}", f"mv {away} {TRANSACTION}", "new"),
            ("program of others", f"chmod 775 {TRANSACTION}", f"chmod 755 {TRANSACTION}", "new"),
        )
        attempts = (USER, new), (USER, b"refused"), ("root", new)
        for (name, make, undo, good), (user, content) in itertools.product(rows, attempts):
            with self.subTest(name, user=user, is_good=content is new):
                self.set_up_files()
                shutil.copy(Path(sys.argv[1]) / "host/installer/installer", INSTALLER)
                PACKAGE.write_bytes(content)
                subprocess.run(["bash", "-ec", make], check=True)
                probe = Probe(self, "worker", user).authorized()
                self.assertEqual((probe.ask(*REMOVE), version()), (f"{SUCCESS}rm: not run\t", "old"))
                expected = good if content is new else "old"
                printed = probe.ask(*install())
                self.assertEqual(("Error" in printed, version()), (expected == "old", expected), printed)
                probe.close()
                subprocess.run(["bash", "-ec", undo], check=True)

    def test_each_ending_of_an_attempt_of_root(self):
        for text, end in ("exit 1", "keep"), ("true", "free"), (None, "free"), (None, "kill"):
            with self.subTest(installer=text, end=end):
                probe = Probe(self, "worker", "root").authorized()
                self.assertEqual((probe.ask(*REMOVE), APPLICATION.exists()), (SUCCESS, False))
                if text is not None:
                    make_tool(INSTALLER, text)
                    self.assertEqual(probe.ask(*install()), SUCCESS)
                os.kill(probe.process.pid, signal.SIGKILL) if end == "kill" else probe.ask(end)
                wait_for("the application", lambda: version() == "old" and not STAGING.exists())
        wait_for("nothing left over", lambda: not harness.rights.processes(TRANSACTION))


class Asked(RightsTest):
    rule = None

    def test_one_password_for_one_attempt_and_each_attempt_asks(self):
        for thread in "worker", "main":
            probe = Probe(self, thread)
            agent = Agent(probe.process.pid, "right")
            self.addCleanup(agent.close)
            for attempt, give_up in enumerate(("keep", "free"), 1):
                self.assertEqual((probe.ask("create"), probe.ask("ask")), (SUCCESS, SUCCESS))
                self.assertEqual(probe.ask("ask"), SUCCESS, "what was obtained is not asked for again")
                for line in REMOVE, install(), QUERY, RESTART:
                    self.assertEqual(probe.ask(*line), SUCCESS)
                self.assertEqual((agent.asked(), probe.ask(give_up)), (attempt, give_up))

    def test_a_password_in_every_kind_of_session(self):
        told = subprocess.run(["pkaction", "--verbose", "--action-id", harness.NAME], capture_output=True, text=True)
        self.assertEqual(re.findall(r"implicit (\w+): +(\S+)", told.stdout),
                         [(kind, "auth_admin") for kind in ("any", "inactive", "active")])

    def test_a_password_that_takes_longer_than_a_usual_call(self):
        self.start_service_by(f"/usr/bin/env SYSTEMD_BUS_TIMEOUT=1 {MECHANISM}")
        probe = Probe(self, SYSTEMD_BUS_TIMEOUT="4")
        agent = Agent(probe.process.pid, "slow")
        self.addCleanup(agent.close)
        probe.authorized()

    def test_more_dialogs_than_one_user_may_leave_open(self):
        probes, agents = [Probe(self) for _ in range(5)], []
        for probe in probes:
            agents.append(Agent(probe.process.pid, "wait"))
            self.assertEqual(probe.ask("create"), SUCCESS)
            probe.begin("ask")
            if probe is not probes[-1]:
                wait_for("the dialog", lambda: agents[-1].asked())
        self.assertEqual(probes[-1].answer(), DENIED)
        other = Probe(self, user=ADMINISTRATOR)
        agents.append(Agent(other.process.pid, "right", ADMINISTRATOR))
        other.authorized()
        for agent in agents:
            agent.close()
        self.assertEqual([probe.answer() for probe in probes[:-1]], [DENIED] * 4)

    def test_the_service_killed_during_the_password_dialog(self):
        for thread in "worker", "main":
            probe = Probe(self, thread)
            agent = Agent(probe.process.pid, "wait")
            self.addCleanup(agent.close)
            self.assertEqual(probe.ask("create"), SUCCESS)
            probe.begin("ask")
            wait_for("the dialog", lambda: agent.asked() == 1)
            self.kill(MECHANISM)
            self.assertEqual(probe.answer(), DENIED)
            wait_for("the dialog's end", lambda: "cancelled" in agent.lines())


if __name__ == "__main__":
    main()
