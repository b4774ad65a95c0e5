"""How the cost of an upload and of a collection grows with the amount of data. No row of the table: it has no
peer and no target."""

import shutil
from dataclasses import dataclass
from statistics import median
from typing import Callable

from collection import Logs
from context import Context, Usage
from upload import MIB, Server, Upload, make_file

SIZES = (1, 32, 1024, 4000)  # MiB; the last stays below what one archive may hold, with the system's own data
FILES = 33
RUNS = 3


@dataclass(frozen=True)
class Point:
    work: str
    mib: int
    wall: float  # seconds, median
    cpu: float  # seconds, median
    memory: float  # MiB, the greatest


def points(context: Context) -> list[Point]:
    result: list[Point] = []
    for mib in SIZES:
        needed = 2 * mib * MIB  # the data, and an archive of at most its size
        if shutil.disk_usage(context.folder).free < needed or available_memory() < needed:
            print(f"skipped: {mib} MiB need {needed >> 20} MiB of free disk and of memory for the page cache")
            continue
        result += [upload_point(context, mib), collection_point(context, mib)]
    return result


def available_memory() -> int:
    with open("/proc/meminfo", encoding="ascii") as file:
        return next(int(line.split()[1]) * 1024 for line in file if line.startswith("MemAvailable:"))


def upload_point(context: Context, mib: int) -> Point:
    path = make_file(context, mib * MIB // context.scale)
    with Server(context) as server:
        upload = Upload(context, server, path)
        result = point("upload, plain", mib, upload.by_daemon, upload.daemon_memory)
    path.unlink()
    return result


def collection_point(context: Context, mib: int) -> Point:
    logs = Logs(context, f"logs-{mib}", FILES, mib * MIB // context.scale)
    logs.check_collection()
    result = point("collection, redaction on", mib, lambda: logs.collect()[0], logs.collect_memory)
    shutil.rmtree(logs.folder)
    return result


def point(work: str, mib: int, run: Callable[[], Usage], peak_memory: Callable[[], float]) -> Point:
    usages = [run() for _ in range(RUNS)]
    return Point(work, mib, median(usage.wall for usage in usages), median(usage.cpu for usage in usages),
                 max(peak_memory() for _ in range(RUNS)))
