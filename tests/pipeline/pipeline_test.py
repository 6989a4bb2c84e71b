"""The install pipeline with the real panel in a real window and real tools: a table of machines and, for each,
of all that is seen, done and run from the end of the first download on, in its order."""

import contextlib
import ctypes
import dataclasses
import os
import re
import shutil
import subprocess
import sys
import unittest
from pathlib import Path

DRIVER, BUNDLE, SERVER, HELP_URL = (sys.argv.pop(1) for _ in range(4))
PROJECT = Path(__file__).resolve().parents[2]
FOLDER = Path("/tmp/pipeline")
TRACE = FOLDER / "trace"
OPENED = FOLDER / "opened"  # by programs that nobody waits for
SUPPORT = Path("/tmp/pipeline-support")  # stays from row to row
APPLICATION = Path("/Applications/Pellomar.app")
SYSTEM_VERSION = Path("/System/Library/CoreServices/SystemVersion.plist")
FLAG = "Library/Application Support/PellomarData/CoverInstallFlag"
NOBODY = 65534

# The download worker may say the first when the install worker is off already; without a bus, a user who is not
# root may be told the second.
UNTOLD = ["SyncHead", "SyncDownload", "Could not create authorization reference object"]

# What the tools do, as lines of bash; a list tells it of the first, the second … call, the last of all later ones.
REMOVES = f'{SUPPORT}/rm "$@"'
INSTALLS = f"""echo "the package holds: $(<"$2"), its folder: $(ls "${{2%/*}}")" >>{TRACE}
mkdir -p /Applications && cp -r {SUPPORT}/Pellomar.app /Applications
echo 'installer: The install was successful.'"""
STARTUP = "/Library/Application Support/NorvikEmu/VirtualBoxStartup.sh"
TOOLS = {
    "/usr/bin/killall": ["true"],
    "/bin/rm": [REMOVES],
    "/usr/sbin/installer": [INSTALLS],
    "/usr/sbin/kextstat": ["echo 'Index Refs Name'; echo '120 3 com.norvik.emu.kext.VBoxDrv (5.2.0)'"],
    STARTUP: ["echo Started."],
}
MISSING = []

RIGHTS = ["log asking for administrator rights", "log administrator rights obtained"]
FINISHED = ["event 815", "status 已完成下载", "no speed", "hide stop_button", "root runs /usr/bin/killall|Pellomar",
            *RIGHTS]
AGAIN = ["> continueInsTall_button", "log continueInsTall_button has been clicked", "status 已完成下载",
         "hide continueInsTall_button", "root runs /usr/bin/killall|Pellomar", *RIGHTS]
QUESTION = ["dialog 安装向导|是否保留已安装游戏和应用|确定|取消"]
YES = ["dialog closed", "log keep installed games:yes"]
NO = ["dialog closed", "log keep installed games:no"]
KEPT = [*QUESTION, "> 确定", *YES]
REMOVAL = ["status 正在卸载Pellomar", "root runs /bin/rm|-rf|/Applications/Pellomar.app"]
REMOVED = [*REMOVAL, "log uninstall Pellomar Success"]
INSTALLATION = ["status 正在安装Pellomar", "event 817", "log Installing Pellomar",
                "root runs /usr/sbin/installer|-pkg|~/Downloads/NVInst/Pellomar.pkg|-target|/"]
PACKAGE = ["the package holds: a package, its folder: Pellomar.pkg"]
INSTALLED = [*INSTALLATION, *PACKAGE,
             "log Install Pellomar Success:installer: The install was successful.\n", "event 818"]
INSTALL_FAILED = ["event 822", "status 安装Pellomar失败，请尝试重新下载安装!", "show retryDownload_button"]
DOWNLOADED_AGAIN = ["> retryDownload_button", "log retryDownload_button has been clicked",
                    "log create temp file successful", "hide retryDownload_button", "log WebStatic:Download Start",
                    "event 814", "status 正在下载Pellomar", "event 815", "status 已完成下载", "no speed",
                    "root runs /usr/bin/killall|Pellomar", *RIGHTS]
QUERY = ["status 正在查询vbox驱动状态", "root runs /usr/sbin/kextstat|-b|com.norvik.emu.kext.VBoxDrv"]
DRIVER_START = ["status 正在安装vbox驱动", f"root runs {STARTUP}|restart"]
DRIVER_FAILED = ["status 安装vbox驱动失败，请重试", "show continueInsTall_button"]
OLD_SYSTEM = ["log install vbox drive faild", *DRIVER_FAILED]
GUIDE = ["dialog 检测到您的电脑未能成功安装驱动程序，请前往系统偏好设置允许系统安装驱动程序。\n"
         "待设置完成后请点击重试。||立即前往设置"]
SETTINGS = [*GUIDE, "> 立即前往设置", "opens /System/Library/PreferencePanes/Security.prefPane", "dialog closed"]
NEW_SYSTEM = ["status 安装Pellomar失败，请前往论坛查看安装教程", "log 10.14.5以上系统没有关闭sip",
              "dialog 安装失败，检测到您的系统与驱动签名不兼容。点击“立即前往”查看解决方案。||立即前往"]
LAUNCHED = ["status 正在启动Pellomar", "log launch Pellomar.app successful", "events submitted",
            "opens Pellomar, new, in ~"]
BY_USER = "nobody runs /usr/bin/killall|Pellomar"
UNSTARTED = "could not be started as root:-60031"
REFUSED = [RIGHTS[0], "log Pre-auth failed", "status 获取权限失败，请重试", "show continueInsTall_button"]


@dataclasses.dataclass
class Row:
    """A machine, and what happens on it. A line "> …" is something that the person does."""

    lines: list
    tools: dict = dataclasses.field(default_factory=dict)
    old_copy: bool = False
    system: str = ""  # its version; empty: only the kernel tells one
    home: str = "home"
    stale: list = ()  # files in the home
    user: int = 0
    flag: bool = False  # whether it is there in the end
    logged: str = ""  # part of what the tools print that must stand in the log file


ROWS = {
    "clean": Row(
        [*FINISHED, *INSTALLED, *QUERY, "event 826", *LAUNCHED],
        logged="Index Refs Name\n120 3 com.norvik.emu.kext.VBoxDrv (5.2.0)\n\n"),
    "old copy kept": Row(
        [*FINISHED, *KEPT, *REMOVED, *INSTALLED, *QUERY, "event 826", *LAUNCHED],
        old_copy=True, stale=[FLAG, "Downloads/NVInst/Pellomar.pkg", "Downloads/NVInst/Pellomar.tmp"]),
    "return keeps, driver named across two reads": Row(
        [*FINISHED, *QUESTION, "> Return", *YES, *REMOVED, *INSTALLED, *QUERY, "event 826", *LAUNCHED],
        {"/usr/sbin/kextstat": ["printf '%1015s%s' '' com.norvik.emu.kext.VBoxDrv"]}, old_copy=True),
    "question not closed without answer, old copy not kept": Row(
        [*FINISHED, *QUESTION, "> Escape", "> close", "> 取消", *NO, *REMOVED, *INSTALLED, *QUERY,
         "event 826", *LAUNCHED],
        old_copy=True, home="用户 1", flag=True),
    "removal's words count against the installer": Row(
        [*FINISHED, *QUESTION, "> 取消", *NO, *REMOVED, "log uninstall Pellomar failed",
         *INSTALLATION, *PACKAGE,
         "log Install Pellomar failed:rm: Invalid path\ninstaller: The install was successful.\n",
         *INSTALL_FAILED, *DOWNLOADED_AGAIN, *KEPT, *REMOVED, *INSTALLED, *QUERY, "event 826", *LAUNCHED],
        {"/bin/rm": [f"echo 'rm: Invalid path'; {REMOVES}", REMOVES]},
        old_copy=True, flag=True),  # only a new start takes the answer back
    "removal cannot start": Row(
        [*FINISHED, *KEPT, REMOVAL[0], f"log /bin/rm {UNSTARTED}", "end"], {"/bin/rm": MISSING}, old_copy=True),
    "installer says error, second download installs": Row(
        [*FINISHED, *INSTALLATION, "log Install Pellomar failed:installer: Error - damaged\n", *INSTALL_FAILED,
         *DOWNLOADED_AGAIN, *INSTALLED, *QUERY, "event 826", *LAUNCHED],
        {"/usr/sbin/installer": ["echo 'installer: Error - damaged'", INSTALLS]}),
    "installer's status and error stream do not count": Row(
        [*FINISHED, *INSTALLED, *QUERY, "event 826", *LAUNCHED],
        {"/usr/sbin/installer": [f"{INSTALLS}; echo Error >&2; exit 1"]}, logged="Error\n"),
    "installer cannot start": Row(
        [*FINISHED, *INSTALLATION[:3], f"log /usr/sbin/installer {UNSTARTED}",
         "status 安装Pellomar失败了，请联系反馈群或者重新尝试进行安装", "event 822", "end"],
        {"/usr/sbin/installer": MISSING}),
    "old system, settings, driver starts": Row(
        [*FINISHED, *INSTALLED, *QUERY, *OLD_SYSTEM, "event 823", *SETTINGS, *AGAIN, *DRIVER_START, "event 825",
         *LAUNCHED],
        {"/usr/sbin/kextstat": ["echo 'No such driver'"]}, logged="No such driver\n\nStarted.\n\n"),
    "old system, guide closed, driver start fails, then says only error": Row(
        [*FINISHED, *INSTALLED, *QUERY, *OLD_SYSTEM, "event 823", *GUIDE, "> Escape", "dialog closed", *AGAIN,
         *DRIVER_START, *OLD_SYSTEM, *GUIDE, "> close", "dialog closed", *AGAIN, *DRIVER_START, "event 825",
         *LAUNCHED],
        {"/usr/sbin/kextstat": ["true"], STARTUP: ["echo 'VirtualBox Error: no VBoxDrv'", "echo Error"]},
        system="10.14.4"),
    "new system, driver in another letter case": Row(
        [*FINISHED, *INSTALLED, *QUERY, "event 824", *NEW_SYSTEM, "> 立即前往", f"opens {HELP_URL}", "dialog closed",
         "end"],
        {"/usr/sbin/kextstat": ["echo com.norvik.emu.kext.vboxdrv"]}, system="10.14.5"),
    "query cannot start, driver start fails on a new system": Row(
        [*FINISHED, *INSTALLED, QUERY[0], f"log /usr/sbin/kextstat {UNSTARTED}", *DRIVER_FAILED, *AGAIN,
         *DRIVER_START, *NEW_SYSTEM, "> Escape", "dialog closed", "end"],
        {"/usr/sbin/kextstat": MISSING, STARTUP: ["echo 'VirtualBox Error: no VBoxDrv'"]}, system="10.14.6"),
    "launch fails": Row(
        [*FINISHED, *INSTALLED, *QUERY, "event 826", "status 正在启动Pellomar",
         "log launch Pellomar.app error:The executable /Applications/Pellomar.app/Contents/MacOS/Pellomar "
         "could not be started: Permission denied", "status 启动Pellomar失败", "end"],
        {"/usr/sbin/installer": [f"{INSTALLS}; chmod -x /Applications/Pellomar.app/Contents/MacOS/*"]}),
    "rights refused twice before anything is asked": Row(
        [*FINISHED[:-3], BY_USER, *REFUSED, *AGAIN[:-3], BY_USER, *REFUSED, "end"], old_copy=True, user=NOBODY),
}


def text_of(row, opened):
    return "".join(f"{line}\n" for line in row.lines if line.startswith("opens ") == opened)


def write(path, text, mode=0o644):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.unlink(missing_ok=True)  # never through a link
    path.write_text(text)
    path.chmod(mode)


def plist(key, value):
    return f'<?xml version="1.0"?><plist version="1.0"><dict><key>{key}</key><string>{value}</string></dict></plist>\n'


def place_tool(path, calls):
    """Each call is traced; its place among the tool's traced calls tells what it does."""
    Path(path).unlink(missing_ok=True)
    if calls:
        cases = "".join(f"{number})\n{call}\n;;\n" for number, call in enumerate(calls[:-1], 1))
        write(Path(path), f"""#!/bin/bash
(IFS="|"; echo "$(id -un) runs $0|$*") >>{TRACE}
case $(grep -cF "runs $0|" {TRACE}) in
{cases}*)
{calls[-1]}
esac
""", 0o755)


def place_machine(row):
    for folder in (FOLDER, APPLICATION):
        shutil.rmtree(folder, ignore_errors=True)
    home = FOLDER / row.home
    for path in (TRACE, OPENED, *(home / name for name in row.stale)):
        write(path, "", 0o666)
    home.mkdir(exist_ok=True)
    os.chown(home, row.user, row.user)
    for path, calls in (TOOLS | row.tools).items():
        place_tool(path, calls)
    SYSTEM_VERSION.unlink(missing_ok=True)
    if row.system:
        write(SYSTEM_VERSION, plist("ProductVersion", row.system))
    if row.old_copy:
        shutil.copytree(SUPPORT / "Pellomar.app", APPLICATION)
        write(APPLICATION / "of-the-old-copy", "")
    return home


def set_up():
    # From here on every program that loses its parent is ours to wait for: nothing of a run is missed.
    PR_SET_CHILD_SUBREAPER = 36
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1)
    SUPPORT.mkdir(exist_ok=True)
    shutil.copy("/bin/rm", SUPPORT)
    shutil.copytree(BUNDLE, SUPPORT / "Downloader.app")
    shutil.copy(DRIVER, SUPPORT / "Downloader.app/Contents/MacOS/pipeline_driver")
    write(SUPPORT / ".config", "package")
    write(SUPPORT / "Pellomar.app/Contents/Info.plist", plist("CFBundleExecutable", "Pellomar"))
    write(SUPPORT / "Pellomar.app/Contents/MacOS/Pellomar", f"""#!/bin/bash
[[ -e ${{0%/Contents/*}}/of-the-old-copy ]] && age=mixed || age=new
echo "opens Pellomar, $age, in $PWD" >>{OPENED}
""", 0o755)
    write(Path("/usr/bin/xdg-open"), f'#!/bin/bash\necho "opens $*" >>{OPENED}\n', 0o755)


def run(home, *actions, user=0, moment=60):
    """The program's status when all that it started has ended; it is killed after a MOMENT in seconds."""
    driver = SUPPORT / "Downloader.app/Contents/MacOS/pipeline_driver"
    with open(FOLDER / "output", "wb") as output:
        status = subprocess.run(
            ["timeout", "--foreground", "-sKILL", str(moment), driver, *actions], cwd="/",
            env=os.environ | {"HOME": str(home)}, stdin=subprocess.DEVNULL, stdout=output, stderr=output, user=user,
            group=user, extra_groups=[]).returncode
    with contextlib.suppress(ChildProcessError):
        while True:
            os.wait()
    return status


class Pipeline(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        write(SUPPORT / "documents/soft/package", "a package")
        # A user who is not root must be able to read what lies with the sources, wherever they are.
        for folder in (PROJECT, *PROJECT.parents):
            folder.chmod(folder.stat().st_mode | 0o001)
        serve = [PROJECT / "sample/serve", "--background", "--rate", "0", "--listen", SERVER]
        subprocess.run([*serve, SUPPORT / "documents", SUPPORT / "server"], check=True)
        xvfb = "Xvfb -displayfd 3 -screen 0 1280x1024x24 -ac 3>&1 >/dev/null 2>&1 &"
        os.environ["DISPLAY"] = ":" + subprocess.check_output(xvfb, shell=True, text=True).strip()
        set_up()

    def take(self, row):
        home = place_machine(row)
        status = run(home, "start_button", *(line[2:] for line in row.lines if line.startswith("> ")), user=row.user)
        printed = "".join(path.read_text() for path in (FOLDER / "output", *home.glob("Documents/*")))
        trace = TRACE.read_text().replace(str(home), "~")
        for untold in UNTOLD:
            trace = re.sub(f"^log {untold}.*\n", "", trace, flags=re.MULTILINE)
        self.assertEqual(trace[max(0, trace.find("event 815")):], text_of(row, opened=False), printed)
        self.assertEqual(OPENED.read_text().replace(str(home), "~"), text_of(row, opened=True), printed)
        self.assertEqual(status, 0, printed)
        self.assertEqual((home / FLAG).exists(), row.flag)
        self.assertIn(row.logged, printed)


for name, row in ROWS.items():
    setattr(Pipeline, f"test {name}", lambda self, row=row: self.take(row))

if __name__ == "__main__":
    if os.environ.get("PELLOMAR_VIEW") != "1":
        print("replaces tools of the machine: runs only in scripts/view", file=sys.stderr)
        sys.exit(77)
    unittest.main()
