#!/usr/bin/env python3
"""Puts the native benchmarks' figures into one table:
native.py PATH_BENCH.json IOCTX_BENCH.json CALLGRIND_DUMP...

Lines: "path CASE IN_FLIGHT NANOSECONDS PROCESSOR_NANOSECONDS ALLOCATIONS DOORBELLS INSTRUCTIONS" a command,
and "ioctx CASE SLABS_NS MALLOC_NS"; tabs between, "-" for what wasn't measured. Of a case's repetitions
the fastest counts: on a shared machine the others measure the neighbours.
"""

import json
import re
import sys


def fastest(file, key="real_time"):
    """Name -> the run of the least time."""
    best = {}
    with open(file) as text:
        for run in json.load(text)["benchmarks"]:
            if run.get("error_occurred"):
                sys.exit(f"{run['name']}: {run['error_message']}")
            name = run["run_name"]
            if run["run_type"] == "iteration" and (
                name not in best or run[key] < best[name][key]
            ):
                best[name] = run
    return best


def instructions(dumps):
    """(case, in flight) -> instructions a command."""
    found = {}
    for file in dumps:
        with open(file) as text:
            content = text.read()
        title = re.search(r"^desc: Trigger: Client Request: (.+)/(\d+)/(\d+)$", content, re.M)
        totals = [int(n) for n in re.findall(r"^(?:totals|summary): (\d+)$", content, re.M)]
        if title and totals:
            found[title[1], int(title[2])] = max(totals) / int(title[3])
    return found


def main():
    path, ioctx, *dumps = sys.argv[1:]
    counted = instructions(dumps)
    if not counted:
        sys.exit("callgrind counted nothing")
    used = fastest(path, "processor_ns")
    for name, run in fastest(path).items():
        case, in_flight, _ = name.rsplit("/", 2)
        number = int(in_flight)
        count = counted.get((case, number))
        print(
            "path",
            case,
            number,
            f"{run['real_time'] / number:.1f}",
            f"{used[name]['processor_ns']:.1f}",
            f"{run['allocations']:.4f}",
            f"{run['doorbells']:.6f}",
            "-" if count is None else f"{count:.0f}",
            sep="\t",
        )
    # With two threads, what one of them used isn't the whole.
    used = fastest(ioctx, "cpu_time")
    times = {
        name: run["real_time"] if name.endswith("/real_time") else used[name]["cpu_time"]
        for name, run in fastest(ioctx).items()
    }
    for name, time in times.items():
        if "Slabs" in name:
            other = times[name.replace("Slabs", "Malloc")]
            print("ioctx", name.replace("<Slabs>", ""), f"{time:.1f}", f"{other:.1f}", sep="\t")


main()
