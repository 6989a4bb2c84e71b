#!/usr/bin/python3
"""Downloads the same files with the product's window, a bare loop over libcurl, curl, wget and aria2c in turn, and prints
medians, spread and ratios. Needs a display; scripts/bench starts one."""
import argparse
import contextlib
import filecmp
import json
import os
import re
import shutil
import signal
import subprocess
import sys
from pathlib import Path

from measure import environment, machine, measured, measured_window
from report import markdown, plot, publish

HERE = Path(__file__).resolve().parent
PROGRAMS = ("window", "bare loop", "curl", "wget", "aria2c")
LISTEN = "127.0.0.1:18080"  # what the product is built for
ADDRESS = f"http://{LISTEN}/soft/"
DELAY = 0.05  # seconds, each way
MEGABYTE = 1_000_000
CPUS = sorted(os.sched_getaffinity(0))
LOADS = {  # name: title, bytes, bytes a second, busy loops beside it, CPUs for the programs
    "unlimited": ("1 GB, as fast as it goes", 1000 * MEGABYTE, 0, 0, CPUS),
    "busy": ("100 MB beside one busy loop for each CPU", 100 * MEGABYTE, 0, len(CPUS), CPUS),
    "one-cpu": ("100 MB, each program on one CPU", 100 * MEGABYTE, 0, 0, CPUS[:1]),
    "limited": ("1 GB at 125 MB/s", 1000 * MEGABYTE, 125 * MEGABYTE, 0, CPUS),
    "distant": ("64 MB at 2 MB/s, 50 ms away", 64 * MEGABYTE, 2 * MEGABYTE, 0, CPUS),
}
INTERFACE = ("unlimited", "busy")  # loads during which late events are counted
BODIES = {"small": 10 * MEGABYTE, "huge": 4000 * MEGABYTE}  # for the memory


def say(text):
    print(f"== {text}", flush=True)


def prepare(documents):
    documents.mkdir(parents=True, exist_ok=True)
    for name, (_, size, *_) in LOADS.items():
        path = documents / name
        if path.exists() and path.stat().st_size == size:
            continue
        say(f"Making {size // MEGABYTE} MB of random bytes")
        with open(path, "wb") as file, open("/dev/urandom", "rb") as random:
            for _ in range(size // MEGABYTE):
                file.write(random.read(MEGABYTE))
    for name, size in BODIES.items():
        (documents / name).touch()
        os.truncate(documents / name, size)


class Comparison:
    def __init__(self, build, folder):
        self.benchmarks = build / "benchmarks"
        self.window = self.benchmarks / "Product.app/Contents/MacOS/download_window"
        self.picture = self.benchmarks / "Product.app/Contents/Resources/firstbackground.png"
        self.folder = folder
        self.documents = folder / "documents"
        self.server = folder / "server"
        prepare(self.documents / "soft")

    @contextlib.contextmanager
    def serving(self, rate=0, listen=LISTEN):
        serve = HERE.parent / "sample/serve"
        subprocess.run([serve, "--background", "--listen", listen, "--rate", str(rate), self.documents, self.server],
                       stdout=subprocess.DEVNULL, check=True)
        try:
            yield
        finally:
            subprocess.run([serve, "--stop", self.server], stdout=subprocess.DEVNULL, check=True)

    def home(self, program):
        """A fresh home, and the file that the program leaves in it."""
        home = self.folder / "homes" / program.replace(" ", "-")
        shutil.rmtree(home, ignore_errors=True)
        home.mkdir(parents=True)
        return home, home / ("Downloads/NVInst/Pellomar.tmp" if program == "window" else "file")

    def command(self, program, url, file):
        return {
            "bare loop": [self.benchmarks / "bare_loop", url, file],
            "curl": ["curl", "--silent", "--show-error", "--output", file, url],
            "wget": ["wget", "--quiet", "--output-document", file, url],
            "aria2c": ["aria2c", "--quiet", "--dir", file.parent, "--out", file.name, url],
        }[program]

    def choose(self, load):
        (self.benchmarks / ".config").write_text(load)

    def checked(self, load, file):
        if not filecmp.cmp(self.documents / "soft" / load, file, shallow=False):
            raise SystemExit(f"{file} is not what the server has")
        file.unlink()

    @contextlib.contextmanager
    def busy(self, loops):
        running = [subprocess.Popen(["sh", "-c", "while :; do :; done"]) for _ in range(loops)]
        try:
            yield
        finally:
            for process in running:
                process.kill()
                process.wait()

    def one_after_another(self, load):
        _, _, rate, loops, cpus = LOADS[load]
        with self.serving(rate), self.busy(loops):
            os.sched_setaffinity(0, cpus)
            results = {program: self.one(program, load) for program in PROGRAMS}
            os.sched_setaffinity(0, CPUS)
        return results

    def one(self, program, load):
        home, file = self.home(program)
        if program == "window":
            self.choose(load)
            result = measured_window(self.window, home)
        else:
            result = measured(self.command(program, ADDRESS + load, file), home)
        self.checked(load, file)
        return result

    def all_from_afar(self, load):
        """All programs at once, each in its own network namespace: they wait for the line, not for the processor."""
        self.choose(load)
        unshare = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--net", "--map-root-user"]
        distant = [*unshare, sys.executable, HERE / "distant.py", self.server / "nginx.sock", str(DELAY)]
        running, results = {}, {}
        with self.serving(LOADS[load][2], "unix:nginx.sock"):
            for program in PROGRAMS:
                home, file = self.home(program)
                kind = "window" if program == "window" else "command"
                command = [self.window] if program == "window" else self.command(program, ADDRESS + load, file)
                running[program] = file, subprocess.Popen([*distant, home, kind, *command], stdout=subprocess.PIPE,
                                                          text=True)
            for program, (file, process) in running.items():
                output, _ = process.communicate()
                if process.returncode != 0:
                    raise SystemExit(f"{program} from afar ended with {process.returncode}")
                results[program] = json.loads(output)
                self.checked(load, file)
        return results

    def first_paint(self):
        results = {}
        for name, command in (("bare window", [self.benchmarks / "bare_window", self.picture]),
                              ("window", [self.window.parent / "product_window"])):
            home, _ = self.home(name)
            printed = subprocess.run(command, env=environment(home), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     text=True, check=True).stdout
            # The product's output is its log.
            printed += "".join(log.read_text() for log in home.glob("Documents/LOG-*.txt"))
            milliseconds, kilobytes = re.search(r"^(\d+) ms (\d+) kB$", printed, re.M).groups()
            results[name] = {"milliseconds": float(milliseconds), "peak_kilobytes": int(kilobytes)}
        return results

    def window_alone(self, load, *arguments):
        home, file = self.home("window")
        self.choose(load)
        with self.serving():
            result = measured_window(self.window, home, *arguments)
        file.unlink()
        return result

    def interface(self, load):
        """How late events are handled during a download, by the window and by a bare one."""
        home, file = self.home("bare window")
        with self.busy(LOADS[load][3]):
            window = self.window_alone(load, "probe")
            with self.serving():
                bare = measured_window(self.benchmarks / "bare_window", home, self.picture, ADDRESS + load, file)
        file.unlink()
        return {"window": window, "bare window": bare}

    def run(self, rounds, loads):
        results = {load: {program: [] for program in PROGRAMS} for load in loads}
        results |= {"first paint": [], "interface": {load: [] for load in loads if load in INTERFACE}, "memory": {}}
        for number in range(1, rounds + 1):
            for load in loads:
                say(f"Round {number} of {rounds}: {LOADS[load][0]}")
                measured_now = self.all_from_afar(load) if load == "distant" else self.one_after_another(load)
                for program, result in measured_now.items():
                    results[load][program].append(result)
                print("   ".join(f"{program} {result['seconds']:.2f} s" for program, result in measured_now.items()))
            say(f"Round {number} of {rounds}: first paint, the interface during a download")
            results["first paint"] += [self.first_paint() for _ in range(3)]
            for load, pairs in results["interface"].items():
                pairs.append(self.interface(load))
        for name in BODIES:
            say(f"Memory: a body of {BODIES[name] // MEGABYTE} MB")
            results["memory"][name] = self.window_alone(name)["peak_kilobytes"]
        return results


def versions():
    first_lines = {program: subprocess.run([program, "--version"], stdout=subprocess.PIPE, text=True,
                                           check=True).stdout.splitlines()[0] for program in PROGRAMS[2:]}
    programs = "; ".join(re.search(r"(?:curl|Wget|aria2).*?\d[\d.]+", line)[0] for line in first_lines.values())
    return f"{machine()}; {programs}"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--folder", type=Path, required=True, help="for the server, the homes and results.json")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--load", action="append", choices=LOADS, help="only this one (may be repeated)")
    parser.add_argument("--publish", type=Path, metavar="DOCS", help="put the table and the plot there")
    options = parser.parse_args()
    folder = options.folder.resolve()
    folder.mkdir(parents=True, exist_ok=True)
    # The server must end too when this process is terminated.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    results = Comparison(options.build.resolve(), folder).run(options.rounds, options.load or list(LOADS))
    (folder / "results.json").write_text(json.dumps(results, indent=1))
    titles = {name: title for name, (title, *_) in LOADS.items()}
    table = markdown(results, titles, options.rounds, versions())
    print(table)
    if options.publish:
        document = options.publish / "performance.md"
        publish(document, "figures", table)
        (options.publish / "performance.svg").write_text(plot(results, titles))
        say(f"{document} and performance.svg are new")


main()
