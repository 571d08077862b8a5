#!/usr/bin/python3
"""Runs the benchmarks of a build folder and writes the report with its plots.

    python3 Tools/bench_report.py BUILD_DIR OUT_DIR [--filter REGEX] [--quick]
    python3 Tools/bench_report.py --report-only OUT_DIR

A run leaves in OUT_DIR/Benchmarks one JSON file a subject, with every repetition, and beside it the
plot of that subject; OUT_DIR/Benchmarks.md is made from these files alone, and --report-only makes
it again. Figures reach the report by this script only.

Cases are named case/size/threads:N/contender (Benchmarks/Support/Cases.h). "infra" is compared with
each other contender of its case; one whose name ends in "(floor)" is shown and not compared.
"""

import argparse
import json
import os
import platform
import re
import statistics
import subprocess
import sys
from collections import OrderedDict
from pathlib import Path

OURS = "infra"
FLOOR = "(floor)"

# What the benchmark library appends to a name.
SUFFIX = re.compile(
    r"/(real_time|manual_time|process_time|threads:\d+|iterations:\d+|repeats:\d+|min_time:[\d.]+)$"
)
NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


# ---------------------------------------------------------------------------------------------
# Running


def programs(build_dir):
    folder = Path(build_dir) / "Benchmarks"
    found = sorted(p for p in folder.glob("Bench*") if p.is_file() and os.access(p, os.X_OK))
    return [p for p in found if p.suffix == ""]


def run_program(program, raw_file, options):
    repetitions, min_time = (3, 0.005) if options.quick else (9, 0.03)
    command = [
        str(program),
        "--benchmark_enable_random_interleaving=true",
        f"--benchmark_repetitions={repetitions}",
        f"--benchmark_min_time={min_time}",
        f"--benchmark_out={raw_file}",
        "--benchmark_out_format=json",
    ]
    if options.filter:
        command.append(f"--benchmark_filter={options.filter}")
    print(f"{program.name}: {' '.join(command[1:])}", flush=True)
    result = subprocess.run(
        command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=False
    )
    if result.returncode != 0:
        print(f"{program.name} ended with {result.returncode}; its last words:", file=sys.stderr)
        print("\n".join(result.stderr.splitlines()[-15:]), file=sys.stderr)
    return result.returncode == 0


def run_all(options):
    """Runs every program; returns False if one of them failed."""
    folder = raw_folder(options.out_dir)
    folder.mkdir(parents=True, exist_ok=True)
    found = programs(options.build_dir)
    if not found:
        sys.exit(f"no benchmark programs in {options.build_dir}/Benchmarks: build them first")
    fine = True
    for program in found:
        subject = program.name[len("Bench"):]
        raw_file = folder / f"{subject}.json"
        new_file = raw_file.with_suffix(".new")
        if not run_program(program, new_file, options):
            # With a filter, most programs have no case that fits.
            fine = fine and options.filter is not None
            new_file.unlink(missing_ok=True)
            continue
        write_trimmed(new_file, raw_file)
        new_file.unlink()
    return fine


def write_trimmed(source, target):
    """Keeps what the report needs: context without names of the machine, and each repetition."""
    data = json.loads(source.read_text())
    context = {
        key: value
        for key, value in data["context"].items()
        if key in ("date", "num_cpus", "mhz_per_cpu", "caches", "peers", "compiler", "libc")
    }
    context["cpu"] = cpu_name()
    context["system"] = f"{platform.system()} {platform.release().split('-')[0]}"
    context["load"] = data["context"].get("load_avg", [])
    cases = OrderedDict()
    errors = []
    in_stated_order = lambda entry: (entry["family_index"], entry["per_family_instance_index"])
    for entry in sorted(data["benchmarks"], key=in_stated_order):
        if entry.get("error_occurred"):
            errors.append(f"{entry['name']}: {entry['error_message']}")
        elif entry["run_type"] == "iteration":
            add_repetition(cases, entry)
    lines = [f"  {json.dumps(name)}: {json.dumps(case)}" for name, case in cases.items()]
    target.write_text(
        '{\n"context": '
        + json.dumps(context, indent=1)
        + ',\n"errors": '
        + json.dumps(errors)
        + ',\n"nanoseconds": {\n'
        + ",\n".join(lines)
        + "\n}\n}\n"
    )


def add_repetition(cases, entry):
    name = entry["run_name"]
    by_clock = re.search(r"/(real_time|manual_time)(/|$)", name) is not None
    while SUFFIX.search(name):
        name = SUFFIX.sub("", name)
    case = cases.setdefault(name, {"clock": "wall" if by_clock else "processor", "times": []})
    time = entry["real_time" if by_clock else "cpu_time"] * NANOSECONDS[entry["time_unit"]]
    case["times"].append(float(f"{time:.4g}"))
    if "threads" in entry and isinstance(entry["threads"], float):
        case["threads made"] = max(int(entry["threads"]), case.get("threads made", 0))


def cpu_name():
    for line in Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return platform.processor()


# ---------------------------------------------------------------------------------------------
# Reading


class Measured:
    """All repetitions of one contender of one case."""

    def __init__(self, record):
        times = sorted(record["times"])
        self.median = statistics.median(times)
        self.low, self.high = (times[0], times[-1])
        if len(times) >= 4:
            quarters = statistics.quantiles(times, n=4, method="inclusive")
            self.low, self.high = quarters[0], quarters[2]
        self.by_clock = record["clock"] == "wall"
        self.threads_made = record.get("threads made")
        self.repetitions = len(times)


class Subject:
    def __init__(self, file):
        data = json.loads(file.read_text())
        self.name = file.stem
        self.context = data["context"]
        self.errors = data["errors"]
        self.cases = OrderedDict()  # case -> contender -> Measured
        for name, record in data["nanoseconds"].items():
            case, contender = name.rsplit("/", 1)
            self.cases.setdefault(case, OrderedDict())[contender] = Measured(record)

    def families(self):
        """Cases by the first part of their names: each family is one table."""
        families = OrderedDict()
        for case, contenders in self.cases.items():
            families.setdefault(case.split("/")[0], OrderedDict())[case] = contenders
        return families

    def comparisons(self):
        """(case, peer, ratio, lowest, highest) of all that can be compared, family by family."""
        cases = [case for family in self.families().values() for case in family.items()]
        for case, contenders in cases:
            ours = contenders.get(OURS)
            for contender, peer in contenders.items():
                if ours is not None and is_peer(contender):
                    yield (
                        case,
                        contender,
                        peer.median / ours.median,
                        peer.low / ours.high,
                        peer.high / ours.low,
                    )


def is_peer(contender):
    return contender != OURS and not contender.endswith(FLOOR)


def raw_folder(out_dir):
    return Path(out_dir) / "Benchmarks"


def read_subjects(out_dir):
    files = sorted(raw_folder(out_dir).glob("*.json"))
    if not files:
        sys.exit(f"no raw data in {raw_folder(out_dir)}")
    return [Subject(file) for file in files]


# ---------------------------------------------------------------------------------------------
# The report


def shown_time(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.2f} ns" if nanoseconds < 10 else f"{nanoseconds:.0f} ns"


def is_behind(ratio):
    """As it is shown: what is 1.00 in the table is not behind."""
    return round(ratio, 2) < 1


def shown_ratio(ratio):
    text = f"{ratio:.2f}" if ratio < 10 else f"{ratio:.0f}"
    return f"**×{text} ▼**" if is_behind(ratio) else f"×{text}"


def cell(ours, contender, measured):
    if measured is None:
        return ""
    text = shown_time(measured.median)
    if measured.threads_made is not None:
        text += f", {measured.threads_made} threads"
    if ours is not None and is_peer(contender):
        text += f" · {shown_ratio(measured.median / ours.median)}"
    return text


def family_table(cases):
    contenders = list(OrderedDict.fromkeys(c for case in cases.values() for c in case))
    contenders.sort(key=lambda c: (c != OURS, c.endswith(FLOOR)))  # stable: peers stay in order
    titles = ["floor: " + c[: -len(FLOOR)] if c.endswith(FLOOR) else c for c in contenders]
    rows = ["| case | " + " | ".join(titles) + " |", "|---|" + "---:|" * len(contenders)]
    for case, measured in cases.items():
        clock = " (wall)" if any(m.by_clock for m in measured.values()) else ""
        cells = [cell(measured.get(OURS), c, measured.get(c)) for c in contenders]
        rows.append(f"| `{case}`{clock} | " + " | ".join(cells) + " |")
    return rows


def machine_lines(subjects):
    context = subjects[0].context
    caches = ", ".join(
        f"L{cache['level']} {cache['type'].lower()} {cache['size'] // 1024} KB"
        for cache in context.get("caches", [])
    )
    repetitions = [m.repetitions for s in subjects for c in s.cases.values() for m in c.values()]
    fewest, most = min(repetitions), max(repetitions)
    loads = [s.context["load"][0] for s in subjects if s.context.get("load")]
    lines = [
        f"- Processor: {context['cpu']}, {context['num_cpus']} processors at "
        f"{context['mhz_per_cpu'] / 1000:.1f} GHz; {caches}",
        f"- System: {context['system']}, C library {context['libc']}, "
        f"compiler {context['compiler']}",
        f"- Run: {context['date'][:10]}, "
        f"{fewest if fewest == most else f'{fewest} to {most}'} repetitions of each case",
    ]
    if loads:
        lines.append(
            f"- Load average of the machine when the programs began: {min(loads):.1f} to "
            f"{max(loads):.1f}. Other work ran beside the benchmarks as far as that is above 1"
        )
    return lines


METHOD = """\
Each subject is one program that holds this library and its peers, built with the same compiler and
settings. The repetitions of all cases of a program run interleaved, in random order, so that a
disturbance of the machine meets everybody. A figure is the median of the repetitions. It is the
processor time of the measuring thread, or, where `(wall)` stands behind the case (several threads,
or somebody waits), time by the clock; with two threads that is divided by the calls of both.

Ratio = the peer's time / ours: above ×1 this library is faster; below it the ratio stands out as
**×0.90 ▼**. In the plots the bar is that ratio, and the thin line shows how far it goes between
the quartiles of both: where it crosses 1, this run does not decide. A floor is no rival but what
the machine or the system asks for anyway. What the cases do exactly stands at the top of each
program.
"""


def behind_lines(subjects):
    behind = [
        (ratio, highest, case, peer)
        for subject in subjects
        for case, peer, ratio, _, highest in subject.comparisons()
        if is_behind(ratio)
    ]
    total = sum(1 for subject in subjects for _ in subject.comparisons())
    if not behind:
        return [f"In none of the {total} comparisons of this run the peer is faster."]
    lines = [
        f"In {len(behind)} of the {total} comparisons of this run the peer is faster:",
        "",
        "| case | beside | ratio | |",
        "|---|---|---:|---|",
    ]
    for ratio, highest, case, peer in sorted(behind):
        note = "within the spread" if highest >= 1 else ""
        lines.append(f"| `{case}` | {peer} | {shown_ratio(ratio)} | {note} |")
    return lines


def write_report(out_dir, subjects, plotted):
    lines = ["# Benchmarks", ""]
    lines += ["Written by `Tools/bench_report.py` from the raw data in [Benchmarks/](Benchmarks/)."]
    lines += [""]
    lines += ["## The machine", "", *machine_lines(subjects), ""]
    lines += ["## The method", "", METHOD]
    lines += ["## What is not ahead", "", *behind_lines(subjects), ""]
    lines += ["Why, and what was tried: [Limits.md](Limits.md).", ""]
    for subject in subjects:
        lines += [f"## {subject.name}", ""]
        lines += [f"Peers: {subject.context['peers']}. Raw data: "
                  f"[{subject.name}.json](Benchmarks/{subject.name}.json)", ""]
        if subject.name in plotted:
            lines += [f"![ratios of {subject.name}](Benchmarks/{subject.name}.svg)", ""]
        for cases in subject.families().values():
            lines += [*family_table(cases), ""]
        lines += [f"- Failed: {error}" for error in subject.errors]
    path = Path(out_dir) / "Benchmarks.md"
    path.write_text("\n".join(lines).rstrip() + "\n")
    print(f"wrote {path}")


# ---------------------------------------------------------------------------------------------
# The plots

PEER_COLORS = ["#2f6db3", "#d9822b", "#5a9e4b", "#8b62b0", "#6b6b6b"]


def load_matplotlib():
    try:
        import matplotlib
    except ImportError:
        print(
            f"no plots: {sys.executable} has no matplotlib (Debian package python3-matplotlib, "
            "for /usr/bin/python3)",
            file=sys.stderr,
        )
        return None
    matplotlib.use("svg")
    matplotlib.rcParams.update(
        {"svg.fonttype": "none", "svg.hashsalt": "benchmarks", "font.family": "DejaVu Sans"}
    )
    import matplotlib.pyplot

    return matplotlib.pyplot


def plot_subject(pyplot, subject, file):
    bars = list(subject.comparisons())
    if not bars:
        return False
    peers = list(OrderedDict.fromkeys(peer for _, peer, *_ in bars))
    colors = {peer: PEER_COLORS[i % len(PEER_COLORS)] for i, peer in enumerate(peers)}

    # A row a bar, half a row between cases; the case's name stands at the middle of its bars.
    positions, labels, at, last_case = [], OrderedDict(), 0.0, None
    for case, *_ in bars:
        at += 0.55 if last_case not in (None, case) else 0.0
        positions.append(at)
        labels.setdefault(case, []).append(at)
        at, last_case = at + 1.0, case

    figure, axes = pyplot.subplots(figsize=(9.0, 1.25 + 0.19 * (at + 1)))
    low = min(0.5, *(lowest for *_, lowest, _ in bars)) / 1.25
    high = max(2.0, *(highest for *_, highest in bars)) * 1.7
    for position, (_, peer, ratio, lowest, highest) in zip(positions, bars):
        axes.barh(
            position, ratio - 1.0, left=1.0, height=0.82, color=colors[peer],
            alpha=0.55 if is_behind(ratio) else 1.0, hatch="////" if is_behind(ratio) else None,
            edgecolor="white", linewidth=0.0,
        )
        axes.plot([lowest, highest], [position, position], color="#222222", linewidth=0.9)
        axes.text(
            max(ratio, highest, 1.0) * 1.04, position,
            f"{ratio:.2f}" if ratio < 10 else f"{ratio:.0f}",
            va="center", ha="left", fontsize=7.5,
            color="#b3261e" if is_behind(ratio) else "#222222",
            fontweight="bold" if is_behind(ratio) else "normal",
        )

    axes.set_xscale("log")
    axes.set_xlim(low, high)
    axes.set_ylim(at - 0.2, -0.8)
    ticks = [t * ten for ten in (0.01, 0.1, 1, 10, 100) for t in (1, 2, 5)]
    ticks = [t for t in ticks if low <= t <= high]
    axes.set_xticks(ticks)
    axes.set_xticklabels([f"{t:g}" for t in ticks], fontsize=8)
    axes.xaxis.set_minor_locator(pyplot.NullLocator())
    axes.set_yticks([sum(rows) / len(rows) for rows in labels.values()])
    axes.set_yticklabels(labels.keys(), fontsize=8)
    axes.tick_params(axis="y", length=0)
    axes.grid(axis="x", color="#dddddd", linewidth=0.6)
    axes.set_axisbelow(True)
    axes.axvline(1.0, color="#222222", linewidth=1.1)
    for side in ("top", "right", "left"):
        axes.spines[side].set_visible(False)
    axes.set_xlabel(
        "time of the peer / time of this library (log): right of 1 this library is faster",
        fontsize=8,
    )
    axes.set_title(f"{subject.name}: this library beside", fontsize=10, loc="left", pad=22)
    handles = [pyplot.Rectangle((0, 0), 1, 1, color=colors[peer]) for peer in peers]
    axes.legend(handles, peers, loc="lower left", bbox_to_anchor=(0.0, 1.0), ncol=len(peers),
                fontsize=8, frameon=False, handlelength=1.0, columnspacing=1.4, borderaxespad=0.2)
    figure.savefig(file, bbox_inches="tight", facecolor="white", metadata={"Date": None})
    pyplot.close(figure)
    return True


def plot_all(out_dir, subjects):
    pyplot = load_matplotlib()
    if pyplot is None:
        return set()
    folder = raw_folder(out_dir)
    return {s.name for s in subjects if plot_subject(pyplot, s, folder / f"{s.name}.svg")}


# ---------------------------------------------------------------------------------------------


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("build_dir", metavar="BUILD_DIR", nargs="?",
                        help="a build folder with the benchmarks in it")
    parser.add_argument("out_dir", metavar="OUT_DIR", help="where Benchmarks.md goes")
    parser.add_argument("--filter", metavar="REGEX", help="only the cases that fit")
    parser.add_argument("--quick", action="store_true", help="few and short repetitions")
    parser.add_argument("--report-only", action="store_true",
                        help="only write the report again, from the raw data that is there")
    options = parser.parse_args()
    if not options.report_only and options.build_dir is None:
        parser.error("BUILD_DIR is missing")

    fine = options.report_only or run_all(options)
    subjects = read_subjects(options.out_dir)
    write_report(options.out_dir, subjects, plot_all(options.out_dir, subjects))
    errors = [error for subject in subjects for error in subject.errors]
    for error in errors:
        print(f"failed: {error}", file=sys.stderr)
    return 0 if fine and not errors else 1


if __name__ == "__main__":
    sys.exit(main())
