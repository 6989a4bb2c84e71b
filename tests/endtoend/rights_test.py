"""An ordinary user's window, the system's password dialog, and the whole road once the answer is right."""

import os
import shutil
from itertools import product
from multiprocessing.managers import BaseManager

from harness import APPLICATION, BAR, PROJECT, Downloader, EndToEndTest, Server, main, xdotool
from rights import USER, Agent, RightsStage, add_users, processes
from stage import is_painted, wait_for

REFUSED = ("获取权限失败，请重试", "重试安装", BAR)
PRODUCT = APPLICATION / "Contents/MacOS/Pellomar"
OLD = APPLICATION / "Contents/old"


class System(RightsStage):
    def begin(self, rule=None):
        """Afresh, with an old copy of the application that only root may remove."""
        self.stop()
        self.kill(PRODUCT)
        shutil.rmtree(APPLICATION, ignore_errors=True)
        OLD.mkdir(parents=True)
        self.start(rule)

    def owners(self):
        return [os.stat(f"/proc/{process}").st_uid for process in processes(PRODUCT)]


class Rights(EndToEndTest):
    def agent(self, program, answer):
        agent = ROOT.Agent(program.process.pid, answer)
        self.addCleanup(agent.close)
        return agent

    def assert_refused(self, program, logged):
        program.wait_for_screen(*REFUSED)
        self.assertEqual(program.lines().count("Pre-auth failed"), logged)
        self.assertEqual(program.events(), ["14 814", "14 815"])
        self.assertTrue(OLD.exists())

    def test_a_refusal_does_nothing_and_a_retry_asks_again(self):
        # The rule, the person's answer, the times that the person is asked, the lines in the log.
        rows = ((None, None, 0, 1), (None, "wrong", 1, 1), (None, "close", 1, 0), ("NO", "right", 0, 1))
        for rule, answer, asked, logged in rows:
            SYSTEM.begin(rule)
            with self.subTest(rule=rule, answer=answer), Server(), Downloader() as program:
                program.open()
                agent = answer and self.agent(program, answer)
                program.press("开始")
                self.assert_refused(program, logged)
                if agent:
                    self.assertEqual(agent.asked(), asked)
                    agent.close()
                if rule:
                    SYSTEM.begin()
                agent = self.agent(program, "right")
                program.click("重试安装")
                program.wait_for_screen("是否保留已安装游戏和应用", "确定", "取消", BAR)
                self.assertEqual(agent.lines()[2:], ["gained"])
                program.press("确定")
                self.assert_launched(program)
                self.assertEqual(SYSTEM.owners(), [os.getuid()])
                self.assertEqual((agent.asked(), OLD.exists()), (1, False))
                self.assertEqual(program.lines().count("Pre-auth failed"), logged)
                self.assertEqual(sorted(program.events()), ["13", "14 814", "14 815", "14 817", "14 818", "14 826"])

    def test_an_open_dialog_leaves_the_window_alive_and_ends_with_it(self):
        for is_retry, is_killed in product((False, True), repeat=2):
            SYSTEM.begin()
            with self.subTest(is_retry=is_retry, is_killed=is_killed), Server(), Downloader() as program:
                program.open()
                agent = None if is_retry else self.agent(program, "wait")
                program.press("开始")
                if is_retry:
                    self.assert_refused(program, 1)
                    agent = self.agent(program, "wait")
                    program.click("重试安装")
                program.wait_for("the dialog", lambda: agent.asked() == 1)
                program.wait_for_screen("已完成下载", BAR)
                (window,) = program.windows()
                xdotool("windowminimize", "--sync", window, "windowactivate", "--sync", window)
                program.wait_for("the drawn window", lambda: is_painted(window))
                if is_killed:
                    program.process.kill()
                else:
                    program.close()
                    self.assert_left(program)
                wait_for("the end of the dialog", lambda: "cancelled" in agent.lines())
                self.assertTrue(OLD.exists())


def prepare(build):
    global ROOT, SYSTEM
    add_users()
    # A process that stays root when the tests become an ordinary user.
    BaseManager.register("System", System)
    BaseManager.register("Agent", Agent)
    ROOT = BaseManager(("127.0.0.1", 0))
    ROOT.start()
    SYSTEM = ROOT.System(PROJECT, build, "/run/system.log")


if __name__ == "__main__":
    main(USER, prepare)
