"""The whole road as a screen reader finds and walks it, without a mouse or a look at the pixels."""

import os
import re
import signal

from harness import BAR, EndToEndTest, main, running, wait_for, world
from stage import Atspi

PRODUCT = str(world.APPLICATION / "Contents/MacOS/Pellomar")


class Road(EndToEndTest):
    def test_real_package_from_start_to_launch(self):
        build = self.world.build
        for tool in ("installer", "kextstat"):
            world.put_program(f"/usr/sbin/{tool}", (build / "host" / tool / tool).read_bytes())
        self.world.offer((build / ".config").read_bytes())
        self.world.serve("3m", build / "sample")
        old = world.APPLICATION / "Contents/old"
        old.parent.mkdir(parents=True)
        old.touch()

        program = self.open()
        program.wait_for("the first screen", lambda: program.button("开始"))
        self.assertEqual(program.screen(), ({"开始"}, []))
        self.check_agreement(program)

        program.press("开始")
        program.wait_for_screen("正在下载Pellomar", "停止", BAR)
        program.wait_for("a fifth of the package", lambda: program.percent() >= 20)
        program.wait_for("a measured speed", lambda: self.speed(program) > 0)
        program.press("停止")
        program.wait_for_screen("已停止下载", "继续", BAR)
        percent, held = program.percent(), program.file().stat().st_size
        (package,) = (build / "sample/soft").glob("*.pkg")
        self.assertEqual(percent, int(held * 100 / package.stat().st_size))

        program.press("继续")
        program.wait_for("the question", lambda: program.button("确定"))
        self.assertEqual(program.screen()[0], {"确定", "取消", BAR})
        for text in ("已完成下载", "安装向导", "是否保留已安装游戏和应用"):
            self.assertIn(text, program.screen()[1])
        self.assertEqual(program.percent(), 100)
        self.assertIn(f'range="bytes={held}-" 206', "".join(self.world.requests()))
        program.press("确定")
        self.assert_left(program)

        (process,) = wait_for("the product", lambda: running(PRODUCT))
        os.kill(process, signal.SIGTERM)
        self.assert_whole(program.file("pkg"), package)
        self.assertFalse(old.exists())
        self.assertEqual(sorted(program.events()), sorted(["14 814", "14 815", "14 817", "14 818", "14 826", "13"]))

    def check_agreement(self, program):
        """There, ticked, and not shown to anybody."""
        (box,) = [item for item in program.root().walk() if item.role() == "check box"]
        self.assertEqual(box.name(), "同意许可协议")
        self.assertFalse(box.is_showing())
        self.assertTrue(box.node.get_state_set().contains(Atspi.StateType.CHECKED))

    def speed(self, program):
        for text in program.screen()[1]:
            if found := re.fullmatch(r"(\d+) KB/s", text):
                return int(found[1])
        return -1

    def test_package_that_does_not_install_is_fetched_again(self):
        self.world.install_tools(installer=world.BROKEN_INSTALLER)
        self.world.serve()
        program = self.start()
        program.wait_for_screen("安装Pellomar失败，请尝试重新下载安装!", "重试下载", BAR)
        self.world.install_tools()
        program.press("重试下载")
        self.assert_left(program)
        self.assertEqual(program.events().count("14 814"), 2)
        self.assertEqual(sum("GET" in line for line in self.world.requests()), 2)
        self.assert_whole(program.file("pkg"))

    def test_driver_that_does_not_load_is_started(self):
        world.put_program("/usr/local/bin/xdg-open", '#!/bin/sh\necho "$@" >>"$HOME/opened"\n')
        world.put_program(world.STARTUP, '#!/bin/sh\necho "$1: VBoxDrv is loaded"\n')
        world.put_program("/usr/sbin/kextstat", world.DRIVER_ABSENT)
        self.world.serve()
        program = self.start()
        program.wait_for("the guidance", lambda: program.button("立即前往设置"))
        self.assertEqual(program.screen()[0], {"立即前往设置", "重试安装", BAR})
        program.press("立即前往设置")
        program.wait_for_screen("安装vbox驱动失败，请重试", "重试安装", BAR)
        wait_for("the settings", (program.home / "opened").exists)
        self.assertEqual((program.home / "opened").read_text(), "/System/Library/PreferencePanes/Security.prefPane\n")
        program.press("重试安装")
        self.assert_left(program)
        self.assertIn("restart: VBoxDrv is loaded", program.lines())
        self.assertEqual(sorted(program.events()[-3:]), ["13", "14 823", "14 825"])


if __name__ == "__main__":
    main()
