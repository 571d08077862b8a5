#!/usr/bin/env python3
"""Reads the #include lines of the tree and holds them against its layers.

    Tools/check_layers.py [--table]

A file includes headers of its own row and of the rows below it, never above (ROWS, lowest first).
A public header includes public headers only. An XInternal.h is included from its own folder, from
the folders in it, and from tests. Include paths are whole: they start at Include, at Src or at
Tests, whatever file they stand in. What has to break a rule is named in SEAMS, with its reason.

Ends 1 when a line breaks a rule or a file has no row. --table prints each file with its row.
"""

import re
import sys

from sources import include_lines, own_sources, resolve, shown

# Rows from the bottom up. A file belongs to the first pattern, of any row, that matches its path
# from Include or Src on, so a folder's special files stand before the folder's general pattern.
ROWS = [
    ("Infra3, frame", [
        r"Infra/Infra3/Detail/(Export|LockRecords|Singleton|ShortBytes|StandardString)\.h",
        r"(Infra/)?Infra3/(Arithmetic|AtomicCount|Error|ErrorText|AssertFront|AssertionFailed|BoundedText|Digits|Hash|TextWriter|MessageFormat|Immortal)\.\w+",
        r"(Infra/)?Infra3/(C?PrintLog|DumpHex|LogLine|LogFront|LogSink|PlainShared)\.\w+",
        r"(Infra/)?Infra3/(Mutex\w*|LeafMutex|RecursiveMutex|ReadWriteMutex|Semaphore|Guard)\.\w+",
        r"(Infra/)?Infra3/(ThreadSpecific|ThreadId|ProcessId|ProcessLife|LocalTime|MemoryTrial|SystemCall|Fork|Singleton|Cpu\w*|Futex\w*)\.\w+",
    ]),
    ("Utils", [r"Utils/.*"]),
    ("Infra3, values", [
        r"(Infra/)?Infra3/(Function|Signal)\.\w+",
        r"(Infra/)?Infra3/(Detail/(FlexString|SmallStringOpt|StringStorage)|String)\.\w+",
        r"(Infra/)?Infra3/(Time|TimeFormat|TimeParse|TimeInternal|TimeSet|TimeZone|[Uu]tc)\.\w+",
        r"(Infra/)?Infra3/Version\w*\.\w+",
    ]),
    ("Infra3, services", [
        r"(Infra/)?Infra3/(LogFilter|LogFile|File|Timer|Thread)\w*\.\w+",
    ]),
    ("Memory/ShareMem, pool", [
        r"Memory/(BuddyMath|ShareMemory|MemoryBlock)\.h",
        r"Memory/ShareMem/(?!SharePacket).*",
    ]),
    ("Memory", [
        r"Memory/(Buffer|CopyBytes|MemPool|RefCount|ScopedPtr)\.\w+",
        r"Memory/((Old)?Packet\w*|PoolLock|SharePacketSeam)\.\w+",
    ]),
    ("Memory/ShareMem, packets", [r"Memory/(ShareMem/)?SharePacket\w*\.\w+"]),
    ("Component", [r"Component/.*"]),
    ("older interface", [r"Infra/\w+\.h", r"\w+\.(h|cpp)"]),
    ("applications", []),  # Tests, Benchmarks, Examples, Tools
]

# (includer, included): why this one line may break the rules.
SEAMS = {
    ("Infra/Infra3/PrintLog.h", "Infra/Infra3/Function.h"):
        "a printer is a delegate",
    ("Infra3/File.cpp", "Infra/File.h"):
        "handles of a table of functions are never looked at",
    ("IncludeVersion.cpp", "Infra3/VersionInternal.h"):
        "the library enters its own version where it enters its header sets",
}

APPLICATIONS = len(ROWS) - 1
INCLUDE_AREAS = ("Include", "Src", "Tests")  # an example may include the header beside it


class File:
    """A file of the tree: `name` is its path from its include root on."""

    def __init__(self, path):
        self.path = path
        self.area, _, self.name = shown(path).partition("/")
        if self.area not in ("Include", "Src"):
            self.name = shown(path)
        self.row = self._find_row()

    def _find_row(self):
        if self.area not in ("Include", "Src"):
            return APPLICATIONS
        for row, (_, patterns) in enumerate(ROWS):
            if any(re.fullmatch(pattern, self.name) for pattern in patterns):
                return row
        return None

    @property
    def folder(self):
        return self.name.rpartition("/")[0]


def faults_of_line(includer, style, text):
    """What is wrong with one #include line, as messages."""
    target = resolve(text)
    if target is None:
        beside = includer.path.parent / text
        if style == '"' and beside.is_file() and includer.area in INCLUDE_AREAS:
            yield f'"{text}" is not whole: write it from Include, Src or Tests on'
        elif style == '"' and includer.area in ("Include", "Src"):
            yield f'"{text}" is no file of ours: a header of the system stands in <>'
        return
    included = File(target)
    if (includer.name, included.name) in SEAMS or included.row is None:
        return
    if style == "<" and includer.area in ("Include", "Src"):
        yield f'<{text}> is ours: it stands in ""'
    if includer.area == "Include" and included.area != "Include":
        yield f"a public header includes {shown(target)}, which is not installed"
    if included.name.endswith("Internal.h") and includer.area not in ("Include", "Tests") \
            and not is_below(includer, included.folder):
        yield f"{included.name} belongs to {included.folder or 'Src'}"
    if includer.row is not None and included.row > includer.row:
        yield f'"{ROWS[includer.row][0]}" includes {text} of "{ROWS[included.row][0]}" above it'


def is_below(includer, folder):
    """True in the folder and in the folders in it; the files at the top of Src share only that."""
    in_it = includer.folder == folder
    return includer.area == "Src" and (in_it or includer.folder.startswith(folder + "/"))


def faults_of_file(file):
    if file.row is None:
        yield f"{shown(file.path)}: belongs to no row: enter it in Tools/check_layers.py"
    for line, style, text in include_lines(file.path):
        for fault in faults_of_line(file, style, text):
            yield f"{shown(file.path)}:{line}: {fault}"


def unused_seams(files):
    used = {(file.name, text) for file in files for _, _, text in include_lines(file.path)}
    return [seam for seam in SEAMS if seam not in used]


def main():
    files = [File(path) for path in own_sources()]
    if "--table" in sys.argv[1:]:
        for file in files:
            print(f"{ROWS[file.row][0] if file.row is not None else '?':26}{shown(file.path)}")
        return 0
    faults = [fault for file in files for fault in faults_of_file(file)]
    faults += [f"Tools/check_layers.py: no line needs the seam {a} -> {b} any more"
               for a, b in unused_seams(files)]
    for fault in faults:
        print(fault)
    print(f"layers: {len(files)} files, {len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
