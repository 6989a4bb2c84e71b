#!/usr/bin/python3 -B
"""The disk image and the Debian package, from when they are made until the package is gone from a machine."""

import os
import re
import subprocess
import sys
import unittest
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/support"))
from desktop import Display, Session
from rights import USER, add_users, as_user
from window import Window

# Not the name that the build was configured with, and full of characters that a shell or CMake could take for its own.
NAME = "Pellomar-测试版-2.0.1;$HOME@x@.pkg"
VOLUME = "Pellomar下载器"
PROGRAM = f"{VOLUME}.app/Contents/MacOS/PellomarDownloader"
CONFIG = Path("/etc/pellomar-downloader/config")
UNITS = Path("/usr/lib/systemd/system")
SCRATCH = Path("/tmp/packaging-test")
DEPENDS = ("psmisc", "xdg-utils", r"polkitd \|.*", r"fonts-noto-cjk \|.*", "libqt6widgets6 .*", "libcurl4(t64)? .*",
           "libarchive13(t64)? .*")


def run(*command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                          check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def dpkg(*arguments):
    run("dpkg", "--no-triggers", "--force-unsafe-io", "--force-confdef", "--force-confold", *arguments,
        env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})


def digest(package):
    """Of what is in it; cpack gives the two archives themselves the modes of its temporary files."""
    return run("bash", "-c", 'ar p "$0" control.tar.gz data.tar.gz | sha256sum', package)


def found(paths):
    """Which of these PATHS there are, and whatever else bears the product's name but in the package manager's records.
    Other packages may be installed on the machine meanwhile."""
    named = run("find", *"/etc /usr /var /opt /srv -xdev -path /var/lib/dpkg -prune -o -iname *pellomar* -print".split())
    return {*filter(os.path.lexists, paths), *named.splitlines()}


def repacked(package, version, name):
    """The package as a later version would be, with another package name in its conffile."""
    folder = SCRATCH / version
    run("dpkg-deb", "--raw-extract", package, folder)
    run("sed", "-i", f"s/^Version: .*/Version: {version}/", folder / "DEBIAN/control")
    (folder / CONFIG.relative_to("/")).write_text(name)
    run("dpkg-deb", "--root-owner-group", "-Znone", "--build", folder, f"{folder}.deb")
    return f"{folder}.deb"


class PackagingTest(unittest.TestCase):
    build = server = None

    @classmethod
    def setUpClass(cls):
        SCRATCH.mkdir()
        cls.image, cls.stamp = cls.build / f"{VOLUME}.iso", SCRATCH / "stamp"
        cls.stamp.write_bytes("Describe=中文|ProductVersion=9\n".encode())
        command = [PROJECT / "scripts/image", "--build", cls.build, "--stamp", cls.stamp]
        cls.image.unlink(missing_ok=True)
        # The build has no certificate, and the default server: not to be handed out.
        for arguments in ("--trial", "a b"), ("--trial", b"\xff.pkg"), ("--trial", NAME, NAME), (NAME,):
            done = subprocess.run([*command, *arguments], capture_output=True, check=False)
            assert done.returncode != 0 and not cls.image.exists(), arguments
        cache = cls.build / "CMakeCache.txt"
        cls.addClassCleanup(run, "cmake", cls.build)
        cls.addClassCleanup(cache.write_text, cache.read_text())
        cls.certificates, key, keys = [SCRATCH / "1.pem", SCRATCH / "2.pem"], SCRATCH / "key.pem", ["01" * 32, "ab" * 32]
        for path in cls.certificates:
            run(PROJECT / "sample/make-certificate", "openssl", "Publisher", key, path)
        for ok, certificates, pins in ((False, [key], keys), (False, ["/missing"], keys), (False, [], keys),
                                       (False, cls.certificates, ["0123"]), (True, cls.certificates, keys)):
            command_line = ["cmake", cls.build, f"-DPELLOMAR_PUBLISHER_CERTIFICATE={';'.join(map(str, certificates))}",
                            f"-DPELLOMAR_PUBLISHER_KEYS={';'.join(pins)}"]
            done = subprocess.run(command_line, capture_output=True, check=False)
            assert (done.returncode == 0) == ok, (certificates, pins, done)
        run(*command, "--trial", NAME, umask=0o022)
        (cls.package,) = cls.build.glob("pellomar-downloader_*.deb")
        cls.digests, cls.on_image = [digest(cls.package)], run("sha256sum", cls.package).split()[0]
        # The rest is tested with a package that cpack has made by itself.
        (PROJECT / "packaging/man/installer.8").touch()  # compressed at another time
        run("cmake", "--build", cls.build, "--target", "package_contents")
        run("cpack", "-G", "DEB", "--config", cls.build / "CPackConfig.cmake", "-B", cls.build, umask=0o077)
        cls.digests.append(digest(cls.package))
        cls.unpacked = SCRATCH / "unpacked"
        run("dpkg-deb", "--extract", cls.package, cls.unpacked)
        add_users()
        for part in (Session(**as_user(USER)), Display()):
            cls.addClassCleanup(part.close)

    def check_start(self, program, is_counted):
        """An ordinary user presses start; without a server the download fails, and by then every event has been sent."""
        window = Window(program, Path("/home", USER), **as_user(USER))
        self.addCleanup(window.close)
        window.invoke("开始")
        window.wait_for_status("下载失败，请直接双击镜像中的APP开始下载")
        address = re.escape(f"http://{self.server}/soft/{NAME}\n")
        self.assertRegex(window.log(), rf" PellomarDownloader\[.*startDownload url:{address}")
        if is_counted:
            events = Path("/home", USER, "Library/Logs/Pellomar/WebStatistics.log")
            window.wait_for("the event of the start", lambda: events.exists() and "14 814" in events.read_text())
        window.close()

    def test_image(self):
        self.assertEqual(run("blkid", "-p", "-o", "value", "-s", "LABEL", self.image).strip(), VOLUME)
        disk = SCRATCH / "disk"
        disk.mkdir()
        if subprocess.run(["mount", "-o", "loop,ro,nosuid,nodev", self.image, disk], check=False).returncode == 0:
            self.addCleanup(run, "umount", disk)
        else:  # a container without loop devices
            run("xorriso", "-osirrox", "on", "-indev", self.image, "-extract", "/", disk)
        self.assertEqual((disk / ".config").read_bytes(), NAME.encode())
        self.assertEqual((disk / ".propaganda.dat").read_bytes(), self.stamp.read_bytes())
        self.assertEqual(run("sha256sum", disk / self.package.name).split()[0], self.on_image)
        text, kind = (disk / "请先安装软件包.txt").read_text(), self.package.stem.split("_")[-1]
        self.assertRegex(text, rf'(?s) {kind} 架构.* pkexec apt-get install "\$PWD/{self.package.name}"')
        self.check_start(disk / PROGRAM, is_counted=True)

    def test_the_same_files_from_the_same_build(self):
        self.assertEqual(*self.digests)

    def test_checkers_and_dependencies(self):
        run("lintian", "--allow-root", "--fail-on", "error,warning", self.package)
        share = self.unpacked / "usr/share"
        run("desktop-file-validate", share / "applications/pellomar-downloader.desktop")
        metainfo = share / "metainfo/com.norvik.PellomarDownloader.metainfo.xml"
        run("appstreamcli", "validate", "--no-net", metainfo)
        newest = re.search(r'<release version="([^"]+)"', metainfo.read_text())[1]
        self.assertEqual(run("dpkg-deb", "-f", self.package, "Version").split("-")[0], newest)
        depends = re.split(r", |\n", run("dpkg-deb", "-f", self.package, "Depends"))
        for pattern in DEPENDS:
            self.assertTrue(any(re.fullmatch(pattern, one) for one in depends), (pattern, depends))

    def test_hardening(self):
        files = [path for path in self.unpacked.rglob("*") if path.is_file() and not path.is_symlink()]
        programs = [path for path in files if path.read_bytes()[:4] == b"\x7fELF"]
        self.assertEqual(len(programs), 5, programs)
        run("hardening-check", "--nocfprotection", *programs)

    def test_life_of_the_package(self):
        paths = [f"/{path.relative_to(self.unpacked)}" for path in self.unpacked.rglob("*")]
        before = found(paths)
        dpkg("-i", self.package)
        self.check_installation()
        self.check_start("/usr/bin/pellomar-downloader", is_counted=False)
        dpkg("-i", repacked(self.package, "9.0-1", "newer.pkg"))
        self.assertEqual(CONFIG.read_text(), "newer.pkg")
        CONFIG.write_text("local.pkg")
        dpkg("-i", repacked(self.package, "9.1-1", "newest.pkg"))
        self.assertEqual(CONFIG.read_text(), "local.pkg")
        (CONFIG.parent / "config.dpkg-dist").unlink()
        dpkg("-r", "pellomar-downloader")
        self.assertEqual(found(paths) - before, {str(CONFIG), str(CONFIG.parent)})
        dpkg("-P", "pellomar-downloader")
        self.assertEqual(found(paths), before)

    def check_installation(self):
        self.assertEqual(Path("/usr/lib/pellomar-downloader/.config").read_bytes(), NAME.encode())
        self.assertFalse(Path("/usr/lib/pellomar-downloader", PROGRAM).with_name("WebStatistics").exists())
        listed = run("dpkg", "-L", "pellomar-downloader").splitlines()
        for path in map(Path, listed):
            status = path.lstat()
            is_run = path.is_dir() or "bin" in str(path.parent) or path.parent.name in ("libexec", "MacOS")
            mode = 0o777 if path.is_symlink() else 0o755 if is_run else 0o644
            self.assertEqual((status.st_uid, status.st_gid, status.st_mode & 0o7777), (0, 0, mode), path)
        pane = run("xdg-mime", "query", "filetype", "/System/Library/PreferencePanes/Security.prefPane")
        self.assertEqual(pane, "text/html\n")
        # What the bus starts, itself or through systemd, and what systemd starts at boot.
        (service,) = Path("/usr/share/dbus-1/system-services").glob("com.norvik.*.service")
        program, unit = re.search(r"^Exec=(\S+).*^SystemdService=(\S+)", service.read_text(), re.M | re.S).groups()
        self.assertIn(f"\nBusName={service.stem}\nExecStart={program}\n", (UNITS / unit).read_text())
        self.assertIn("\nKillMode=process\n", (UNITS / unit).read_text())
        (enabled,) = (Path(path).resolve() for path in listed if ".wants/" in path)
        self.assertGreaterEqual(set(listed), {program, str(UNITS / unit), str(enabled)})
        self.assertEqual(enabled.parent, UNITS)
        if Path("/usr/bin/systemd-analyze").exists():
            self.assertEqual(run("systemd-analyze", "verify", UNITS / unit, enabled), "")
        # The publisher's certificates are plain files, and without them the installer still demands a signature.
        shipped = sorted(Path("/usr/lib/pellomar-installer/trusted").iterdir())
        self.assertEqual([path.name for path in shipped], ["publisher-1.pem", "publisher-2.pem", "publisher.keys"])
        self.assertEqual([path.read_text() for path in shipped[:2]], [path.read_text() for path in self.certificates])
        self.assertEqual(run("dpkg-query", "-W", "-f", "${Conffiles}", "pellomar-downloader").split()[::2], [str(CONFIG)])
        run("rm", *shipped)
        command_line = f"installer -pkg '{self.build}/sample/signing/unsigned.pkg' -target /; true"
        self.assertRegex(run("/bin/sh", "-c", command_line), "rror.*sign")
        self.assertFalse(Path("/Applications/Pellomar.app").exists())


if __name__ == "__main__":
    if os.environ.get("PELLOMAR_VIEW") != "1":
        sys.exit("changes the machine: runs only in the throw-away view")
    PackagingTest.build, PackagingTest.server = Path(sys.argv[1]), sys.argv[2]
    unittest.main(argv=sys.argv[:1], verbosity=2)
