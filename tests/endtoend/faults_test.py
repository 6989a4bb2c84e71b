"""What lets an ordinary user down: the network, the disk, and files that may not be read or written."""

import os
import re
import socket
from unittest import mock

from harness import ADDRESS, BAR, PACKAGE, SMALL_DISK, Downloader, EndToEndTest, Server, main

NETWORK_FAILURE = ("网络异常，请稍后重试", "继续", BAR)
FAILED_TO_START = "下载失败，请直接双击镜像中的APP开始下载"


class Faults(EndToEndTest):
    def assert_downloaded(self, program):
        """Whole, and no further: this user has no rights to install."""
        program.wait_for_screen("获取权限失败，请重试", "重试安装", BAR)
        self.assert_whole(program.file("tmp"))

    def test_server_that_goes_away_and_comes_back(self):
        with Server("3m") as server, Downloader() as program:
            program.start()
            program.wait_for_percent(10)
            server.process.terminate()
            program.wait_for_screen(*NETWORK_FAILURE)
            held = program.file("tmp").stat().st_size
            self.assertEqual(program.events(), ["14 814", "14 821"])

            with Server() as server:
                program.press("继续")
                self.assert_downloaded(program)
                (request,) = server.requests("GET")
            self.assertIn(f'range="bytes={held}-" 206', request)
            self.assertEqual(program.events(), ["14 814", "14 821", "14 814", "14 815"])

    def assert_gives_up(self, program, status, line):
        program.wait_for_screen(status)
        self.assertEqual(program.labels(), [status])
        self.assertEqual(program.lines().count(line), 1)
        self.assertEqual(program.events(), ["14 814", "14 821"])

    def test_nobody_answers(self):
        with Downloader() as program:
            program.start()
            self.assert_gives_up(program, FAILED_TO_START, "Error Code:7")

    def test_answer_tells_no_length(self):
        with socket.create_server(ADDRESS) as server, Downloader() as program:
            program.start()
            connection, _ = server.accept()
            with connection:
                self.assertRegex(connection.recv(4096), b"^HEAD /soft/")
                connection.sendall(b"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n")
            self.assert_gives_up(program, "文件不存在，请前往下载新版本Pellomar下载器", "Target File does not exists")

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
        for home, mode, command in (("家", 0o755, ()), ("家", 0o755, nowhere), ("home", 0o555, ())):
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


if __name__ == "__main__":
    main(user="nobody")
