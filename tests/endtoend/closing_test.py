"""Every way out: the close button in several states, at any moment of a download, and the launch."""

import os
import random
import socket
import subprocess
import time
from pathlib import Path

from harness import ADDRESS, APPLICATION, BAR, PACKAGE, Downloader, EndToEndTest, Server, main, xdotool

CLOSES = int(os.environ.get("PELLOMAR_TEST_CLOSES", 40))
LAUNCHES = int(os.environ.get("PELLOMAR_TEST_LAUNCHES", 10))
RANDOM = int(os.environ.get("PELLOMAR_TEST_RANDOM", time.time()))
INSTALLER = Path("/usr/sbin/installer")
HANGS = "#!/bin/sh\nexec sleep 600\n"


class Close(EndToEndTest):
    def assert_closes(self, program):
        program.close()
        self.assert_left(program)
        self.assertEqual(program.lines().count("window close"), 1)

    def test_on_the_first_screen(self):
        with Downloader() as program:
            program.open()
            self.assert_closes(program)

    def test_while_the_server_is_silent(self):
        with socket.create_server(ADDRESS), Downloader() as program:
            program.start()
            program.wait_for_screen("正在检测网络", "停止", BAR)
            self.assert_closes(program)

    def test_during_the_installation(self):
        self.addCleanup(INSTALLER.write_bytes, INSTALLER.read_bytes())
        INSTALLER.write_text(HANGS)
        with Server(), Downloader() as program:
            program.start()
            program.wait_for_screen("正在安装Pellomar", BAR)
            self.assert_closes(program)

    def test_does_nothing_while_a_question_is_open(self):
        with Server(), Downloader() as program:
            APPLICATION.mkdir(parents=True)
            program.start()
            place = program.wait_for("the question", lambda: program.button("确定")).centre()
            program.wait_for("its window", lambda: len(program.windows()) == 2)
            program.close()
            # The moves arrive after the requests: when one is seen, those have been dealt with.
            for window in program.windows():
                xdotool("windowmove", window, 5, 5)
            program.wait_for("the moved question", lambda: program.button("确定").centre() != place)
            self.assertEqual(program.events(), ["14 814", "14 815"])
            program.press("确定")
            self.assert_left(program)
            self.assertNotIn("window close", program.lines())

    def test_at_any_moment_of_a_download_at_full_speed(self):
        print(f"{CLOSES} closes, PELLOMAR_TEST_RANDOM={RANDOM}", flush=True)
        moments = random.Random(RANDOM)
        huge = PACKAGE.with_name("huge.pkg")
        huge.touch()
        os.truncate(huge, 4 << 30)
        with Server():
            for number in range(CLOSES):
                # From the press itself, through the probe and the first block, to the midst of it.
                moment = moments.choice((0.02, 0.1, 0.4)) * moments.random()
                with self.subTest(number=number, moment=moment), Downloader() as program:
                    program.config.write_text(huge.name)
                    program.start()
                    time.sleep(moment)
                    self.assert_closes(program)


class Launch(EndToEndTest):
    def test_leaves_while_the_window_repaints(self):
        repainting = subprocess.Popen(["sh", "-c", "while xrefresh; do :; done"])
        self.addCleanup(repainting.kill)
        with Server():
            for number in range(LAUNCHES):
                with self.subTest(number=number), Downloader() as program:
                    program.start()
                    self.assert_launched(program)
                    self.assert_left(program)
        self.assertIsNone(repainting.poll())

    def test_needs_no_statistics_tool(self):
        for name, prepare in (("missing", Path.unlink), ("hanging", lambda tool: tool.write_text(HANGS))):
            with self.subTest(name=name), Server(), Downloader() as program:
                prepare(program.tool)
                program.start()
                self.assert_launched(program)


if __name__ == "__main__":
    main()
