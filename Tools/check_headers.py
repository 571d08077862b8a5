#!/usr/bin/env python3
"""Compiles every public header alone, as an application would meet it.

    Tools/check_headers.py [HEADER...]

Each header below Include/ is included twice by an otherwise empty file, as C++17 and as C++20, with
g++ and clang++, every warning an error; CPrintLog.h also as C99 with gcc and clang. One more file
includes them all, older and namespaced interface together, another does so behind headers of the
system that define macros with everyday names, and two do so in open namespaces, forwards and
backwards, where names of the older interface are ambiguous. Ends 1 when anything does not compile.
"""

import concurrent.futures
import os
import pathlib
import subprocess
import sys

from sources import ROOT

INCLUDE = ROOT / "Include"
WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Werror"]
CXX = [("g++", "c++17"), ("g++", "c++20"), ("clang++", "c++17"), ("clang++", "c++20")]
C = [("gcc", "c99"), ("clang", "c99")]
C_HEADERS = ["Infra/Infra3/CPrintLog.h"]
# Members called stat, major and the like have to live with these.
GREEDY = "".join(f"#include <{header}>\n" for header in (
    "sys/sysmacros.h", "sys/stat.h", "sys/statfs.h", "sys/uio.h", "dirent.h"))
OPEN = "".join(f"namespace {name} {{}}\nusing namespace {name};\n" for name in (
    "Tarsel", "Tarsel::Infra", "Tarsel::Memory", "Tarsel::Component", "Tarsel::Utils"))


def compile_text(compiler, standard, headers, times=2, before=""):
    """What the compiler says to a file of nothing but these includes; "" when it takes it."""
    language = "c" if standard.startswith("c9") else "c++"
    text = before + "".join(f'#include "{header}"\n' for header in headers) * times
    result = subprocess.run(
        [compiler, f"-std={standard}", *WARNINGS, "-fsyntax-only", f"-I{INCLUDE}",
         "-x", language, "-"],
        input=text, capture_output=True, text=True, check=False)
    return result.stderr if result.returncode != 0 else ""


def public_headers(chosen):
    if chosen:
        return [str(pathlib.Path(name).resolve().relative_to(INCLUDE)) for name in chosen]
    return sorted(str(path.relative_to(INCLUDE)) for path in INCLUDE.rglob("*.h"))


def jobs_for(headers):
    """The name of every compilation, and what compile_text takes for it."""
    for compiler, standard in CXX:
        yield "all headers together", compiler, standard, headers
        yield "all headers behind the system's", compiler, standard, headers, 1, GREEDY
        yield "all headers in open namespaces", compiler, standard, headers, 1, OPEN
        yield "all headers in open namespaces, backwards", compiler, standard, headers[::-1], 1, OPEN
        for header in headers:
            yield header, compiler, standard, [header]
    for compiler, standard in C:
        for header in C_HEADERS:
            if header in headers:
                yield header, compiler, standard, [header]


def main():
    headers = public_headers(sys.argv[1:])
    jobs = list(jobs_for(headers))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        answers = list(pool.map(lambda job: compile_text(*job[1:]), jobs))
    faults = 0
    for (name, compiler, standard, *_), answer in zip(jobs, answers):
        if answer:
            faults += 1
            print(f"{name}: not with {compiler} -std={standard}\n{answer}")
    print(f"headers: {len(headers)} headers, {len(jobs)} compilations, {faults} faults")
    return 1 if faults or not headers else 0


if __name__ == "__main__":
    sys.exit(main())
