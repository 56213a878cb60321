#!/usr/bin/env python3
"""Writes docs/performance.md and its plots from the figures of scripts/bench:
report.py FIGURES_DIRECTORY performance.md

A mode that has left no figures has no section. A file of figures has "# NAME VALUE" lines, which say
what the figures depend on, and rows with tabs between the fields.
"""

import os
import statistics
import sys

sys.path.insert(0, os.path.dirname(__file__))
from plot import bars  # noqa: E402

LUNS = {
    "memory": "memory LUN",
    "served": "served file, on tmpfs",
    "empty": "empty handler over the ring",
    "nullio": "kernel's ramdisk, nullio",
    "ramdisk": "kernel's ramdisk",
    "fileio": "kernel's fileio, on tmpfs",
    "tgt": "tgt, file on tmpfs",
}
LUNS_ON_DISK = {
    "memory": "memory LUN",
    "served": "served file, on a disk",
    "ramdisk": "kernel's ramdisk",
    "fileio": "kernel's fileio, on a disk",
    "tgt": "tgt, file on a disk",
}
FABRICS = {"iscsi": "iSCSI, initiator in the same guest", "loopback": "The kernel's loopback fabric"}
COLUMNS = [("read", "1"), ("read", "32"), ("write", "1"), ("write", "32")]
COLUMN_NAMES = [f"{kind.upper()}, depth {depth}" for kind, depth in COLUMNS]
CONTEXTS = {
    "Burst/1": "one lent and given back",
    "Burst/32": "32 lent, then given back",
    "Burst/512": "512 lent, then given back",
    "GiveBackOnAnotherThread/real_time": "given back on another thread (time from beginning to end)",
}
ROADS = {
    "fast": "With the wrapper's own road to configfs",
    "targetcli": "With the real targetcli for every command",
}
STAGES = {
    "ring": "ring: fetched, answered",
    "gate": "+ gate",
    "handler": "+ handler, context, completion",
    "other thread": "the same, the host answers on its own thread",
    "memory": "handler + memory engine",
    "memory, WRITE": "the same, WRITE",
    "file, io_uring": "handler + file engine, io_uring",
    "file, io_uring, WRITE": "the same, WRITE",
    "file, threads": "handler + file engine, threads",
}


def load(directory, mode):
    """The facts and the rows of a mode's figures; no rows when there are none."""
    facts, rows = {}, []
    try:
        with open(os.path.join(directory, mode + ".tsv")) as text:
            for line in text:
                if line.startswith("# "):
                    name, _, value = line[2:].strip().partition(" ")
                    facts[name] = value
                else:
                    rows.append(line.rstrip("\n").split("\t"))
    except FileNotFoundError:
        pass
    return facts, rows


def table(header, rows):
    yield "| " + " | ".join(header) + " |"
    yield "|---|" + "---:|" * (len(header) - 1)
    for row in rows:
        yield "| " + " | ".join(row) + " |"
    yield ""


def measured(command, facts):
    depends = [facts[name] for name in ("kernel", "compiler", "qemu") if facts.get(name)]
    yield f"`{command}` at commit {facts['commit']}; " + "; ".join(depends) + "."
    yield ""


def thousands(instructions):
    return f"{instructions / 1000:.1f}"


def count_section(directory):
    facts, rows = load(directory, "count")
    if not rows:
        return
    cost = {tuple(r[:4]): statistics.mean((float(r[4]), float(r[6]))) for r in rows}
    apart = max(abs(float(r[4]) - float(r[6])) for r in rows)
    idle = max(max(float(r[5]), float(r[7])) for r in rows)
    yield "## Instructions an I/O"
    yield ""
    yield from measured("scripts/bench --count", facts)
    yield (
        "Thousand instructions that an I/O of 4 KiB costs the whole guest: fio, initiator, fabric, target, "
        "handler. The guest has one processor whose clock counts what it executes, so nothing outside changes "
        f"these figures. Each is of {2 * int(facts['ios']):,} I/Os at random places, half of them in a second "
        f"boot; the boots differ by {apart:,.0f} instructions at most, and the processor was idle for "
        f"{idle:.1f} % of a row at most. Hidden from this clock: cache misses, wake-ups between processors, "
        "and what several processors do at once. A repeated string instruction counts once a step."
    )
    yield ""
    for fabric, title in FABRICS.items():
        yield f"### {title}"
        yield ""
        lines = [
            [name] + [thousands(cost[fabric, lun, *column]) for column in COLUMNS]
            for lun, name in LUNS.items()
            if (fabric, lun, "read", "1") in cost
        ]
        yield from table(["LUN", *COLUMN_NAMES], lines)
        differences = [
            ("the kernel's half of a user LUN: empty handler less ramdisk", "empty", "ramdisk"),
            ("our half: memory LUN less empty handler", "memory", "empty"),
            ("a file below: served file less memory LUN", "served", "memory"),
        ]
        yield from table(
            ["of this", *COLUMN_NAMES],
            [
                [title]
                + [thousands(cost[fabric, more, *c] - cost[fabric, less, *c]) for c in COLUMNS]
                for title, more, less in differences
            ],
        )
    with open(os.path.join(directory, "count.svg"), "w") as svg:
        svg.write(
            bars(
                "READ of 4 KiB at depth 1, thousand instructions",
                [
                    (name, [cost.get((fabric, lun, "read", "1"), 0) / 1000 for fabric in FABRICS])
                    for lun, name in LUNS.items()
                ],
                ["iSCSI", "loopback"],
            )
        )
    yield "![READ of 4 KiB at depth 1](performance/count.svg)"
    yield ""
    yield f"Processor flags: {facts['flags']}."
    yield ""


def native_section(directory):
    facts, rows = load(directory, "native")
    if not rows:
        return
    found = {(r[1], int(r[2])): r[3:] for r in rows if r[0] == "path"}
    numbers = sorted({number for _, number in found})
    stages = [stage for stage in STAGES if (stage, numbers[0]) in found]
    header = ["in flight", *(f"{n:,}" for n in numbers)]

    def over_ring(figures, number, field):
        return f"{float(figures[field]) / float(found['ring', number][field]):.1f}"

    yield "## Our half, stage by stage"
    yield ""
    yield from measured("scripts/bench --native", facts)
    yield (
        "READs of 4 KiB over the tests' model of the kernel's ring, as many in flight as the column says: put "
        "into the ring, then taken out, served and answered. Files are on tmpfs. Times are a command's, "
        "divided by what the ring alone takes at that number; the fastest of five rounds counts. Processor "
        "time is that of all threads and of the kernel for them; from beginning to end a busy machine shows, "
        f"and this one had a load of {facts['load']}. A doorbell here is a write to a socket, the larger part "
        "of what one command in flight takes. Instructions are those of all our threads, without the "
        "kernel's; io_uring can't be run under callgrind."
    )
    yield ""
    units = [
        ("instructions a command", lambda f, n: f[4]),
        ("processor time, ring = 1", lambda f, n: over_ring(f, n, 1)),
        ("time from beginning to end, ring = 1", lambda f, n: over_ring(f, n, 0)),
        ("heap allocations a command", lambda f, n: f"{float(f[2]):.3f}".rstrip("0").rstrip(".")),
        ("answers a doorbell", lambda f, n: f"{1 / float(f[3]):.1f}"),
    ]
    for title, value in units:
        lines = [
            [STAGES[s], *(value(found[s, n], n) for n in numbers)]
            for s in stages
            if value(found[s, numbers[0]], numbers[0]) != "-"
        ]
        yield from table([title, *header[1:]], lines)
    with open(os.path.join(directory, "native.svg"), "w") as svg:
        few, many = 1, 512
        svg.write(
            bars(
                "Instructions a command, our half",
                [
                    (STAGES[s], [float(found[s, n][4]) for n in (few, many)])
                    for s in stages
                    if found[s, few][4] != "-"
                ],
                [f"{few} in flight", f"{many} in flight"],
            )
        )
    yield "![Instructions a command](performance/native.svg)"
    yield ""
    yield "Lending an I/O context against `malloc` of a record and its entries, processor time, malloc = 1:"
    yield ""
    slabs = {r[1]: f"{float(r[2]) / float(r[3]):.2f}" for r in rows if r[0] == "ioctx"}
    lines = [[title, slabs[name]] for name, title in CONTEXTS.items()]
    yield from table(["contexts", "slabs"], lines)


def pairs_section(directory):
    facts, rows = load(directory, "vm")
    if not rows:
        return
    yield "## Against the kernel's own LUNs, with two processors and a disk"
    yield ""
    yield from measured("scripts/bench --vm", facts)
    yield (
        "I/Os of 4 KiB a second as a ratio to those of the kernel's fileio LUN, over iSCSI, in the ordinary "
        f"emulated guest. Each round measures the two one after the other, {facts['seconds']} s each, in turn; "
        f"the median of {facts['rounds']} rounds, and in brackets the least and the most. All files lie on a "
        "disk of the guest's, and a write is on it before its answer."
    )
    yield ""
    ratios = {}
    for lun, kind, depth, ours, theirs in rows:
        ratios.setdefault((lun, kind, depth), []).append(float(ours) / float(theirs))
    lines = []
    for lun, name in LUNS_ON_DISK.items():
        cells = []
        for column in COLUMNS:
            if found := ratios.get((lun, *column)):
                middle, least, most = statistics.median(found), min(found), max(found)
                cells.append(f"{middle:.2f} ({least:.2f} to {most:.2f})")
        if cells:
            lines.append([name, *cells])
    yield from table(["LUN, fileio = 1", *COLUMN_NAMES], lines)


def config_section(directory):
    facts, rows = load(directory, "config")
    if not rows:
        return
    yield "## Making, adopting and taking down"
    yield ""
    yield from measured("scripts/bench --config", facts)
    yield (
        "User LUNs for two initiators in the ordinary emulated guest with two processors. Adoption begins "
        "with the host's start after `kill -9` and ends when the last LUN has answered a READ. Seconds, which "
        "another machine doesn't repeat; beside them how often the real targetcli ran."
    )
    yield ""
    header = ["LUNs", "serve to ready", "runs", "adoption to the last READ", "runs", "stop", "runs"]
    roads = {}
    for road, *rest in rows:
        roads.setdefault(road, []).append(rest)
    for road, lines in roads.items():
        yield f"### {ROADS[road]}"
        yield ""
        yield from table(header, lines)


def main():
    directory, document = sys.argv[1:]
    sections = [count_section, native_section, pairs_section, config_section]
    body = [line for section in sections for line in section(directory)]
    if not body:
        sys.exit(f"there are no figures in {directory} yet")
    head = [
        "# Performance",
        "",
        "Written by `scripts/bench`; change that, not this. Each table says the command that makes it anew; the",
        "figures stand in [performance/](performance/). Figures of different tables aren't comparable, those of",
        "one are: times within a table are ratios of one run, and counted instructions don't depend on the",
        "machine. `scripts/check` counts one row again and compares it with the kept figure.",
        "",
    ]
    with open(document, "w") as out:
        out.write("\n".join(head + body).rstrip("\n") + "\n")


main()
