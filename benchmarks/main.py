#!/usr/bin/python3
"""The harness behind ./bench, which builds, makes the folder and starts this in a sandbox."""

import argparse
import dataclasses
import json
import math
import os
import platform
import subprocess
import sys
import time
from pathlib import Path
from typing import Sequence, Union

import collection
import fleet
import footprint
import growth
import upload
from context import Context, Failed
from rows import Row

MODULES = (upload, collection, footprint, fleet)
NUMBERS = sorted(number for module in MODULES for number in module.NUMBERS)
DEVICE_NUMBERS = [number for number in NUMBERS if number not in fleet.NUMBERS]
SMALL_SCALE = 64  # of --quick
DEVICE_PAIRS = 7
FLEET_PAIRS = 3  # each connects 40,000 devices


def parse_arguments() -> tuple[argparse.Namespace, frozenset[int], bool]:
    parser = argparse.ArgumentParser(prog="bench", add_help=False)
    parser.add_argument("what", nargs="*")
    parser.add_argument("--pairs", type=int)
    parser.add_argument("--quick", action="store_true")  # one pair over small data: tries the harness, measures nothing
    parser.add_argument("--bin", type=Path, required=True)
    parser.add_argument("--folder", type=Path, required=True)
    parser.add_argument("--nginx", type=Path, default=Path("nginx"))
    arguments = parser.parse_args()
    growth_wanted = "growth" in arguments.what
    fleet_wanted = "fleet" in arguments.what
    numbers = [word for word in arguments.what if word not in ("growth", "fleet")]
    if not all(word.isdecimal() and int(word) in NUMBERS for word in numbers):
        parser.error(f"rows are {NUMBERS[0]} to {NUMBERS[-1]}, or 'growth' or 'fleet'; not {' '.join(numbers)}")
    if arguments.pairs is None:
        arguments.pairs = FLEET_PAIRS if fleet_wanted else DEVICE_PAIRS
    if arguments.pairs < 1:
        parser.error("--pairs takes a number from 1")
    wanted = set(map(int, numbers)) if arguments.what else set(DEVICE_NUMBERS)
    return arguments, frozenset(wanted.union(fleet.NUMBERS if fleet_wanted else ())), growth_wanted


def make_context(arguments: argparse.Namespace, numbers: frozenset[int]) -> Context:
    if not Path("/dev/.sandbox").exists():
        raise Failed("this writes below /usr and /var and belongs into a sandbox; start it by ./bench")
    cores = sorted(os.sched_getaffinity(0))
    if len(cores) < 2:
        raise Failed("client and server need a core each, and there is only one here")
    return Context(numbers, pairs=1 if arguments.quick else arguments.pairs,
                   scale=SMALL_SCALE if arguments.quick else 1, bin=arguments.bin, folder=arguments.folder,
                   nginx=arguments.nginx, client_core=cores[0], server_core=cores[1])


def first_line(command: list[str]) -> str:
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.splitlines()[0]


def describe_machine() -> dict[str, Union[str, int]]:
    def value(file: str, name: str) -> str:
        with open(file, encoding="utf-8") as lines:
            return next((line.split(":", 1)[1].strip() for line in lines if line.startswith(name)), "unknown")

    return {
        "processor": value("/proc/cpuinfo", "model name"),
        "cores": len(os.sched_getaffinity(0)),
        "memory": value("/proc/meminfo", "MemTotal"),
        "kernel": f"{platform.system()} {platform.release()}",
        "curl": first_line(["curl", "--version"]),
        "tar": first_line(["tar", "--version"]),
        "zstd": first_line(["zstd", "--version"]),
    }


def busy_cores(seconds: float = 3) -> float:
    """How many cores others keep busy. The load average would still count the build before."""
    before, started = busy_seconds(), time.monotonic()
    time.sleep(seconds)
    return (busy_seconds() - before) / (time.monotonic() - started)


def busy_seconds() -> float:
    with open("/proc/stat", encoding="ascii") as file:
        user, nice, system, _idle, _iowait, *interrupts_and_stolen = map(int, file.readline().split()[1:9])
    return (user + nice + system + sum(interrupts_and_stolen)) / os.sysconf("SC_CLK_TCK")


def measure(context: Context) -> tuple[list[Row], bool]:
    """The rows of all modules; those of a module that fails are missing, and that is told."""
    rows: list[Row] = []
    complete = True
    for module in MODULES:
        wanted = [number for number in module.NUMBERS if context.wants(number)]
        if not wanted:
            continue
        print(f"==> Measuring row{'s' * (len(wanted) > 1)} {', '.join(map(str, wanted))}", file=sys.stderr, flush=True)
        try:
            rows += module.rows(context)
        except Failed as failure:
            complete = False
            print(f"bench: no rows {', '.join(map(str, wanted))}: {failure}", file=sys.stderr)
    return rows, complete


def show(number: float) -> str:
    """Three significant digits, and all that stand before the point."""
    magnitude = math.floor(math.log10(abs(number))) if number else 0
    return f"{number:.{max(0, 2 - magnitude)}f}"


def format_table(head: list[str], lines: list[list[str]]) -> str:
    """A table that reads well as it stands and as Markdown; numbers are aligned to the right."""
    widths = [max(len(line[column]) for line in [head, *lines]) for column in range(len(head))]
    numeric = [all(line[column][:1].isdecimal() or line[column][:1] in "-+≤" for line in lines)
               for column in range(len(head))]

    def row(cells: Sequence[str]) -> str:
        return "| " + " | ".join(cell.rjust(width) if right else cell.ljust(width)
                                 for cell, width, right in zip(cells, widths, numeric)) + " |"

    rule = "|" + "|".join("-" * (width + 1) + (":" if right else "-") for width, right in zip(widths, numeric)) + "|"
    return "\n".join([row(head), rule, *map(row, lines)])


def table_of_rows(rows: list[Row]) -> str:
    return format_table(
        ["#", "what", "against", "quantity", "ours", "other", "ratio", "target", "verdict"],
        [[str(row.number), row.work, row.against, row.quantity, show(row.ours), show(row.other),
          ("+" if row.is_difference and row.value >= 0 else "") + show(row.value),
          "" if row.target is None else f"≤ {'+' if row.is_difference else ''}{row.target:.2f}", row.verdict]
         for row in rows])


def table_of_points(points: list[growth.Point]) -> str:
    return format_table(["what", "MiB", "wall s", "CPU s", "peak memory MiB"],
                        [[point.work, str(point.mib), show(point.wall), show(point.cpu), show(point.memory)]
                         for point in sorted(points, key=lambda point: (point.work, point.mib))])


def main() -> int:
    arguments, numbers, growth_wanted = parse_arguments()
    context = make_context(arguments, numbers)
    busy = round(busy_cores(), 2)
    machine: dict[str, Union[str, int, float]] = {**describe_machine(), "busy cores before": busy}
    if busy > 0.2:
        print(f"bench: others keep {busy} cores busy; the figures will say little", file=sys.stderr)
    rows, complete = measure(context)
    if arguments.quick:
        print(f"A trial of the harness with a {SMALL_SCALE}th of the data, no measurement:")
    if rows:
        print(table_of_rows(rows), flush=True)
    points: list[growth.Point] = []
    if growth_wanted:
        print("==> Measuring growth", file=sys.stderr, flush=True)
        points = growth.points(context)
        if rows:
            print()
        print(table_of_points(points))
    report = {
        "machine": machine, "pairs": context.pairs, "quick": arguments.quick,
        "rows": [{**dataclasses.asdict(row), "verdict": row.verdict} for row in rows],
        "growth": [dataclasses.asdict(point) for point in points],
    }
    (context.folder / "bench.json").write_text(json.dumps(report, indent=2) + "\n")
    return 0 if complete else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failed as failure:
        sys.exit(f"bench: {failure}")
