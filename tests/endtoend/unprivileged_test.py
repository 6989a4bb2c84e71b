"""What only an ordinary user meets: files and folders that may not be read or written."""

from harness import BAR, EndToEndTest, main


class Unprivileged(EndToEndTest):
    def test_configuration_that_may_not_be_read(self):
        (self.world.disk / ".config").chmod(0)
        self.world.serve()
        program = self.start()
        program.wait_for_screen("下载失败，请直接双击镜像中的APP开始下载")
        path = f"{self.world.disk}/Pellomar下载器.app/../.config"
        self.assertEqual(program.lines().count(f"Open of File for reading failed:{path}!"), 1)
        self.assertIn("CoreImageView startDownload url:", program.lines())
        self.assertNotIn("Config File does not exists!", program.log())
        self.assertEqual(self.world.requests(), [])

    def test_download_folder_that_may_not_be_written(self):
        rows = (("Downloads", "没有写入权限，请检查文件夹权限"), ("Downloads/NVInst", "无法创建临时文件"))
        for folder, status in rows:
            with self.row(folder=folder):
                (self.home / folder).mkdir(parents=True)
                (self.home / folder).chmod(0o555)
                self.world.serve()
                program = self.start()
                program.wait_for_screen(status, "停止", BAR)
                (self.home / folder).chmod(0o755)
                self.assertEqual(self.world.requests(), [])
                self.assert_closes(program)

    def test_documents_that_may_not_be_written(self):
        (self.home / "Documents").mkdir(mode=0o555)
        self.world.serve()
        program = self.start()
        program.wait_for_screen("获取权限失败，请重试", "重试安装", BAR)
        (self.home / "Documents").chmod(0o755)
        self.assert_whole(program.file())
        self.assertEqual(program.log_files(), [])
        self.assertIn("create temp file successful", program.inherited_lines())
        self.assertEqual(program.events(), ["14 814", "14 815"])


if __name__ == "__main__":
    main(ordinary_user=True)
