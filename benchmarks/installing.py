#!/usr/bin/python3
"""Installs signed packages of 0.9 GB and of 4 GB with installer, and unpacks their payloads with bsdtar and sync -f, in
turn. Prints medians, spread and ratios. All targets stay until the end: ext4 makes new files slowly just after others
were removed."""
import argparse
import os
import random
import shutil
import subprocess
from pathlib import Path

from measure import machine, timed
from report import median, publish, spread, table

# Files and the bytes of each. Every second file is text, the others are noise; of the large ones, one in four is noise.
SIZES = {"0.9 GB": (1500, 600_000, 2), "4 GB": (40, 100_000_000, 4)}
MOST_ROUNDS = {"0.9 GB": 100, "4 GB": 3}  # for the disk's sake
WORDS = 4000


def make_tree(root, files, size, period):
    """Text that compresses as a natural language does, by words of unequal frequency; the same in each run."""
    chance = random.Random(1)
    words = ["".join(chance.choices("etaoinshrdlucmfw", k=chance.randint(2, 9))) for _ in range(WORDS)]
    weights = [1 / rank for rank in range(1, WORDS + 1)]
    for number in range(files):
        path = root / f"Applications/Bench.app/{number // 100:02}/{number:04}"
        path.parent.mkdir(parents=True, exist_ok=True)
        text = " ".join(chance.choices(words, weights, k=min(size, 600_000) // 4)).encode()
        text *= 1 + size // len(text)
        path.write_bytes(text[:size] if number % period else chance.randbytes(size))


def prepare(build, folder, size):
    """The signed package, its payload alone, and the folder of its certificate."""
    package, payload, trusted = (folder / name for name in ("signed.pkg", "payload", "trusted"))
    if not package.exists():
        tree, unsigned = folder / "tree", folder / "unsigned.pkg"
        shutil.rmtree(folder, ignore_errors=True)
        trusted.mkdir(parents=True)
        make_tree(tree, *size)
        key, certificate = folder / "key.pem", trusted / "certificate.pem"
        make = Path(__file__).resolve().parent.parent / "sample/make-certificate"
        for command in (
            [make, "openssl", "Benchmark", key, certificate],
            [build / "sample/make-package", "--identifier", "com.example.bench", "--version", "1", tree, unsigned],
            [build / "host/sign-package/sign-package", key, certificate, unsigned, package],
        ):
            subprocess.run(command, stdout=subprocess.DEVNULL, check=True)
        with payload.open("wb") as out:
            subprocess.run(["bsdtar", "-xOf", unsigned, "Payload"], stdout=out, check=True)
        shutil.rmtree(tree)
        unsigned.unlink()
    return package, payload, trusted


def measured(command, target):
    """The times of the command, with nothing of an earlier run left to be written."""
    target.mkdir()
    os.sync()
    return timed(command, stdout=subprocess.DEVNULL)


def compared(build, folder, rounds, size):
    package, payload, trusted = prepare(build, folder, size)
    targets = folder / "targets"
    shutil.rmtree(targets, ignore_errors=True)
    targets.mkdir()
    results = {"installer": [], "bsdtar": []}
    for number in range(rounds):
        for name, runs in results.items():
            target = targets / f"{name}-{number}"
            installer = [build / "host/installer/installer", "-pkg", package, "-target", target, "-trusted", trusted]
            bsdtar = ["sh", "-c", 'bsdtar -xf "$0" -C "$1" && sync -f "$1"', payload, target]
            runs.append(measured(installer if name == "installer" else bsdtar, target))
    if subprocess.run(["diff", "-rq", targets / "installer-0/Applications", targets / "bsdtar-0/Applications"],
                      check=False).returncode != 0:
        raise SystemExit("the two have not unpacked the same")
    shutil.rmtree(targets)
    return results


def markdown(all_results, rounds):
    def ratio(runs, key):
        bsdtar = next(results["bsdtar"] for results in all_results.values() if runs in results.values())
        return f"{median(runs, key) / median(bsdtar, key):.2f}"

    rows = [[f"{title}: {name}", spread([run["seconds"] for run in runs]), ratio(runs, "seconds"),
             spread([run["processor"] for run in runs]), ratio(runs, "processor")] for title, results in all_results.items()
            for name, runs in results.items()]
    return (f"Medians of {rounds} rounds, with minimum and maximum in brackets. {machine()}.\n\n" +
            table(["", "seconds", "÷ bsdtar", "processor seconds", "÷ bsdtar"], rows))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--folder", type=Path, required=True, help="for the package and the targets")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--size", choices=SIZES, help="only packages of this size")
    parser.add_argument("--publish", type=Path, metavar="DOCS", help="put the table there")
    options = parser.parse_args()
    build, folder = options.build.resolve(), options.folder.resolve()
    sizes = {name: size for name, size in SIZES.items() if options.size in (None, name)}
    results = {name: compared(build, folder / name.replace(" ", ""), min(options.rounds, MOST_ROUNDS[name]), size)
               for name, size in sizes.items()}
    figures = markdown(results, options.rounds)
    print(figures)
    if options.publish:
        publish(options.publish / "performance.md", "figures of installing", figures)


if __name__ == "__main__":
    main()
