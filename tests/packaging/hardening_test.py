#!/usr/bin/python3
"""Whether the built programs carry the hardening that they were built for: hardening_test.py PROGRAM..."""

import re
import subprocess
import sys
import unittest

# Calls that FORTIFY replaces by checked ones wherever they appear.
FORMATTED = re.compile(r" UND v?(f|s|sn|d)?printf(@|$)", re.MULTILINE)
CHECKED = re.compile(r" UND __(f|vf|s|sn|vs|vsn|d|vd)?printf_chk(@|$)", re.MULTILINE)


def readelf(program):
    command = ["readelf", "-W", "-h", "-l", "-d", "--dyn-syms", program]
    return subprocess.run(command, capture_output=True, text=True, check=True, env={"LC_ALL": "C"}).stdout


class HardeningTest(unittest.TestCase):
    programs = []

    def test_every_program(self):
        for program in self.programs:
            elf = readelf(program)
            with self.subTest(program=program):
                self.assertRegex(elf, r"Type: +DYN")
                self.assertRegex(elf, r"FLAGS_1.*\bPIE\b")
                self.assertIn(" GNU_RELRO ", elf)
                self.assertRegex(elf, r"\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*\bNOW\b")
                self.assertRegex(elf, r"GNU_STACK .* RW +0x")
                self.assertIn(" __stack_chk_fail", elf)
                self.assertNotRegex(elf, FORMATTED)

    def test_some_formatting_is_checked(self):
        self.assertTrue(any(CHECKED.search(readelf(program)) for program in self.programs))


if __name__ == "__main__":
    HardeningTest.programs = sys.argv[1:]
    unittest.main(argv=[sys.argv[0]], verbosity=2)
