"""What a window finds: the disk image, a home, tools, an old copy. Needs root in the throw-away view."""

import os
import re
import shlex
import shutil
import signal
import subprocess
from pathlib import Path

import desktop
from rights import TRANSACTION, USER, Agent, RightsServices, add_users, as_user
from waiting import processes, wait_for
from window import Window

PROJECT = Path(__file__).resolve().parents[2]
DISK = Path("/media/Pellomar")
BUNDLE = DISK / "Pellomar下载器.app"
PROGRAM = BUNDLE / "Contents/MacOS/PellomarDownloader"
STATISTICS = PROGRAM.with_name("WebStatistics")
APPLICATION = Path("/Applications/Pellomar.app")
STAGING = Path("/.pellomar-installer")
PRODUCT = APPLICATION / "Contents/MacOS/Pellomar"
OLD = APPLICATION / "Contents/of-the-old-copy"
SYSTEM_VERSION = Path("/System/Library/CoreServices/SystemVersion.plist")
INSTALLER, KEXTSTAT = "/usr/sbin/installer", "/usr/sbin/kextstat"
STARTUP = "/Library/Application Support/NorvikEmu/VirtualBoxStartup.sh"
REAL = Path("/opt/real")  # the tools that scripts stand in for
HOLD = Path("/run/hold")  # a pipe: who reads it waits until something is written
SAMPLE = "sample/soft/Pellomar-sample.pkg"
ADDRESS = ("127.0.0.1", 18080)
START = "log start_button has been clicked"
ERRORS = Path("/run/standard-error")  # of the window; its log, if it can have no other

# A program that the window starts writes into the log of the only window. It adds the number of its start, if it has been
# given one (Trace.cpp).
NOTE = f"""#!/bin/bash
log=(/home/*/Documents/LOG-* {ERRORS})
[[ -e $log ]] || log={ERRORS}
note() {{ echo "@${{PELLOMAR_STARTED:+$PELLOMAR_STARTED }}$*" >>"$log"; }}
"""
# A tool writes its command line, and then runs a line of bash: the first line at its first call, the second at its second
# call, and the last line at all later calls.
TOOL = f"""{NOTE}
[[ $0 != */rm || $* == *Pellomar.app ]] || exec {REAL}/rm "$@"
(IFS="|"; note "$(id -un) runs $0|$*")
bodies=(%s)
number=$(grep -cF " runs $0|" "$log")
eval "${{bodies[number - 1]-${{bodies[-1]}}}}"
"""
# What the tools do, as lines of bash.
REMOVES = f'{REAL}/rm "$@"'
COMMITS = f"true 2>/dev/null >{STAGING}/done"  # where an old copy is set aside
INSTALLS = (f'cp -r /opt/product /Applications/Pellomar.app; {COMMITS}; '
            'wc -c <"$2"; echo installer: The install was successful.')
LOADED = "echo 'Index Refs Name'; echo '120 3 com.norvik.emu.kext.VBoxDrv (5.2.0)'"
SCRIPTED = {"/bin/rm": [REMOVES], INSTALLER: [INSTALLS], KEXTSTAT: [LOADED], STARTUP: ["echo Started."]}


def write(path, text, mode=0o644):
    path = Path(path)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.unlink(missing_ok=True)  # never through a link
    path.write_text(text)
    path.chmod(mode)


def note(text):
    """A program that writes a line into the log."""
    return f'{NOTE}note "{text}"\n'


def plist(key, value):
    """The same key in an inner dictionary does not count."""
    bad, good = (f"<key>{key}</key><string>{text}</string>" for text in ("wrong", value))
    return f'<?xml version="1.0"?><plist version="1.0"><dict><key>Inner</key><dict>{bad}</dict>{good}</dict></plist>\n'


def remove(path):
    if path.is_mount():
        subprocess.run(["umount", path], check=True)
    shutil.rmtree(path) if path.is_dir() and not path.is_symlink() else path.unlink(missing_ok=True)


class Machine:
    """BUILD is the build folder. One user's session and display run as long as this process."""

    def __init__(self, build, display=desktop.Display, user_number=None):
        os.umask(0o022)
        self.build, self.agent, self.camera = build, None, lambda name: None
        self.home = Path("/home", USER)
        self.help_page = re.search(r"(?m)^PELLOMAR_HELP_URL:\w+=(.*)$", (build / "CMakeCache.txt").read_text())[1]
        shutil.copytree(build / BUNDLE.name, BUNDLE)
        if (build / "tests").exists():
            shutil.copytree(build / "tests/support/plugins", DISK / "plugins")
        self.config = DISK / ".config"
        subprocess.run(["chmod", "-R", "a+rX", DISK], check=True)
        REAL.mkdir()
        for tool in ("/usr/bin/killall", "/bin/rm", "host/installer/installer", "host/kextstat/kextstat"):
            shutil.copy(build / tool, REAL)
        os.mkfifo(HOLD)
        HOLD.chmod(0o666)
        APPLICATION.parent.mkdir(exist_ok=True)
        write("/opt/product/Contents/Info.plist", plist("CFBundleExecutable", "Pellomar"))
        kind = "[[ -e ${0%/MacOS/*}/of-the-old-copy ]] && echo mixed || echo new"
        session = "ps -o sid= $$ | grep -qw $$ && echo a session of its own"
        write("/opt/product/Contents/MacOS/Pellomar",
              note(f"opens $({kind}) Pellomar, $(id -un) in $PWD, in $({session})"), 0o755)
        write("/usr/bin/xdg-open", note("opens $*"), 0o755)
        add_users(*(["--uid", user_number, "--non-unique"] if user_number else []))
        self.rights = RightsServices(PROJECT, build, "/run/system.log")
        self.parts = [desktop.Session(**as_user(USER)), display()]

    def trust_sample(self):
        certificate = self.build / "sample/signing/certificate.pem"
        write("/etc/pellomar-installer/trusted/sample.pem", certificate.read_text())

    def begin(self, scenario):
        """Starts over, as the scenario says."""
        self.stop_programs()
        self.rights.stop()
        wait_for("the end of the last attempt", lambda: not processes(TRANSACTION))
        remove(self.home)
        self.home, self.owner = Path("/home", scenario.home), "root" if scenario.rights == "root" else USER
        for path in (self.home, APPLICATION, SYSTEM_VERSION):
            remove(path)
        self.home.mkdir()
        for name in scenario.stale:
            write(self.home / name, "stale")
        subprocess.run(["chown", "-R", f"{self.owner}:", self.home], check=True)
        tools = {path: [f'exec {REAL}/{Path(path).name} "$@"'] for path in ("/usr/bin/killall", *SCRIPTED)}
        for path, bodies in (tools | ({STARTUP: []} if scenario.real else SCRIPTED) | scenario.tools).items():
            remove(Path(path))
            if bodies:
                write(path, TOOL % "\n".join(map(shlex.quote, bodies)), 0o755)
        write(STATISTICS, note('$(if [[ $1 == 14 ]]; then echo "event $2"; else echo "events submitted"; fi)'), 0o755)
        if scenario.old:
            write(PRODUCT, "", 0o755)
            write(OLD, "")
        if scenario.system:
            write(SYSTEM_VERSION, plist("ProductVersion", scenario.system))
        write(self.config, "package")
        if scenario.rights not in ("root", "none"):
            self.rights.start(None if scenario.rights == "ask" else scenario.rights)
        if scenario.prepare is not None:
            scenario.prepare(self)

    def file(self, ending):
        return self.home / f"Downloads/NVInst/Pellomar.{ending}"

    def open(self, *before):
        """A window of the home's owner on its first screen; what it shows is written to the log."""
        start = as_user(self.owner)
        write(ERRORS, "", 0o666)
        start["env"] |= {"QT_QPA_GENERIC_PLUGINS": "trace", "QT_PLUGIN_PATH": str(DISK / "plugins")}
        with ERRORS.open("ab") as errors:
            window = Window(PROGRAM, self.home, *before, stdout=errors, stderr=errors, **start)
        window.wait_until_open()
        return window

    def start_agent(self, window, answer):
        """Answers the password dialogs of a window from now on."""
        if self.agent is not None:
            self.agent.close()
        self.agent = Agent(window.process.pid, answer)

    def held_rights(self, window):
        """How many connections to the system bus a window has: each holds an authorization."""
        return self.rights.connections().count(window.process.pid) if self.rights.bus else 0

    @staticmethod
    def stop_programs():
        """Ends the product, and tools that sleep: an attempt waits for the tools of the one before it."""
        for program in (PRODUCT, "/usr/bin/sleep"):
            for process in processes(program):
                os.kill(process, signal.SIGKILL)
            wait_for(f"the end of {program}", lambda: not processes(program))


def trace(home, names=()):
    """The log's lines since 开始 was pressed, in the order in which the window wrote them. What the window started stands
    where it started it. NAMES maps texts to what replaces them."""
    log = next((home / "Documents").glob("LOG-*"), ERRORS)
    seen, started = [], {}
    text = log.read_text(errors="replace")
    for long, short in ({str(home): "~"} | dict(names)).items():
        text = text.replace(long, short)
    line = r"(?m)^(?:@(?:(\d{6}) )?(.*)|[^\[\n]+ PellomarDownloader\[[^]\n]+\] (.*))"
    for number, written, logged in re.findall(line, text):
        if number.strip("0") and written:
            started[number] = written
        else:  # 0 is the number of a program that is waited for
            seen.append(written or number or f"log {logged}")
    seen = [started.get(line, line) for line in seen]
    # A newer toolkit reports the first screen, too, where there is no log but standard error.
    start = seen.index(START) if START in seen else 0
    return [line for line in seen[start:] if not re.fullmatch(r"\d{6}", line)]
