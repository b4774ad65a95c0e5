"""Rows 1 to 5: what an upload costs through the daemon's own UploadFile(), beside curl's command line."""

import json
import os
from pathlib import Path
from typing import Optional, Sequence

from context import Context, Failed, Usage, Word, pipe
from rows import Row, difference_row, ratio_row

NUMBERS = (1, 2, 3, 4, 5)

ETC = Path("/usr/tarvo/etc")
MIB = 1 << 20
KIB = 1 << 10


class Server:
    """A discarding server: "plain", "tls" or "no-100"."""

    def __init__(self, context: Context, mode: str = "plain") -> None:
        certificate: Sequence[Path] = make_certificate(context) if mode == "tls" else ()
        self._context = context
        self._process = context.start([context.bin / "discard_server", mode, *certificate])
        self.port = int(pipe(self._process.stdout).readline() or 0)
        if self.port == 0:
            raise Failed("the discarding server did not start")
        self.url = f"{'https' if mode == 'tls' else 'http'}://127.0.0.1:{self.port}"

    def __enter__(self) -> "Server":
        return self

    def __exit__(self, *_: object) -> None:
        self._context.stop(self._process)

    def expect_request_of(self, size: int) -> None:
        """Checks that the next request whose body was received whole had at least `size` bytes of it."""
        received = int(pipe(self._process.stdout).readline() or -1)
        if received < size:
            raise Failed(f"the server received {received} bytes of a file of {size}")


def make_certificate(context: Context) -> tuple[Path, Path]:
    """A certificate that is its own authority; the daemon is told to trust it. Returns its file and its key's."""
    certificate, key = context.folder / "server.pem", context.folder / "server.key"
    if not certificate.exists():
        context.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc",
                     "-days", "2", "-subj", "/CN=bench", "-addext", "subjectAltName=IP:127.0.0.1",
                     "-out", certificate, "-keyout", key])
        (ETC / "tls").mkdir(parents=True, exist_ok=True)
        (ETC / "tls" / "ca.pem").write_bytes(certificate.read_bytes())
    return certificate, key


def configure(server: Server) -> None:
    ETC.mkdir(parents=True, exist_ok=True)
    (ETC / "serial_number").write_text("BENCHMARK-1\n")
    (ETC / "tarvomibserver.conf").write_text(
        json.dumps({"debug_dat_file_transmitter": {"css_server": {"url": server.url}}}))


def make_file(context: Context, size: int) -> Path:
    """A file of `size` bytes that no transport compresses; it stays in the page cache."""
    path = context.folder / f"file-{size}"
    if not path.exists():
        block = os.urandom(min(size, MIB))
        with path.open("wb") as file:
            for _ in range(size // len(block)):
                file.write(block)
            file.flush()
            os.fsync(file.fileno())
    return path


class Upload:
    """One file on its way to one server, by each of the clients."""

    def __init__(self, context: Context, server: Server, path: Path) -> None:
        self._context, self._server, self._path = context, server, path
        configure(server)

    def by_daemon(self) -> Usage:
        wall, cpu, _ = self._by_daemon()
        return Usage(wall, cpu, "")

    def daemon_memory(self) -> float:
        """The peak of the uploading process's resident memory, in MiB."""
        return self._by_daemon()[2] / 1024

    def _by_daemon(self) -> tuple[float, float, float]:
        output = self._run([self._context.bin / "upload_archive", self._path]).output
        wall, cpu, kilobytes = map(float, output.split())
        return wall, cpu, kilobytes

    def by_curl(self) -> Usage:
        return self._run(["curl", "-sS", "--cacert", self._context.folder / "server.pem",
                          "-H", "AUTH-TOKEN: benchmark-token", "-F", f"debug_file=@{self._path}",
                          "-F", "serial_number=BENCHMARK-1", "-F", "debug_data_apps[0]=bench",
                          f"{self._server.url}/orvane/ps_files"])

    def by_bare_loop(self) -> Usage:
        return self._run([self._context.bin / "bare_upload", self._server.port, self._path])

    def _run(self, argv: Sequence[Word]) -> Usage:
        usage = self._context.run(argv)
        self._server.expect_request_of(self._path.stat().st_size)
        return usage


def rows(context: Context) -> list[Row]:
    gib, small = 1024 * MIB // context.scale, 64 * KIB
    result: list[Row] = []
    with Server(context) as server:
        if context.wants(1):
            upload = Upload(context, server, make_file(context, gib))
            result += cost_rows(1, "upload of 1 GiB, plain", "curl -F",
                                context.alternate(upload.by_daemon, upload.by_curl), cpu=0.50, wall=0.55)
            result += cost_rows(1, "the limit: a bare read/write loop", "curl -F",
                                context.alternate(upload.by_bare_loop, upload.by_curl), cpu=None, wall=None)
        if context.wants(2):
            upload = Upload(context, server, make_file(context, gib))
            result += cost_rows(2, "upload of 1 GiB, plain", "bare read/write loop",
                                context.alternate(upload.by_daemon, upload.by_bare_loop), cpu=1.15)
        if context.wants(5):
            large = Upload(context, server, make_file(context, gib))
            little = Upload(context, server, make_file(context, small))
            pairs = context.alternate(large.daemon_memory, little.daemon_memory)
            result.append(difference_row(5, "peak memory of an upload of 1 GiB", "of 64 KiB", "RSS MiB", pairs, 3))
    if context.wants(3):
        with Server(context, "tls") as server:
            upload = Upload(context, server, make_file(context, gib))
            result += cost_rows(3, "upload of 1 GiB, TLS", "curl -F",
                                context.alternate(upload.by_daemon, upload.by_curl), cpu=0.90)
    if context.wants(4):
        with Server(context, "no-100") as server:
            upload = Upload(context, server, make_file(context, 100 * MIB // context.scale))
            result += cost_rows(4, "upload of 100 MiB, server never sends 100", "curl -F",
                                context.alternate(upload.by_daemon, upload.by_curl), wall=0.10)
    return sorted(result, key=lambda row: row.number)


def cost_rows(number: int, work: str, against: str, pairs: Sequence[tuple[Usage, Usage]],
              **targets: Optional[float]) -> list[Row]:
    """A row for each of "cpu" and "wall" that `targets` names, out of pairs of Usage."""
    return [ratio_row(number, work, against, {"cpu": "CPU s", "wall": "wall s"}[quantity],
                      [(getattr(ours, quantity), getattr(other, quantity)) for ours, other in pairs], target)
            for quantity, target in targets.items()]
