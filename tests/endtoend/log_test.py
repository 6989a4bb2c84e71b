"""The log: where it goes, what it is called, and where it never goes."""

import subprocess
import time

from harness import EndToEndTest, main, wait_for


class Log(EndToEndTest):
    def test_begins_after_the_line_that_names_it(self):
        before = time.strftime("%Y%m%d%H%M%S")
        program = self.start()
        program.wait_for_line("Webstatic:Download Faild")
        after = time.strftime("%Y%m%d%H%M%S")

        (path,) = program.log_files()
        self.assertRegex(path.name, r"^LOG-\d{14}\.txt$")
        self.assertLessEqual(before, path.stem[4:])
        self.assertLessEqual(path.stem[4:], after)
        self.assertEqual(program.inherited_lines(), [str(path)])
        self.assertNotIn(str(path), program.log())
        self.assertEqual(program.lines()[0], "start_button has been clicked")

    def test_two_starts_within_one_second_share_the_name(self):
        for _ in range(10):
            wait_for("the beginning of a second", lambda: time.time() % 1 < 0.1)
            both = [self.open(), self.open()]
            wait_for("both names", lambda: len(both[0].inherited_lines()) == 2)
            if len(set(both[0].inherited_lines())) == 1:
                break
            for program in both:
                program.kill()
                for path in program.log_files():
                    path.unlink()
            both[0].inherited.unlink()
        else:
            self.fail("ten pairs, and never within one second")
        # The later start removed the earlier one's file, which goes on logging into what nobody sees.
        for program in both:
            program.press("开始")
            program.wait_for_status("下载失败，请直接双击镜像中的APP开始下载")
        self.assertEqual(len(both[0].log_files()), 1)
        self.assertEqual(both[0].lines().count("start_button has been clicked"), 1)
        for program in both:
            program.close_window()
            self.assertEqual(program.exit_status(), 0)

    def test_without_a_file_goes_where_it_went_and_never_into_the_download(self):
        def not_ascii(home):
            return home.rename(home.with_name(f"家-{home.name}"))

        def no_folder(home):
            (home / "Documents").write_text("a file")
            return home

        def read_only(home):
            (home / "Documents").mkdir()
            subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "tmpfs", home / "Documents"], check=True)
            self.addCleanup(subprocess.run, ["umount", home / "Documents"], check=True)
            return home

        closed = ("sh", "-c", 'exec "$0" <&- >&- 2>&-')
        rows = ((not_ascii, ()), (not_ascii, closed), (no_folder, ()), (read_only, closed))
        for prepare, command in rows:
            with self.row(prepare=prepare.__name__, command=command):
                home = prepare(self.home)
                self.world.serve("3m")
                program = self.start(home=home, command=command)
                program.press("停止")
                program.wait_for_status("已停止下载")
                program.press("继续")
                self.assert_left(program)
                self.assert_whole(program.file("pkg"))
                self.assertEqual(program.log_files(), [])
                if command != closed:
                    logged = program.inherited_lines()
                    self.assertIn(f"{home}/Documents/LOG-", logged[0])
                    self.assertIn("CoreImageView continueDownload", logged)


if __name__ == "__main__":
    main()
