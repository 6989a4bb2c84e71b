#!/usr/bin/python3
"""The disk image and the Debian package, from their making to the last trace of them.

package_test.py --project FOLDER --build FOLDER --server HOST, as root inside the throw-away view
"""

import argparse
import contextlib
import os
import re
import shutil
import stat
import subprocess
import sys
import unittest
import xml.etree.ElementTree as ElementTree
from pathlib import Path

CANNOT = 77
TOOLS = ("xorriso", "dpkg-shlibdeps", "file", "lintian", "appstreamcli", "desktop-file-validate", "blkid")
# Not the name that the build was configured with, and one that a careless hand would break.
NAME = "Pellomar-测试版-2.0.1;$HOME@x@.pkg"
BUNDLE = "Pellomar下载器.app"
VOLUME = "Pellomar下载器"
CONTENTS = Path("/usr/lib/pellomar-downloader") / BUNDLE / "Contents"
CONFIG = Path("/etc/pellomar-downloader/config")
UNITS = Path("/usr/lib/systemd/system")
ORDINARY_USER = 65534
SCRATCH = Path("/tmp/packaging-test")
BAD_NAMES = ("", ".", "..", "a/b", "a\\b", "a b", "a\nb", "a\n", "a\tb", "a\x7fb", "a?b", "a#b", b"\xff.pkg")


def run(*command, **options):
    """What a command prints; all that it printed is shown where it fails."""
    done = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace", check=False, **options
    )
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def start_as_ordinary_user(executable, name):
    """What start.py tells of the downloader, by the first word of each line."""
    home = SCRATCH / name
    runtime = Path(f"/run/user/{ORDINARY_USER}")
    for folder in (home, runtime):
        folder.mkdir(mode=0o700, parents=True, exist_ok=True)
        os.chown(folder, ORDINARY_USER, ORDINARY_USER)
    told = run(
        *("setpriv", f"--reuid={ORDINARY_USER}", f"--regid={ORDINARY_USER}", "--clear-groups"),
        *("/usr/bin/python3", str(SCRATCH / "start.py"), str(SCRATCH), str(executable)),
        env={**os.environ, "HOME": str(home)},
        cwd="/",
    )
    return dict(re.findall(r"^(address|events) ?(.*)$", told, re.MULTILINE))


@contextlib.contextmanager
def mounted(image):
    """Where the image's files are; where it can't be mounted, they are unpacked."""
    folder = SCRATCH / "disk"
    folder.mkdir()
    done = subprocess.run(["mount", "-o", "loop,ro,nosuid,nodev", image, folder], capture_output=True, check=False)
    if done.returncode == 0:
        try:
            yield folder
        finally:
            run("umount", folder)
    else:
        reason = done.stderr.decode().splitlines()[0]
        print(f"the image can't be mounted here, and is unpacked instead: {reason}", file=sys.stderr)
        run("xorriso", "-osirrox", "on", "-indev", image, "-extract", "/", folder)
        yield folder


def files_of_the_machine():
    """All but what the package manager keeps for itself."""
    left_out = "( -path /var/lib/dpkg -o -path /var/cache -o -path /var/log ) -prune"
    return set(run("find", *f"/etc /usr /var /opt /srv -xdev {left_out} -o -print".split()).splitlines())


def repacked(package, version, name):
    """The package as a later version would be, with another package name in its conffile."""
    folder = SCRATCH / version
    run("dpkg-deb", "--raw-extract", package, folder)
    control = folder / "DEBIAN/control"
    control.write_text(re.sub(r"^Version: .*$", f"Version: {version}", control.read_text(), flags=re.MULTILINE))
    (folder / CONFIG.relative_to("/")).write_text(name)
    run("dpkg-deb", "--root-owner-group", "--build", folder, f"{folder}.deb")
    return f"{folder}.deb"


def dpkg(*arguments):
    run("dpkg", "--force-unsafe-io", "--force-confdef", "--force-confold", *arguments,
        env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})


class PackagingTest(unittest.TestCase):
    project = build = server = None

    @classmethod
    def setUpClass(cls):
        cls.address = f"http://{cls.server}/soft/"
        SCRATCH.mkdir()
        shutil.copy(Path(__file__).with_name("start.py"), SCRATCH)
        shutil.copy(cls.project / "tests/stage/stage.py", SCRATCH)
        cls.image = cls.build / f"{VOLUME}.iso"
        cls.image.unlink(missing_ok=True)
        for name in BAD_NAMES:
            done = subprocess.run(cls.image_command(name), capture_output=True, check=False)
            if done.returncode == 0 or cls.image.exists():
                raise AssertionError(f"an image was made for {name!r}")
        cls.stamp = SCRATCH / "stamp"
        cls.stamp.write_bytes("Describe=中文|ProductVersion=9\n".encode())
        cls.was_named = re.search(
            r"^PELLOMAR_PACKAGE_NAME:STRING=(.*)$", (cls.build / "CMakeCache.txt").read_text(), re.MULTILINE
        ).group(1)
        cls.addClassCleanup(run, "cmake", f"-DPELLOMAR_PACKAGE_NAME={cls.was_named}", cls.build)
        run(*cls.image_command(NAME), "--stamp", cls.stamp)
        (cls.package,) = cls.build.glob("pellomar-downloader_*.deb")

    @classmethod
    def image_command(cls, name):
        return [cls.project / "scripts/image", "--build", cls.build, name]

    def test_the_image(self):
        self.assertEqual(run("blkid", "-p", "-o", "value", "-s", "LABEL", self.image).strip(), VOLUME)
        with mounted(self.image) as disk:
            program = disk / BUNDLE / "Contents/MacOS/PellomarDownloader"
            self.assertEqual((disk / ".config").read_bytes(), NAME.encode())
            self.assertEqual((disk / ".propaganda.dat").read_bytes(), self.stamp.read_bytes())
            self.assertEqual((disk / self.package.name).read_bytes(), self.package.read_bytes())
            text = (disk / "请先安装软件包.txt").read_text()
            self.assertIn(f"请先安装软件包：双击本镜像中的 {self.package.name}", text)
            self.assertIn("Install the package first", text)
            told = start_as_ordinary_user(program, "from-image")
            self.assertEqual(told["address"], self.address + NAME)
            self.assertIn("14 814", told["events"])

    def test_the_checkers_find_nothing(self):
        run("lintian", "--allow-root", "--fail-on", "error,warning", self.package)
        with self.unpacked() as root:
            run("desktop-file-validate", root / "usr/share/applications/pellomar-downloader.desktop")
            metainfo = root / "usr/share/metainfo/com.norvik.PellomarDownloader.metainfo.xml"
            run("appstreamcli", "validate", "--no-net", metainfo)
            newest = ElementTree.parse(metainfo).find("releases/release").get("version")
            self.assertEqual(run("dpkg-deb", "-f", self.package, "Version").split("-")[0], newest)

    def test_what_it_depends_on(self):
        depends = re.split(r", |\n", run("dpkg-deb", "-f", self.package, "Depends"))
        for what in ("psmisc", "xdg-utils", "polkitd | policykit-1"):
            self.assertIn(what, depends)
        for what in ("fonts-noto-cjk | ", "libqt6widgets6 ", "libcurl4 ", "libarchive13 "):
            self.assertTrue(any(one.startswith(what) for one in depends), what)

    @contextlib.contextmanager
    def unpacked(self):
        root = SCRATCH / "unpacked"
        run("dpkg-deb", "--extract", self.package, root)
        yield root
        shutil.rmtree(root)

    def test_the_life_of_the_package(self):
        before = files_of_the_machine()

        dpkg("-i", self.package)
        self.check_installation()
        told = start_as_ordinary_user("/usr/bin/pellomar-downloader", "from-package")
        self.assertEqual(told["address"], self.address + NAME)

        dpkg("-i", repacked(self.package, "9.0-1", "newer.pkg"))
        self.assertEqual(CONFIG.read_text(), "newer.pkg")
        CONFIG.write_text("local.pkg")
        dpkg("-i", repacked(self.package, "9.1-1", "newest.pkg"))
        self.assertEqual(CONFIG.read_text(), "local.pkg")
        (CONFIG.parent / "config.dpkg-dist").unlink()

        dpkg("-r", "pellomar-downloader")
        self.assertEqual(files_of_the_machine() - before, {str(CONFIG), str(CONFIG.parent)})
        dpkg("-P", "pellomar-downloader")
        self.assertEqual(files_of_the_machine() ^ before, set())

    def check_installation(self):
        self.assertEqual((CONTENTS.parents[1] / ".config").read_bytes(), NAME.encode())
        self.assertFalse((CONTENTS / "MacOS/WebStatistics").exists())
        for tool in ("installer", "kextstat"):
            run(f"/usr/sbin/{tool}", "--help")
        listed = run("dpkg", "-L", "pellomar-downloader").splitlines()
        for path in map(Path, listed):
            status = path.lstat()
            self.assertEqual((status.st_uid, status.st_gid), (0, 0), path)
            self.assertFalse(not path.is_symlink() and status.st_mode & (stat.S_IWGRP | stat.S_IWOTH), path)
            self.assertFalse(status.st_mode & (stat.S_ISUID | stat.S_ISGID), path)
        # The bus starts what the service file names.
        for service in Path("/usr/share/dbus-1/system-services").glob("com.norvik.*.service"):
            program = re.search(r"^Exec=(\S+)", service.read_text(), re.MULTILINE).group(1)
            self.assertIn(program, listed)
            self.assertTrue(os.access(program, os.X_OK))
            for beside in ("dbus-1/system.d/{}.conf", "polkit-1/actions/{}.policy"):
                self.assertIn(f"/usr/share/{beside.format(service.stem)}", listed)
            unit = re.search(r"^SystemdService=(\S+)", service.read_text(), re.MULTILINE).group(1)
            self.assertIn(f"\nBusName={service.stem}\nExecStart={program}\n", (UNITS / unit).read_text())
            self.assertIn(str(UNITS / unit), listed)
        (enabled,) = (Path(path) for path in listed if ".wants/" in path)
        self.assertEqual(enabled.resolve(), UNITS / "pellomar-installer-transaction.service")
        if shutil.which("systemd-analyze"):
            units = [path for path in listed if path.endswith(".service") and Path(path).parent == UNITS]
            self.assertEqual(run("systemd-analyze", "verify", *units), "")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--project", type=Path, required=True)
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--server", required=True)
    given, rest = parser.parse_known_args()
    missing = [tool for tool in TOOLS if shutil.which(tool) is None]
    if os.environ.get("PELLOMAR_VIEW") != "1" or missing:
        print(f"runs only in the throw-away view, and with {missing or 'its tools'}", file=sys.stderr)
        sys.exit(CANNOT)
    PackagingTest.project, PackagingTest.build, PackagingTest.server = given.project, given.build, given.server
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
