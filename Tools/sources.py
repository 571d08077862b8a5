"""Which files are ours, and what they include. Shared by the other scripts of this folder."""

import functools
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parent.parent
OWN_FOLDERS = ("Include", "Src", "Tests", "Benchmarks", "Examples", "Tools")
INCLUDE_ROOTS = (ROOT / "Include", ROOT / "Src", ROOT / "Tests")

_SUFFIXES = {".h", ".c", ".cpp"}
_INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*(["<])([^">]+)[">]', re.MULTILINE)


def own_sources():
    """Every C and C++ file of the tree, generated tables left out."""
    paths = (path for folder in OWN_FOLDERS for path in (ROOT / folder).rglob("*"))
    return sorted(path for path in paths
                  if path.suffix in _SUFFIXES and path.is_file() and not is_generated(path))


def is_generated(path):
    """True for a file whose first line says that a script writes it."""
    with open(path, encoding="utf-8", errors="replace") as file:
        return "GENERATED" in file.readline()


def include_lines(path):
    """(line number, quote or angle, text) of each #include of `path`."""
    text = path.read_text(encoding="utf-8", errors="replace")
    return [(text.count("\n", 0, match.start()) + 1, match.group(1), match.group(2))
            for match in _INCLUDE.finditer(text)]


def resolve(include):
    """The own file that the include text names, None for a file of the system's."""
    for root in INCLUDE_ROOTS:
        if (root / include).is_file():
            return root / include
    return None


@functools.lru_cache(maxsize=None)
def included_files(path):
    """Every own file that compiling `path` reads, itself included."""
    seen = set()
    waiting = [path]
    while waiting:
        current = waiting.pop()
        if current not in seen:
            seen.add(current)
            found = (resolve(include) for _, _, include in include_lines(current))
            waiting.extend(file for file in found if file is not None)
    return frozenset(seen)


def shown(path):
    """The path as messages print it: from the root on."""
    return str(pathlib.Path(path).relative_to(ROOT))
