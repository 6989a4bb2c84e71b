#!/usr/bin/python3
"""Whether the built programs carry the hardening that they were built for.

hardening_test.py --compiler CXX PROGRAM...
"""

import argparse
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

# Calls that FORTIFY replaces by checked ones wherever they appear.
FORMATTED = re.compile(r" UND v?(f|s|sn|d)?printf(@|$)", re.MULTILINE)
CHECKED = re.compile(r" UND __(f|vf|s|sn|vs|vsn|d|vd)?printf_chk(@|$)", re.MULTILINE)

EXAMPLE = r"""
#include <cstdio>
#include <cstdlib>
int main(int argc, char** argv) {
    char text[64];
    std::snprintf(text, static_cast<unsigned>(std::atoi(argv[argc - 1])), "%s", argv[0]);
    return std::puts(text);
}
"""
HARDENED = "-O2 -fPIE -pie -fstack-protector-strong -D_FORTIFY_SOURCE=3 -Wl,-z,relro,-z,now,-z,noexecstack".split()
FAULTS = {
    "not position independent": ["-fno-PIE", "-no-pie"],
    "relocations stay writable": ["-Wl,-z,norelro"],
    "symbols are bound late": ["-Wl,-z,lazy"],
    "executable stack": ["-Wl,-z,execstack"],
    "no stack protector": ["-fno-stack-protector"],
    "unchecked formatting": ["-U_FORTIFY_SOURCE"],
}


def readelf(program):
    return subprocess.run(
        ["readelf", "-W", "-h", "-l", "-d", "--dyn-syms", str(program)],
        capture_output=True,
        text=True,
        check=True,
        env={"LC_ALL": "C"},
    ).stdout


def faults(elf):
    stack = re.search(r"GNU_STACK .* (R?W?E?) +0x", elf)
    present = {
        "not position independent": not re.search(r"Type: +DYN", elf) or not re.search(r"FLAGS_1.*\bPIE\b", elf),
        "relocations stay writable": " GNU_RELRO " not in elf,
        "symbols are bound late": not re.search(r"\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*\bNOW\b", elf),
        "executable stack": stack is None or "E" in stack.group(1),
        "no stack protector": " __stack_chk_fail" not in elf,
        "unchecked formatting": bool(FORMATTED.search(elf)),
    }
    return {fault for fault, is_there in present.items() if is_there}


class HardeningTest(unittest.TestCase):
    compiler = None
    programs = []

    def test_the_programs_have_no_fault(self):
        for program in self.programs:
            with self.subTest(program=program.name):
                self.assertEqual(faults(readelf(program)), set())

    def test_some_formatting_is_checked(self):
        self.assertTrue(any(CHECKED.search(readelf(program)) for program in self.programs))

    def test_each_fault_would_be_seen(self):
        with tempfile.TemporaryDirectory() as folder:
            source, program = Path(folder, "example.cpp"), Path(folder, "example")
            source.write_text(EXAMPLE)
            for fault, options in {None: [], **FAULTS}.items():
                with self.subTest(fault=fault):
                    subprocess.run(
                        [self.compiler, "-w", *HARDENED, *options, "-o", str(program), str(source)], check=True
                    )
                    self.assertEqual(faults(readelf(program)), {fault} - {None})


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--compiler", required=True)
    parser.add_argument("programs", type=Path, nargs="+")
    given = parser.parse_args()
    HardeningTest.compiler, HardeningTest.programs = given.compiler, given.programs
    unittest.main(argv=[sys.argv[0]], verbosity=2)
