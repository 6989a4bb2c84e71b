"""The whole road as a screen reader finds and walks it, and what a mouse's and a keyboard's presses do."""

import re
import socket
import threading

from harness import ADDRESS, APPLICATION, BAR, PACKAGE, Downloader, EndToEndTest, Server, main, xdotool
from stage import Atspi

DOWNLOADING = "正在下载Pellomar"
STOPPED = "已停止下载"
HALF = 6 << 20


class Road(EndToEndTest):
    def test_from_start_to_launch_through_accessibility_alone(self):
        with Server("3m") as server, Downloader() as program:
            old = APPLICATION / "Contents/old"
            old.mkdir(parents=True)
            program.open()
            self.assertEqual(program.screen(), ({"开始"}, []))
            (agreement,) = [item for item in program.root().walk() if item.role() == "check box"]
            self.assertEqual(agreement.name(), "同意许可协议")
            self.assertTrue(agreement.node.get_state_set().contains(Atspi.StateType.CHECKED))

            program.press("开始")
            program.wait_for_screen(DOWNLOADING, "停止", BAR)
            program.wait_for_percent(20)
            program.wait_for("a speed", lambda: any(re.fullmatch(r"[1-9]\d* KB/s", text) for text in program.labels()))
            program.press("停止")
            program.wait_for_screen(STOPPED, "继续", BAR)
            held = program.file("tmp").stat().st_size
            self.assertEqual(program.percent(), held * 100 // PACKAGE.stat().st_size)

            program.press("继续")
            program.wait_for_screen("是否保留已安装游戏和应用", "确定", "取消", BAR)
            self.assertLess({"已完成下载", "安装向导"}, set(program.labels()))
            self.assertEqual(program.percent(), 100)
            self.assertIn(f'range="bytes={held}-" 206', server.requests("GET")[-1])
            program.press("确定")
            self.assert_launched(program)
            self.assert_whole(program.file("pkg"))
            self.assertFalse(old.exists())
            self.assertEqual(sorted(program.events()), ["13", "14 814", "14 815", "14 817", "14 818", "14 826"])


class Half(EndToEndTest):
    def answer(self, server, status):
        """Half the package, nothing to who asks for the rest, and then all of it."""
        package, head = PACKAGE.read_bytes(), b"HTTP/1.1 %d Status\r\nContent-Length: %d\r\n\r\n"
        right = head % (200, len(package))
        for answer in (right, right + package[:HALF], right, head % (status, 0), right, right + package):
            connection, _ = server.accept()
            with connection:
                connection.recv(4096)
                connection.sendall(answer)

    def test_is_refused_where_it_counts_as_whole(self):
        for status in (200, 204, 304, 416):
            with self.subTest(status=status), socket.create_server(ADDRESS) as server, Downloader() as program:
                threading.Thread(target=self.answer, args=(server, status), daemon=True).start()
                program.start()
                program.wait_for_screen("网络异常，请稍后重试", "继续", BAR)
                program.press("继续")
                program.wait_for_screen("安装Pellomar失败，请尝试重新下载安装!", "重试下载", BAR)
                self.assertEqual(program.file("pkg").stat().st_size, HALF)
                self.assertFalse(APPLICATION.exists())
                program.press("重试下载")
                self.assert_launched(program)
                self.assert_whole(program.file("pkg"))
                codes = (814, 821, 814, 815, 817, 822, 814, 815, 817, 818, 826)
                self.assertEqual(sorted(program.events()), ["13", *sorted(f"14 {code}" for code in codes)])


class Presses(EndToEndTest):
    def test_of_a_double_or_triple_click_only_the_first_counts(self):
        rows = (
            # The middle of the button; continue has stop's place, and a little off begins a new series.
            ("开始", 400, 290, DOWNLOADING, "停止"),
            ("停止", 394, 440, STOPPED, "继续"),
            ("继续", 406, 440, DOWNLOADING, "停止"),
        )
        for presses in (2, 3):
            with self.subTest(presses=presses), Server("300k"), Downloader() as program:
                program.open()
                (window,) = program.windows()
                for number, (name, x, y, status, after) in enumerate(rows, 1):
                    program.wait_for(f"the button {name}", lambda: program.button(name))
                    # Events arrive in order: when the window has seen the last click, it has dealt with all.
                    move = ("mousemove", "--window", window)
                    xdotool(*move, x, y, "click", "--repeat", presses, "--delay", 60, 1, *move, 4, 4, "click", 3)
                    hits = number * (presses + 1)
                    program.wait_for("the last click", lambda: program.lines().count("CoreImageView hitTest") == hits)
                    program.wait_for_screen(status, after, BAR)
                clicked = [line for line in program.lines() if line.endswith("has been clicked")]
                buttons = ("start_button", "stop_button", "continue_button")
                self.assertEqual(clicked, [f"{button} has been clicked" for button in buttons])
                self.assertEqual(program.events(), ["14 814"])

    def test_keys_press_the_button_that_has_the_focus(self):
        with Server("300k"), Downloader() as program:
            program.open()
            xdotool("windowactivate", "--sync", *program.windows())
            for name, key, after in (("开始", "space", "停止"), ("停止", "Return", "继续"), ("继续", "KP_Enter", "停止")):
                program.wait_for(f"the drawn button {name}", lambda: program.white(name) > 0)
                self.assertFalse(program.has_ring(name))
                program.wait_for(f"the focus on {name}", lambda: xdotool("key", "Tab") or program.has_ring(name))
                xdotool("key", key)
                program.wait_for(f"the button {after}", lambda: program.button(after))
            self.assertEqual(sum(line.endswith("has been clicked") for line in program.lines()), 3)


if __name__ == "__main__":
    main()
