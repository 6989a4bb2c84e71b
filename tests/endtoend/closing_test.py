"""Every way out: the close button in each state, at any moment of a download, and the launch."""

import fcntl
import os
import random
import shutil
import signal
import socket
import threading
import time

from harness import BAR, EndToEndTest, main, wait_for, world, xdotool

CLOSES = int(os.environ.get("PELLOMAR_TEST_CLOSES", 40))
LAUNCHES = int(os.environ.get("PELLOMAR_TEST_LAUNCHES", 10))
SEED = int(os.environ.get("PELLOMAR_TEST_SEED", time.time()))


class CloseButton(EndToEndTest):
    def test_in_each_state(self):
        states = (
            self.first_screen,
            self.probing,
            self.downloading,
            self.stopped,
            self.network_failure,
            self.probe_failed,
            self.installing,
            self.install_failed,
        )
        for state in states:
            with self.row(state=state.__name__):
                self.assert_closes(state())

    def first_screen(self):
        program = self.open()
        program.window()
        return program

    def probing(self):
        with socket.create_server(self.world.endpoint()) as silent:
            program = self.start()
            self.connection, _ = silent.accept()
        program.wait_for_screen("正在检测网络", "停止", BAR)
        self.addCleanup(self.connection.close)
        return program

    def downloading(self):
        self.world.serve("300k")
        program = self.start()
        program.wait_for("the first percent", lambda: program.percent() >= 1)
        return program

    def stopped(self):
        program = self.downloading()
        program.press("停止")
        program.wait_for_screen("已停止下载", "继续", BAR)
        return program

    def network_failure(self):
        program = self.downloading()
        self.world.stop_serving()
        program.wait_for_screen("网络异常，请稍后重试", "继续", BAR)
        return program

    def probe_failed(self):
        program = self.start()
        program.wait_for_screen("下载失败，请直接双击镜像中的APP开始下载")
        return program

    def installing(self):
        self.world.install_tools(world.held(world.QUICK_INSTALLER))
        self.world.serve()
        program = self.start()
        program.wait_for_screen("正在安装Pellomar", BAR)
        return program

    def install_failed(self):
        self.world.install_tools(world.BROKEN_INSTALLER)
        self.world.serve()
        program = self.start()
        program.wait_for_screen("安装Pellomar失败，请尝试重新下载安装!", "重试下载", BAR)
        return program

    def test_does_nothing_while_a_dialog_is_open(self):
        world.APPLICATION.mkdir(parents=True)
        self.world.serve()
        program = self.start()
        program.wait_for("the question", lambda: program.button("确定"))
        dialog = program.dialog()
        self.world.x.close_window(program.window())
        self.world.x.close_window(dialog)
        xdotool("windowactivate", "--sync", dialog, "key", "Escape")
        # The move arrives after the requests: when it is seen, they have been dealt with.
        place = program.button("确定").centre()
        xdotool("windowmove", dialog, 5, 5)
        program.wait_for("the moved dialog", lambda: program.button("确定").centre() != place)
        self.assertNotIn("window close", program.lines())
        self.assertEqual(program.events(), ["14 814", "14 815"])
        program.press("取消")
        self.assert_left(program)

    def test_at_any_moment_of_a_download_at_full_speed(self):
        print(f"{CLOSES} closes, PELLOMAR_TEST_SEED={SEED}", flush=True)
        moments = random.Random(SEED)
        self.world.serve()
        self.world.offer("huge.pkg")
        for number in range(CLOSES):
            # From the press itself, through the probe and the first block, to the midst of it.
            moment = moments.choice((0.02, 0.1, 0.4)) * moments.random()
            with self.subTest(number=number, moment=moment):
                program = self.open(home=self.new_home())
                window = program.window()
                program.press("开始")
                time.sleep(moment)
                self.world.x.close_window(window)
                self.assert_left(program)
                self.assertEqual(program.lines().count("window close"), 1)
                self.programs.remove(program)
                self.put_away(program)


class Launch(EndToEndTest):
    def test_leaves_while_the_window_repaints(self):
        self.world.serve()
        for number in range(LAUNCHES):
            with self.subTest(number=number):
                shutil.rmtree(world.APPLICATION, ignore_errors=True)
                program = self.open(home=self.new_home())
                window = program.window()
                with Repainting(self.world.x, window):
                    program.press("开始")
                    self.assert_left(program)
                wait_for("the application", (program.home / "started").exists)
                self.assertEqual((program.home / "started").read_text(), "started\n")


    def test_and_close_button_at_once_submit_once(self):
        self.world.install_tools(kextstat=world.held(world.DRIVER_LOADED))
        self.world.serve()
        program = self.start()
        program.wait_for_screen("正在查询vbox驱动状态", BAR)
        with HeldFile(world.APPLICATION / "Contents/MacOS/Pellomar") as product:
            world.let_go()
            product.wait_for_start()
            self.assertEqual(program.events()[-1:], ["14 826"])
            with HeldFile(self.world.statistics_tool()) as tool:
                product.let_go()
                tool.wait_for_start()
                program.close_window()
                program.wait_for_line("window close")
        self.assert_left(program)


class HeldFile:
    """A program's file that can't be started until it is let go: whoever does waits in the kernel."""

    def __init__(self, path):
        signal.signal(signal.SIGIO, signal.SIG_IGN)  # the kernel's way to say that somebody waits
        self.file = os.open(path, os.O_RDWR)

    def __enter__(self):
        wait_for("the file that nobody has open", lambda: self.lease(fcntl.F_WRLCK))
        return self

    def lease(self, kind):
        try:
            return fcntl.fcntl(self.file, fcntl.F_SETLEASE, kind) == 0
        except BlockingIOError:
            return False

    def wait_for_start(self):
        wait_for("the start", lambda: fcntl.fcntl(self.file, fcntl.F_GETLEASE) != fcntl.F_WRLCK)

    def let_go(self):
        if self.file is not None:
            os.close(self.file)
            self.file = None

    def __exit__(self, *_):
        self.let_go()


class Repainting:
    """Makes a window paint itself again and again, as fast as it can."""

    def __init__(self, x, window):
        self.thread = threading.Thread(target=self.run, args=(x, window))
        self.over = False

    def run(self, x, window):
        while not self.over:
            x.expose(window)

    def __enter__(self):
        self.thread.start()

    def __exit__(self, *_):
        self.over = True
        self.thread.join()


if __name__ == "__main__":
    main()
