#!/usr/bin/python3
"""The daemon with a support service of another make, and the support service with a device of another make.

    interop_test.py BIN NODE_MODULES

To be run in the sandbox: the daemon writes below /usr and /var.
"""
import hashlib
import json
import os
import pathlib
import select
import subprocess
import sys
import tempfile
import time
import unittest
from typing import Any, Dict, List

HERE = pathlib.Path(__file__).resolve().parent
PROTO = HERE.parents[1] / 'proto/tarvo/support/v1/notification.proto'
LIMIT_SECONDS = 120.0  # only what hangs takes so long
Json = Dict[str, Any]

BIN = pathlib.Path(sys.argv.pop(1))
NODE_MODULES = pathlib.Path(sys.argv.pop(1))


class Peer:
    """A program of another make: it prints JSON objects."""

    def __init__(self, program: str, *arguments: object) -> None:
        self._process = subprocess.Popen(['node', HERE / program, *map(str, arguments)], stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, env={**os.environ, 'NODE_PATH': str(NODE_MODULES)})
        self._text = b''

    def end(self) -> int:
        assert self._process.stdin and self._process.stdout
        self._process.stdin.close()
        status = self._process.wait(LIMIT_SECONDS)
        self._process.stdout.close()
        return status

    def say(self, value: Json) -> None:
        assert self._process.stdin
        self._process.stdin.write(json.dumps(value).encode() + b'\n')
        self._process.stdin.flush()

    def expect(self, event: str) -> Json:
        """The next line, which has to be about this."""
        value = self.next()
        if value['event'] != event:
            raise AssertionError(f'expected "{event}", not {value}')
        return value

    def next(self) -> Json:
        """The next line."""
        assert self._process.stdout
        deadline = time.monotonic() + LIMIT_SECONDS
        while b'\n' not in self._text:
            rest = deadline - time.monotonic()
            if rest <= 0 or not select.select([self._process.stdout], [], [], rest)[0]:
                raise AssertionError('nothing came')
            read = os.read(self._process.stdout.fileno(), 1 << 16)
            if not read:
                raise AssertionError('the peer ended')
            self._text += read
        line, self._text = self._text.split(b'\n', 1)
        value: Json = json.loads(line)
        return value


class DaemonTest(unittest.TestCase):
    """Our daemon does its work for a service that is not ours."""

    folder: pathlib.Path
    service: Peer

    @classmethod
    def setUpClass(cls) -> None:
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.service = Peer('service.js', PROTO, cls.folder)
        cls.addClassCleanup(cls.service.end)
        addresses = cls.service.expect('listening')
        etc = pathlib.Path('/usr/tarvo/etc')
        etc.mkdir(parents=True, exist_ok=True)
        (etc / 'serial_number').write_text('INTEROP-1\n', encoding='ascii')
        (etc / 'tarvomibserver.conf').write_text(json.dumps({'debug_dat_file_transmitter': {
            'grpc_server': {'url': addresses['grpc']}, 'css_server': {'url': addresses['css']}}}), encoding='utf-8')
        subprocess.run([BIN / 'debug_dat_transmitter'], check=True)  # ends with the sandbox
        hello = cls.service.expect('hello')
        assert ('INTEROP-1', 1) == (hello['serial_number'], hello['protocol'])

    def test_serves_a_ticket(self) -> None:
        token = 'a' * 32
        self.service.say({'id': 'ticket-1', 'text': json.dumps({'token': token, 'apps': ['näherei', 'kernel']})})
        # Stream and uploads are two connections: nobody promises which of them is first.
        events = {event['event']: event for event in (self.service.next() for _ in range(3))}
        answer, upload, report = events['answer'], events['upload'], events['report']
        self.assertEqual(('ticket-1', 1), (answer['ticket_id'], answer['status']))
        self.assertEqual(token, upload['token'])
        self.assertEqual('debug_file', upload['part'])
        self.assertEqual({'serial_number': 'INTEROP-1', 'debug_data_apps[0]': 'näherei',
                          'debug_data_apps[1]': 'kernel'}, upload['fields'])
        self.assertEqual((token, 'application/json'), (report['token'], report['type']))
        self.assertEqual({'status': 'Success', 'serial_number': 'INTEROP-1'}, report['body'])
        archive = self.folder / f'{token}.dat'
        content = archive.read_bytes()
        self.assertEqual((len(content), hashlib.sha256(content).hexdigest()), (upload['size'], upload['sha256']))
        manifest = json.loads(subprocess.run(['tar', '--zstd', '-xOf', archive, 'manifest.json'], check=True,
                                             stdout=subprocess.PIPE).stdout)
        self.assertEqual({'app_list': ['näherei', 'kernel']}, manifest['asked'])

    def test_rejects_what_is_no_ticket(self) -> None:
        self.service.say({'id': 'ticket-2', 'text': '{"token": 7}'})
        answer = self.service.expect('answer')
        self.assertEqual(('ticket-2', 2), (answer['ticket_id'], answer['status']))
        self.assertNotEqual('', answer['reason'])


class ServiceTest(unittest.TestCase):
    """Our service looks after a device that is not ours, over mutual TLS."""

    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.service = subprocess.Popen([BIN / 'support_service', '--data', self.folder / 'data'],
                                        stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.end_service)
        assert self.service.stdout
        while not self.service.stdout.readline().startswith('control socket'):
            pass

    def end_service(self) -> None:
        assert self.service.stdout
        self.service.terminate()
        self.service.wait(LIMIT_SECONDS)
        self.service.stdout.close()

    def supportctl(self, *arguments: object) -> str:
        return subprocess.run([BIN / 'supportctl', '--data', self.folder / 'data', *map(str, arguments)], check=True,
                              stdout=subprocess.PIPE, text=True, timeout=LIMIT_SECONDS).stdout

    def test_takes_an_archive(self) -> None:
        bundle = self.folder / 'bundle'
        self.supportctl('device', 'enrol', 'INTEROP-2', '--out', bundle)
        archive = self.folder / 'archive'
        archive.write_bytes(b'\r\n-------------------------interop' * 100 + os.urandom(3_000_000))
        ticket = self.supportctl('send', 'INTEROP-2', '--apps', 'mail,näherei').splitlines()[0]
        device = Peer('device.js', PROTO, bundle, 'INTEROP-2', archive)
        got = device.expect('ticket')
        self.assertEqual((ticket, ['mail', 'näherei']), (got['id'], got['apps']))
        for event in ('uploaded', 'reported'):
            answer = device.expect(event)
            self.assertEqual((200, {'success': True}), (answer['status'], answer['body']))
        self.assertEqual(0, device.end())
        shown = json.loads(self.supportctl('show', ticket, '--json'))['ticket']
        self.assertEqual(('reported', 'Success'), (shown['state'], shown['report']))
        self.supportctl('fetch', ticket, '--out', self.folder / 'fetched')
        fetched: List[pathlib.Path] = [file for file in (self.folder / 'fetched').rglob('*') if file.is_file()]
        self.assertEqual([archive.read_bytes()], [file.read_bytes() for file in fetched])


if __name__ == '__main__':
    unittest.main()
