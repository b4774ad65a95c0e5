"""What an operator does with the packages, each test in a booted container of its own; run_packages_tests boots it."""
import http.client
import json
import pathlib
import re
import signal
import socket
import ssl
import unittest
import urllib.request
from typing import Any, Callable

from device import (CONFIGURATION, DAEMON, DEADLINE_SECONDS, PACKAGES, PID_FILE, SERVICE, SERVICE_CONFIGURATION,
                    SERVICE_DATA, TASKS, Device, children_of, end, entries_of, is_running, manifest_of, package,
                    property_of, run, supervisor, wait_until, worker)

# Where packages put, and programs write, what may be left behind.
PLACES = ('/etc', '/lib/systemd', '/usr/bin', '/usr/include', '/usr/lib', '/usr/sbin', '/usr/share', '/usr/tarvo',
          '/var', '/run', '/home', '/srv', '/opt', '/tmp')
NAMES = re.compile(r'tarvo|debug[-_]dat|support_form_log|kestrix')
# dpkg's own memory of what was there, and the journal's and the containers' own.
NOT_OURS = re.compile(r'/var/(lib/dpkg|log/(dpkg|apt|journal)|cache)|/run/(log|systemd)/')


def left_behind() -> list[str]:
    """What lies in the system with one of our names."""
    found = run('find', *[place for place in PLACES if pathlib.Path(place).exists()], '-xdev', check=False).stdout
    return [line for line in found.splitlines() if NAMES.search(line) and not NOT_OURS.search(line)]


class PackagesTest(unittest.TestCase):
    """Packages on a device that had none."""

    def setUp(self) -> None:
        self.before = set(left_behind())
        self.device = Device()

    def serve(self) -> pathlib.Path:
        """Brings the device into service and serves a ticket."""
        self.device.install_all()
        self.device.configure()
        self.device.start()
        return self.device.serve_ticket()

    def test_serves_a_ticket_and_is_removed_without_a_trace(self) -> None:
        """The whole life of the packages."""
        self.device.install('debug-dat-transmitter', 'debug-dat-transmitter-dev', 'tarvo-support-service')
        self.assertEqual(property_of(DAEMON, 'UnitFileState'), 'enabled')
        self.assertEqual(property_of(DAEMON, 'ActiveState'), 'inactive', 'there is no configuration yet')
        self.device.start_service()
        self.device.configure()
        self.device.start()
        self.assertIn('manifest.json', entries_of(self.device.serve_ticket()))
        status = run('debug_dat_check', '--status').stdout
        self.assertRegex(status, 'working: connected, runs since .*; last ticket 20.*, served')
        pids = [supervisor(), worker()]
        run('dpkg', '-r', 'debug-dat-transmitter', 'debug-dat-transmitter-dev', 'tarvo-support-service')
        self.assertFalse([pid for pid in pids if is_running(pid)])
        self.assertTrue(CONFIGURATION.exists(), 'the owner\'s files survive the removal')
        run('dpkg', '-P', 'debug-dat-transmitter', 'debug-dat-transmitter-dev', 'tarvo-support-service')
        self.assertEqual(sorted(set(left_behind()) - self.before), [])
        self.assertNotIn('tarvo', pathlib.Path('/etc/passwd').read_text())

    def test_check_judges_for_the_user_of_the_daemon(self) -> None:
        """Root is told what tarvo may not read, and that nobody listens for collections."""
        self.serve()
        self.assertEqual(run('debug_dat_check').returncode, 0)
        key = CONFIGURATION.parent / 'tls/client.key'
        run('chown', 'root:', str(key))
        told = run('debug_dat_check', check=False)
        self.assertEqual(told.returncode, 3)
        self.assertIn('The daemon runs as the user tarvo, who lacks the right', told.stdout)
        run('chown', 'tarvo:', str(key))
        self.assertEqual(run('debug_dat_check').returncode, 0)
        run('systemctl', 'stop', 'debug-dat-collect.socket')
        told = run('debug_dat_check', check=False)
        self.assertEqual(told.returncode, 5)
        self.assertIn('systemctl start debug-dat-collect.socket', told.stdout)

    def test_makers_build_their_platform_and_have_it_judged(self) -> None:
        """The template, and our own libraries where they are installed."""
        self.device.install('debug-dat-transmitter', 'debug-dat-transmitter-dev')
        run('cmake', '-S', '/usr/share/debug_dat_transmitter/vendor_platform', '-B', '/var/tmp/build')
        run('cmake', '--build', '/var/tmp/build')
        for folder in ('/var/tmp/build', '/usr/lib/tarvo'):
            self.assertIn(' 0 FAILED', run('debug_dat_platform_test', folder).stdout)

    def test_network_half_has_no_rights(self) -> None:
        """Supervisor and worker run as the user tarvo, without a capability, and nobody else can read their files."""
        self.serve()
        for pid in (supervisor(), worker()):
            status = pathlib.Path(f'/proc/{pid}/status').read_text()
            uid = run('id', '-u', 'tarvo').stdout.strip()
            self.assertIn(f'Uid:\t{uid}\t{uid}\t{uid}\t{uid}', status)
            self.assertIn('CapEff:\t0000000000000000', status)
            self.assertIn('CapBnd:\t0000000000000000', status)
        refused = run('setpriv', '--reuid=65534', '--regid=65534', '--clear-groups', 'ls', str(TASKS), check=False)
        self.assertNotEqual(refused.returncode, 0, refused.stdout)

    def test_changed_configuration_survives_an_upgrade(self) -> None:
        """And the device that was working is working afterwards."""
        self.serve()
        example = CONFIGURATION.with_name('tarvomibserver.conf.example')
        example.write_text('changed\n')
        before = supervisor()
        run('dpkg', '-i', '--force-confdef', '--force-confold', newer('debug-dat-transmitter'))
        self.device.wait_connected()
        self.assertNotEqual(supervisor(), before)
        self.assertEqual(example.read_text(), 'changed\n')
        self.device.serve_ticket()

    def test_configuration_of_a_device_set_up_by_hand_is_taken_over(self) -> None:
        """It lies in the folder that becomes a link."""
        by_hand = pathlib.Path('/usr/tarvo/etc/support_form_log.d')
        by_hand.mkdir(parents=True)
        own = '{"paths": ["/etc/hostname"]}'
        for name in ('mine.json', 'debug_dat_transmitter.json'):
            (by_hand / name).write_text(own)
        self.device.install('debug-dat-transmitter')
        self.assertTrue(pathlib.Path('/usr/tarvo/etc').is_symlink())
        for name in ('mine.json', 'debug_dat_transmitter.json'):
            self.assertEqual((CONFIGURATION.parent / 'support_form_log.d' / name).read_text(), own)


def newer(name: str) -> str:
    """The same package as a later release."""
    folder = pathlib.Path('/var/tmp/newer')
    run('dpkg-deb', '-R', package(name), str(folder))
    control = folder / 'DEBIAN/control'
    control.write_text(re.sub(r'(?m)^Version: .*', lambda line: line.group() + '+1', control.read_text()))
    run('dpkg-deb', '-b', str(folder), str(PACKAGES / f'newer-{name}.deb'))
    return str(PACKAGES / f'newer-{name}.deb')


def another_runs(before: list[int]) -> bool:
    """Whether a daemon runs whose supervisor is none of these processes, and has a worker."""
    return PID_FILE.exists() and supervisor() not in before and children_of(supervisor()) != []


class UnitsTest(unittest.TestCase):
    """The units, on a device in service."""

    def setUp(self) -> None:
        self.device = Device()
        self.device.install_all()
        self.device.configure()
        self.device.start()

    def test_reload_turns_the_debug_log_on(self) -> None:
        """The file lies where the network half may write."""
        log = pathlib.Path('/var/log/debug_dat_transmitter.log')
        (CONFIGURATION.parent / 'debug_dat_transmitter.debug').touch()
        run('systemctl', 'reload', DAEMON)
        wait_until(log.exists, 'the debug log is there')
        self.assertEqual(log.owner(), 'tarvo')

    def test_stop_while_idle_is_clean(self) -> None:
        """No process is left, and the unit has not failed."""
        pids = [supervisor(), worker()]
        run('systemctl', 'stop', DAEMON)
        self.assertFalse([pid for pid in pids if is_running(pid)])
        self.assertEqual(property_of(DAEMON, 'Result'), 'success')
        self.assertEqual(property_of(DAEMON, 'ActiveState'), 'inactive')

    def test_after_the_death_of_a_process_a_whole_daemon_runs(self) -> None:
        """Worker, supervisor and debug_dat_run are killed in turn."""
        victims: list[Callable[[], int]] = [worker, supervisor, lambda: int(property_of(DAEMON, 'MainPID'))]
        for victim in victims:
            before = [supervisor(), worker()]
            end(victim(), signal.SIGKILL)
            wait_until(lambda: another_runs(before), 'another daemon runs')
            self.assertFalse([pid for pid in before if is_running(pid)])
            self.device.wait_connected()
        self.device.serve_ticket()

    def test_wrong_configuration_is_no_loop(self) -> None:
        """The unit's state says what is wrong; mended, it starts."""
        run('systemctl', 'stop', DAEMON)
        CONFIGURATION.write_text('{}')
        run('systemctl', 'start', DAEMON, check=False)
        wait_until(lambda: property_of(DAEMON, 'ActiveState') == 'failed', 'the unit has failed')
        self.assertEqual(property_of(DAEMON, 'ExecMainStatus'), '78')
        self.assertEqual(property_of(DAEMON, 'NRestarts'), '0')
        state = run('systemctl', 'status', '--no-pager', '-n', '20', DAEMON, check=False).stdout
        self.assertIn('/usr/tarvo/etc/tarvomibserver.conf must name', state)
        self.device.configure()
        self.device.start()
        self.device.serve_ticket()

    def test_exposure_is_bounded(self) -> None:
        """Network without root, root without network."""
        for unit, tenths in ((DAEMON, 15), ('debug-dat-collect@.service', 32), (SERVICE, 15)):
            judged = run('systemd-analyze', 'security', '--offline=true', f'--threshold={tenths}',
                         f'/lib/systemd/system/{unit}', check=False)
            print(judged.stdout.strip().splitlines()[-1])
            self.assertEqual(judged.returncode, 0, judged.stdout)


class ServiceTest(unittest.TestCase):
    """The support service's unit, with its configuration."""

    def setUp(self) -> None:
        self.device = Device()
        self.device.install_all()

    def configure_service(self, *lines: str) -> None:
        """Adds lines to its configuration, as its operator does."""
        with SERVICE_CONFIGURATION.open('a', encoding='utf-8') as file:
            file.writelines(f'{line}\n' for line in lines)

    def test_wrong_configuration_is_no_loop(self) -> None:
        """The unit's state says what is wrong; mended, it starts."""
        right = SERVICE_CONFIGURATION.read_text()
        self.configure_service('api-address = nowhere')
        check = ('support_service', '--config', str(SERVICE_CONFIGURATION), '--check-config')
        self.assertEqual(run(*check, check=False).returncode, 2)
        run('systemctl', 'restart', SERVICE)
        wait_until(lambda: property_of(SERVICE, 'ActiveState') == 'failed', 'the unit has failed')
        self.assertEqual(property_of(SERVICE, 'ExecMainStatus'), '2')
        self.assertEqual(property_of(SERVICE, 'NRestarts'), '0')
        state = run('systemctl', 'status', '--no-pager', '-n', '20', SERVICE, check=False).stdout
        self.assertIn('nowhere', state)
        SERVICE_CONFIGURATION.write_text(right)
        self.assertIn('can be used', run(*check).stdout)
        self.device.start_service()

    def test_changed_configuration_survives_an_upgrade(self) -> None:
        """And so do the enrolled devices."""
        self.device.configure()
        self.device.start()
        self.configure_service('retry-seconds = 3')
        run('dpkg', '-i', '--force-confdef', '--force-confold', newer('tarvo-support-service'))
        self.assertIn('retry-seconds = 3\n', SERVICE_CONFIGURATION.read_text())
        self.device.wait_connected()
        self.device.serve_ticket()

    def test_people_sign_in_over_https(self) -> None:
        """Within the sandbox a password can be checked."""
        self.configure_service('api-address = 0.0.0.0:8444')
        run('systemctl', 'restart', SERVICE)
        wait_until(lambda: 'api listening on' in self.device.service_log(), 'the service listens for people')
        run('sh', '-c', f'echo correct horse | supportctl --data {SERVICE_DATA} users add ada --role support')
        self.assertEqual(signed_in('localhost', SERVICE_DATA / 'authority/ca.pem', 'ada', 'correct horse'), 'support')

    def test_archives_are_looked_into_within_the_sandbox(self) -> None:
        """The unit lets the service start the reader, and the reader give up its rights."""
        self.device.configure()
        self.device.start()
        archive = self.device.serve_ticket()
        ticket, version = archive.stem.split('-')
        connection = http.client.HTTPConnection('localhost')
        connection.sock = socket.socket(socket.AF_UNIX)
        connection.sock.connect(str(SERVICE_DATA / 'control.sock'))
        connection.request('GET', f'/api/v1/tickets/{ticket}/archives/{version}/entries?limit=1000')
        page = json.loads(connection.getresponse().read())
        self.assertEqual([entry['name'] for entry in page['entries']], entries_of(archive), self.device.service_log())
        self.assertTrue(page['complete'], page)

    def test_certificate_of_the_operators_own(self) -> None:
        """As the configuration's comments say, with a key that only root can read."""
        folder = pathlib.Path('/etc/ssl/support')
        folder.mkdir()
        run('openssl', 'req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:P-256', '-nodes',
            '-subj', '/CN=support', '-addext', 'subjectAltName=DNS:localhost', '-keyout', str(folder / 'service.key'),
            '-out', str(folder / 'service.pem'))
        run('chmod', '0600', str(folder / 'service.key'))
        (folder / 'ca.pem').write_text((folder / 'service.pem').read_text())
        text = SERVICE_CONFIGURATION.read_text()
        for option in ('certificate', 'authority'):
            text = text.replace(f'#{option} = ', f'{option} = ')
        handed_over = re.search(r'^# (key = .+)$', text, re.MULTILINE)
        override = re.search(r'^# {5}(\[Service\])\n# {5}(LoadCredential=.+)$', text, re.MULTILINE)
        assert handed_over and override
        SERVICE_CONFIGURATION.write_text(f'{text}{handed_over.group(1)}\napi-address = 0.0.0.0:8444\n')
        drop_in = pathlib.Path(f'/etc/systemd/system/{SERVICE}.d')
        drop_in.mkdir(parents=True)
        (drop_in / 'override.conf').write_text('\n'.join(override.groups()))
        run('systemctl', 'daemon-reload')
        run('systemctl', 'restart', SERVICE)
        wait_until(lambda: 'api listening on' in self.device.service_log(), 'the service listens for people')
        run('sh', '-c', f'echo correct horse | supportctl --data {SERVICE_DATA} users add ada --role viewer')
        self.assertEqual(signed_in('localhost', folder / 'ca.pem', 'ada', 'correct horse'), 'viewer')


def signed_in(host: str, authority: pathlib.Path, name: str, password: str) -> str:
    """Signs in over https, where the service shows a certificate of this authority.
    :return: The role that the service sees."""
    request = urllib.request.Request(f'https://{host}:8444/api/v1/session', method='POST',
                                     data=json.dumps({'name': name, 'password': password}).encode(),
                                     headers={'Content-Type': 'application/json'})
    context = ssl.create_default_context(cafile=str(authority))
    with urllib.request.urlopen(request, context=context, timeout=DEADLINE_SECONDS) as answer:
        return str(json.load(answer)['you']['role'])


class TicketUnderWayTest(unittest.TestCase):
    """What becomes of a ticket whose collection or upload is under way, and of the device."""

    def setUp(self) -> None:
        self.device = Device()
        self.device.install_all()
        self.device.configure()
        self.device.describe('slow', {'commands': [{'argv': ['sleep', '5'], 'time_limit_seconds': 60}]})
        self.device.start()

    def send_slow(self) -> str:
        """Sends a ticket whose collection takes a while, and waits until that is under way.
        :return: The ticket's id."""
        ticket = self.device.send('slow')
        wait_until(lambda: slow_commands() != [], 'the collection is under way')
        return ticket

    def test_stop_lets_the_ticket_end(self) -> None:
        """The service hears of success, and the device stays stopped."""
        ticket = self.send_slow()
        run('systemctl', 'stop', DAEMON)
        self.assertEqual(self.device.result(ticket), 'Success')
        self.assertEqual(property_of(DAEMON, 'Result'), 'success')
        self.assertEqual(list(TASKS.glob('*/debug.dat')), [])

    def test_stop_while_uploading_lets_the_ticket_end(self) -> None:
        """Likewise where the service takes its time."""
        service = int(property_of(SERVICE, 'MainPID'))
        ticket = self.send_slow()
        end(service, signal.SIGSTOP)
        wait_until(lambda: list(TASKS.glob('*/debug.dat')) != [], 'the archive is complete')
        run('systemctl', 'stop', '--no-block', DAEMON)
        wait_until(lambda: property_of(DAEMON, 'ActiveState') == 'deactivating', 'the stop has begun')
        end(service, signal.SIGCONT)
        wait_until(lambda: property_of(DAEMON, 'ActiveState') == 'inactive', 'the daemon has stopped')
        self.assertEqual(self.device.result(ticket), 'Success')

    def test_upgrade_lets_the_ticket_end(self) -> None:
        """And a device that was working is working afterwards."""
        ticket = self.send_slow()
        run('dpkg', '-i', newer('debug-dat-transmitter'))
        self.assertEqual(self.device.result(ticket), 'Success')
        self.device.wait_connected()
        self.device.serve_ticket()

    def test_killed_child_costs_its_ticket_alone(self) -> None:
        """The service hears nothing of it; the next ticket is served."""
        ticket = self.send_slow()
        end(children_of(supervisor())[1], signal.SIGKILL)
        self.device.let_half_an_hour_pass()
        self.device.serve_ticket()
        self.assertIsNone(self.device.result(ticket))

    def test_killed_collector_is_reported(self) -> None:
        """The service hears that there is no archive."""
        ticket = self.send_slow()
        run('systemctl', 'kill', '-s', 'KILL', 'debug-dat-collect@*.service')
        self.assertEqual(self.device.wait_for_result(ticket), 'Failed to generate debug file')
        self.device.serve_ticket()

    def shift_clock_of_the_daemon(self, seconds: int) -> None:
        """Only for its processes: a container shares its clock with the machine."""
        pathlib.Path('/run/clock-shift').write_text(f'{seconds}\n')

    def test_clock_change_while_collecting_is_no_more_than_a_late_ticket(self) -> None:
        """A day back is not noticed. A day forwards looks like a collection that took too long, which is reported; the
        next ticket is served. The stream stays up throughout."""
        library = '/usr/local/lib/shifted_time.so'
        run('g++', '-shared', '-fPIC', '-o', library, str(pathlib.Path(__file__).with_name('shifted_time.cpp')))
        drop_in = pathlib.Path(f'/etc/systemd/system/{DAEMON}.d')
        drop_in.mkdir(parents=True)
        (drop_in / 'clock.conf').write_text(f'[Service]\nEnvironment=LD_PRELOAD={library}\n')
        run('systemctl', 'daemon-reload')
        run('systemctl', 'restart', DAEMON)
        self.device.wait_connected()
        pids = [supervisor(), worker()]
        day = 24 * 60 * 60
        for shift, result in ((-day, 'Success'), (0, 'Failed to upload debug file to server')):
            ticket = self.send_slow()
            self.shift_clock_of_the_daemon(shift)
            self.assertEqual(self.device.wait_for_result(ticket), result, shift)
        self.device.serve_ticket()
        self.assertEqual([supervisor(), worker()], pids)

    def test_collection_gives_way_to_the_devices_own_work(self) -> None:
        """Niceness and I/O class are really in effect, also for configured commands."""
        self.send_slow()
        for pid in slow_commands():
            self.assertEqual(run('ps', '-o', 'ni=', '-p', str(pid)).stdout.strip(), '19')
            self.assertEqual(run('ionice', '-p', str(pid)).stdout.strip(), 'idle')
            self.assertEqual(pathlib.Path(f'/proc/{pid}/oom_score_adj').read_text().strip(), '1000')

    def test_full_disk_is_told_and_passes(self) -> None:
        """The archive says that the device is full, if there is room for that; with room again all is well."""
        run('mount', '-t', 'tmpfs', '-o', 'size=256k', 'tmpfs', '/var/lib/tarvo')
        run('systemd-tmpfiles', '--create', 'debug-dat-transmitter.conf')
        self.assertIn('for want of space', str(manifest_of(self.device.serve_ticket())['errors']))
        fill = TASKS / 'fill'
        run('sh', '-c', f'cat /dev/zero >{fill}', check=False)
        self.assertEqual(self.device.wait_for_result(self.device.send()), 'Failed to generate debug file')
        run('umount', '/var/lib/tarvo')
        self.device.serve_ticket()


class CollectionTest(unittest.TestCase):
    """The collection as a service of its own."""

    def setUp(self) -> None:
        self.device = Device()
        self.device.install_all()
        self.device.configure()
        self.device.start()

    def test_nobody_else_may_ask_for_one(self) -> None:
        """The socket refuses other users."""
        connect = 'import socket; socket.socket(socket.AF_UNIX).connect("/run/debug-dat-collect.socket")'
        refused = run('setpriv', '--reuid=65534', '--regid=65534', '--clear-groups', 'python3', '-c', connect,
                      check=False)
        self.assertIn('PermissionError', refused.stdout)

    def test_holds_what_one_without_a_sandbox_holds(self) -> None:
        """Each difference that is intended is named here."""
        self.device.serve_ticket()  # The log of collections is there from now on.
        by_service = manifest_of(self.device.serve_ticket('debug_dat_transmitter'))
        run('debug_dat_collect', '--apps', 'debug_dat_transmitter', '--out', '/tmp/by_hand.dat')
        by_hand = manifest_of(pathlib.Path('/tmp/by_hand.dat'))
        self.assertEqual(names_in(by_service), names_in(by_hand))
        self.assertEqual(by_service['errors'], by_hand['errors'])


def slow_commands() -> list[int]:
    """The processes of the slow application's command."""
    return [int(pid) for pid in run('pgrep', '-x', 'sleep', check=False).stdout.split()]


def names_in(manifest: dict[str, Any]) -> list[str]:
    """The names of an archive's entries."""
    return sorted(entry['name'] for entry in manifest['entries'])


class RebootTest(unittest.TestCase):
    """A device in service that is started anew."""

    def test_serves_after_a_reboot(self) -> None:
        """Nobody has to do anything."""
        device = Device()
        rebooted = PACKAGES / 'rebooted'
        if not rebooted.exists():
            device.install_all()
            device.configure()
            device.start()
            rebooted.touch()
            pathlib.Path('/run/booted-container-reboots').touch()
            run('systemctl', '--no-block', 'reboot')
            return
        device.wait_connected()
        device.serve_ticket()


if __name__ == '__main__':
    unittest.main(verbosity=2)
