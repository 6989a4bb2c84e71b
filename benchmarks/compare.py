#!/usr/bin/python3
"""Downloads the same files with the product's window, a bare loop over its library, curl, wget and aria2c, one after
the other, round for round, and prints medians, spread and ratios. Needs a display; scripts/bench gives it one."""
import argparse
import filecmp
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path

from measure import environment, measured, measured_window
from report import markdown, plot

HERE = Path(__file__).resolve().parent
PROGRAMS = ("window", "bare loop", "curl", "wget", "aria2c")
ADDRESS = "http://127.0.0.1:18080/soft/"
DELAY = 0.05
MEGABYTE = 1_000_000
LOADS = {  # name: title, bytes, bytes a second
    "unlimited": ("1 GB, as fast as it goes", 1000 * MEGABYTE, 0),
    "limited": ("1 GB at 125 MB/s", 1000 * MEGABYTE, 125 * MEGABYTE),
    "distant": ("64 MB at 2 MB/s, 50 ms away", 64 * MEGABYTE, 2 * MEGABYTE),
}
BODIES = {"small": 10 * MEGABYTE, "huge": 4000 * MEGABYTE}  # for the memory: both unlimited

NGINX = """
worker_processes 1;
daemon on;
{user}
pid nginx.pid;
error_log error.log;
events {{ worker_connections 64; }}
http {{
    access_log off;
    sendfile on;
    server {{
        listen 127.0.0.1:18080;
        listen unix:{socket};
        root documents;
{locations}
    }}
}}
"""


def say(text):
    print(f"== {text}", flush=True)


class Server:
    def __init__(self, folder):
        self.folder = folder
        self.socket = folder / "nginx.sock"
        self.documents = folder / "documents/soft"

    def prepare(self):
        self.documents.mkdir(parents=True, exist_ok=True)
        for name, (_, size, _) in LOADS.items():
            path = self.documents / name
            if path.exists() and path.stat().st_size == size:
                continue
            say(f"Making {size // MEGABYTE} MB of random bytes")
            with open(path, "wb") as file, open("/dev/urandom", "rb") as random:
                for _ in range(size // MEGABYTE):
                    file.write(random.read(MEGABYTE))
        for name, size in BODIES.items():
            (self.documents / name).touch()
            os.truncate(self.documents / name, size)

    def __enter__(self):
        self.stop()
        with socket.socket() as port:
            port.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            try:
                port.bind(("127.0.0.1", 18080))
            except OSError as problem:
                raise SystemExit(f"port 18080, which the product is built for: {problem.strerror}") from None
        self.prepare()
        locations = "\n".join(f"        location = /soft/{name} {{ limit_rate {rate}; }}"
                              for name, (_, _, rate) in LOADS.items())
        user = "user root;" if os.geteuid() == 0 else ""
        conf = self.folder / "nginx.conf"
        conf.write_text(NGINX.format(user=user, socket=self.socket, locations=locations))
        search = os.environ["PATH"] + ":/usr/sbin:/sbin"
        subprocess.run([shutil.which("nginx", path=search), "-p", f"{self.folder}/", "-c", conf,
                        "-e", self.folder / "error.log"], check=True)
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        number = self.folder / "nginx.pid"
        if number.exists():
            subprocess.run(["pkill", "-TERM", "-F", number, "-x", "nginx"], check=False)
            while number.exists() and subprocess.run(["pgrep", "-F", number, "-x", "nginx"], stdout=subprocess.DEVNULL,
                                                     stderr=subprocess.DEVNULL, check=False).returncode == 0:
                time.sleep(0.05)
        self.socket.unlink(missing_ok=True)


class Comparison:
    def __init__(self, build, folder):
        self.benchmarks = build / "benchmarks"
        self.window = self.benchmarks / "Product.app/Contents/MacOS/download_window"
        self.folder = folder
        self.server = Server(folder)

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
        if not filecmp.cmp(self.server.documents / load, file, shallow=False):
            raise SystemExit(f"{file} is not what the server has")
        file.unlink()

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
        """At once, each in a network of its own: the line is what they wait for."""
        self.choose(load)
        unshare = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--net", "--map-root-user"]
        running = {}
        for program in PROGRAMS:
            home, file = self.home(program)
            kind = "window" if program == "window" else "command"
            command = [self.window] if program == "window" else self.command(program, ADDRESS + load, file)
            running[program] = file, subprocess.Popen(
                [*unshare, sys.executable, HERE / "distant.py", self.server.socket, str(DELAY), home, kind, *command],
                stdout=subprocess.PIPE, text=True)
        results = {}
        for program, (file, process) in running.items():
            output, _ = process.communicate()
            if process.returncode != 0:
                raise SystemExit(f"{program} from afar ended with {process.returncode}")
            results[program] = json.loads(output)
            self.checked(load, file)
        return results

    def first_paint(self):
        picture = self.benchmarks / "Product.app/Contents/Resources/firstbackground.png"
        results = {}
        for name, command in (("bare window", [self.benchmarks / "bare_window", picture]),
                              ("window", [self.window.parent / "product_window"])):
            home, _ = self.home(name)
            printed = subprocess.run(command, env=environment(home), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     text=True, check=True).stdout
            # The product's output is its log.
            printed += "".join(log.read_text() for log in home.glob("Documents/LOG-*.txt"))
            milliseconds, kilobytes = re.search(r"^(\d+) ms (\d+) kB$", printed, re.M).groups()
            results[name] = {"milliseconds": float(milliseconds), "peak_kilobytes": int(kilobytes)}
        return results

    def memory(self, load):
        home, file = self.home("window")
        self.choose(load)
        result = measured_window(self.window, home)
        file.unlink()
        return result["peak_kilobytes"]

    def interface(self):
        home, file = self.home("window")
        self.choose("unlimited")
        result = measured_window(self.window, home, "probe")
        file.unlink()
        return result

    def run(self, rounds, loads):
        results = {load: {program: [] for program in PROGRAMS} for load in loads}
        results |= {"first paint": [], "interface": [], "memory": {name: [] for name in BODIES}}
        for number in range(1, rounds + 1):
            for load in loads:
                say(f"Round {number} of {rounds}: {LOADS[load][0]}")
                measured_now = self.all_from_afar(load) if load == "distant" else {
                    program: self.one(program, load) for program in PROGRAMS}
                for program, result in measured_now.items():
                    results[load][program].append(result)
                print("   ".join(f"{program} {result['seconds']:.2f} s" for program, result in measured_now.items()))
            say(f"Round {number} of {rounds}: first paint, the interface during 1 GB")
            results["first paint"] += [self.first_paint() for _ in range(3)]
            results["interface"].append(self.interface())
        for name in BODIES:
            say(f"Memory: a body of {BODIES[name] // MEGABYTE} MB")
            results["memory"][name] = self.memory(name)
        return results


def versions():
    first_lines = {program: subprocess.run([program, "--version"], stdout=subprocess.PIPE, text=True,
                                           check=True).stdout.splitlines()[0] for program in PROGRAMS[2:]}
    return "; ".join(re.search(r"(?:curl|Wget|aria2).*?\d[\d.]+", line)[0] for line in first_lines.values())


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
    # So that the server ends with this, whoever ends it.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    comparison = Comparison(options.build.resolve(), folder)
    with comparison.server:
        results = comparison.run(options.rounds, options.load or list(LOADS))
    (folder / "results.json").write_text(json.dumps(results, indent=1))
    titles = {name: title for name, (title, _, _) in LOADS.items()}
    table = markdown(results, titles, options.rounds, versions())
    print(table)
    if options.publish:
        document = options.publish / "performance.md"
        text = document.read_text()
        between = re.compile(r"(?<=<!-- figures -->\n).*(?=<!-- end of figures -->)", re.S)
        document.write_text(between.sub(lambda _: table, text))
        (options.publish / "performance.svg").write_text(plot(results, titles))
        say(f"{document} and performance.svg are new")


main()
