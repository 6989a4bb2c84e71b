"""A sound package is installed whole; a hostile or broken one, or an interrupted run, changes nothing."""

import os
import shutil
import stat
import unittest

from harness import BUILD, INSTALLER, HostTest, run, snapshot
from packages import ENTRY_OWNER, ENTRY_TIME, INFO, file, folder, link, package, payload, xar

APP = "Applications/Pellomar.app"
SUPPORT = "Library/Application Support/NorvikEmu"
STAGING = ".pellomar-installer"
TREE = (
    folder(f"./{APP}", 0o750),
    file(f"./{APP}/run", "r" * 300_000, 0o755),
    file(f"./{APP}/游戏数据.bin", "数据", 0o640),
    file(f"./{APP}/Error invalid", "", 0o600),
    link(f"./{APP}/Versions/Current", "A"),
    folder(f"./{APP}/Versions", 0o511),  # after what it holds
    file(f"./{SUPPORT}/VirtualBoxStartup.sh", "#!/bin/bash\n", 0o755),
    folder("./Applications", 0o700),
)
UPDATE = (f"{APP}/run", "Applications/New.app/run", "Library/ours", "Library/added", "top")
MOVES = 9  # that the update's swap takes
SUPERVISOR = "$(cut -d ' ' -f 4 /proc/$PPID/stat)"


def script(name, text, mode=0o755):
    return file(name, f"#!/bin/sh\n{text}\n", mode)


def update(*scripts):
    return package(*(file(name, "new") for name in UPDATE), link("Library/link", "ours"), scripts=scripts)


class Install(HostTest):
    def make_old(self):
        shutil.rmtree(self.target)
        for name in (f"{APP}/Old/file", f"{APP}/run", "Library/ours", "Library/theirs"):
            (self.target / name).parent.mkdir(parents=True, exist_ok=True)
            (self.target / name).write_text("old")
        (self.target / "Library/link").symlink_to("theirs")
        return snapshot(self.world)

    def assert_updated(self):
        found = {name: content for name, (_, content) in snapshot(self.target).items() if content is not None}
        self.assertEqual(found, dict.fromkeys(UPDATE, "new") | {"Library/theirs": "old", "Library/link": "ours"})
        self.assertFalse((self.target / STAGING).exists())

    def assert_put_back(self, before):
        """Any later run, even one that fails, cleans up after one that was killed."""
        self.assert_refused(run(INSTALLER, "-pkg", self.scratch / "absent", "-target", self.target), "opened")
        self.assertEqual(snapshot(self.world), before)

    def test_good_package(self):
        (self.target / SUPPORT).mkdir(parents=True)
        (self.target / "Applications").mkdir()  # shared with others, and first here
        (self.target / "Applications").chmod(0o775)
        # An old copy under another name must not change along with the new one.
        os.link(self.outside / "kept", self.target / SUPPORT / "VirtualBoxStartup.sh")
        tell = f"{{ stat -c %a .; cat helper; env; }} > '{self.scratch}/told'; echo Error; echo invalid >&2"
        scripts = (script("postinstall", tell), file("helper", "helped\n"))
        good = package(*TREE, info=INFO.replace(b"com.example", b"error.invalid"), scripts=scripts)
        self.assert_installed(self.install(good, "env", "SECRET=leaked"))
        tree = snapshot(self.target)
        for name, mode, content, _ in TREE[:-1]:
            status = (self.target / name).lstat()
            self.assertEqual(tree[os.path.normpath(name)], (oct(mode), None if stat.S_ISDIR(mode) else content))
            self.assertEqual((status.st_mtime, status.st_uid), (ENTRY_TIME, os.geteuid() or ENTRY_OWNER), name)
        self.assertEqual(tree["Applications"][0], "0o40775")
        self.assertEqual((self.outside / "kept").read_text(), "kept")
        told = (self.scratch / "told").read_text()
        self.assertRegex(told, "(?s)^700\nhelped\n.*PATH=/usr/sbin:/usr/bin:/sbin:/bin\n")
        self.assertNotIn("leaked", told)

    def test_sample_package(self):
        shutil.copy(BUILD / "sample/signing/certificate.pem", self.trusted)
        self.assert_installed(self.install((BUILD / "sample/soft/Pellomar-sample.pkg").read_bytes()))
        self.assertTrue(os.access(self.target / APP / "Contents/MacOS/Pellomar", os.X_OK))
        if not os.path.exists("/sys/module/vboxdrv"):
            startup = run(self.target / SUPPORT / "VirtualBoxStartup.sh", "restart")
            self.assertNotEqual(startup.returncode, 0)
            self.assertRegex(startup.stdout, "(?s)(?=.*Error)(?=.*VBoxDrv)(?=.*VirtualBox)")

    def test_hostile_and_broken_packages(self):
        def holding(*entries):
            return package(file("first"), *entries)  # would betray writing before checking

        def described(text, *entries):
            return package(file("a"), *entries, info=text.encode())

        good, info, sound = package(file("a/b")), INFO.decode(), payload(file("a"))
        size = "<pkg-info identifier='a' version='1'><payload installKBytes='{}'/></pkg-info>"
        (self.target / "way").symlink_to("../outside")
        (self.target / "file").write_text("mine")
        rows = (
            ("absolute", holding(file(f"{self.outside}/kept", "x")), "absolute path"),
            ("climbing", holding(file("./a/../../outside/kept", "x")), 'with ".."'),
            ("line feed in the name", holding(file("/\ninstaller: Error - x")), "absolute path"),
            ("through its own link", holding(link("w", "/"), file("w/a/b/kept", "x")), "link or file"),
            ("through its own file", holding(file("a"), file("a/b")), "link or file"),
            ("through the target's link", holding(file("way/kept", "x")), "target has a symbolic link in place of a"),
            ("below the target's file", holding(file("file/a")), "target has a file in place of a folder"),
            ("folder and file of one name", holding(file("a/b"), file("a")), "two entries"),
            ("link and file of one name", holding(link("a", "../outside/kept"), file("./a", "x")), "two entries"),
            ("top entry is a link", holding(link("./", "../outside")), "top entry is not a folder"),
            ("set-user-id", holding(file("a", "x", 0o4755)), "set-id"),
            ("set-group-id folder", holding(folder("a", 0o2755)), "set-id"),
            ("device", holding(file("a", "", 0o666, stat.S_IFCHR)), "special file"),
            ("hard link", holding(file("a", "x", links=2), file("b", "x", links=2)), "hard link"),
            ("payload is no archive", xar(PackageInfo=INFO, Payload=b"plainly"), "payload is damaged"),
            ("payload without its end", xar(PackageInfo=INFO, Payload=sound[:-9]), "payload is damaged"),
            ("payload of nothing", package(folder(".")), "holds nothing"),
            ("no PackageInfo", xar(Payload=sound), "no PackageInfo"),
            ("script that is no program", package(file("a"), scripts=[file("preinstall", "")]), "not a program"),
            ("script that is a link", package(file("a"), scripts=[link("preinstall", "/bin/true")]), "not a program"),
            ("scripts that climb", package(file("a"), scripts=[script("../preinstall", "")]), 'with ".."'),
            ("in the way of the installer", holding(file(f"{STAGING}/new/x")), "where installs are prepared"),
            ("script that is a folder", package(file("a"), scripts=[file("preinstall/a")]), "not a program"),
            ("link to nowhere", holding(link("a", "")), "leads nowhere"),
            ("link longer than any path", holding(link("a", "b" * 4096)), "leads nowhere"),
            ("name longer than any", holding(file("a" * 256)), "too long"),
            ("absurdly deep", holding(file("a/" * 600 + "b")), "too long"),
            ("bomb", described(size.format(1), file("b", "\0" * 4_000_000)), "larger than it states"),
            ("more than there is room for", described(size.format(10**12)), "not enough free space on the target"),
            ("info cut", described("<pkg-info identifier='a'"), "not well-formed"),
            ("info with entities", described("<!DOCTYPE p [<!ENTITY e 'x'>]>" + info), "document type"),
            ("info leads away", described(info.replace("'/'", "'/../outside'")), 'with ".."'),
            ("error page", b"<html>404 Not Found</html>", "not a package"),
            ("table cut", good[:100], "breaks off in its table"),
            ("payload flipped", good[:-9] + bytes([good[-9] ^ 1]) + good[-8:], '"Payload" does not match'),
        )
        self.assert_all_refused(rows)
        self.assert_none_signed(row for row in rows if "target" not in row[2])

    def test_full_disk(self):
        mount = ("unshare", "-m", "bash", "-euc", 'mount -t tmpfs -o "$0" none "$1"; shift; "$@"')
        if run(*mount, "size=1m", self.target, "true").returncode != 0:
            self.skipTest("no mount namespaces here")
        zeros = package(file("zeros", "\0" * 3_000_000), file("b"))  # tiny in the package and large on disk
        for options, cause in (("size=1m", "not enough free space"), ("size=8m,nr_inodes=2", "No space left")):
            self.assert_refused(self.install(zeros, *mount, options, self.target), cause)
        self.assert_installed(self.install(zeros, *mount, "size=8m", self.target))

    def test_failed_and_killed_at_each_stage(self):
        before, swapped = self.make_old(), f"test -e '{self.target}/top' || exit 9; "
        rows = (  # without a cause both processes die in silence
            ("preinstall", "exit 3", "preinstall script failed with status 3"),
            ("postinstall", f"{swapped} exit 3", "postinstall script failed with status 3"),
            ("postinstall", f"{swapped} kill -9 $PPID; sleep 9", "worker was ended by signal 9"),
            ("postinstall", f"{swapped} kill -15 {SUPERVISOR}; sleep 9", "stopped by a signal"),
            ("preinstall", f"kill -9 {SUPERVISOR}; sleep 9", "supervising process was killed"),
            ("postinstall", f"{swapped} kill -9 {SUPERVISOR} $PPID; sleep 9", None),
        )
        for name, text, cause in rows:
            with self.subTest(name, text=text):
                # The script lets go of what is captured here: nobody waits for an orphan.
                outcome = self.install(update(script(name, f"exec >&- 2>&-; {text}")))
                if cause:
                    self.assert_refused(outcome, cause)
                else:
                    self.assertEqual(outcome.returncode, -9)
                self.assert_put_back(before)

    def test_fault_at_each_move_of_the_swap(self):
        before, tracing = self.make_old(), ("strace", "-f", "-o/dev/null", "-erenameat2")
        tracing = (*tracing, "-EASAN_OPTIONS=detect_leaks=0")  # the leak checker traces, too
        if not shutil.which("strace") or run(*tracing, "true").returncode != 0:
            self.skipTest("no permission to trace here")
        for fault, move in ((fault, move) for fault in ("signal=KILL", "error=EXDEV") for move in range(1, MOVES + 2)):
            with self.subTest(fault, move=move):
                self.make_old()
                outcome = self.install(update(), *tracing, f"-einject=renameat2:{fault}:when={move}")
                # Where a folder cannot be renamed, as in an overlay, it goes piece by piece.
                goes_on = move > MOVES or (fault == "error=EXDEV" and move <= 3)
                self.assertEqual(outcome.returncode == 0, goes_on, outcome.stdout)
                if goes_on:
                    self.assert_updated()
                else:
                    self.assert_put_back(before)


if __name__ == "__main__":
    unittest.main()
