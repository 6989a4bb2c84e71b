"""What lets an ordinary user down: the network, the disk, and files that may not be read or written."""

import os
import re
import subprocess
from pathlib import Path
from unittest import mock

from harness import ADDRESS, BAR, PACKAGE, SMALL_DISK, Downloader, EndToEndTest, Server, main

READ_ONLY_HOME = Path("/run/只读 家")
NETWORK_FAILURE = ("网络异常，请稍后重试", "继续", BAR)
FAILED_TO_START = "下载失败，请直接双击镜像中的APP开始下载"


class Faults(EndToEndTest):
    def assert_downloaded(self, program):
        """Whole, and no further: this user has no rights to install."""
        program.wait_for_screen("获取权限失败，请重试", "重试安装", BAR)
        self.assert_whole(program.file("tmp"))

    def test_full_disk_loses_nothing(self):
        in_the_way = SMALL_DISK / "in-the-way"
        in_the_way.write_bytes(bytes(16 << 20))
        with Server(), Downloader() as program:
            (program.home / "Downloads").symlink_to(SMALL_DISK)
            program.start()
            program.wait_for_screen(*NETWORK_FAILURE)
            held = program.file("tmp").read_bytes()
            self.assertGreater(len(held), 1 << 20)
            self.assertTrue(PACKAGE.read_bytes().startswith(held))
            in_the_way.unlink()
            program.press("继续")
            self.assert_downloaded(program)

    def test_full_disk_for_the_log(self):
        with Server(), Downloader() as program:
            (program.home / "Documents").symlink_to(SMALL_DISK)
            in_the_way = SMALL_DISK / "in-the-way"
            self.addCleanup(in_the_way.unlink)
            self.assertRaises(OSError, in_the_way.write_bytes, bytes(32 << 20))
            program.start()
            self.assert_downloaded(program)
            self.assertEqual(program.log(), "")

    def test_home_that_may_not_be_written(self):
        for home, reason in (("", "没有写入权限，请检查文件夹权限"), (READ_ONLY_HOME, "磁盘是只读的，无法写入")):
            with self.subTest(home=home), Server() as server, Downloader() as program:
                program.home.chmod(0o555)
                program.home /= home
                program.start()
                program.wait_for_screen(reason, "停止", BAR)
                program.press("停止")
                self.assertEqual(server.requests("HEAD"), [])
                program.press("继续")
                program.wait_for_screen(*NETWORK_FAILURE)
                self.assertEqual(server.requests("GET"), [])

    def test_clock_that_jumps(self):
        (library,) = Path("/usr/lib").glob("*/faketime/libfaketime.so.1")
        with Server("2m"), Downloader() as program:
            clock, percents = program.folder / "clock", [0]
            clock.write_text("+0s")
            settings = ("FAKETIME_DONT_FAKE_MONOTONIC=1", "FAKETIME_NO_CACHE=1", f"FAKETIME_TIMESTAMP_FILE={clock}")
            program.start("env", *settings, f"LD_PRELOAD={library}", "ASAN_OPTIONS=verify_asan_link_order=0")
            for percent, offset in ((20, "-5s"), (60, "+1d"), (100, "+1d")):
                while percents[-1] < percent:
                    percents.append(program.percent())
                    speeds = [int(text[:-5]) << 10 for text in program.labels() if text.endswith(" KB/s")]
                    self.assertTrue(all(0 <= speed < PACKAGE.stat().st_size for speed in speeds), speeds)
                with open(clock, "r+") as text:
                    text.write(offset)
            self.assertEqual(percents, sorted(percents))
            self.assert_downloaded(program)
            self.assertEqual(len(set(re.findall(r"(?m)^(\S+) .*Pellomar.*\]", program.log()))), 2)  # days

    def test_log_is_in_documents(self):
        proxy = {"http_proxy": "http://visitor:secret@{}:{}".format(*ADDRESS), "no_proxy": ""}
        with mock.patch.dict(os.environ, proxy), Server(), Downloader() as program:
            program.start()
            self.assert_downloaded(program)
            (path,) = (program.home / "Documents").iterdir()
            self.assertTrue(re.fullmatch(r"LOG-\d{14}\.txt", path.name))
            self.assertRegex(program.inherited.read_text(), rf"\A.*\] {path}\n\Z")
            self.assertRegex(program.lines()[0], r"^PellomarDownloader \d+\.\d+\.\d+ on ")
            self.assertEqual(program.lines()[2], "start_button has been clicked")
            self.assertIn("Pre-auth failed", program.lines())
            self.assertNotIn("secret", program.log())
            self.assertEqual(path.stat().st_mode & 0o777, 0o600)

    def test_works_without_a_log(self):
        nowhere = ("sh", "-c", 'exec "$0" <&- >&- 2>&-')
        for home, mode, command in (("用 户", 0o755, ()), ("用 户", 0o755, nowhere), ("home", 0o555, ())):
            with self.subTest(home=home, command=command), Server(), Downloader(home) as program:
                (program.home / "Documents").mkdir(mode)
                program.start(*command)
                self.assert_downloaded(program)
                self.assertEqual(list((program.home / "Documents").iterdir()), [])
                self.assertEqual("Pre-auth failed" in program.inherited.read_text(), not command)

    def test_configuration_that_may_not_be_read(self):
        with Server() as server, Downloader() as program:
            program.config.chmod(0)
            program.start()
            program.wait_for_screen(FAILED_TO_START)
            self.assertIn(f"Open of File for reading failed:{program.disk}/Pellomar下载器.app/../.config!", program.log())
            self.assertIn("CoreImageView startDownload url:", program.lines())
            self.assertEqual(server.requests("HEAD"), [])


def prepare(_):
    READ_ONLY_HOME.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "tmpfs", READ_ONLY_HOME], check=True)


if __name__ == "__main__":
    main("nobody", prepare)
