#!/usr/bin/env python3
"""installed_test.py BUILD_FOLDER [NAME...]

Tries each ready description, or those of these names, against the really installed Debian packages. For each there is a
container of its own, booted with systemd, without a network, in which the packages are installed and debug_dat_collect
makes an archive. What the description names and the archive lacks is a failure, unless cases.py says why it is so
there. Secrets that cases.py plants may stand nowhere in the archive.

To be started as root, in a mount namespace of its own (./test descriptions does). Exit status 0 if all is as it
should be.
"""

import fnmatch
import json
import os
import shutil
import subprocess
import sys
import time
import uuid
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from cases import CASES, PLANTED, Case

ROOT = Path(__file__).resolve().parents[2]
READY = ROOT / "packaging" / "descriptions"
BOOTED_CONTAINER = ROOT / "tools" / "booted_container"
LIMIT_SECONDS = 1200  # only what hangs takes so long, and booted_container ends that before

# What the collector and debug_dat_check need, and what every container has.
BASE_PACKAGES = [
    "ca-certificates", "dbus", "iproute2", "libarchive13", "libcurl4", "libgrpc++1.51", "libjsoncpp25",
    "libprotobuf-lite32", "libre2-9", "libssl3", "libvectorscan5", "libzstd1", "procps", "systemd-sysv", "udev",
]


def run(command: list[str | Path], log: Path) -> int:
    with log.open("ab") as output:
        return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                              timeout=LIMIT_SECONDS, check=False).returncode


class Failure(Exception):
    """The case could not be tried."""


@dataclass
class Places:
    """Where containers are made, below build/descriptions."""

    base: Path
    packages: Path
    work: Path
    name_servers: str
    """The machine's resolv.conf."""


def make_base(places: Places) -> None:
    """A small Debian that all containers share. It is kept for the next time."""
    if (places.base / "complete").exists():
        return
    print("==> Making the system that all containers share (some minutes)", flush=True)
    shutil.rmtree(places.base, ignore_errors=True)
    log = places.work / "base.log"
    packages = ",".join(BASE_PACKAGES)
    if run(["debootstrap", "--variant=minbase", f"--include={packages}", "bookworm", places.base], log) != 0:
        raise Failure(log.read_text(errors="replace"))
    (places.base / "complete").touch()


def install(case: Case, merged: Path, places: Places, log: Path) -> None:
    """Installs the packages, with the machine's network, and starts nothing."""
    if not case.packages:
        return
    policy = merged / "usr/sbin/policy-rc.d"
    policy.write_text("#!/bin/sh\nexit 101\n", encoding="utf-8")
    policy.chmod(0o755)
    (merged / "etc/resolv.conf").write_text(places.name_servers, encoding="utf-8")
    command = ["systemd-nspawn", "--quiet", "--register=no", "--keep-unit", f"--directory={merged}",
               "--resolv-conf=off", f"--bind={places.packages}:/var/cache/apt/archives",
               "--setenv=DEBIAN_FRONTEND=noninteractive", "apt-get", "-q", "-y", "-o",
               "APT::Keep-Downloaded-Packages=true", "install", "--no-install-recommends"]
    if run([*command, *case.packages], log) != 0:
        raise Failure(log.read_text(errors="replace"))
    policy.unlink()


def prepare(name: str, case: Case, merged: Path, build: Path) -> None:
    programs = merged / "usr/local/sbin"
    for program in ("debug_dat_collect", "debug_dat_check"):
        shutil.copyfile(build / "bin" / program, programs / program)
        (programs / program).chmod(0o755)
    ready = merged / "usr/local/share/tarvo/descriptions"
    ready.mkdir(parents=True)
    for file in READY.iterdir():
        shutil.copyfile(file, ready / file.name)
    script = ["exec 2>&1", "set -x", "timeout 120 systemctl is-system-running --wait", case.setup,
              "journalctl --sync", f"debug_dat_collect --enable {name}",
              f"debug_dat_collect --apps {name} --out /out/debug.dat"]
    # One of its own, or the first start would turn on what the packages leave off.
    (merged / "etc/machine-id").write_text(uuid.uuid4().hex + "\n", encoding="utf-8")
    (merged.parent / "out/script").write_text("\n".join(script) + "\n", encoding="utf-8")


def collect(name: str, places: Places, build: Path) -> Path:
    """Makes the archive of one case. Returns the folder in which it is unpacked."""
    case = CASES[name]
    folder = places.work / name
    folder.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", folder], check=True)
    merged, out = folder / "merged", folder / "out"
    for each in (folder / "upper", folder / "work", merged, out, out / "archive"):
        each.mkdir()
    options = f"lowerdir={places.base},upperdir={folder / 'upper'},workdir={folder / 'work'}"
    subprocess.run(["mount", "-t", "overlay", "overlay", "-o", options, merged], check=True)
    install(case, merged, places, out / "install.log")
    prepare(name, case, merged, build)
    run([BOOTED_CONTAINER, "--out", out, "--system", merged, "bash", "/out/script"], out / "log")
    if run(["tar", "--zstd", "-xf", out / "debug.dat", "-C", out / "archive"], out / "tar.log") != 0:
        raise Failure("\n".join(file.read_text(errors="replace") for file in
                                (out / "log", out / "tar.log") if file.exists()))
    return out / "archive"


class Judge:
    """Compares what a description names with what the archive has."""

    def __init__(self, name: str, archive: Path) -> None:
        self.case = CASES[name]
        self.where = f"apps/{name}"
        self.archive = archive
        self.description: dict[str, Any] = json.loads((READY / f"{name}.json").read_text(encoding="utf-8"))
        manifest = json.loads((archive / "manifest.json").read_text(encoding="utf-8"))
        self.entries = [entry for entry in manifest["entries"] if entry["name"].startswith(self.where + "/")]
        self.errors = [error for error in manifest["errors"] if error["where"].startswith(self.where)]
        self.used: set[str] = set()

    def excused(self, what: str) -> bool:
        found = [pattern for pattern in self.case.lacks if fnmatch.fnmatchcase(what, pattern)]
        self.used.update(found)
        return bool(found)

    def missing_files(self) -> Iterator[str]:
        sources = [entry["source"] for entry in self.entries if "source" in entry]
        for path in self.description.get("paths", []):
            pattern = path if isinstance(path, str) else path["path"]
            taken = any(fnmatch.fnmatchcase(source, pattern) or fnmatch.fnmatchcase(source, pattern + "/*")
                        for source in sources)
            if taken == self.excused(pattern):
                yield f"{pattern}: {'taken though cases.py says that it is not there' if taken else 'not taken'}"

    def failed_commands(self) -> Iterator[str]:
        for entry in self.entries:
            if "argv" not in entry or "/journal/" in entry["name"]:
                continue
            status, text = entry.get("exit_status"), " ".join(entry["argv"])
            content = (self.archive / entry["name"]).read_text(errors="replace")
            if (status != 0 or not content) and not self.excused(text):
                yield f"{text}: {entry['result']}: {content[:500]}"

    def unexplained_errors(self) -> Iterator[str]:
        for error in self.errors:
            message = error["message"].removesuffix(": matches nothing")
            text = message if message != error["message"] else f"{error['where']}: {message}"
            if not self.excused(text):
                yield f"{error['where']}: {error['message']}"

    def planted(self) -> Iterator[str]:
        for file in sorted(self.archive.rglob("*")):
            lines = file.read_text(errors="replace").splitlines() if file.is_file() else []
            yield from (f"a planted secret in {file.relative_to(self.archive)}: {line}" for line in lines
                        if PLANTED in line)

    def not_held(self) -> Iterator[str]:
        contents = "".join((self.archive / entry["name"]).read_text(errors="replace") for entry in self.entries)
        yield from (f"no entry holds {text!r}" for text in self.case.holds if text not in contents)

    def faults(self) -> list[str]:
        faults = [*self.missing_files(), *self.failed_commands(), *self.unexplained_errors(), *self.planted(),
                  *self.not_held()]
        return faults + [f"cases.py excuses what did not happen: {text}" for text in self.case.lacks
                         if text not in self.used]


def try_case(name: str, places: Places, build: Path) -> bool:
    started = time.monotonic()
    try:
        judge = Judge(name, collect(name, places, build))
        faults = judge.faults()
        told = f"{len(judge.entries)} entries"
    except (Failure, subprocess.TimeoutExpired) as failure:
        faults, told = [str(failure)], "no archive"
    print(f"{'FAILED' if faults else 'ok':7} {name:23} {told}, {time.monotonic() - started:.0f} s", flush=True)
    for fault in faults:
        print("        " + fault.replace("\n", "\n        "), flush=True)
    subprocess.run(["umount", "--recursive", places.work / name], check=False)
    return not faults


def main() -> int:
    if len(sys.argv) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    build = Path(sys.argv[1]).resolve()
    names = sys.argv[2:] or sorted(file.stem for file in READY.iterdir())
    unknown = [name for name in names if name not in CASES or not (READY / f"{name}.json").exists()]
    if unknown:
        print(f"there is no description, or no case in cases.py, of {', '.join(unknown)}", file=sys.stderr)
        return 2
    os.umask(0o022)  # what others may change is not trusted
    folder = build.parent / "descriptions"
    places = Places(folder / "base", folder / "packages", folder / "work", Path("/etc/resolv.conf").read_text())
    places.packages.mkdir(parents=True, exist_ok=True)
    shutil.rmtree(places.work, ignore_errors=True)
    places.work.mkdir()
    for own in (places.work, Path("/run")):  # systemd-nspawn leaves files in /run
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", own], check=True)
    make_base(places)
    failed = [name for name in names if not try_case(name, places, build)]
    print(f"{len(names) - len(failed)} descriptions as they should be, {len(failed)} not: {' '.join(failed)}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
