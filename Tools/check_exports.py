#!/usr/bin/env python3
"""Holds the dynamic symbols of libInfra.so against what the library means to offer.

    Tools/check_exports.py LIBRARY

Offered are the namespaces below Tarsel, what public headers mark with INFRA_API in the global one
(the C interface, the older classes), and the typeinfo and vtables of those. Anything else, above
all a template instantiation of the standard library, could be bound to by another library of the
process and is a fault. So is a dependency on more than the system and the standard library, or
another soname than libInfra.so.3. Ends 1 on a fault.
"""

import re
import subprocess
import sys

from sources import ROOT

SONAME = "libInfra.so.3"
NEEDED = {"libc.so.6", "libm.so.6", "libstdc++.so.6", "libgcc_s.so.1", "ld-linux-x86-64.so.2"}

# A name of the global namespace is offered when a public header marks it.
MARKED = re.compile(r"(?:class|struct) INFRA_API (\w+)|"
                    r"\bINFRA_API (?:INFRA_PRINTF_FORMAT\([^)]*\))?[^;{(]*?(\w+)\s*[;({]")


def marked_names():
    """Every class, function and variable that stands behind INFRA_API in a public header."""
    texts = (path.read_text(encoding="utf-8") for path in (ROOT / "Include").rglob("*.h"))
    return {name for text in texts for match in MARKED.finditer(text)
            for name in match.groups() if name}


def offered_pattern():
    """Matches a demangled name that may be exported."""
    scope = rf"(?:Tarsel|{'|'.join(sorted(marked_names()))})\b"
    made_by_compiler = (r"(?:typeinfo(?: name)? for |vtable for |VTT for |guard variable for "
                        r"|(?:non-)?virtual thunk to )")
    result_of_template = r"(?:(?!std::)[\w:<>,&* ]+ )"
    return re.compile(rf"(?:{made_by_compiler}|{result_of_template})?{scope}")


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def exported_names(library):
    lines = output_of("nm", "--dynamic", "--demangle", "--defined-only", library).splitlines()
    # A line is an address, a letter and the name; absolute symbols are the versions themselves.
    return [line.split(maxsplit=2)[2] for line in lines if line.split()[1] != "A"]


def dynamic_faults(library):
    dynamic = output_of("readelf", "--dynamic", "--wide", library)
    soname = re.search(r"\(SONAME\).*\[(.*)\]", dynamic)
    if soname is None or soname.group(1) != SONAME:
        yield f"the soname is {soname.group(1) if soname else 'missing'}, not {SONAME}"
    for needed in re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic):
        if needed not in NEEDED:
            yield f"depends on {needed}"


def main():
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    library = sys.argv[1]
    names = exported_names(library)
    offered = offered_pattern()
    faults = [f"exports {name}" for name in names
              if not offered.match(name) or "(anonymous namespace)" in name.partition("(")[0]]
    faults += dynamic_faults(library)
    for fault in faults:
        print(f"{library}: {fault}")
    print(f"exports: {len(names)} names, {len(faults)} faults")
    return 1 if faults or not names else 0


if __name__ == "__main__":
    sys.exit(main())
