#!/usr/bin/python3
"""Administrator rights against the real system bus, polkit, PAM and mechanism, asked for by an ordinary user.

Runs as root inside the throw-away view.
"""

import argparse
import os
import pwd
import select
import signal
import subprocess
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "stage"))
import rights  # noqa: E402
from rights import BUS_SERVICE, MECHANISM, USER, Agent, RightsStage, wait_until  # noqa: E402

SUCCESS, DENIED, NOT_CREATED = "0", "-60005", "-60033"
APPLICATION = Path("/Applications/Pellomar.app")
SCRIPT = Path("/Library/Application Support/NorvikEmu/VirtualBoxStartup.sh")
INSTALLER, KEXTSTAT = Path("/usr/sbin/installer"), Path("/usr/sbin/kextstat")
PROBE = Path("/usr/local/bin/rights_probe")
PACKAGE = Path(f"/home/{USER}/Downloads/NVInst/Pellomar.pkg")
GO = Path("/run/go")
STARTED = Path("/run/started")

REMOVE = ("/bin/rm", "-rf", APPLICATION)
INSTALL = (INSTALLER, "-pkg", PACKAGE, "-target", "/")
QUERY = (KEXTSTAT, "-b", "com.norvik.emu.kext.VBoxDrv")
RESTART = (SCRIPT, "restart")

# What a tool finds around it, one line each.
TELL = r"""#!/bin/bash
echo "words $(tr '\0' '|' </proc/$$/cmdline)"
echo "environment $(tr '\0' '|' </proc/$$/environ)"
echo "user $UID umask $(umask) folder $PWD input $(readlink /proc/$$/fd/0)"
for open in /proc/$$/fd/*; do
    number=${open##*/}
    if [[ $number -gt 2 && $number != 255 && -e $open ]]; then
        echo "descriptor $number $(readlink "$open")"
    fi
done
while read -r field value; do
    if [[ $field == SigBlk: ]]; then
        echo "blocked $value"
    elif [[ $field == SigIgn: ]]; then
        echo "ignores the broken pipe $((0x$value >> 12 & 1))"
    fi
done </proc/$$/status
"""
HOLD = """#!/bin/bash
echo begun
touch /run/started
while [[ ! -e /run/go ]]; do sleep 0.02; done
echo done
"""
DIE = "#!/bin/bash\necho working\nkill -SEGV $$\n"
# A pipe takes 64 KiB: nobody has read any of it when the tool dies.
FILL_AND_DIE = "#!/bin/bash\nhead -c 65536 /dev/zero | tr '\\0' x\ntouch /run/started\nkill -KILL $$\n"


def make_tool(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    path.chmod(0o755)


class Probe:
    """A process of an ordinary user that makes the authorization calls it is told to make."""

    def __init__(self, thread):
        start = rights.as_user(USER)
        self.process = subprocess.Popen(
            [str(PROBE), thread], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, **start
        )

    def begin(self, verb, *words):
        self.process.stdin.write(f"{verb} " + "\t".join(map(str, words)) + "\n" if words else f"{verb}\n")
        self.process.stdin.flush()
        self.verb = verb

    def answer(self):
        if not select.select([self.process.stdout], [], [], 30)[0]:
            self.kill()
            raise AssertionError(f"the probe hangs in {self.verb}")
        line = self.process.stdout.readline().rstrip("\n")
        if not line.startswith(self.verb + " "):
            raise AssertionError(f"the probe ended in {self.verb}: {line!r}, {self.process.poll()}")
        return line[len(self.verb) + 1 :]

    def tell(self, verb, *words):
        self.begin(verb, *words)
        return self.answer()

    def kill(self):
        self.process.kill()
        self.process.wait()

    def close(self):
        """Ends it by itself, for a sanitizer to have its say."""
        self.process.stdin.close()
        status = self.process.wait(30)
        self.process.stdout.close()
        if status not in (0, -signal.SIGKILL):
            raise AssertionError(f"the probe ended with {status}")


class Rights(unittest.TestCase):
    """The system's side runs when a test begins; RULE is what polkit says without asking anybody."""

    rule = None

    def setUp(self):
        for path in (GO, STARTED):
            path.unlink(missing_ok=True)
        for tool in (INSTALLER, KEXTSTAT, SCRIPT):
            make_tool(tool, TELL)
        (APPLICATION / "Contents").mkdir(parents=True, exist_ok=True)
        STAGE.start(self.rule)
        self.addCleanup(STAGE.stop)
        self.first_line = len(STAGE.journal())

    def probe(self, thread="worker"):
        probe = Probe(thread)
        self.addCleanup(probe.close)
        return probe

    def agent(self, probe, answer):
        agent = Agent(probe.process.pid, answer)
        self.addCleanup(agent.close)
        return agent

    def authorized(self, thread="worker"):
        probe = self.probe(thread)
        self.assertEqual((probe.tell("create"), probe.tell("copy")), (SUCCESS, SUCCESS))
        return probe

    def refused(self):
        """What the mechanism wrote about refusals in this test."""
        return [line for line in STAGE.journal()[self.first_line :] if " refused " in line]

    def kill_mechanism(self):
        process = STAGE.mechanism()
        self.assertIsNotNone(process)
        os.kill(process, signal.SIGKILL)
        wait_until("the end of the mechanism", lambda: STAGE.mechanism() is None)


class WithoutServices(Rights):
    def hide(self, path):
        content = path.read_bytes()
        path.unlink()
        self.addCleanup(path.write_bytes, content)

    def test_nothing_is_created_where_something_is_missing(self):
        self.assertEqual(self.probe().tell("create"), SUCCESS)
        STAGE.stop()
        for thread in ("worker", "main"):
            self.assertEqual(self.probe(thread).tell("create"), NOT_CREATED, "no bus")
        self.hide(Path("/usr/share/dbus-1/system-services/org.freedesktop.PolicyKit1.service"))
        STAGE.start_bus()
        self.assertEqual(self.probe().tell("create"), NOT_CREATED, "no polkit")
        STAGE.start_polkit()
        self.assertEqual(self.probe().tell("create"), SUCCESS)
        STAGE.kill(MECHANISM)
        content = MECHANISM.read_bytes()
        MECHANISM.unlink()
        self.assertEqual(self.probe("main").tell("create"), NOT_CREATED, "no mechanism")
        MECHANISM.write_bytes(content)
        MECHANISM.chmod(0o755)
        STAGE.stop()
        self.hide(BUS_SERVICE)
        STAGE.start()
        self.assertEqual(self.probe().tell("create"), NOT_CREATED, "no service")


class AllowedByRule(Rights):
    rule = "YES"

    def test_tools_run_as_root_in_clean_surroundings(self):
        probe = self.authorized()
        for tool, *arguments in (INSTALL, QUERY, RESTART):
            self.assertEqual(probe.tell("execute", tool, *arguments), SUCCESS)
            lines = probe.tell("read").rstrip("\t").split("\t")
            words = "|".join(["/bin/bash", str(tool), *map(str, arguments)])
            self.assertEqual(
                lines,
                [
                    f"words {words}|",
                    "environment PATH=/usr/sbin:/usr/bin:/sbin:/bin|LC_ALL=C|HOME=/root|",
                    "user 0 umask 0022 folder / input /dev/null",
                    "blocked 0000000000000000",
                    "ignores the broken pipe 0",
                ],
            )
        self.assertTrue(APPLICATION.exists())
        self.assertEqual(probe.tell("execute", *REMOVE), SUCCESS)
        self.assertEqual(probe.tell("read"), "")
        self.assertFalse(APPLICATION.exists())
        self.assertEqual(probe.tell("free"), SUCCESS)
        self.assertEqual(self.refused(), [])

    def test_an_authorization_is_one_connections_and_ends_with_it(self):
        probe, other = self.authorized(), self.probe()
        self.assertEqual(other.tell("create"), SUCCESS)
        self.assertEqual(other.tell("execute", *QUERY), f"{DENIED} no pipe", "a process that was not asked for")
        probe.tell("forget")
        self.assertEqual(probe.tell("create"), SUCCESS)
        self.assertEqual(probe.tell("execute", *QUERY), f"{DENIED} no pipe", "another connection of the process")
        self.assertEqual(len(self.refused()), 2)
        self.assertTrue(all("Error.NotAuthorized" in line for line in self.refused()), self.refused())

    def test_every_other_command_is_refused_with_one_line_each(self):
        probe = self.authorized()
        forged = (str(SCRIPT) + "\v" + MECHANISM.name + ": all is well", "restart")
        wrong = [("/bin/sh", "-c", f"touch {STARTED}"), ("/bin/rm", "-rf", "/Applications"), (SCRIPT, "start"), forged]
        for command in wrong:
            self.assertEqual(probe.tell("execute", *command), f"{DENIED} no pipe", command)
        self.assertTrue(APPLICATION.exists() and not STARTED.exists())
        self.assertEqual(len([line for line in self.refused() if "NotAllowed" in line]), len(wrong))

    def test_death_by_a_signal_is_said_in_the_output(self):
        probe = self.authorized()
        for (tool, *arguments), number in ((INSTALL, 11), (RESTART, 11)):
            make_tool(tool, DIE)
            self.assertEqual(probe.tell("execute", tool, *arguments), SUCCESS)
            words = probe.tell("read").split("\t")
            self.assertEqual(words[:2], ["working", ""])
            self.assertIn(f"ended by signal {number}", words[2])
            self.assertIn("Error", words[2])
        make_tool(KEXTSTAT, FILL_AND_DIE)
        self.assertEqual(probe.tell("execute", *QUERY), SUCCESS)
        wait_until("the full pipe", STARTED.exists)
        other = self.probe()
        self.assertEqual((other.tell("create"), other.tell("copy")), (SUCCESS, SUCCESS), "a full pipe holds up nobody")
        output = probe.tell("read")
        self.assertTrue(output.startswith("x" * 65536 + "\t"), output[:80])
        self.assertIn("Error - ended by signal 9", output)

    def test_the_mechanism_killed_around_a_command(self):
        probe = self.authorized()
        self.kill_mechanism()
        self.assertEqual(probe.tell("execute", *INSTALL), f"{DENIED} no pipe", "killed before the command")
        self.assertEqual(probe.tell("free"), SUCCESS)

        probe = self.authorized()
        make_tool(INSTALLER, HOLD)
        self.assertEqual(probe.tell("execute", *INSTALL), SUCCESS)
        wait_until("the installer", STARTED.exists)
        self.kill_mechanism()
        probe.begin("read")
        GO.touch()
        self.assertEqual(probe.answer(), "begun\tdone\t", "killed during the command, which goes on")
        self.assertEqual(probe.tell("execute", *QUERY), f"{DENIED} no pipe", "killed after a command")
        self.assertEqual(probe.tell("free"), SUCCESS)
        self.assertEqual(self.authorized().tell("execute", *QUERY), SUCCESS)



class Asked(Rights):
    """A person decides, in the password dialog."""

    def test_nobody_can_be_asked(self):
        probe = self.probe()
        self.assertEqual((probe.tell("create"), probe.tell("copy")), (SUCCESS, DENIED))
        agent = self.agent(probe, "right")
        self.assertEqual(probe.tell("copy-silently"), DENIED, "no interaction was allowed")
        self.assertEqual(agent.asked(), 0)

    def test_one_password_for_one_attempt_and_each_attempt_asks(self):
        for thread in ("worker", "main"):
            probe = self.probe(thread)
            agent = self.agent(probe, "right")
            for attempt, give_up in enumerate(("forget", "free", "free"), 1):
                self.assertEqual(probe.tell("create"), SUCCESS)
                alive = " alive" if thread == "main" else ""
                self.assertEqual(probe.tell("copy"), SUCCESS + alive, "events are served while a person types")
                self.assertEqual(probe.tell("copy").split()[0], SUCCESS, "what was obtained is not asked for again")
                for command in (REMOVE, INSTALL, QUERY, RESTART):
                    self.assertEqual(probe.tell("execute", *command), SUCCESS)
                    probe.tell("read")
                self.assertEqual(agent.asked(), attempt)
                self.assertEqual(probe.tell(give_up), SUCCESS)
            self.assertEqual([line for line in agent.lines() if "offered" in line], [])
        self.assertIn("管理员", agent.lines()[1])

    def wait_for_dialog(self, probe):
        agent = self.agent(probe, "wait")
        self.assertEqual(probe.tell("create"), SUCCESS)
        probe.begin("copy")
        wait_until("the dialog", lambda: agent.asked() == 1)
        return agent

    def is_cancelled(self, agent):
        wait_until("the dialog's end", lambda: "cancelled" in agent.lines())

    def test_the_mechanism_killed_while_a_person_types(self):
        for thread in ("worker", "main"):
            probe = self.probe(thread)
            agent = self.wait_for_dialog(probe)
            self.kill_mechanism()
            self.assertEqual(probe.answer().split()[0], DENIED)
            self.is_cancelled(agent)



def prepare(build):
    rights.add_users()
    subprocess.run(["install", "-m", "755", str(build / "tests/rights/rights_probe"), str(PROBE)], check=True)
    user = pwd.getpwnam(USER)
    PACKAGE.parent.mkdir(parents=True)
    PACKAGE.write_text("xar!")
    for path in (PACKAGE, *list(PACKAGE.parents)[:2]):
        os.chown(path, user.pw_uid, user.pw_gid)


if __name__ == "__main__":
    if os.environ.get("PELLOMAR_VIEW") != "1":
        sys.exit("rights_test.py: adds users and runs tools as root; runs only in the throw-away view")
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--project", type=Path, required=True)
    parser.add_argument("--build", type=Path, required=True)
    options, rest = parser.parse_known_args()
    prepare(options.build)
    STAGE = RightsStage(options.project, options.build, "/run/system.log")
    program = unittest.main(argv=[sys.argv[0], *rest], exit=False, verbosity=2)
    log = STAGE.log.read_text(errors="replace")
    good = program.result.wasSuccessful() and "Sanitizer" not in log
    if not good:
        print(log)
    sys.exit(not good)
