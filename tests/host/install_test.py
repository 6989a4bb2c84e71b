"""A sound package is installed whole; a hostile or broken one, or an interrupted run, changes nothing."""

import gzip
import itertools
import os
import pwd
import re
import shutil
import stat
import subprocess
import time
from pathlib import Path

from harness import APP, INSTALLER, IS_SANITIZED, RECEIPTS, SIGNER, STAGING, HostTest
from harness import contents, run, snapshot, tracing
from packages import ENTRY_TIME, INFO, Publisher, archive, file, folder, link, package, payload, xar

SUPPORT = "Library/Application Support/NorvikEmu"
TREE = (
    folder(f"./{APP}", 0o750),
    file(f"./{APP}/run", "r" * 300_000, 0o755),
    file(f"./{APP}/游戏数据.bin", "数据", 0o640),
    file(f"./{APP}/Error invalid", "", 0o600),
    link(f"./{APP}/Versions/Current", "A"),
    folder(f"./{APP}/Versions", 0o511),  # after what it holds
    file(f"./{SUPPORT}/VirtualBoxStartup.sh", "#!/bin/bash\n", 0o755),
    folder("./Applications", 0o700),
    file("./shared/file", "", 0o666),  # what root installs is writable by root only
    folder("./shared", 0o1777),
)
MODES = {"./shared/file": 0o644, "./shared": 0o755}
UPDATE = (f"{APP}/run", "Applications/New.app/run", "Library/ours", "Library/added", "top")
MOVES = 9  # that the update's swap takes
MEASURE = """import os, resource, sys
os.spawnv(os.P_WAIT, sys.argv[1], sys.argv[1:])
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, file=sys.stderr)"""
SUPERVISOR = "$(cut -d ' ' -f 4 /proc/$PPID/stat)"


def script(name, text):
    return file(name, f"#!/bin/sh\n{text}\n", 0o755)


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
        expected = dict.fromkeys(UPDATE, "new") | {"Library/theirs": "old", "Library/link": "ours"}
        self.assertEqual(contents(self.target), expected)
        self.assertTrue((self.target / RECEIPTS / "com.example.thing").exists())
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
        report = f"to='{self.scratch}'; " + '''
            { stat -c %a .; cat helper; ulimit -n; ulimit -v; echo $3 /proc/$$/fd/*; env; } >"$to/seen"
            echo Error; echo invalid >&2; cat "$1" >"$to/copy"'''
        overwrite = script("preinstall", f"echo >'{self.path}'")
        scripts = (overwrite, script("postinstall", report), file("helper", "helped\n"))
        good = package(*TREE, info=INFO.replace(b"com.example", b"error.invalid"), scripts=scripts)
        (self.scratch / "w/at").symlink_to("target")
        self.command[self.command.index(self.target)] = Path("at")
        self.assert_installed(self.install(good, "env", f"--chdir={self.world}", "SECRET=leaked"))
        tree = snapshot(self.target)
        self.assertEqual((self.scratch / "copy").read_bytes(), good)
        for name, mode, content, _ in (entry for entry in TREE if entry[0] != "./Applications"):
            status, mode = (self.target / name).lstat(), stat.S_IFMT(mode) | MODES.get(name, stat.S_IMODE(mode))
            self.assertEqual(tree[os.path.normpath(name)], (oct(mode), None if stat.S_ISDIR(mode) else content))
            self.assertEqual((status.st_mtime, status.st_uid), (ENTRY_TIME, 0), name)
        self.assertEqual(tree["Applications"][0], "0o40775")
        self.assertEqual((self.outside / "kept").read_text(), "kept")
        seen = (self.scratch / "seen").read_text()
        descriptors = "".join(rf" /proc/\d+/fd/{number}" for number in (0, 1, 10, 11, 2, 3, 4))  # from 4 on the shell's own
        expected = rf"(?s)^700\nhelped\n1024\nunlimited\n{self.target}{descriptors}\n.*PATH=/usr/sbin:/usr/bin:/sbin:/bin\n"
        self.assertRegex(seen, expected)
        self.assertNotIn("leaked", seen)

    def test_hostile_and_broken_packages(self):
        def holding(*entries):
            return package(file("first"), *entries)  # would betray writing before checking

        def described(text, *entries):
            return package(file("a"), *entries, info=text.encode())

        good, info, sound = package(file("a/b")), INFO.decode(), payload(file("a"))
        named = "<pkg-info identifier='a' version='1'><scripts>{}</scripts></pkg-info>"
        checked = b"070702" + b"%08x" * 13 % (1, 0o100644, 0, 0, 1, 0, 0, 0, 0, 0, 0, 2, 0) + b"a\0"
        size = "<pkg-info identifier='a' version='1'><payload installKBytes='{}'/></pkg-info>"
        (self.target / "way").symlink_to("../outside")
        (self.target / "file").write_text("mine")
        rows = (
            ("climbing", holding(file("./a/../../outside/kept", "x")), 'with ".."'),
            ("line feed in the name", holding(file("/\ninstaller: Error - x")), "absolute path"),
            ("through its own link", holding(link("w", "/"), file("w/a/b/kept", "x")), "link or file"),
            ("through the target's link", holding(file("way/kept", "x")), "target has a symbolic link in place of a"),
            ("below the target's file", holding(file("file/a")), "target has a file in place of a folder"),
            ("folder and file of one name", holding(file("a/b"), file("a")), "two entries"),
            ("top entry is a link", holding(link("./", "../outside")), "top entry is not a folder"),
            ("set-user-id", holding(file("a", "x", 0o4755)), "set-id"),
            ("set-group-id folder", holding(folder("a", 0o2755)), "set-id"),
            ("device", holding(file("a", "", 0o666, stat.S_IFCHR)), "special file"),
            ("hard link", holding(file("a", "x", links=2)), "use a copy or a symbolic link"),
            ("payload is no archive", xar(PackageInfo=INFO, Payload=b"plainly"), "pack it with cpio and gzip"),
            ("payload without its end", xar(PackageInfo=INFO, Payload=sound[:-9]), "payload breaks off"),
            ("cpio cut in a file",
             xar(PackageInfo=INFO, Payload=gzip.compress(gzip.decompress(payload(file("a", "x" * 1_000)))[:500])),
             "breaks off"),
            ("cpio with checksums", xar(PackageInfo=INFO, Payload=gzip.compress(checked)), "use odc or newc"),
            ("product archive", xar(Distribution=b"<x/>", Payload=sound), "a flat package is wanted"),
            ("version with letters", described(info.replace("1.0", "2.0-rc1")), "only digits and dots"),
            ("script of another name", described(named.format("<preinstall file='./x'/>")), "names the script"),
            ("another kind of script", described(named.format("<preflight file='./preflight'/>")), "names the script"),
            ("script that is missing", described(named.format("<preinstall file='./preinstall'/>")), "missing in Scripts"),
            ("payload of nothing", package(folder(".")), "holds nothing"),
            ("no PackageInfo", xar(Payload=sound), "no PackageInfo"),
            ("script that is no program", package(file("a"), scripts=[file("preinstall", "")]), "not a program"),
            ("script that is a link", package(file("a"), scripts=[link("preinstall", "/bin/true")]), "not a program"),
            ("link on the way to receipts", holding(link("var/lib", "x")), "on the way to the installer's own folder"),
            ("in the way of the installer", holding(file(f"{STAGING}/new/x")), "the installer's own folder"),
            ("name is not UTF-8", archive("<file><name enctype='base64'>/w==</name></file>", b""), "not UTF-8"),
            ("link to nowhere", holding(link("a", "")), "leads nowhere"),
            ("absurdly deep", holding(file("a/" * 600 + "b")), "too long"),
            ("bomb", described(size.format(1), file("b", "\0" * 4_000_000)), "larger than it states"),
            ("more than there is room for", described(size.format(10**12)), "not enough free space on the target"),
            ("info cut", described("<pkg-info identifier='a'"), "not well-formed"),
            ("info with entities", described("<!DOCTYPE p [<!ENTITY e 'x'>]>" + info), "document type"),
            ("info leads away", described(info.replace("'/'", "'/../outside'")), 'with ".."'),
            ("error page", b"<html>404 Not Found</html>", "not a package"),
            ("table's size", good[:16] + b"\xff" * 8 + good[24:], "implausible size"),
            ("table cut", good[:100], "breaks off in its table"),
            ("payload flipped", good[:-9] + bytes([good[-9] ^ 1]) + good[-8:], '"Payload" does not match'),
        )
        self.assert_all_refused(rows)
        control = ("control character", xar(PackageInfo=INFO, Payload=sound, **{"\x7f": b"x"}), "control characters")
        publisher, signed = Publisher("publisher"), self.scratch / "signed.pkg"
        for name, content, cause in (control, *(row for row in rows if "target" not in row[2])):
            with self.subTest("signing", of=name):
                self.path.write_bytes(content)
                outcome = run(SIGNER, publisher.key, publisher.certificate, self.path, signed)
                self.assertEqual(outcome.returncode, 1)
                self.assertIn(cause, outcome.stderr)
                self.assertEqual(list(self.scratch.glob("signed*")), [])

    def test_odd_disks(self):
        text = 'mount -t tmpfs -o "$0" none "$1"; cd "$1"; touch b; eval "$2"; shift 2; "$@"'
        mount = ("unshare", "-m", "bash", "-euc", text)
        zeros = file("zeros", "\0" * 3_000_000)  # tiny in the package and large on disk
        content = package(zeros, file("b"), scripts=[script("preinstall", "")])
        rows = (
            ("size=1m", "", "not enough free space"),
            ("size=8m,nr_inodes=4", "", "No space left"),
            ("size=8m,noexec", "", "preinstall script cannot be started: Permission denied"),
            ("size=8m", "chattr +i b", 'cannot move "b": Operation not permitted'),
            ("size=8m", "", ""),
        )
        for options, change, cause in rows:
            with self.subTest(options, change=change):
                outcome = self.install(content, *mount, options, self.target, change)
                self.assert_outcome(outcome, cause)

    def test_scripts_that_fail_or_leave_processes(self):
        """What they started ends and what failed is undone, whether anybody reads the output or not."""
        left, timeout = self.scratch / "left", "-einject=?poll,ppoll:retval=0"
        orphan = f"(setsid sleep 999 >&- 2>&- & echo $! >'{left}')"
        shutil.copy("/bin/sleep", self.scratch / "a\nb")
        odd = orphan.replace("sleep", f"'{self.scratch}/a\nb'")
        odd += f"; until grep -q b /proc/$(cat '{left}')/comm; do :; done"
        itself = f"exec >&- 2>&-; echo $$ >'{left}'"  # the output is captured here: an orphan is not waited for
        both = f"kill -STOP $PPID; kill -9 {SUPERVISOR} $PPID"  # the worker cannot report the supervisor's end
        own_output = ("bash", "-c", 'exec "${@/OUTPUT/$(readlink /proc/$$/fd/1)}"', "bash")
        rows = (
            ("succeeds", orphan, (), "successful"),
            ("an odd name", odd, (), "successful"),
            ("unread", orphan, (*own_output, *tracing("-POUTPUT", timeout)), "^$"),
            ("the caller ignores the end of children", orphan, ("env", "--ignore-signal=CHLD"), "successful"),
            ("fails", f"{orphan}; exit 3", (), "script failed with status 3"),
            ("takes too long", f"{orphan}; sleep 999", tracing("-Panon_inode:[pidfd]", timeout), "longer than 10 minutes"),
            ("the worker is killed", f"{orphan}; kill -9 $PPID; sleep 999", (), "worker was ended by signal 9"),
            ("stopped by a signal", f"{odd}; kill -15 {SUPERVISOR}; sleep 999", (), "stopped by a signal"),
            ("the supervisor is killed", f"{itself}; kill -9 {SUPERVISOR}; sleep 999", (), "process was killed"),
            ("both are killed", f"{itself}; {both}; sleep 999", (), "(?s)^(?!.*(Error|successful))"),
        )
        for name, text, begin, answer in rows:
            for kind in ("preinstall", "postinstall"):
                before = self.make_old()
                outcome = self.install(update(script(kind, text)), *begin)
                ended = run("timeout", "60", "tail", "-s", "0.05", f"--pid={left.read_text().strip()}", "-f", "/dev/null")
                self.assertEqual(ended.returncode, 0, f"{name}, {kind}: the script has ended, and all that it started")
                with self.subTest(name, kind=kind):
                    self.assertRegex(outcome.stdout, answer)
                    self.assert_updated() if outcome.returncode == 0 else self.assert_put_back(before)

    def test_package_of_a_user(self):
        """Opened with that user's rights alone, which are all of the user's; and only the user's own file."""
        run("useradd", "--groups", "games", "owner")
        user, odd = pwd.getpwnam("owner").pw_uid, self.scratch / "odd/Pellomar.pkg"
        self.scratch.chmod(0o755)
        self.path.write_bytes(package(file("a")))
        own, elsewhere = f"cp '{self.path}' Pellomar.pkg; chown owner *", f"/proc/self/root{odd}"
        rows = (
            ("own", user, own, odd, ""), ("by a group", user, f"{own}; chown root:games .; chmod 750 .", odd, ""),
            ("linked folder", user, f"{own}; ln -s . linked", odd.parent / "linked/Pellomar.pkg", ""),
            ("folder of root's", user, f"{own}; chmod 700 .", odd, "Permission denied"),
            ("file of root's", user, f"{own}; chown root *", odd, "not its user's own"),
            ("link", user, f"{own}; mv * other; ln -s other Pellomar.pkg", odd, "symbolic link"),
            ("link of /proc's", user, own, elsewhere, "symbolic link"), ("absent", user, "", odd, "No such file"),
            ("folder", user, "mkdir Pellomar.pkg; chown owner *", odd, "not a regular file"),
            ("pipe", user, "mkfifo Pellomar.pkg; chown owner *", odd, "not a regular file"),
            ("no such user", 54321, own, odd, "cannot be opened"), ("no number", "1x", own, odd, "not the number"),
        )
        for name, number, make, path, cause in rows:
            shutil.rmtree(odd.parent, ignore_errors=True)
            odd.parent.mkdir()
            subprocess.run(["bash", "-ec", make], cwd=odd.parent, check=True)
            with self.subTest(name):
                self.assert_outcome(self.install_of(number, path), cause)

    def install_of(self, user, path):
        command = [*self.command[:2], path, *self.command[3:]]
        return run("env", f"INSTALLER_PACKAGE_USER={user}", *command)

    def test_stopped_process_of_a_user(self):
        """The user stops the process that opens the package, which holds up nothing but this install, for seconds."""
        run("useradd", "stopper")
        user, printed = pwd.getpwnam("stopper").pw_uid, self.scratch / "printed"
        self.scratch.chmod(0o755)
        stopped = (*tracing("-einject=openat2:signal=STOP"), "env", f"INSTALLER_PACKAGE_USER={user}", *self.command)
        with printed.open("w") as output, subprocess.Popen(stopped, stdout=output) as process:
            while "Error" not in printed.read_text() and process.poll() is None:
                time.sleep(0.05)
            run("pkill", "-KILL", "-U", str(user))
        self.assertIn("cannot be opened by its user", printed.read_text())
        self.assertNotEqual(process.returncode, 0)

    def test_changed_and_silent_while_it_is_read(self):
        """What has been read and verified counts, and a file system that stops answering holds nobody up."""
        events, before = self.scratch / "events", snapshot(self.world)
        os.mkfifo(events)
        copy = script("postinstall", f"""cat "$1" >'{self.scratch}/copy'""")
        good = package(file("a"), scripts=[copy])
        self.path.write_bytes(good)
        stop = tracing("-o", events, "-etrace=fstatfs,?alarm,?setitimer", "-einject=fstatfs:signal=STOP:when=1")
        with subprocess.Popen((*stop, *self.command), stdout=subprocess.DEVNULL) as process, events.open() as lines:
            stopped = next(line for line in lines if "stopped by" in line)
            self.path.write_bytes(good.replace(good[:200], bytes(200)))
            run("kill", "-CONT", stopped.split()[0])
            limits = re.findall(r"(?:alarm|setitimer)\(.*", lines.read())
        self.assertRegex(limits[-1], r"alarm\(0\)|it_value={tv_sec=0", "no limit once it has been read")
        self.assertEqual((process.returncode, (self.scratch / "copy").read_bytes()), (0, good))
        shutil.rmtree(self.target)
        self.target.mkdir()
        silent = self.install(good, *tracing("-einject=?alarm,?setitimer:signal=ALRM:when=3"))
        self.assert_refused(silent, "did not answer")
        self.assertEqual(snapshot(self.world), before)

    def test_receipts(self):
        def versioned(version, identifier="com.example.thing", names=("Applications/A.app/run", "Library/a%\n"), by=()):
            info = f"<pkg-info identifier='{identifier}' version='{version}'/>"
            return package(*(file(name, version) for name in names), info=info.encode(), chain=by)

        publisher = [Publisher("publisher")]
        rows = (
            ("first", versioned("2.0.9"), ""),
            ("higher", versioned("2.0.10"), ""),
            ("lower", versioned("2.0.9"), "newer version is installed: 2.0.10"),
            ("the same", versioned("2.0.10.0"), ""),
            ("other product's bundle", versioned("9", "other", ["Applications/A.app/x"]), "another product"),
            ("other product's file", versioned("9", "other", ["Library/a%\n"]), "another product"),
            ("receipts", versioned("9", "other", [f"{RECEIPTS}/other"]), "installer's own folder"),
            ("other place", versioned("1", "other", ["Library/b"]), ""),
            ("none that is not signed binds one that is", versioned("2.0.9", by=publisher), ""),
            ("nor its places", versioned("2.0.9", names=["Library/b"], by=publisher), ""),
            ("a signed one binds all", versioned("2.0.8"), "newer version is installed: 2.0.9"),
        )
        for name, content, cause in rows:
            with self.subTest(name):
                before, outcome = snapshot(self.target), self.install(content)
                self.assert_outcome(outcome, cause)
                self.assertEqual(snapshot(self.target) == before, bool(cause))
        listed = run(INSTALLER, "-receipts", "-target", self.target).stdout
        time = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ"
        self.assertRegex(listed, f"^com.example.thing 2.0.9 {time} [0-9a-f]{{64}}\nother 1 {time} none\n$")
        receipts = self.target / RECEIPTS
        begin = "pellomar-installer receipt 1\nidentifier x\nversion 1\n"
        files = (
            ("cut", begin + "time", '"cut" is damaged'),
            ("com.example.thing", "damaged", '"com.example.thing" is damaged'),
            (".unfinished", begin, ""),
        )
        for name, text, cause in files:
            with self.subTest(name):
                self.addCleanup((receipts / name).unlink, missing_ok=True)
                (receipts / name).write_text(text)
                self.assert_outcome(self.install(versioned("3", by=publisher)), cause)
                (receipts / name).unlink(missing_ok=True)

    if not IS_SANITIZED:  # sanitizers take memory of their own

        def test_memory(self):
            """Whatever a package of 64 MB holds."""
            leaves = "".join(f"<file><name>{number}</name></file>" for number in range(20_000))
            rows = (
                ("nested elements", archive("<file>" + "<a>" * 250_000, b""), False),
                ("many entries", archive(leaves, b""), False),
                ("junk in the heap", package(file("a")) + bytes(64 << 20), True),
                ("many folders", package(*(file(f"{number:05}/{'d' * 70}", "") for number in range(9_000))), True),
                ("many files", package(*(file(f"{number:06}{'n' * 60}", "") for number in range(100_001))), False),
                ("large file", package(file("a", "\0" * (64 << 20))), True),
            )
            for name, content, succeeds in rows:
                with self.subTest(name):
                    outcome = self.install(content, "/usr/bin/python3", "-Sc", MEASURE)
                    self.assertEqual("successful" in outcome.stdout, succeeds, outcome.stdout)
                    self.assertLess(int(outcome.stderr.split()[-1]), 32 << 10)

    def test_mount_in_what_is_replaced(self):
        """Is not emptied, and what cannot be removed therefore is not in the way of the next install."""
        self.make_old()
        mount = self.target / APP / "Old"
        self.assertEqual(run("mount", "-t", "tmpfs", "none", mount).returncode, 0)
        (mount / "kept").write_text("kept")
        for _ in range(2):
            self.assert_installed(self.install(update()))
        (left,) = (self.target / STAGING).glob("discarded.*/*/Old")
        self.assertEqual((left / "kept").read_text(), "kept")
        run("umount", left)
        self.assert_installed(self.install(update()))
        self.assert_updated()

    def test_mount_in_a_place(self):
        """Is seen before anything is done."""
        shared, ran = self.target / "shared", self.scratch / "ran"
        shared.mkdir()
        (shared / "a").write_text("old")
        content = package(file("shared/a", "new"), scripts=[script("preinstall", f"touch '{ran}'")])
        for place in shared, shared / "a":
            with self.subTest(place):
                run("mount", "--bind", place, place)
                self.addCleanup(run, "umount", place)
                self.assert_all_refused([("mounted", content, "something is mounted")])
                self.assertFalse(ran.exists())
                run("umount", place)

    def test_fault_at_each_move_of_the_swap(self):
        before, traced = self.make_old(), tracing("-erenameat2")
        for fault, move in itertools.product(("signal=KILL", "error=EXDEV"), range(1, MOVES + 2)):
            with self.subTest(fault, move=move):
                self.make_old()
                outcome = self.install(update(), *traced, f"-einject=renameat2:{fault}:when={move}")
                # Where a folder cannot be renamed, as in an overlay, it goes piece by piece.
                goes_on = move > MOVES or (fault == "error=EXDEV" and move <= 3)
                self.assertEqual(outcome.returncode == 0, goes_on, outcome.stdout)
                self.assert_updated() if goes_on else self.assert_put_back(before)
