#!/usr/bin/env python3
"""Lays out our C and C++ sources by .clang-format.

    Tools/format.py [--check] [FILE...]

Without files: all of ours, generated tables left out. --check changes nothing, prints where the
layout differs and ends 1 if it does.
"""

import concurrent.futures
import os
import pathlib
import subprocess
import sys

from sources import ROOT, own_sources, shown

FILES_A_CALL = 8


def format_some(paths, check):
    """Formats these files; returns what clang-format says to them."""
    mode = ["--dry-run", "-Werror"] if check else ["-i"]
    result = subprocess.run(["clang-format", "--style=file", *mode, *map(shown, paths)],
                            cwd=ROOT, capture_output=True, text=True, check=False)
    return result.stderr


def main():
    arguments = sys.argv[1:]
    check = "--check" in arguments
    named = [pathlib.Path(name).resolve() for name in arguments if name != "--check"]
    paths = named or own_sources()
    groups = [paths[at:at + FILES_A_CALL] for at in range(0, len(paths), FILES_A_CALL)]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        messages = "".join(pool.map(lambda group: format_some(group, check), groups))
    sys.stdout.write(messages)
    print(f"format: {len(paths)} files, {messages.count('[-Wclang-format-violations]')} places differ"
          if check else f"format: {len(paths)} files")
    return 1 if messages else 0


if __name__ == "__main__":
    sys.exit(main())
