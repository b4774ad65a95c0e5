"""What the modules of rows share: how a command is run and measured, which core it runs on, and the folders."""

import os
import signal
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path
from typing import IO, Any, Callable, Iterable, Optional, Sequence, TypeVar, Union

Word = Union[str, int, Path]  # of a command line
Ours = TypeVar("Ours")
Other = TypeVar("Other")


@dataclass(frozen=True)
class Usage:
    """What one command took. CPU time is that of its process and of all descendants that were waited for."""
    wall: float  # seconds
    cpu: float  # seconds, user and system
    output: str  # its standard output


class Failed(Exception):
    """A measurement can't be made; the text says why."""


def pipe(end: Optional[IO[str]]) -> IO[str]:
    """A started process's standard input or output, which is a pipe of ours."""
    assert end is not None
    return end


@dataclass(frozen=True)
class Context:
    numbers: frozenset[int]  # of the rows that are wanted
    pairs: int  # of runs, after one pair that is not counted
    scale: int  # amounts of data are divided by this; 1 but for a trial of the harness itself
    bin: Path  # our programs
    folder: Path  # everything that is written goes here
    nginx: Path  # its program
    client_core: int
    server_core: int

    def wants(self, number: int) -> bool:
        return number in self.numbers

    def run(self, argv: Sequence[Word], cores: Optional[set[int]] = None, input_text: str = "") -> Usage:
        """Runs a command to its end on `cores` (default: the client's), which has to succeed."""
        started = time.monotonic()
        process = self._start(argv, cores or {self.client_core}, stdin=subprocess.PIPE, stderr=subprocess.PIPE)
        with pipe(process.stdin) as to, pipe(process.stdout) as its_output, pipe(process.stderr) as its_errors:
            to.write(input_text)
            to.close()
            output, errors = its_output.read(), its_errors.read()
            _, status, usage = os.wait4(process.pid, 0)
        wall = time.monotonic() - started
        process.returncode = os.waitstatus_to_exitcode(status)
        if process.returncode != 0:
            raise Failed(f"{' '.join(map(str, argv))}: exit status {process.returncode}\n{output}{errors}")
        return Usage(wall, usage.ru_utime + usage.ru_stime, output)

    @property
    def all_cores(self) -> set[int]:
        return {self.client_core, self.server_core}

    def peak_memory(self, argv: Sequence[Word], cores: Optional[set[int]] = None) -> float:
        """Runs a command as run() does; its peak of resident memory, in MiB."""
        # Asked of a small program in between: in what the kernel tells of a direct child, our own size counts.
        report = self.folder / "peak-memory"
        self.run(["/usr/bin/time", "--quiet", "-f", "%M", "-o", report, *argv], cores)
        return int(report.read_text()) / 1024

    def start(self, argv: Sequence[Word], core: Optional[int] = None, all_cores: bool = False,
              **options: Any) -> subprocess.Popen[str]:
        """Starts a process, on the server's core by default. It dies with the harness at the latest, for both
        run in one process namespace; the caller ends it by stop()."""
        cores = self.all_cores if all_cores else {self.server_core if core is None else core}
        return self._start(argv, cores, **options)

    def stop(self, process: subprocess.Popen[str]) -> None:
        process.terminate()
        try:
            process.wait(timeout=5)
        except subprocess.TimeoutExpired:
            process.send_signal(signal.SIGKILL)
            process.wait()
        if process.stdout:
            process.stdout.close()

    def alternate(self, ours: Callable[[], Ours], other: Callable[[], Other]) -> list[tuple[Ours, Other]]:
        """Calls the two in turn; what each pair of calls returned, without the first, which warms up."""
        return [(ours(), other()) for _ in range(self.pairs + 1)][1:]

    @staticmethod
    def _start(argv: Sequence[Word], cores: Iterable[int], **options: Any) -> subprocess.Popen[str]:
        # A child inherits the mask, so that no program in between adds its own start to what is measured.
        mask = os.sched_getaffinity(0)
        os.sched_setaffinity(0, cores)
        try:
            return subprocess.Popen([str(word) for word in argv], stdout=subprocess.PIPE, text=True, **options)
        finally:
            os.sched_setaffinity(0, mask)
