#!/usr/bin/env python3
"""Runs clang-tidy over our sources, in parallel, on what changed since it was last clean.

    Tools/tidy.py BUILD [--again] [PATH...]

BUILD holds compile_commands.json of a configured clang build; it need not be built. With paths,
only the sources at and below them. A source found clean is remembered by its own text, the texts of
all own headers that it reads, .clang-tidy and the tool's version, and passed over until one of
those changes; --again looks at it all the same. Ends 1 when there are findings.
"""

import concurrent.futures
import hashlib
import json
import os
import pathlib
import subprocess
import sys
import time

from sources import ROOT, included_files, own_sources, shown


def compiled_sources(build):
    """The own sources that the build compiles."""
    commands = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    compiled = {pathlib.Path(entry["directory"], entry["file"]).resolve() for entry in commands}
    return [path for path in own_sources() if path in compiled]


def fingerprint(path, salt):
    """Changes with anything that clang-tidy's answer on `path` depends on."""
    digest = hashlib.sha256(salt)
    for file in sorted(included_files(path)):
        digest.update(shown(file).encode() + b"\0" + file.read_bytes())
    return digest.hexdigest()


def tidy(build, path):
    """(seconds, findings) of one source."""
    start = time.monotonic()
    result = subprocess.run(["clang-tidy", "-p", str(build), "--quiet", shown(path)],
                            cwd=ROOT, capture_output=True, text=True, check=False)
    findings = result.stdout if result.returncode != 0 else ""
    if result.returncode != 0 and not findings:
        findings = result.stderr
    return time.monotonic() - start, findings


def main():
    arguments = sys.argv[1:]
    again = "--again" in arguments
    arguments = [argument for argument in arguments if argument != "--again"]
    if not arguments:
        print(__doc__, file=sys.stderr)
        return 2
    build = pathlib.Path(arguments[0]).resolve()
    below = [pathlib.Path(name).resolve() for name in arguments[1:]] or [ROOT]
    sources = [path for path in compiled_sources(build)
               if any(path == place or place in path.parents for place in below)]

    version = subprocess.run(["clang-tidy", "--version"], check=True, capture_output=True).stdout
    rules = [ROOT / ".clang-tidy", *sorted(ROOT.glob("*/.clang-tidy"))]
    salt = version + b"".join(path.read_bytes() for path in rules)
    clean = build / "tidy"
    clean.mkdir(exist_ok=True)
    waiting = {path: clean / fingerprint(path, salt) for path in sources}
    if not again:
        waiting = {path: mark for path, mark in waiting.items() if not mark.exists()}

    faulty = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        answers = pool.map(lambda path: tidy(build, path), waiting)
        for (path, mark), (seconds, findings) in zip(waiting.items(), answers):
            print(f"{seconds:6.1f} s  {shown(path)}", flush=True)
            if findings:
                faulty += 1
                print(findings, flush=True)
            else:
                mark.touch()
    print(f"tidy: {len(sources)} sources, {len(waiting)} looked at, {faulty} with findings")
    return 1 if faulty or not sources else 0


if __name__ == "__main__":
    sys.exit(main())
