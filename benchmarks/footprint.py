"""Rows 10 to 14: what the daemon costs while nothing happens, how soon it is there, and how soon it answers. The
yardstick is bare_client, the least that a program can be which holds the same stream open. Row 14 is what debug_dat_run
adds to a daemon that it watches.

Another process of this machine that has gRPC or libcurl in use makes the memory of both sides look smaller, and more so
that of the bare client, which has more of them in use."""

import json
import os
import select
import signal
import socket
import subprocess
import threading
import time
from contextlib import contextmanager
from pathlib import Path
from typing import Callable, Iterator, Sequence

from context import Context, Failed, Word, pipe
from rows import Row, difference_row, ratio_row

NUMBERS = (10, 11, 12, 13, 14)

CONFIGURATION = Path("/usr/tarvo/etc/tarvomibserver.conf")
SERIAL_NUMBER = Path("/usr/tarvo/etc/serial_number")
PID_FILE = Path("/var/run/kestrix_debug_dat_transmitter.pid")
TASK_FOLDERS = Path("/var/lib/tarvo/support_form_log")
SYSLOG = "/dev/log"

SWAPPABLE = "three libraries"  # the build with the platform as libraries that a maker swaps

SETTLE_SECONDS = 1  # after the stream is open, until the idle state is measured; six seconds tell the same
WATCH_SECONDS = 10  # over which wake-ups are counted
TICKET_PAUSE_SECONDS = 1.5  # the supervisor needs up to one second to be ready for the next ticket
SUPERVISOR_WAKEUPS = 2  # per second, by its design: half a second's wait for a ticket, half a second's sleep
TICKET = json.dumps({"token": "bench", "apps": ["bench"]})


class Server:
    """The stream server, and what it printed."""

    def __init__(self, context: Context) -> None:
        self._context = context
        self._process = context.start([context.bin / "stream_server"], stdin=subprocess.PIPE)
        self._text = ""
        self.address = self.expect("listening", 5)[0]

    def __enter__(self) -> "Server":
        return self

    def __exit__(self, *_: object) -> None:
        pipe(self._process.stdin).close()
        self._context.stop(self._process)

    def expect(self, beginning: str, seconds: float) -> list[str]:
        """The words behind `beginning` of the next line that has it."""
        deadline = time.monotonic() + seconds
        while True:
            while "\n" in self._text:
                line, self._text = self._text.split("\n", 1)
                if line.startswith(beginning + " "):
                    return line[len(beginning):].split()
            rest = deadline - time.monotonic()
            if rest <= 0 or not select.select([pipe(self._process.stdout)], [], [], rest)[0]:
                raise Failed(f"the stream server printed no line \"{beginning} ...\" within {seconds} s")
            self._text += os.read(pipe(self._process.stdout).fileno(), 65536).decode()

    def deliver(self, serial: str) -> float:
        """Microseconds from the delivery of one ticket to its answer."""
        pipe(self._process.stdin).write(f"{serial} {TICKET}\n")
        pipe(self._process.stdin).flush()
        nanoseconds, status = self.expect(f"answer {serial}", 5)
        if status != "1":
            raise Failed(f"{serial} refused the ticket; only accepted ones are compared")
        return int(nanoseconds) / 1000


class Device:
    """One client of the stream server. `start_ms` is the time from exec to the server's receipt of its first
    message."""

    def __init__(self, context: Context, server: Server, serial: str, argv: Sequence[Word]) -> None:
        self._context = context
        self.serial = serial
        self._process = context.start([context.bin / "start", *argv], core=context.client_core)
        started = int(pipe(self._process.stdout).readline())
        self.start_ms = (int(server.expect(f"hello {serial}", 10)[0]) - started) / 1e6

    def __enter__(self) -> "Device":
        return self

    def __exit__(self, *_: object) -> None:
        self._context.stop(self._process)

    def processes(self) -> list[int]:
        return [self._process.pid]


class BareClient(Device):
    def __init__(self, context: Context, server: Server) -> None:
        super().__init__(context, server, "bare", [context.bin / "bare_client", server.address])


class Daemon(Device):
    """Supervisor and worker. The daemon writes where it does on a device, so this runs in a sandbox."""

    def __init__(self, context: Context, server: Server, program: Path) -> None:
        configure(server)
        super().__init__(context, server, "daemon", [program])
        self._process.wait(timeout=5)  # the first process ends once the supervisor runs
        self._processes = daemons_processes()

    def __exit__(self, *details: object) -> None:
        for process in self._processes:
            os.kill(process, signal.SIGTERM)
        deadline = time.monotonic() + 5
        while any(map(is_alive, self._processes)):
            if time.monotonic() > deadline:
                raise Failed("the daemon does not end")
            time.sleep(0.02)
        super().__exit__(*details)

    def processes(self) -> list[int]:
        return self._processes


class WatchedDaemon(Device):
    """debug_dat_run and the daemon, which ends with it."""

    def __init__(self, context: Context, server: Server) -> None:
        configure(server)
        super().__init__(context, server, "daemon", [context.bin / "debug_dat_run"])
        self.run = self._process.pid
        self._processes = daemons_processes()

    def __enter__(self) -> "WatchedDaemon":
        return self

    def processes(self) -> list[int]:
        return self._processes


class Syslog:
    """Takes the daemon's log lines and forgets them, as fast as they come."""

    def __init__(self, core: int) -> None:
        self._core = core

    def __enter__(self) -> None:
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(SYSLOG)
        self._thread = threading.Thread(target=self._drain, daemon=True)
        self._thread.start()

    def __exit__(self, *_: object) -> None:
        self._socket.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._socket.close()
        os.unlink(SYSLOG)

    def _drain(self) -> None:
        os.sched_setaffinity(0, {self._core})
        while self._socket.recv(8192):
            pass


class NoTask:
    """Nothing can be written where the task folders belong: every collection fails at once, so that the transmission
    child has ended before the next ticket comes. The worker, whose answer is measured, does not know of it."""

    def __enter__(self) -> None:
        TASK_FOLDERS.mkdir(parents=True, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "none", TASK_FOLDERS], check=True)

    def __exit__(self, *_: object) -> None:
        subprocess.run(["umount", TASK_FOLDERS], check=True)


def configure(server: Server) -> None:
    if not Path("/dev/.sandbox").exists():
        raise Failed("the daemon runs in the sandbox only")
    CONFIGURATION.parent.mkdir(parents=True, exist_ok=True)
    CONFIGURATION.write_text(json.dumps(
        {"debug_dat_file_transmitter": {"grpc_server": {"url": f"http://{server.address}"}}}))
    SERIAL_NUMBER.write_text("daemon\n")


def daemons_processes() -> list[int]:
    """Supervisor and worker of the daemon that is connected."""
    supervisor = int(PID_FILE.read_text())
    children = Path(f"/proc/{supervisor}/task/{supervisor}/children").read_text().split()
    if len(children) != 1:
        raise Failed(f"expected one worker, found {children}")
    return [supervisor, int(children[0])]


def is_alive(process: int) -> bool:
    try:
        return Path(f"/proc/{process}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError):
        return False


def memory_kib(processes: Sequence[int], *kinds: str) -> int:
    """The sum of those lines of smaps_rollup."""
    return sum(int(line.split()[1])
               for process in processes
               for line in Path(f"/proc/{process}/smaps_rollup").read_text().splitlines()
               if line.split(":")[0] in kinds)


def memory_mb(processes: Sequence[int]) -> float:
    """Proportional set size: each shared page counts by the share of those who map it."""
    return memory_kib(processes, "Pss") / 1024


def wakeups(processes: Sequence[int]) -> int:
    """How often the threads have gone to sleep of their own accord."""
    return sum(int(line.split()[1])
               for process in processes
               for status in Path(f"/proc/{process}/task").glob("*/status")
               for line in status.read_text().splitlines() if line.startswith("voluntary_ctxt_switches:"))


def idle_memory(make_device: Callable[[], Device]) -> float:
    with make_device() as device:
        time.sleep(SETTLE_SECONDS)
        return memory_mb(device.processes())


def start_time(make_device: Callable[[], Device]) -> float:
    with make_device() as device:
        return device.start_ms


def idle_wakeups(devices: Sequence[Device]) -> list[float]:
    """Wake-ups per second of each device, over the same seconds."""
    time.sleep(SETTLE_SECONDS)
    before = [wakeups(device.processes()) for device in devices]
    time.sleep(WATCH_SECONDS)
    return [(wakeups(device.processes()) - count) / WATCH_SECONDS for device, count in zip(devices, before)]


def answer_times(server: Server, devices: tuple[Device, Device], count: int) -> list[tuple[float, float]]:
    """For each of `count` rounds the microseconds that each device's answer took."""
    def time_of(device: Device) -> float:
        time.sleep(TICKET_PAUSE_SECONDS / len(devices))
        return server.deliver(device.serial)

    ours, other = devices
    rounds = [(time_of(ours), time_of(other)) for _ in range(count + 1)]
    return rounds[1:]  # the first ticket finds nothing in the processor's caches


def rows(context: Context) -> list[Row]:
    with Server(context) as server, Syslog(context.server_core):
        result: list[Row] = []
        for name, program, memory_target, start_target in (
                (SWAPPABLE, "debug_dat_transmitter", 0.90, 0.90),
                ("one file", "debug_dat_transmitter_single", 0.75, 0.50)):
            result += rows_of_build(context, server, name, context.bin / program, memory_target, start_target)
        if context.wants(11):
            result.append(row_of_wakeups(context, server))
        if context.wants(13):
            result.append(row_of_answers(context, server))
        if context.wants(14):
            result += rows_of_watching(context, server)
    return sorted(result, key=lambda row: row.number)


def rows_of_build(context: Context, server: Server, name: str, program: Path, memory_target: float,
                  start_target: float) -> list[Row]:
    def daemon() -> Device:
        return Daemon(context, server, program)

    def bare() -> Device:
        return BareClient(context, server)

    result: list[Row] = []
    if context.wants(10):
        pairs = context.alternate(lambda: idle_memory(daemon), lambda: idle_memory(bare))
        result.append(ratio_row(10, f"idle, {name}", "bare client", "PSS MB", pairs, memory_target))
    if context.wants(12):
        pairs = context.alternate(lambda: start_time(daemon), lambda: start_time(bare))
        result.append(ratio_row(12, f"start to stream open, {name}", "bare client", "wall ms", pairs, start_target))
    return result


@contextmanager
def both(context: Context, server: Server) -> Iterator[tuple[Device, Device]]:
    with Daemon(context, server, context.bin / "debug_dat_transmitter") as daemon:
        with BareClient(context, server) as bare:
            yield daemon, bare


def row_of_wakeups(context: Context, server: Server) -> Row:
    # gRPC's timers come out once or twice as often, as their phases happen to lie: each pair starts afresh.
    pairs = []
    for _ in range(context.pairs):
        with both(context, server) as devices:
            ours, other = idle_wakeups(devices)
        pairs.append((ours, other + SUPERVISOR_WAKEUPS))
    return ratio_row(11, f"idle, {SWAPPABLE}", "bare client plus 2", "wake-ups/s", pairs, 1.1)


def row_of_answers(context: Context, server: Server) -> Row:
    with both(context, server) as devices, NoTask():
        pairs = answer_times(server, devices, 3 * context.pairs)
    return ratio_row(13, f"ticket to answer, {SWAPPABLE}", "gRPC round trip", "wall us", pairs, 2.0)


def rows_of_watching(context: Context, server: Server) -> list[Row]:
    """How much debug_dat_run adds: what holds for the daemon with it, beside what holds for the daemon alone."""
    memory, wake_ups = [], []
    for _ in range(context.pairs):
        with WatchedDaemon(context, server) as device:
            time.sleep(SETTLE_SECONDS + 1)  # and the worker counts as settled
            own, daemons = (memory_kib(processes, "Private_Clean", "Private_Dirty")
                            for processes in ([device.run], device.processes()))
            before = wakeups([device.run]), wakeups(device.processes())
            time.sleep(WATCH_SECONDS)
            run, daemon = ((wakeups(processes) - count) / WATCH_SECONDS
                           for processes, count in zip(([device.run], device.processes()), before))
        memory.append((float(own + daemons), float(daemons)))
        wake_ups.append((run + daemon, daemon))
    return [difference_row(14, "idle, under debug_dat_run", "the daemon alone", "private KiB", memory, 512),
            difference_row(14, "idle, under debug_dat_run", "the daemon alone", "wake-ups/s", wake_ups, 0)]
