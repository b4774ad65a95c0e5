"""A device that has the packages: what the tests that run inside a booted container do there."""
import contextlib
import json
import os
import pathlib
import re
import sqlite3
import subprocess
import time
from typing import Any, Callable, Dict, List, Optional

PACKAGES = pathlib.Path('/out')
CONFIGURATION = pathlib.Path('/etc/tarvo/tarvomibserver.conf')
PID_FILE = pathlib.Path('/run/kestrix_debug_dat_transmitter.pid')
SERVICE_DATA = pathlib.Path('/var/lib/tarvo-support-service')
SERVICE_CONFIGURATION = pathlib.Path('/etc/tarvo-support-service.conf')
TASKS = pathlib.Path('/var/lib/tarvo/support_form_log')
DAEMON = 'debug-dat-transmitter.service'
SERVICE = 'tarvo-support-service.service'
SERIAL_NUMBER = 'SN-0815'
ENROLMENT = pathlib.Path('/root') / SERIAL_NUMBER
# Only a hung program misses it.
DEADLINE_SECONDS = 120.0


def run(*command: str, check: bool = True) -> subprocess.CompletedProcess[str]:
    """Runs a command to its end, with its output kept; it must succeed unless `check` is false."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False)
    if check and done.returncode != 0:
        raise AssertionError(f'{" ".join(command)} ended with {done.returncode}:\n{done.stdout}')
    return done


def wait_until(condition: Callable[[], bool], what: str) -> None:
    """Waits until the condition holds."""
    deadline = time.monotonic() + DEADLINE_SECONDS
    while not condition():
        if time.monotonic() > deadline:
            journal = run('journalctl', '--no-pager', '-n', '60', check=False).stdout
            raise AssertionError(f'in vain waited until {what}; the journal says:\n{journal}')
        time.sleep(0.05)


def supportctl(*arguments: str) -> str:
    """What the service answers to its administrator."""
    return run('supportctl', '--data', str(SERVICE_DATA), *arguments).stdout


def package(name: str) -> str:
    """The file of a package."""
    return str(next(PACKAGES.glob(f'{name}_*.deb')))


def property_of(unit: str, name: str) -> str:
    """What systemd knows about a unit."""
    return run('systemctl', 'show', '--value', '-p', name, unit).stdout.strip()


def children_of(pid: int) -> List[int]:
    """The living children of a process, the oldest first."""
    text = run('ps', '-o', 'pid=', '--sort', 'start_time', '--ppid', str(pid), check=False).stdout
    return [int(line) for line in text.split()]


def supervisor() -> int:
    """The daemon's supervisor, by the pid file."""
    return int(PID_FILE.read_text())


def worker() -> int:
    """The daemon's worker."""
    return children_of(supervisor())[0]


class Device:
    """The device and, on the same machine, its support service."""

    def install(self, *names: str) -> None:
        """Installs packages, as apt would once it has fetched what they need."""
        run('dpkg', '-i', *[package(name) for name in names])

    def install_all(self) -> None:
        """Installs the daemon and the service, and starts the service."""
        self.install('debug-dat-transmitter', 'tarvo-support-service')
        self.start_service()

    def start_service(self) -> None:
        """Starts the support service and waits until it answers."""
        run('systemctl', 'start', SERVICE)
        wait_until(self.service_answers, 'the support service answers')

    def service_answers(self) -> bool:
        """Whether the service has an answer for its administrator."""
        return run('supportctl', '--data', str(SERVICE_DATA), 'whoami', check=False).returncode == 0

    def let_half_an_hour_pass(self) -> None:
        """For the service, which waits so long for a report before it tries the device's next ticket."""
        run('systemctl', 'stop', SERVICE)
        with contextlib.closing(sqlite3.connect(SERVICE_DATA / 'tickets.db')) as store, store:
            store.execute('UPDATE tickets SET since = since - 30 * 60 * 1000')
        run('systemctl', 'start', SERVICE)

    def configure(self) -> None:
        """Enrols the device, and puts on it what that told, as its owner does."""
        CONFIGURATION.with_name('serial_number').write_text(f'{SERIAL_NUMBER}\n')
        told = supportctl('device', 'enrol', SERIAL_NUMBER, '--out', str(ENROLMENT), '--renew')
        for command in re.findall(r'^ +(install .+)$', told, re.MULTILINE):
            run('sh', '-c', f'cd {ENROLMENT} && {command}')

    def describe(self, name: str, description: object) -> None:
        """Describes an application."""
        (CONFIGURATION.parent / 'support_form_log.d' / f'{name}.json').write_text(json.dumps(description))

    def start(self) -> None:
        """Starts the daemon and waits until the service sees it."""
        run('systemctl', 'start', DAEMON)
        self.wait_connected()

    def wait_connected(self) -> None:
        """Waits until the service has the device's stream."""
        wait_until(self.is_connected, 'the device is connected')

    def is_connected(self) -> bool:
        """Whether the service has a stream of this device."""
        shown = run('supportctl', '--data', str(SERVICE_DATA), '--json', 'device', 'show', SERIAL_NUMBER, check=False)
        return shown.returncode == 0 and json.loads(shown.stdout)['connected'] is True

    def service_log(self) -> str:
        """The support service's lines."""
        return run('journalctl', '--no-pager', '-o', 'cat', '-u', SERVICE).stdout

    def daemon_log(self) -> str:
        """The lines of the daemon's unit."""
        return run('journalctl', '--no-pager', '-o', 'cat', '-u', DAEMON).stdout

    def send(self, apps: str = '') -> str:
        """Sends a ticket, once the device is connected.
        :return: Its id."""
        self.wait_connected()
        return supportctl('send', SERIAL_NUMBER, '--apps', apps).strip()

    def result(self, ticket: str) -> Optional[str]:
        """What the device reported of a ticket; nothing as long as it has not."""
        report = json.loads(supportctl('--json', 'show', ticket))['ticket'].get('report')
        assert report is None or isinstance(report, str)
        return report

    def wait_for_result(self, ticket: str) -> str:
        """What the device reports of a ticket."""
        wait_until(lambda: self.result(ticket) is not None, f'ticket {ticket} has a result')
        return self.result(ticket) or ''

    def serve_ticket(self, apps: str = '') -> pathlib.Path:
        """Has a ticket served.
        :return: The archive that the service received."""
        ticket = self.send(apps)
        result = self.wait_for_result(ticket)
        if result != 'Success':
            raise AssertionError(f'the ticket ended with: {result}\n{self.daemon_log()}')
        return SERVICE_DATA / 'archives' / f'{ticket}-1.dat'


def entries_of(archive: pathlib.Path) -> List[str]:
    """The names in an archive."""
    return run('tar', '--zstd', '-tf', str(archive)).stdout.split()


def manifest_of(archive: pathlib.Path) -> Dict[str, Any]:
    """An archive's manifest."""
    text = run('tar', '--zstd', '-xOf', str(archive), 'manifest.json').stdout
    manifest = json.loads(text)
    assert isinstance(manifest, dict)
    return manifest


def is_running(pid: int) -> bool:
    """Whether there is such a process, a zombie not counted."""
    try:
        stat = pathlib.Path(f'/proc/{pid}/stat').read_text()
    except OSError:
        return False
    return stat.rpartition(')')[2].split()[0] not in ('Z', 'X')


def end(pid: int, signal_number: int) -> None:
    """Sends a signal."""
    os.kill(pid, signal_number)
