"""Runs one program and measures it."""
import json
import os
import re
import subprocess
import time
from pathlib import Path

PLACE_IN_A_SECOND = 0.1  # where DownloadWindow.cpp presses start too


def wait_for_the_next_start():
    time.sleep((PLACE_IN_A_SECOND - time.time()) % 1)


def environment(home):
    # Without proxies, and without the user's session.
    kept = {name: value for name, value in os.environ.items()
            if name in ("PATH", "DISPLAY", "XAUTHORITY", "LANG", "TMPDIR")}
    return kept | {"HOME": str(home), "QT_QPA_PLATFORM": "xcb"}


def machine():
    model = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())
    release = re.match(r"[\d.]+", os.uname().release)[0]  # without a machine's own build
    return f"Linux {release}, {os.cpu_count()} CPUs ({model[1] if model else os.uname().machine})"


def timed(command, **options):
    """Seconds of wall and of processor time of the whole process."""
    start = time.monotonic()
    process = subprocess.Popen(command, **options)
    _, status, usage = os.wait4(process.pid, 0)
    seconds = time.monotonic() - start
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise SystemExit(f"{command[0]} ended with {process.returncode}")
    return {"seconds": seconds, "processor": usage.ru_utime + usage.ru_stime}


def measured(command, home):
    """The times of a download."""
    wait_for_the_next_start()
    return timed(command, env=environment(home), stdin=subprocess.DEVNULL)


def measured_window(program, home, *arguments):
    """The times from the press of start to the last byte, and without what the process did before."""
    report = Path(home) / "report.json"
    report.unlink(missing_ok=True)
    with open(Path(home) / "window.log", "wb") as log:
        status = subprocess.run([program, report, *arguments], env=environment(home), stdin=subprocess.DEVNULL,
                                stdout=log, stderr=log, check=False).returncode
    if status != 0 or not report.exists():
        raise SystemExit(f"{program} ended with {status}; see {log.name} and {home}/Documents")
    return json.loads(report.read_text())
