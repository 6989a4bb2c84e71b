"""The statistics tool is the maker's, and nothing that it does may change anything for the user."""

import os
import re
import signal
from pathlib import Path

from harness import BAR, EndToEndTest, main, processes, wait_for, world

EVENTS = ["14 814", "14 815", "14 817", "14 818", "14 826", "13"]


class StatisticsTool(EndToEndTest):
    def test_changes_nothing_else(self):
        def working(tool):
            pass

        def missing(tool):
            tool.unlink()

        def not_executable(tool):
            tool.chmod(0o644)

        def no_program(tool):
            tool.write_bytes(b"")

        def hanging(tool):
            world.put_program(tool, "#!/bin/sh\nexec sleep 600\n")

        def slow(tool):
            real = tool.rename(tool.with_name("real"))
            world.put_program(tool, f"#!/bin/sh\nsleep 1\nexec '{real}' \"$@\"\n")

        expected = []
        for prepare in (working, missing, not_executable, no_program, hanging, slow):
            with self.row(prepare=prepare.__name__):
                prepare(self.world.statistics_tool())
                program, lines = self.follow_road()
                expected = expected or lines
                self.assertEqual(lines, expected)
                if prepare is hanging:
                    self.end_hanging_tools()
                if prepare in (working, slow):
                    wait_for("all events", lambda: len(program.events()) == len(EVENTS))
                    self.assertEqual(sorted(program.events()), sorted(EVENTS))

    def follow_road(self):
        """From the start to the launch. Returns the program and what it logged, but for the hour."""
        self.world.install_tools(world.held(world.QUICK_INSTALLER))
        self.world.serve()
        program = self.start()
        program.wait_for_screen("正在安装Pellomar", BAR)
        # No tool is its child for longer than the start takes: none that runs still, and no zombie.
        program.wait_for("only the installer", lambda: children(program.process.pid) == [("installer", False)])
        world.let_go()
        self.assertEqual(program.exit_status(), 0)
        wait_for("the application", (program.home / "started").exists)
        lines = [line.replace(str(program.home), "HOME") for line in program.lines()]
        return program, [line for line in lines if not re.match(r"(Date|Last-Modified|ETag): ", line)]

    def end_hanging_tools(self):
        hanging = processes("sleep")
        self.assertEqual(len(hanging), len(EVENTS))
        for process in hanging:
            os.kill(process, signal.SIGKILL)


def children(parent):
    """The name of each child, and whether it has ended and awaits reaping."""
    found = []
    for path in Path("/proc").glob("[0-9]*/stat"):
        try:
            name, rest = re.fullmatch(r"\d+ \((.*)\) (.*)\n", path.read_text()).groups()
        except OSError:
            continue  # it ended meanwhile
        state, its_parent = rest.split()[:2]
        if int(its_parent) == parent:
            found.append((name, state == "Z"))
    return found


if __name__ == "__main__":
    main()
