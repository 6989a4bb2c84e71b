"""The files that the downloader reads and writes: .config, the temporary folder, the disk that fills up."""

import subprocess
import urllib.parse

from harness import BAR, EndToEndTest, main, world

CANNOT_CREATE = "无法创建临时文件"
FAILED_TO_START = "下载失败，请直接双击镜像中的APP开始下载"
NETWORK_FAILURE = "网络异常，请稍后重试"
NOT_A_FOLDER = "路径中有一项不是文件夹"


class Configuration(EndToEndTest):
    def test_content_is_taken_as_it_is(self):
        rows = (
            # .config, the address's end, the request that the server sees
            ("empty", b"", "", "/soft/"),
            ("not UTF-8", b"\xff\xfe.pkg", "(null)", "/soft/(null)"),
            ("byte-order mark", b"\xef\xbb\xbfx.pkg", "\ufeffx.pkg", "/soft/\ufeffx.pkg"),
            ("Chinese", "包.pkg".encode(), "包.pkg", "/soft/包.pkg"),
            ("line feed", b"package.pkg\n", "package.pkg\n", None),
        )
        for name, content, end, request in rows:
            with self.row(name=name):
                self.world.offer(content)
                self.check(f"http://{self.world.address}/soft/{end}", request)

    def test_fallback(self):
        missing = f"Config File does not exists!:{world.FALLBACK}"
        unread = f"Open of File for reading failed:{world.FALLBACK}!"
        base = f"http://{self.world.address}"
        rows = (
            # whether .config and the volume's are there, the address, the log lines about files
            ("both", True, True, "/soft/package.pkg", []),
            ("only the volume's", False, True, "/soft/volume.pkg", [missing]),
            ("neither", False, False, None, [missing, unread]),
        )
        for name, primary, volume, request, lines in rows:
            with self.row(name=name):
                if not primary:
                    (self.world.disk / ".config").unlink()
                if volume:
                    world.FALLBACK.parent.mkdir(parents=True)
                    world.FALLBACK.write_text("volume.pkg")
                program = self.check(base + request if request else "", request)
                self.assertEqual([line for line in program.lines() if " File " in f" {line}"], lines)

    def check(self, url, request):
        """Starts, and compares the address in the log and the probe's path; None: the address is no good."""
        self.world.install_tools(world.BROKEN_INSTALLER)
        self.world.serve()
        program = self.start()
        program.wait_for_line("create temp file successful")
        self.assertIn(f"CoreImageView startDownload url:{url}\n", program.log())
        if request is None:
            program.wait_for_screen(FAILED_TO_START)
            self.assertEqual(program.lines().count("Error Code:3"), 1)
            self.assertEqual(self.world.requests(), [])
        else:
            program.wait_for("the request", self.world.requests)
            self.assertIn(f'"HEAD {request} HTTP', urllib.parse.unquote(self.world.requests()[0]))
        return program


class TemporaryFolder(EndToEndTest):
    def test_is_made_or_cleared(self):
        def old_file(downloads):
            (downloads / "NVInst").mkdir(parents=True)
            (downloads / "NVInst/Pellomar.tmp").write_text("from before")

        def file_in_its_place(downloads):
            downloads.mkdir()
            (downloads / "NVInst").write_text("a file")

        def folder_in_the_files_place(downloads):
            (downloads / "NVInst/Pellomar.tmp/deep").mkdir(parents=True)

        for prepare in (old_file, file_in_its_place, folder_in_the_files_place, lambda downloads: None):
            with self.row(prepare=prepare.__name__):
                prepare(self.home / "Downloads")
                self.world.serve()
                program = self.start()
                self.assert_left(program)
                self.assert_whole(program.file("pkg"))

    def test_cannot_be_made(self):
        def no_folder(downloads):
            downloads.write_text("a file")

        def read_only(downloads):
            self.mount(downloads, "ro")

        def read_only_inside(downloads):
            self.mount(downloads / "NVInst", "ro")

        rows = (
            (no_folder, NOT_A_FOLDER),
            (read_only, "磁盘是只读的，无法写入"),
            (read_only_inside, CANNOT_CREATE),
        )
        for prepare, status in rows:
            with self.row(prepare=prepare.__name__):
                prepare(self.home / "Downloads")
                self.world.serve()
                program = self.start()
                program.wait_for_screen(status, "停止", BAR)
                self.assertNotIn("create temp file successful", program.lines())
                self.assert_closes(program)
                self.assertEqual(program.events(), ["14 814", "13"])
                self.assertEqual(self.world.requests(), [])

    def test_full_disk_loses_nothing(self):
        folder = self.home / "Downloads/NVInst"
        self.mount(folder, "size=2m")
        self.world.serve()
        program = self.start()
        program.wait_for_screen(NETWORK_FAILURE, "继续", BAR)
        held = program.file().read_bytes()
        self.assertGreater(len(held), 1_000_000)
        self.assertTrue((self.world.soft / "package.pkg").read_bytes().startswith(held))

        program.press("继续")
        program.wait_for("the second failure", lambda: program.events().count("14 821") == 2)
        self.assertEqual(program.file().read_bytes(), held)

        subprocess.run(["mount", "-o", "remount,size=64m", folder], check=True)
        program.press("继续")
        self.assert_left(program)
        self.assert_whole(program.file("pkg"))

    def mount(self, folder, options):
        folder.mkdir(parents=True)
        # Ends with the view; the home that it lies in stays, too.
        subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", folder], check=True)


if __name__ == "__main__":
    main()
