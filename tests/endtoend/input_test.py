"""What presses do: real events of a mouse and a keyboard on the real window."""

from harness import BAR, EndToEndTest, main, xdotool
from stage import Atspi

HIT = "CoreImageView hitTest"
DOWNLOADING = "正在下载Pellomar"
STOPPED = "已停止下载"
DOUBLE = ("click", "--repeat", 2, "--delay", 60, 1)
TRIPLE = ("click", "--repeat", 3, "--delay", 60, 1)


class Mouse(EndToEndTest):
    def setUp(self):
        super().setUp()
        self.world.serve("300k")
        self.presses = 0

    def mouse(self, program, presses, *arguments):
        """Lets the mouse act where it is, and waits until the window has dealt with all of it."""
        xdotool(*arguments)
        # Events arrive in order, and a press over the window is logged once, whatever becomes of it.
        xdotool("mousemove", "--window", program.window(), 4, 4, "click", 3)
        self.presses += presses + 1
        program.wait_for_line(HIT, self.presses)
        self.assertEqual(program.lines().count(HIT), self.presses)

    def clicked(self, program, button):
        return program.lines().count(f"{button} has been clicked")

    def test_on_start(self):
        rows = (
            # presses, whether it starts, what the mouse does
            ("single", 1, True, ("click", 1)),
            ("double", 2, True, DOUBLE),
            ("triple", 3, True, TRIPLE),
            ("right", 1, False, ("click", 3)),
            ("middle", 1, False, ("click", 2)),
            ("right double", 2, False, ("click", "--repeat", 2, "--delay", 60, 3)),
            ("released elsewhere", 1, True, ("mousedown", 1, "mousemove_relative", 0, 120, "mouseup", 1)),
            (
                "pressed elsewhere",
                1,
                False,
                ("mousemove_relative", 0, 120, "mousedown", 1, "mousemove_relative", "--", 0, -120, "mouseup", 1),
            ),
        )
        for name, presses, starts, arguments in rows:
            with self.row(name=name):
                program = self.open()
                program.point("开始")
                self.mouse(program, presses, *arguments)
                self.assertEqual(self.clicked(program, "start_button"), int(starts))
                self.assertEqual(self.clicked(program, "stop_button"), 0)
                if starts:
                    program.wait_for_screen(DOWNLOADING, "停止", BAR)
                    self.assertEqual(program.events(), ["14 814"])
                else:
                    self.assertEqual(program.screen(), ({"开始"}, []))
                    self.assertEqual(program.events(), [])

    def test_second_press_never_reaches_the_button_that_took_the_place(self):
        for name, clicks in (("double", DOUBLE), ("triple", TRIPLE)):
            with self.row(name=name):
                presses = clicks[2]
                program = self.start()
                program.wait_for_screen(DOWNLOADING, "停止", BAR)
                program.point("停止")
                self.mouse(program, presses, *clicks)
                program.wait_for_screen(STOPPED, "继续", BAR)
                self.assertEqual(self.clicked(program, "continue_button"), 0)

                # A little off, or it would be the fourth press of the same series.
                program.point("继续")
                self.mouse(program, presses, "mousemove_relative", 12, 0, *clicks)
                program.wait_for_screen(DOWNLOADING, "停止", BAR)
                self.assertEqual(self.clicked(program, "stop_button"), 1)
                self.assertEqual(self.clicked(program, "continue_button"), 1)
                self.assertEqual(program.events(), ["14 814"])

    def test_clicks_a_little_apart_are_two(self):
        program = self.start()
        program.wait_for_screen(DOWNLOADING, "停止", BAR)
        program.point("停止")
        self.mouse(program, 2, "click", 1, "sleep", 0.05, "mousemove_relative", 12, 0, "click", 1)
        program.wait_for_screen(DOWNLOADING, "停止", BAR)
        self.assertEqual(self.clicked(program, "stop_button"), 1)
        self.assertEqual(self.clicked(program, "continue_button"), 1)


class Keyboard(EndToEndTest):
    def test_each_key_is_one_click(self):
        self.world.serve("300k")
        program = self.open()
        xdotool("windowactivate", "--sync", program.window())
        rows = (
            ("开始", "space", "start_button", DOWNLOADING, "停止"),
            ("停止", "Return", "stop_button", STOPPED, "继续"),
            ("继续", "KP_Enter", "continue_button", DOWNLOADING, "停止"),
        )
        for name, key, button, status, after in rows:
            self.move_focus(program, name)
            xdotool("key", key)
            program.wait_for_screen(status, after, BAR)
            self.assertEqual(program.lines().count(f"{button} has been clicked"), 1)
        self.assertEqual(program.lines().count("stop_button has been clicked"), 1)
        self.assertNotIn(HIT, program.lines())
        self.assertEqual(program.events(), ["14 814"])

    @staticmethod
    def move_focus(program, name):
        def has_focus():
            button = program.button(name)
            return button and button.node.get_state_set().contains(Atspi.StateType.FOCUSED)

        program.wait_for(f"the focus on {name}", lambda: has_focus() or (xdotool("key", "Tab") and None))


if __name__ == "__main__":
    main()
