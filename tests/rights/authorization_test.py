#!/usr/bin/python3
"""The window's side of the rights: the authorization calls of an ordinary user, and of root."""

import os
import select
import signal
import subprocess
import sys
from pathlib import Path

import harness
from harness import (APPLICATION, BUS_SERVICE, GO, HOLD, INSTALLER, KEXTSTAT, MECHANISM, QUERY, REMOVE, RESTART, STAGING,
                     STARTED, TRANSACTION, USER, Agent, RightsTest, as_user, install, main, make_tool, version,
                     wait_for)  # fmt: skip

SUCCESS, DENIED, CANCELED, NOT_STARTED, NOT_CREATED = "0", "-60005", "-60006", "-60031", "-60033"
PROBE = Path("/usr/local/bin/rights_probe")
ASK = 19


class Probe:
    """A process that makes the authorization calls it is told to make."""

    def __init__(self, thread="worker", user=USER):
        if not PROBE.exists():
            subprocess.run(["install", Path(sys.argv[1]) / "tests/rights/rights_probe", PROBE], check=True)
        start = as_user(user)
        self.process = subprocess.Popen([PROBE, thread], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, **start)

    def begin(self, verb, *words):
        self.process.stdin.write(f"{verb} " + "\t".join(map(str, words)) + "\n")
        self.process.stdin.flush()

    def answer(self):
        if not select.select([self.process.stdout], [], [], 90)[0]:
            self.process.kill()
        return self.process.stdout.readline().rstrip("\n")

    def tell(self, verb, *words):
        self.begin(verb, *words)
        return self.answer()

    def run(self, line):
        return self.tell("execute", *line) + (" " + self.tell("read") if line else "")

    def authorized(self):
        answers = self.tell("create"), self.tell("copy", ASK).split()[0]
        assert answers == (SUCCESS, SUCCESS), answers
        return self

    def close(self):
        """Ends it by itself, for a sanitizer to report."""
        self.process.stdin.close()
        status = self.process.wait(90)
        self.process.stdout.close()
        assert status in (0, -signal.SIGKILL), status


class AuthorizationTest(RightsTest):
    def probe(self, *arguments):
        probe = Probe(*arguments)
        self.addCleanup(probe.close)
        return probe

    def hide(self, path):
        content, mode = path.read_bytes(), path.stat().st_mode
        path.unlink()

        def restore():
            path.write_bytes(content)
            path.chmod(mode)

        self.addCleanup(restore)
        return restore


class AllowedByRule(AuthorizationTest):
    def test_nothing_is_created_where_something_is_missing(self):
        self.assertEqual(self.probe().tell("create"), SUCCESS)
        harness.stage.stop()
        for thread in "worker", "main":
            self.assertEqual(self.probe(thread).tell("create"), NOT_CREATED, "no bus")
        polkit = self.hide(Path("/usr/share/dbus-1/system-services/org.freedesktop.PolicyKit1.service"))
        harness.stage.start_bus()
        self.assertEqual(self.probe().tell("create"), NOT_CREATED, "no polkit")
        polkit()
        harness.stage.start_polkit()
        self.assertEqual(self.probe().tell("create"), SUCCESS)
        self.kill(MECHANISM)
        service = self.hide(MECHANISM)
        self.assertEqual(self.probe("main").tell("create"), NOT_CREATED, "no program")
        service()
        harness.stage.stop()
        self.hide(BUS_SERVICE)
        harness.stage.start("YES")
        self.assertEqual(self.probe().tell("create"), NOT_CREATED, "no service")

    def test_a_tool_that_is_missing(self):
        KEXTSTAT.unlink()
        self.assertEqual(self.probe().authorized().tell("execute", *QUERY), f"{NOT_STARTED} no pipe")

    def test_the_process_can_be_traced_only_without_rights(self):
        probe = self.probe()
        self.assertEqual(probe.tell("dumpable"), "1")
        probe.authorized()
        self.assertEqual((probe.tell("dumpable"), probe.tell("free"), probe.tell("dumpable")), ("0", SUCCESS, "1"))

    def test_the_service_killed_around_a_command(self):
        probe = self.probe().authorized()
        self.kill(MECHANISM)
        self.assertEqual(probe.tell("execute", *QUERY), f"{DENIED} no pipe")
        self.assertEqual(probe.tell("free"), SUCCESS)
        make_tool(INSTALLER, HOLD)
        self.assertEqual(probe.authorized().tell("execute", *install()), SUCCESS)
        wait_for("the installer", STARTED.exists)
        self.kill(MECHANISM)
        probe.begin("read")
        GO.touch()
        self.assertEqual(probe.answer(), "done\t", "the tool goes on")
        self.assertEqual(probe.tell("execute", *QUERY), f"{DENIED} no pipe")


class Asked(AuthorizationTest):
    """A person decides, in the password dialog."""

    rule = None

    def agent(self, probe, answer):
        agent = Agent(probe.process.pid, answer)
        self.addCleanup(agent.close)
        return agent

    def test_answers(self):
        probe = self.probe()
        self.assertEqual((probe.tell("create"), probe.tell("copy", ASK)), (SUCCESS, DENIED), "nobody to ask")
        for answer, expected in ("right", DENIED), ("wrong", DENIED), ("close", CANCELED):
            probe = self.probe()
            agent = self.agent(probe, answer)
            flags = ASK - 1 if answer == "right" else ASK  # without the user's interaction
            with self.subTest(answer):
                self.assertEqual((probe.tell("create"), probe.tell("copy", flags)), (SUCCESS, expected))
                self.assertEqual(agent.asked(), int(flags == ASK))

    def test_one_password_for_one_attempt_and_each_attempt_asks(self):
        for thread in "worker", "main":
            probe = self.probe(thread)
            agent = self.agent(probe, "right")
            for attempt, give_up in enumerate(("forget", "free", "free"), 1):
                self.assertEqual(probe.tell("create"), SUCCESS)
                alive = " alive" if thread == "main" else ""
                self.assertEqual(probe.tell("copy", ASK), SUCCESS + alive, "events are served while a person types")
                self.assertEqual(probe.tell("copy", ASK).split()[0], SUCCESS, "what was obtained is not asked for again")
                for line in REMOVE, install(), QUERY, RESTART:
                    self.assertEqual(probe.run(line), f"{SUCCESS} ")
                self.assertEqual((agent.asked(), probe.tell(give_up)), (attempt, SUCCESS))
            self.assertIn("管理员", agent.lines()[1])

    def test_the_service_killed_while_a_person_types(self):
        for thread in "worker", "main":
            probe = self.probe(thread)
            agent = self.agent(probe, "wait")
            self.assertEqual(probe.tell("create"), SUCCESS)
            probe.begin("copy", ASK)
            wait_for("the dialog", lambda: agent.asked() == 1)
            self.kill(MECHANISM)
            self.assertEqual(probe.answer().split()[0], DENIED)
            wait_for("the dialog's end", lambda: "cancelled" in agent.lines())


class Root(AuthorizationTest):
    """A window that is root already asks nobody, and runs the same commands under the same conditions."""

    def test_commands(self):
        probe = self.probe("worker", "root").authorized()
        self.assertEqual(probe.tell("execute", "/bin/rm", "-rf", "/Applications"), f"{DENIED} no pipe")
        self.assertEqual((probe.run(QUERY), probe.tell("execute", *QUERY)), (f"{SUCCESS} ", f"{DENIED} no pipe"))
        INSTALLER.chmod(0o777)
        self.assertEqual(probe.tell("execute", *install()), f"{NOT_STARTED} no pipe")

    def test_each_ending_of_an_attempt(self):
        for text, end in ("exit 1", "forget"), ("true", "free"), (None, "free"), (None, "kill"):
            with self.subTest(installer=text, end=end):
                probe = self.probe("worker", "root").authorized()
                self.assertEqual((probe.run(REMOVE), APPLICATION.exists()), (f"{SUCCESS} ", False))
                if text is not None:
                    make_tool(INSTALLER, text)
                    self.assertEqual(probe.run(install()), f"{SUCCESS} ")
                os.kill(probe.process.pid, signal.SIGKILL) if end == "kill" else probe.tell(end)
                wait_for("the application", lambda: version() == "old" and not STAGING.exists())
        wait_for("nothing left over", lambda: not harness.rights.processes(TRANSACTION))


if __name__ == "__main__":
    main()
