"""The scenarios of an installation, from the first screen to the launched product or the window that is closed."""

from machine import ADDRESS, APPLICATION, HOLD, INSTALLER, INSTALLS, KEXTSTAT, LOADED, REAL, REMOVES, STARTUP
from machine import STAGING, STATISTICS, write
from scenario import FLAG, HELD, Scenario

URL = "http://{}:{}/soft/package".format(*ADDRESS)
MISSING, NOT_LOADED, DRIVER_FAILS = [], ["echo 'No such driver'"], ["echo 'VirtualBox Error: no VBoxDrv'"]

PRESSED = ["> 开始", "log start_button has been clicked"]
COUNTED = ["log WebStatic:Download Start", "event 814"]
SECOND_SCREEN = ["hide 开始", "show 下载进度", "status 正在检测网络", "show 停止", *COUNTED]
FILE_MADE = "log create temp file successful"


def start(url=URL, found=()):
    return [*PRESSED, *found, f"log CoreImageView startDownload url:{url}", *SECOND_SCREEN, FILE_MADE,
            f"log _strDownloadUrl:{url},tmpFile:~/Downloads/NVInst/Pellomar.tmp"]


START = start()
DOWNLOADING = ["status 正在下载Pellomar"]
RECEIVED = ["event 815", "status 已完成下载", "no speed"]
OLD_COPY_CLOSED = "user runs /usr/bin/killall|Pellomar"
FINISHED = [*RECEIVED, "hide 停止", OLD_COPY_CLOSED]
FINISHED_AGAIN = [*RECEIVED, OLD_COPY_CLOSED]  # a retry shows no stop button
ASKED = "log asking for administrator rights"
RIGHTS = [ASKED, "log administrator rights obtained"]
BEFORE_RIGHTS = [*START, *DOWNLOADING, *FINISHED]
DOWNLOADED = [*BEFORE_RIGHTS, *RIGHTS]
CLICKED_AGAIN = ["> 重试安装", "log continueInsTall_button has been clicked", "status 已完成下载",
                 "hide 重试安装", OLD_COPY_CLOSED]
AGAIN = [*CLICKED_AGAIN, *RIGHTS]
QUESTION = ["dialog 安装向导|是否保留已安装游戏和应用|确定|取消"]
YES = ["dialog closed", "log keep installed games:yes"]
NO = ["dialog closed", "log keep installed games:no"]
KEPT = [*QUESTION, "> 确定", *YES]
UNINSTALLING = "status 正在卸载Pellomar"
REMOVAL = [UNINSTALLING, "root runs /bin/rm|-rf|/Applications/Pellomar.app"]
REMOVAL_DONE = "log uninstall Pellomar Success"
REMOVED = [*REMOVAL, REMOVAL_DONE]
INSTALLING = ["status 正在安装Pellomar", "event 817", "log Installing Pellomar"]
INSTALLATION = [*INSTALLING, "root runs /usr/sbin/installer|-pkg|~/Downloads/NVInst/Pellomar.pkg|-target|/"]
INSTALLATION_DONE = ["log Install Pellomar Success:100000", "event 818"]
INSTALLED = [*INSTALLATION, *INSTALLATION_DONE]
INSTALL_FAILED = ["event 822", "status 安装Pellomar失败，请尝试重新下载安装!", "show 重试下载"]
DOWNLOAD_AGAIN = ["> 重试下载", "log retryDownload_button has been clicked", FILE_MADE, "hide 重试下载", *COUNTED,
                  *DOWNLOADING]
CONTINUE_PRESSED = ["log continue_button has been clicked", "log CoreImageView continueDownload"]
STOP_SHOWN = ["show 停止", "hide 继续"]
TRIES_AGAIN = ["> 继续", *CONTINUE_PRESSED, *COUNTED, *STOP_SHOWN]
BROKEN_AGAIN = ["show 继续", "status 网络异常，请稍后重试", "event 821"]  # after a retry
BROKEN = ["hide 停止", *BROKEN_AGAIN]
QUERYING = "status 正在查询vbox驱动状态"
QUERY = [QUERYING, "root runs /usr/sbin/kextstat|-b|com.norvik.emu.kext.VBoxDrv"]
DRIVER_START = ["status 正在安装vbox驱动", f"root runs {STARTUP}|restart"]
DRIVER_FAILED = ["status 安装vbox驱动失败，请重试", "show 重试安装"]
OLD_SYSTEM = ["log install vbox drive faild", *DRIVER_FAILED]
GUIDE = ("dialog 检测到您的电脑未能成功安装驱动程序，请前往系统偏好设置允许系统安装驱动程序。 "
         "待设置完成后请点击重试。||立即前往设置")
GUIDE_CLOSED = [GUIDE, "> Escape", "dialog closed"]
SETTINGS = ["dialog closed", "opens /System/Library/PreferencePanes/Security.prefPane"]
NEW_SYSTEM = ["status 安装Pellomar失败，请前往论坛查看安装教程", "log 10.14.5以上系统没有关闭sip",
              "dialog 安装失败，检测到您的系统与驱动签名不兼容。点击“立即前往”查看解决方案。||立即前往"]
LAUNCHING = "status 正在启动Pellomar"
RUNNING = ["opens new Pellomar, user in ~, in a session of its own", "log launch Pellomar.app successful",
           "events submitted"]
LAUNCHED = [LAUNCHING, *RUNNING]
LOADED_AND_LAUNCHED = [*QUERY, "event 826", *LAUNCHED]
NO_RIGHTS = ["status 获取权限失败，请重试", "show 重试安装"]
DENIED = [ASKED, "log Pre-auth failed", *NO_RIGHTS]
REFUSED = [ASKED, "log Could not create authorization reference object.", "log Pre-auth failed", *NO_RIGHTS]
ALLOWED_AT_LAST = ["> agent right", *AGAIN, *KEPT, *REMOVED, *INSTALLED, *LOADED_AND_LAUNCHED]
UNSTARTED = "could not be started as root:-60031"

CLEAN = [*DOWNLOADED, *INSTALLED, *LOADED_AND_LAUNCHED]
WITHOUT_EVENTS = [line for line in CLEAN if not line.startswith("event")]
CLOSED = ["> quit", "log window close", "events submitted"]


def leave_set_aside(_):
    """The old copy, as after a power cut: it is put back when rights are obtained."""
    STAGING.mkdir(mode=0o700)
    APPLICATION.parent.rename(STAGING / "aside")
    APPLICATION.parent.mkdir()


INSTALL_SCENARIOS = {
    "clean": Scenario(CLEAN, logged="Index Refs Name\n120 3 com.norvik.emu.kext.VBoxDrv (5.2.0)\n\n"),
    "an old copy": {
        "old copy kept": Scenario(
            [*DOWNLOADED, *KEPT, *REMOVED, *INSTALLED, *QUERY, "kextstat ends", "event 826", *LAUNCHED], rights="root",
            old=True, before=("env", "XDG_CURRENT_DESKTOP=GNOME"),  # where dialogs have their buttons in another order
            stale=(FLAG, "Downloads/NVInst/Pellomar.pkg", "Downloads/NVInst/Pellomar.tmp"),
            # It ends a second after its output has reached the log; the window waits for that end.
            tools={KEXTSTAT: [f'{LOADED}; exec >&-; until grep -q "^120 3" "$log"; do sleep 0.1; done; sleep 1; '
                              'echo "@kextstat ends" >>"$log"']}),
        "return keeps, and the driver is named across two reads": Scenario(
            [*DOWNLOADED, *QUESTION, "> Return", *YES, *REMOVED, *INSTALLED, *LOADED_AND_LAUNCHED],
            {KEXTSTAT: ["printf '%1015s%s' '' com.norvik.emu.kext.VBoxDrv"]}, old=True, prepare=leave_set_aside),
        "question not closed without an answer, old copy not kept": Scenario(
            [*DOWNLOADED, *QUESTION, "> picture keep-data-question", "> Escape", "> close", "> 取消", *NO, *REMOVED,
             *INSTALLED, *LOADED_AND_LAUNCHED],
            old=True, home="用户 1", flag=True),
        "removal's words count against the installer": Scenario(
            [*DOWNLOADED, *QUESTION, "> 取消", *NO, *REMOVED, "log uninstall Pellomar failed", *INSTALLATION,
             "log Install Pellomar failed:rm: Invalid path", *INSTALL_FAILED,
             *DOWNLOAD_AGAIN, *FINISHED_AGAIN, *RIGHTS, *KEPT, *REMOVED, *INSTALLED, *LOADED_AND_LAUNCHED],
            # The failure takes the first answer back.
            {"/bin/rm": [f"echo 'rm: Invalid path'; {REMOVES}", REMOVES]}, rights="root", old=True),
        "removal cannot start": Scenario(
            [*DOWNLOADED, *QUESTION, "> 取消", *NO, UNINSTALLING, f"log /bin/rm {UNSTARTED}"], {"/bin/rm": MISSING}, old=True),
        "file in the product's place is no old copy": Scenario(
            CLEAN, {INSTALLER: [f"{REAL}/rm {APPLICATION}\n{INSTALLS}"]}, prepare=lambda _: write(APPLICATION, "")),
    },
    "the installer": {
        "installer says error, the second download breaks off, resumes at its own byte and installs": Scenario(
            [*DOWNLOADED, *INSTALLATION, "log Install Pellomar failed:installer: Error - damaged", *INSTALL_FAILED,
             "> picture install-failed", *DOWNLOAD_AGAIN, "> 10%", "> picture retried", *BROKEN_AGAIN,
             *TRIES_AGAIN, *DOWNLOADING, *FINISHED, *RIGHTS, *INSTALLED, *LOADED_AND_LAUNCHED],
            {INSTALLER: ["echo 'installer: Error - damaged'", INSTALLS]},
            answers=({}, {}, {}, {"cut": 40_000, "rate": 20_000}, {}), asked=["HEAD", None, "HEAD", None, "HEAD", 40_000]),
        "installer's status and error stream do not count": Scenario(
            CLEAN, {INSTALLER: [f"{INSTALLS}; echo Error >&2; exit 1"]}),
        "installer says error, and the rights stay": Scenario(
            [*DOWNLOADED, *INSTALLATION, "log Install Pellomar failed:INVALID", *INSTALL_FAILED],
            {INSTALLER: ["echo INVALID"]}, held=1),
        "installer cannot start": Scenario(
            [*DOWNLOADED, *QUESTION, "> 取消", *NO, *REMOVED, *INSTALLING, f"log /usr/sbin/installer {UNSTARTED}",
             "status 安装Pellomar失败了，请联系反馈群或者重新尝试进行安装", "event 822", "> picture installer-missing"],
            {INSTALLER: MISSING}, old=True),
        "closed during the installation": Scenario(
            [*DOWNLOADED, *INSTALLATION, *CLOSED], {INSTALLER: ["exec sleep 600"]}, rights="root"),
    },
    "the driver and the launch": {
        "old system, settings, driver starts": Scenario(
            [*DOWNLOADED, *KEPT, *REMOVAL, "> picture uninstalling", "> proceed", REMOVAL_DONE,
             *INSTALLATION, "> picture installing", "> proceed", *INSTALLATION_DONE,
             *QUERY, "> picture querying-driver", "> proceed", *OLD_SYSTEM, "event 823",
             GUIDE, "> picture driver-guidance", "> behind 重试安装", "> 立即前往设置", *SETTINGS, "> picture driver-failure",
             *AGAIN, *DRIVER_START, "> picture installing-driver", "> proceed", "event 825",
             LAUNCHING, "> picture launching", "> proceed", *RUNNING],
            # What the installer prints does not count for the driver.
            {"/bin/rm": [HELD + REMOVES], KEXTSTAT: [HELD + NOT_LOADED[0]], STARTUP: [f"{HELD}echo Started."],
             INSTALLER: [f"{HELD}{INSTALLS}; ln -sf {HOLD} /Applications/Pellomar.app/Contents/Info.plist; "
                         "echo com.norvik.emu.kext.VBoxDrv"]},
            old=True, logged="\nStarted.\n\n"),
        "old system, guide closed, driver start fails, then says only error": Scenario(
            [*DOWNLOADED, *INSTALLED, *QUERY, *OLD_SYSTEM, "event 823", *GUIDE_CLOSED, *AGAIN,
             *DRIVER_START, *OLD_SYSTEM, GUIDE, "> Return", *SETTINGS, *AGAIN, *DRIVER_START, "event 825", *LAUNCHED],
            {KEXTSTAT: ["true"], STARTUP: [*DRIVER_FAILS, "echo Error"]}, system="10.14.4"),
        "old system, rights given up": Scenario(
            [*DOWNLOADED, *INSTALLED, *QUERY, *OLD_SYSTEM, "event 823", GUIDE, "> no rights", "> Escape", "dialog closed"],
            {KEXTSTAT: ["true"]}, system="10.15.4"),
        "new system, driver in another letter case": Scenario(
            [*DOWNLOADED, *INSTALLED, *QUERY, "event 824", *NEW_SYSTEM, "> no rights", "> picture signature-guidance",
             "> 立即前往", "dialog closed", "opens the help page", "> picture see-forum"],
            {KEXTSTAT: ["echo com.norvik.emu.kext.vboxdrv"]}, system="10.14.5"),
        "query cannot start, driver start fails on a new system": Scenario(
            [*DOWNLOADED, *INSTALLED, QUERYING, f"log /usr/sbin/kextstat {UNSTARTED}", *DRIVER_FAILED, *AGAIN,
             *DRIVER_START, *NEW_SYSTEM, "> Escape", "dialog closed"],
            {KEXTSTAT: MISSING, STARTUP: DRIVER_FAILS}, system="10.14.6"),
        "launch fails": Scenario(
            [*DOWNLOADED, *INSTALLED, *QUERY, "event 826", LAUNCHING,
             "log launch Pellomar.app error:The executable /Applications/Pellomar.app/Contents/MacOS/Pellomar "
             "could not be started: Permission denied", "status 启动Pellomar失败", "> picture launch-failed"],
            {INSTALLER: [f"{INSTALLS}; chmod -x /Applications/Pellomar.app/Contents/MacOS/*"]}),
        "no statistics tool": Scenario(WITHOUT_EVENTS, prepare=lambda _: STATISTICS.unlink()),
        "statistics tool that hangs": Scenario(
            WITHOUT_EVENTS, prepare=lambda _: write(STATISTICS, "#!/bin/sh\nexec sleep 600\n", 0o755)),
    },
    "administrator rights": {
        "rights refused twice, before the question and without another download": Scenario(
            [*BEFORE_RIGHTS, *REFUSED, "> picture rights-refused", *CLICKED_AGAIN, *REFUSED], old=True, rights="none",
            asked=["HEAD", None]),
        "a rule refuses": Scenario(
            [*BEFORE_RIGHTS, *DENIED, "> no rule", *ALLOWED_AT_LAST], old=True, rights="NO", agent="right"),
        "no authentication agent": Scenario([*BEFORE_RIGHTS, *DENIED, *ALLOWED_AT_LAST], old=True, rights="ask"),
        "password dialog closed": Scenario(
            [*BEFORE_RIGHTS, ASKED, *NO_RIGHTS, *ALLOWED_AT_LAST], old=True, rights="ask", agent="close"),
        "closed during the password dialog that the worker waits for": Scenario(
            [*BEFORE_RIGHTS, ASKED, "> asked", *CLOSED], rights="ask", agent="wait"),
        "closed during the password dialog that the main thread waits for": Scenario(
            [*BEFORE_RIGHTS, *DENIED, "> agent wait", *CLICKED_AGAIN, ASKED, "> asked", *CLOSED], rights="ask"),
    },
}
