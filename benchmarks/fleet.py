"""Rows 15 to 21: the support service with many devices. The yardstick of its streams is fleet_server, the least that a
grpc++ server can be which holds them, TLS against TLS; of its store SQLite alone; of its uploads nginx."""

import json
import os
import resource
import select
import shutil
import socket
import subprocess
import threading
import time
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path
from statistics import median, quantiles
from typing import Dict, Iterator, List, Optional, Self, Sequence

from context import Context, Failed, Word, pipe
from rows import Row, difference_row, ratio_row

NUMBERS = (15, 16, 17, 18, 19, 20, 21)

FEW, MANY = 1_000, 10_000  # devices
ABSENT = 1_000  # tickets that wait for devices which are away
ORDERED = 1_000  # tickets that are sent at once
SENDERS = 16  # connections over which they are sent
SETTLE_SECONDS = 3  # after the last stream is open, until memory is looked at
CALM_SECONDS = 35  # from there until idle streams are: within half a minute the service notes which devices it has seen
IDLE_SECONDS = 40  # over which their CPU time is measured: each device pings twice
CREATED, BATCH = 20_000, 64  # tickets of row 19, so many at a time on their way
UPLOADS, UPLOAD_MIB = 100, 16
PAST = (10_000, 1_000_000)  # tickets of row 21
PAGES = 500  # listing pages of a measurement
TICK = os.sysconf("SC_CLK_TCK")
PATIENCE_SECONDS = 600.0


class Lines:
    """What a process prints, line by line."""

    def __init__(self, process: "subprocess.Popen[str]") -> None:
        self._process = process
        self._text = ""

    def next(self, seconds: float = PATIENCE_SECONDS) -> str:
        """The next line, without its end."""
        output = pipe(self._process.stdout)
        deadline = time.monotonic() + seconds
        while "\n" not in self._text:
            rest = deadline - time.monotonic()
            if rest <= 0 or not select.select([output], [], [], rest)[0]:
                raise Failed(f"{self._process.args!r} printed nothing within {seconds} s")
            read = os.read(output.fileno(), 1 << 20)
            if not read:
                raise Failed(f"{self._process.args!r} ended")
            self._text += read.decode(errors="replace")
        line, self._text = self._text.split("\n", 1)
        return line

    def expect(self, beginning: str) -> str:
        """What stands behind `beginning` in the next line that has it."""
        while True:
            line = self.next()
            if line.startswith("failed "):
                raise Failed(line)
            if line.startswith(beginning):
                return line[len(beginning):].strip()


@dataclass(frozen=True)
class Identities:
    """How devices and servers know each other, where they do: files of the service's own authority."""
    certificates: Path  # of the devices
    authority: Path
    server_certificate: Path
    server_key: Path


class Server:
    """A running server of one of the two kinds."""

    name: str
    target: str

    def __init__(self, context: Context, argv: Sequence[Word], all_cores: bool = False) -> None:
        self._context = context
        self._process = context.start(argv, all_cores=all_cores, stdin=subprocess.PIPE)
        self.lines = Lines(self._process)

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        pipe(self._process.stdin).close()
        self._context.stop(self._process)

    def cpu(self) -> float:
        """Its CPU time since its start, in seconds."""
        words = Path(f"/proc/{self._process.pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()
        return (int(words[11]) + int(words[12])) / TICK

    def cpu_since(self, former: float) -> float:
        """The CPU time since it was `former`; a tick at least, which is how the kernel counts."""
        return max(1 / TICK, self.cpu() - former)

    def memory(self, which: str = "VmRSS") -> int:
        """Its resident memory in KiB, or "VmHWM", the most since forget_peak()."""
        for line in Path(f"/proc/{self._process.pid}/status").read_text(encoding="ascii").splitlines():
            if line.startswith(which + ":"):
                return int(line.split()[1])
        raise Failed(f"{self._process.args!r} has no {which}")

    def forget_peak(self) -> None:
        Path(f"/proc/{self._process.pid}/clear_refs").write_text("5", encoding="ascii")

    def send(self, count: int) -> None:
        """Orders a ticket for each of so many connected devices."""
        raise NotImplementedError


class Bare(Server):
    """The least that a server can be."""

    def __init__(self, context: Context, identities: Optional[Identities]) -> None:
        files = [identities.server_certificate, identities.server_key, identities.authority] if identities else []
        super().__init__(context, [context.bin / "fleet_server", *files])
        self.target = self.lines.expect("listening ")

    def send(self, count: int) -> None:
        to = pipe(self._process.stdin)
        to.write(f'{count} {{"apps":["mail"],"token":"{"0" * 32}"}}\n')
        to.flush()


class Service(Server):
    """The support service."""

    def __init__(self, context: Context, folder: Path, uses_tls: bool, all_cores: bool = False) -> None:
        trust = [] if uses_tls else ["--allow-list"]
        super().__init__(context, [context.bin / "support_service", "--data", folder, *trust], all_cores)
        self.target = self.lines.expect("grpc listening on ").split("//")[1]
        self.css_url = self.lines.expect("css listening on ")
        self.control_socket = self.lines.expect("control socket ")
        # Its lines are read as a log's reader would, so that it is not measured while nobody takes them.
        threading.Thread(target=self._drop_lines, daemon=True).start()

    def _drop_lines(self) -> None:
        output = pipe(self._process.stdout)
        try:
            while os.read(output.fileno(), 1 << 20):
                pass
        except (OSError, ValueError):
            pass  # it has ended

    def send(self, count: int) -> None:
        requests = [post(f"SN{number:05}") for number in range(count)]
        senders = [threading.Thread(target=self.exchange, args=(requests[first::SENDERS], b" 201 "))
                   for first in range(SENDERS)]
        for sender in senders:
            sender.start()
        for sender in senders:
            sender.join()

    def exchange(self, requests: Sequence[bytes], status: bytes) -> None:
        """Sends requests to the API, one after the other, over one connection."""
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(PATIENCE_SECONDS)
            connection.connect(self.control_socket)
            for request in requests:
                connection.sendall(request)
                answer = b""
                while not is_whole(answer):
                    piece = connection.recv(1 << 16)
                    if not piece:
                        raise Failed("the support service closed a connection")
                    answer += piece
                if status not in answer.split(b"\r\n", 1)[0] + b" ":
                    raise Failed(f"the support service answered {answer[:1000]!r}")


def is_whole(answer: bytes) -> bool:
    head, separator, body = answer.partition(b"\r\n\r\n")
    if not separator:
        return False
    lengths = [line for line in head.lower().split(b"\r\n") if line.startswith(b"content-length:")]
    return len(lengths) == 1 and len(body) >= int(lengths[0].split(b":")[1])


def post(device: str) -> bytes:
    """A request for a ticket."""
    body = json.dumps({"device": device, "apps": ["mail"]}).encode()
    return (b"POST /api/v1/tickets HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"
            b"Content-Length: %d\r\n\r\n%s" % (len(body), body))


class Devices:
    """Many devices of a server."""

    def __init__(self, context: Context, server: Server, identities: Optional[Identities]) -> None:
        self._context = context
        files = [identities.certificates, identities.authority] if identities else []
        self._process = context.start([context.bin / "fleet_devices", server.target, *files], context.client_core,
                                      stdin=subprocess.PIPE)
        self.lines = Lines(self._process)

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        pipe(self._process.stdin).close()
        self._context.stop(self._process)

    def connect(self, count: int) -> float:
        """Seconds until all streams are open."""
        to = pipe(self._process.stdin)
        to.write(f"connect {count}\n")
        to.flush()
        return int(self.lines.expect("connected ")) / 1e9


class Folders:
    """The service's data folders, made once: one without certificates, one with."""

    def __init__(self, context: Context, count: int) -> None:
        self._context = context
        self._count = count
        self._made: Dict[bool, Path] = {}
        self._identities: Optional[Identities] = None

    def folder(self, uses_tls: bool) -> Path:
        if uses_tls not in self._made:
            self._made[uses_tls] = self._make(uses_tls)
        return self._made[uses_tls]

    def identities(self, uses_tls: bool) -> Optional[Identities]:
        folder = self.folder(uses_tls)
        if not uses_tls:
            return None
        return Identities(folder / "devices", folder / "authority/ca.pem", folder / "server/server.pem",
                          folder / "server/server.key")

    def _make(self, uses_tls: bool) -> Path:
        context, folder = self._context, self._context.folder / ("fleet-tls" if uses_tls else "fleet")
        with Service(context, folder, uses_tls):
            pass  # it makes its folder, the authority and its own certificate
        certificates = [folder / "devices"] if uses_tls else []
        context.run([context.bin / "fleet_store", "enrol", folder, self._count, *certificates])
        context.run([context.bin / "fleet_store", "wait", folder, max(1, ABSENT // context.scale)])
        shutil.copy(folder / "tickets.db", folder / "as-made.db")
        return folder


@dataclass
class Run:
    """What one run of one server gave."""
    memory: float  # KiB per device
    connect_wall: float  # seconds
    connect_cpu: float
    idle_cpu: float  # seconds of CPU time per minute
    half: float  # milliseconds until half of the ordered tickets were answered
    most: float  # until 99 of 100 were


@contextmanager
def server_of(context: Context, folders: Folders, uses_tls: bool, is_ours: bool) -> Iterator[Server]:
    identities = folders.identities(uses_tls)
    folder = folders.folder(uses_tls)
    # A device whose former ticket has no result yet gets no other one.
    shutil.copy(folder / "as-made.db", folder / "tickets.db")
    with (Service(context, folder, uses_tls) if is_ours else Bare(context, identities)) as server:
        yield server


def order(server: Server, devices: Devices, count: int) -> Sequence[float]:
    """Milliseconds from the order to each device's answer."""
    started = time.monotonic_ns()
    sending = threading.Thread(target=server.send, args=(count,))
    sending.start()
    moments = [int(devices.lines.expect("answered ").split()[1]) for _ in range(count)]
    sending.join()
    return sorted((moment - started) / 1e6 for moment in moments)


def run_streams(context: Context, folders: Folders, uses_tls: bool, is_ours: bool, count: int,
                is_whole_run: bool) -> Run:
    """One server's run: its devices connect, are idle, and get tickets.

    :param is_whole_run: False where only memory is looked at.
    """
    with server_of(context, folders, uses_tls, is_ours) as server:
        with Devices(context, server, folders.identities(uses_tls)) as devices:
            time.sleep(1)
            memory, cpu = server.memory(), server.cpu()
            wall = devices.connect(count)
            cpu = server.cpu_since(cpu)
            time.sleep(SETTLE_SECONDS)
            run = Run((server.memory() - memory) / count, wall, cpu, 0, 0, 0)
            if is_whole_run:
                time.sleep(CALM_SECONDS // context.scale)
                seconds = max(5, IDLE_SECONDS // context.scale)
                before = server.cpu()
                time.sleep(seconds)
                run.idle_cpu = server.cpu_since(before) * 60 / seconds
                moments = order(server, devices, max(4, ORDERED // context.scale))
                run.half, run.most = median(moments), quantiles(moments, n=100)[98]
    return run


def streams_rows(context: Context) -> List[Row]:
    few, many = max(4, FEW // context.scale), max(4, MANY // context.scale)
    folders = Folders(context, many)
    rows: List[Row] = []
    for uses_tls in (False, True):
        link = "mutual TLS" if uses_tls else "plaintext"
        if context.wants(15):
            small = context.alternate(lambda: run_streams(context, folders, uses_tls, True, few, False),
                                      lambda: run_streams(context, folders, uses_tls, False, few, False))
            rows.append(ratio_row(15, f"idle device, {few:,} streams, {link}", "trivial server", "RSS KiB",
                                  [(ours.memory, other.memory) for ours, other in small], 1.10))
        pairs = context.alternate(lambda: run_streams(context, folders, uses_tls, True, many, True),
                                  lambda: run_streams(context, folders, uses_tls, False, many, True))
        for number, work, quantity, member, target in (
                (15, f"idle device, {many:,} streams, {link}", "RSS KiB", "memory", 1.10),
                (16, f"{many:,} idle streams, {link}", "CPU s/min", "idle_cpu", 1.25),
                (17, f"a ticket to each of {ORDERED // context.scale:,} devices, {link}", "p50 ms", "half", 1.5),
                (17, f"a ticket to each of {ORDERED // context.scale:,} devices, {link}", "p99 ms", "most", 1.5),
                (18, f"{many:,} devices reconnect, {link}", "CPU s", "connect_cpu", 1.3),
                (18, f"{many:,} devices reconnect, {link}", "wall s", "connect_wall", 1.3)):
            if context.wants(number):
                rows.append(ratio_row(number, work, "trivial server", quantity,
                                      [(getattr(ours, member), getattr(other, member)) for ours, other in pairs],
                                      target))
    return sorted(rows, key=lambda row: row.number)


def creation_row(context: Context) -> Row:
    count = CREATED // context.scale
    pairs = []
    batches = 0
    for number in range(context.pairs + 1):
        folder = context.folder / f"created-{number}"
        folder.mkdir()
        words = context.run([context.bin / "fleet_store", "create", folder, count, BATCH], context.all_cores)
        ours, bare, made = words.output.split()
        batches = int(made)
        if number > 0:
            pairs.append((float(ours) / count * 1e6, float(bare) / count * 1e6))
    return ratio_row(19, f"a ticket is created and synced, {count / batches:.0f} in a batch", "SQLite, the same rows",
                     "wall us", pairs, 2.0)


def upload_rows(context: Context) -> List[Row]:
    count = max(4, UPLOADS // context.scale)
    file = context.folder / "upload.dat"
    file.write_bytes(os.urandom(UPLOAD_MIB << 20) if context.scale == 1 else os.urandom(1 << 20))
    ours: List[tuple[float, float, float]] = []
    other: List[tuple[float, float, float]] = []
    for _ in range(context.pairs + 1):
        ours.append(upload_to_service(context, file, count))
        other.append(upload_to_nginx(context, file, count))
    pairs = list(zip(ours, other))[1:]
    what = f"{count} uploads of {file.stat().st_size >> 20} MiB at once"
    return [
        ratio_row(20, what, "nginx, WebDAV PUT", "wall s", [(a[0], b[0]) for a, b in pairs], 1.25),
        ratio_row(20, f"{what}, until they are on disk", "nginx, then sync", "wall s",
                  [(a[0], b[0] + b[2]) for a, b in pairs], None),
        difference_row(20, f"memory per upload, {what}", "before them", "peak KiB", [(a[1], 0) for a, _ in pairs], 512),
    ]


def upload_to_service(context: Context, file: Path, count: int) -> tuple[float, float, float]:
    """Seconds, and KiB of memory per upload."""
    folder = context.folder / "uploads"
    with Service(context, folder, False):
        pass
    context.run([context.bin / "fleet_store", "enrol", folder, count])
    with Service(context, folder, False, all_cores=True) as service, Devices(context, service, None) as devices:
        devices.connect(count)
        service.send(count)
        transfers = []
        for _ in range(count):
            serial, _moment, ticket = devices.lines.expect("answered ").split(" ", 2)
            token = json.loads(ticket)["token"]
            transfers.append("\n".join([
                f'url = "{service.css_url}/orvane/ps_files"', f'header = "AUTH-TOKEN: {token}"',
                f'form = "debug_file=@{file};filename=debug.dat"', f'form = "serial_number={serial}"',
                'form = "debug_data_apps[0]=mail"', 'output = "/dev/null"']))
        service.forget_peak()
        before = service.memory()
        wall = transfer(context, transfers)
        memory = (service.memory("VmHWM") - before) / count
        kept = len(list((folder / "archives").iterdir()))
    context.run(["rm", "-rf", folder])
    if kept != count:
        raise Failed(f"{kept} archives of {count} came")
    return wall, memory, 0


def upload_to_nginx(context: Context, file: Path, count: int) -> tuple[float, float, float]:
    """Seconds, nothing, and the seconds until the system has all of it on disk."""
    folder = context.folder / "nginx"
    (folder / "files").mkdir(parents=True)
    with socket.socket() as chooser:
        chooser.bind(("127.0.0.1", 0))
        port = chooser.getsockname()[1]
    (folder / "nginx.conf").write_text(f"""
daemon off; worker_processes auto; pid {folder}/pid; error_log {folder}/error.log; user root;
events {{ worker_connections 1024; }}
http {{
  access_log off; client_max_body_size 0; client_body_temp_path {folder}/temp;
  proxy_temp_path {folder}/unused; fastcgi_temp_path {folder}/unused; uwsgi_temp_path {folder}/unused;
  scgi_temp_path {folder}/unused;
  server {{ listen 127.0.0.1:{port}; root {folder}/files; location / {{ dav_methods PUT; }} }}
}}
""")
    server = context.start([context.nginx, "-p", folder, "-c", folder / "nginx.conf", "-e", folder / "error.log"],
                           all_cores=True)
    try:
        await_listener(port)
        wall = transfer(context, [f'url = "http://127.0.0.1:{port}/{number}.dat"\nupload-file = "{file}"'
                                  for number in range(count)])
        started = time.monotonic()
        os.sync()
        synced = time.monotonic() - started
    finally:
        context.stop(server)
    kept = [kept.stat().st_size for kept in (folder / "files").iterdir()]
    context.run(["rm", "-rf", folder])
    if kept != [file.stat().st_size] * count:
        raise Failed(f"nginx has {len(kept)} files of {count}")
    return wall, 0, synced


def await_listener(port: int) -> None:
    deadline = time.monotonic() + 30
    while True:
        try:
            socket.create_connection(("127.0.0.1", port)).close()
            return
        except OSError:
            if time.monotonic() > deadline:
                raise Failed("nginx does not listen") from None
            time.sleep(0.05)


def transfer(context: Context, transfers: Sequence[str]) -> float:
    """Seconds until curl has carried out all transfers side by side."""
    config = context.folder / "transfers"
    config.write_text("\nnext\n".join(transfers) + "\n")
    return context.run(["curl", "-q", "--silent", "--show-error", "--fail-with-body", "--fail-early", "--parallel",
                        "--parallel-immediate", "--parallel-max", len(transfers), "--config", config],
                       context.all_cores).wall


def listing_rows(context: Context) -> List[Row]:
    costs: Dict[int, List[float]] = {}
    for past in PAST:
        folder = context.folder / f"past-{past}"
        with Service(context, folder, False):
            pass
        context.run([context.bin / "fleet_store", "past", folder, past // context.scale], context.all_cores)
        with Service(context, folder, False) as service:
            request = b"GET /api/v1/tickets?limit=50 HTTP/1.1\r\nHost: localhost\r\n\r\n"
            pages = max(10, PAGES // context.scale)
            service.exchange([request] * 10, b" 200 ")
            costs[past] = []
            for _ in range(context.pairs):
                before = service.cpu()
                service.exchange([request] * pages, b" 200 ")
                costs[past].append(service.cpu_since(before) / pages * 1000)
        context.run(["rm", "-rf", folder])
    small, large = PAST
    return [
        difference_row(21, f"a page of 50 among {large:,} tickets", "nothing", "CPU ms",
                       [(cost, 0) for cost in costs[large]], 5),
        ratio_row(21, f"a page of 50 among {large:,} tickets", f"among {small:,}", "CPU ms",
                  list(zip(costs[large], costs[small])), 1.15),
    ]


def rows(context: Context) -> List[Row]:
    _soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    measured: List[Row] = []
    if any(context.wants(number) for number in (15, 16, 17, 18)):
        measured += streams_rows(context)
    if context.wants(19):
        measured.append(creation_row(context))
    if context.wants(20):
        measured += upload_rows(context)
    if context.wants(21):
        measured += listing_rows(context)
    return measured
