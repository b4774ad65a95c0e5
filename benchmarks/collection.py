"""Rows 6 to 9: what a collection costs beside `tar --zstd`, which makes an archive of the same logs without
manifest, checksums and redaction; and a whole ticket beside the three commands that would do its work."""

import json
import os
from pathlib import Path
from typing import Sequence

from context import Context, Failed, Usage, Word
from rows import Row, ratio_row
from upload import ETC, MIB, Server, configure, cost_rows

NUMBERS = (6, 7, 8, 9)

Archive = tuple[Usage, float]  # what it took, and its size in MB

TASKS = Path("/var/lib/tarvo/support_form_log")
WITHOUT_REDACTION = "--no-redaction"


class Logs:
    """A folder of logs, described as an application, and the two ways to an archive of it."""

    def __init__(self, context: Context, name: str, files: int, size: int) -> None:
        self.name, self.size = name, size
        self.folder = context.folder / name
        self._context = context
        self._archive = context.folder / f"{name}.tar.zst"
        context.run([context.bin / "make_logs", self.folder, files, size])
        os.sync()  # nothing is to be written to the disk while something is measured
        describe(name, self.folder)

    def collect(self, *switches: str) -> Archive:
        """Ours: the archive that a ticket would get. Returns what it took and the archive's size in MB."""
        return self._make(self.collect_command(*switches))

    def tar(self) -> Archive:
        return self._make(["tar", "--zstd", "-cf", self._archive, "-C", self.folder.parent, self.name])

    def collect_command(self, *switches: str) -> list[Word]:
        return [self._context.bin / "debug_dat_collect", "--apps", self.name, "--out", self._archive, *switches]

    def check_collection(self, *switches: str) -> None:
        """Whether an archive of ours holds the logs whole."""
        self._context.run(self.collect_command(*switches), self._context.all_cores)
        manifest = json.loads(self._context.run(["tar", "--zstd", "-xOf", self._archive, "manifest.json"]).output)
        self._archive.unlink()
        collected = sum(entry["size"] for entry in manifest["entries"]
                        if entry["name"].startswith(f"apps/{self.name}/files/"))
        if collected < self.size:
            raise Failed(f"the archive holds {collected} bytes of {self.size} bytes of logs;"
                         f" its errors: {manifest.get('errors')}")

    def collect_memory(self) -> float:
        """A collection's peak of resident memory, in MiB."""
        memory = self._context.peak_memory(self.collect_command(), self._context.all_cores)
        self._archive.unlink()
        return memory

    def _make(self, argv: Sequence[Word]) -> Archive:
        usage = self._context.run(argv, self._context.all_cores)
        size = self._archive.stat().st_size / 1e6
        self._archive.unlink()
        return usage, size


def describe(name: str, folder: Path) -> None:
    descriptions = ETC / "support_form_log.d"
    descriptions.mkdir(parents=True, exist_ok=True)
    (descriptions / f"{name}.json").write_text(json.dumps({"paths": [str(folder)]}))


def rows(context: Context) -> list[Row]:
    result: list[Row] = []
    if any(context.wants(number) for number in (6, 7, 9)):
        logs = Logs(context, "logs", 33, 1024 * MIB // context.scale)
        result += rows_of_logs(context, logs)
    if context.wants(8):
        small = Logs(context, "small", 20_000 // context.scale, 66 * MIB // context.scale)
        small.check_collection()
        pairs = usages(context.alternate(small.collect, small.tar))
        result += cost_rows(8, "collection of 20,000 files, 66 MiB", "tar --zstd", pairs, wall=0.60, cpu=None)
    return sorted(result, key=lambda row: row.number)


def rows_of_logs(context: Context, logs: Logs) -> list[Row]:
    work = "collection of 1 GiB of logs, 33 files"
    result: list[Row] = []
    if context.wants(6):
        logs.check_collection(WITHOUT_REDACTION)
        archives = context.alternate(lambda: logs.collect(WITHOUT_REDACTION), logs.tar)
        result += cost_rows(6, f"{work}, redaction off", "tar --zstd", usages(archives), wall=0.60, cpu=0.75)
        result.append(ratio_row(6, f"{work}, redaction off", "tar --zstd", "MB", sizes(archives), 1.15))
        result.append(checksum_row(context, logs))
    if context.wants(7):
        logs.check_collection()
        pairs = usages(context.alternate(logs.collect, logs.tar))
        result += cost_rows(7, f"{work}, redaction on", "tar --zstd", pairs, wall=0.90, cpu=None)
        pairs = usages(context.alternate(logs.collect, lambda: logs.collect(WITHOUT_REDACTION)))
        result += cost_rows(7, f"{work}, redaction on", "redaction off", pairs, cpu=None, wall=None)
    if context.wants(9):
        result += ticket_rows(context, logs)
    return result


def usages(pairs: Sequence[tuple[Archive, Archive]]) -> list[tuple[Usage, Usage]]:
    return [(ours[0], other[0]) for ours, other in pairs]


def sizes(pairs: Sequence[tuple[Archive, Archive]]) -> list[tuple[float, float]]:
    return [(ours[1], other[1]) for ours, other in pairs]


def checksum_row(context: Context, logs: Logs) -> Row:
    """What the SHA-256 of the manifest costs by itself."""
    files = sorted(path for path in logs.folder.rglob("*") if path.is_file())
    pairs = context.alternate(lambda: context.run(["openssl", "dgst", "-sha256", *files]),
                              lambda: logs.collect(WITHOUT_REDACTION)[0])
    return cost_rows(6, "SHA-256 of the same files (openssl dgst)", "the collection", pairs, cpu=None)[0]


def ticket_rows(context: Context, logs: Logs) -> list[Row]:
    """Ours is the daemon's own transmission child, from the collection's start to its report and its end."""
    archive = context.folder / "ticket.tar.zst"

    def ours(server: Server) -> Usage:
        usage = context.run([context.bin / "serve_ticket", logs.name], context.all_cores)
        server.expect_request_of(logs.size // 100)  # the archive
        server.expect_request_of(1)  # the report
        return usage

    def other(server: Server) -> Usage:
        script = 'tar --zstd -cf "$1" -C "$2" "$3" && curl -sS -F "debug_file=@$1" "$4" && rm "$1"'
        usage = context.run(["sh", "-c", script, "sh", archive, logs.folder.parent, logs.name, server.url],
                            context.all_cores)
        server.expect_request_of(logs.size // 100)
        return usage

    with Server(context) as server:
        configure(server)
        pairs = context.alternate(lambda: ours(server), lambda: other(server))
    return cost_rows(9, "collect, upload, delete, 1 GiB of logs", "tar --zstd, curl -F, rm", pairs, wall=0.55)
