"""What the tests of the API share: its document, a service in a folder of its own, and those who ask it.

Whoever asks holds each answer to the document as it comes: its status, its headers and its body. An answer may have no
member that the document does not name, so a new one has to stand there first.
"""
import dataclasses
import http.client
import importlib
import json
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse
from typing import Any, Dict, Iterator, List, Optional, Set

# Neither library brings types.
jsonschema: Any = importlib.import_module('jsonschema')
yaml: Any = importlib.import_module('yaml')

ROOT = pathlib.Path(sys.argv.pop(1) if len(sys.argv) > 2 else pathlib.Path(__file__).parents[2])
PROGRAM = pathlib.Path(sys.argv.pop(1) if len(sys.argv) > 1 and not sys.argv[1].startswith('-')
                       else ROOT / 'build/dev/bin/support_service')

PREFIX = '/api/v1'
ROLES = ['viewer', 'support', 'admin']
LIMIT_SECONDS = 120.0  # only a hung service takes so long
Json = Dict[str, Any]


@dataclasses.dataclass
class Answer:
    """An answer to a request."""
    status: int
    headers: http.client.HTTPMessage
    body: bytes

    @property
    def json(self) -> Any:
        """The body, which has to be JSON."""
        return json.loads(self.body)


@dataclasses.dataclass
class Operation:
    """An operation, as the document has it."""
    name: str
    method: str
    path: str  # with its places in braces
    role: Optional[str]  # which it needs; nothing where it needs none
    has_body: bool
    responses: Json


class Document:
    """The API document, with the schemas made strict: an object has no other members than those that stand there."""

    def __init__(self, file: pathlib.Path) -> None:
        self._text: Json = yaml.safe_load(file.read_text(encoding='utf-8'))
        self._formats = jsonschema.FormatChecker()
        self._formats.checks('date-time')(is_time)
        self.operations: Dict[str, Operation] = {}
        for path, item in self._text['paths'].items():
            for method in item.keys() & {'get', 'post', 'put', 'patch', 'delete', 'head', 'options'}:
                operation = item[method]
                name = operation['operationId']
                self.operations[name] = Operation(name, method.upper(), path, role_in(operation.get('description', '')),
                                                  'requestBody' in operation, operation['responses'])
        errors = self._text['components']['responses']['Error']['description']
        self._codes: Dict[str, int] = {}
        for names, status in re.findall(r'((?:`\w+`(?:,| and)? )+)\((\d+)\)', errors):
            self._codes.update({name: int(status) for name in re.findall(r'\w+', names.replace(' and ', ' '))})

    def operation_of(self, method: str, path: str) -> Optional[Operation]:
        """What a request asks for.

        :param path: Behind the prefix, with or without a query.
        """
        for operation in self.operations.values():
            pattern = re.sub(r'\{\w+\}', '[^/]+', operation.path)
            if operation.method == method and re.fullmatch(pattern, path.split('?')[0]):
                return operation
        return None

    def methods_of(self, path: str) -> Set[str]:
        """The methods that a path takes, which is given as it stands in the document."""
        return {operation.method for operation in self.operations.values() if operation.path == path}

    def paths(self) -> Set[str]:
        """All of them."""
        return {operation.path for operation in self.operations.values()}

    def strict(self, schema: Json) -> Json:
        """The schema without references, and with nothing besides what it names."""
        if '$ref' in schema:
            return self.strict(self._referred(schema['$ref']))
        if 'allOf' in schema:
            parts = [self.strict(part) for part in schema['allOf']]
            return {'type': 'object', 'additionalProperties': False,
                    'required': [name for part in parts for name in part.get('required', [])],
                    'properties': {name: value for part in parts for name, value in part['properties'].items()}}
        made = dict(schema)
        if 'properties' in made:
            made['properties'] = {name: self.strict(value) for name, value in made['properties'].items()}
            made['additionalProperties'] = False
        if 'items' in made:
            made['items'] = self.strict(made['items'])
        return made

    def schema(self, name: str) -> Json:
        """One of the schemas, made strict."""
        return self.strict({'$ref': '#/components/schemas/' + name})

    def faults(self, value: Any, schema: Json) -> List[str]:
        """What is wrong with a value."""
        validator = jsonschema.Draft7Validator(schema, format_checker=self._formats)
        return [f'{"/".join(map(str, fault.path))}: {fault.message}' for fault in validator.iter_errors(value)]

    def check(self, operation: Optional[Operation], answer: Answer) -> None:
        """Holds an answer to the document; AssertionError says what is wrong.

        :param operation: Nothing where the document has none: then only a refusal will do.
        """
        name = operation.name if operation else 'no operation'
        said = f'{name} answered {answer.status} {answer.body[:500]!r}'
        responses = operation.responses if operation else {}
        response = responses.get(str(answer.status))
        if response is None:
            assert answer.status >= 400, said + ': the document has no such answer'
            self._check_refusal(answer, said)
            return
        for header in response.get('headers', {}):
            assert header in answer.headers, f'{said} without the header {header}'
        if 'content' not in response:
            assert answer.body == b'', said + ': the document has no body there'
            return
        (content_type, content), = response['content'].items()
        assert answer.headers['Content-Type'] == content_type, f'{said} as {answer.headers["Content-Type"]}'
        if content_type == 'application/json':
            faults = self.faults(answer.json, self.strict(content['schema']))
            assert not faults, f'{said}: {faults}'

    def _check_refusal(self, answer: Answer, said: str) -> None:
        assert answer.headers['Content-Type'] == 'application/json', said
        faults = self.faults(answer.json, self.schema('Error'))
        assert not faults, f'{said}: {faults}'
        code = answer.json['error']['code']
        assert self._codes.get(code) == answer.status, f'{said}: the code has another status in the document'
        assert answer.json['error']['message'], said
        assert (answer.status == 405) == ('Allow' in answer.headers), said

    def _referred(self, reference: str) -> Json:
        found: Json = self._text
        for piece in reference.removeprefix('#/').split('/'):
            found = found[piece]
        return found


def is_time(text: object) -> bool:
    """Whether it is RFC 3339 in UTC, with milliseconds."""
    return not isinstance(text, str) or re.fullmatch(r'\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z', text) is not None


def role_in(description: str) -> Optional[str]:
    """The role that an operation's description names."""
    if 'Needs no role' in description:
        return None
    needed = re.search(r'Needs `(\w+)`', description)
    return needed.group(1) if needed else 'viewer'


DOCUMENT = Document(ROOT / 'docs/support-service-api.yaml')


class UnixConnection(http.client.HTTPConnection):
    """HTTP over a unix socket."""

    def __init__(self, path: pathlib.Path) -> None:
        super().__init__('localhost', timeout=LIMIT_SECONDS)
        self._path = path

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(str(self._path))


class Stream:
    """Server-sent events, as they come."""

    def __init__(self, connection: http.client.HTTPConnection) -> None:
        self._connection = connection
        self._response = connection.getresponse()
        assert self._response.status == 200, self._response.read()
        assert self._response.headers['Content-Type'] == 'text/event-stream'

    def blocks(self) -> Iterator[List[str]]:
        """The lines of each event or comment, up to the end of the stream."""
        block: List[str] = []
        for line in iter(self._response.readline, b''):
            if line == b'\n':
                yield block
                block = []
            else:
                block.append(line.decode('ascii').removesuffix('\n'))
        assert not block, 'the stream ended within an event'

    def events(self) -> Iterator[Json]:
        """The data of each event, held to the document."""
        schema = DOCUMENT.schema('TicketEvent')
        for block in self.blocks():
            if block == [':']:
                continue
            number, name, data = block
            event: Json = json.loads(data.removeprefix('data: '))
            assert not DOCUMENT.faults(event, schema), data
            assert number == f'id: {event["event"]["number"]}' and name == 'event: ticket', block
            yield event

    def close(self) -> None:
        """Goes away."""
        self._response.close()
        self._connection.close()


@dataclasses.dataclass
class Caller:
    """Somebody who asks the service. Each request has a connection of its own."""
    service: 'Service'
    headers: Dict[str, str] = dataclasses.field(default_factory=dict)
    over_socket: bool = False
    from_address: str = '127.0.0.1'

    def connection(self) -> http.client.HTTPConnection:
        """A new one."""
        if self.over_socket:
            return UnixConnection(self.service.control_socket)
        return http.client.HTTPConnection('127.0.0.1', self.service.api_port, timeout=LIMIT_SECONDS,
                                          source_address=(self.from_address, 0))

    def ask(self, method: str, path: str, body: Any = None, headers: Optional[Dict[str, str]] = None) -> Answer:
        """Asks, and checks the answer.

        :param path: Behind the prefix, with its query.
        :param body: Bytes as they are; anything else as JSON.
        """
        connection = self.connection()
        data = body if body is None or isinstance(body, bytes) else json.dumps(body).encode()
        try:
            sent = {'Content-Type': 'application/json'} if data is not None else {}
            connection.request(method, PREFIX + path, data, {**sent, **self.headers, **(headers or {})})
            response = connection.getresponse()
            operation = DOCUMENT.operation_of(method, path)
            if response.headers['Content-Type'] == 'text/event-stream':
                answer = Answer(response.status, response.headers, b'')
                response.close()
            else:
                answer = Answer(response.status, response.headers, response.read())
        finally:
            connection.close()
        DOCUMENT.check(operation, answer)
        return answer

    def get(self, path: str) -> Any:
        """What is there, which has to be something."""
        return self.done('GET', path)

    def done(self, method: str, path: str, body: Any = None) -> Any:
        """The JSON of an answer that has to be a success; nothing where it has no body."""
        answer = self.ask(method, path, body)
        assert answer.status in (200, 201, 204), (method, path, answer)
        return answer.json if answer.body else None

    def pages(self, path: str, name: str, limit: int) -> List[List[Json]]:
        """Every page of a list, up to the last one."""
        pages: List[List[Json]] = []
        after = ''
        while True:
            page = self.get(f'{path}{"&" if "?" in path else "?"}limit={limit}{after}')
            pages.append(page[name])
            if 'next' not in page:
                return pages
            after = '&after=' + urllib.parse.quote(page['next'], safe='')
            assert len(pages) < 10000, 'the list has no end'

    def follow(self, query: str = '', headers: Optional[Dict[str, str]] = None) -> Stream:
        """Follows events."""
        connection = self.connection()
        connection.request('GET', PREFIX + '/events' + query, headers={**self.headers, **(headers or {})})
        return Stream(connection)


class Service:
    """The real service, in a folder of its own."""

    def __init__(self, folder: pathlib.Path, *options: str) -> None:
        self.data = folder / 'data'
        self.control_socket = self.data / 'control.sock'
        self._options = options
        self._log_file = folder / 'log'
        self._log_file.touch()
        self.api_port = 0
        self.start()

    def start(self) -> None:
        """Starts it, and waits until it can be asked."""
        begin = self._log_file.stat().st_size
        with self._log_file.open('ab') as log:
            self._process = subprocess.Popen([str(PROGRAM), '--data', str(self.data), *self._options,
                                              '--grpc-address', '127.0.0.1:0', '--http-address', '127.0.0.1:0',
                                              '--api-address', '127.0.0.1:0'], stdout=log, stderr=log)
        await_that(lambda: '\ncontrol socket' in self.log()[begin:] or self._process.poll() is not None)
        assert self._process.poll() is None, self.log()
        addresses = re.findall(r'^api listening on http://127.0.0.1:(\d+)$', self.log()[begin:], re.M)
        self.api_port = int(addresses[0])

    def log(self) -> str:
        """All that it has written."""
        return self._log_file.read_text(encoding='latin-1')

    def stop(self) -> None:
        """Ends it as an init system does."""
        self._process.send_signal(signal.SIGTERM)
        try:
            status = self._process.wait(LIMIT_SECONDS)
        except subprocess.TimeoutExpired:
            self._process.kill()
            raise
        assert status == 0, f'it ended with {status}: {self.log()}'

    def is_running(self) -> bool:
        """Whether it has not ended."""
        return self._process.poll() is None

    def administrator(self) -> Caller:
        """Who asks over the control socket."""
        return Caller(self, over_socket=True)

    def stranger(self, from_address: str = '127.0.0.1') -> Caller:
        """Who asks over the network, and shows nothing."""
        return Caller(self, from_address=from_address)

    def with_token(self, role: str, name: str = 'test') -> Caller:
        """Who shows a new token."""
        token = self.administrator().done('POST', '/tokens', {'name': name, 'role': role})
        return Caller(self, {'Authorization': 'Bearer ' + token['secret']})

    def enrol(self, *serial_numbers: str) -> None:
        """Lets devices in."""
        for serial_number in serial_numbers:
            self.administrator().done('POST', '/devices', {'serial_number': serial_number})

    def send_ticket(self, device: str, **more: Any) -> Json:
        """A new ticket for an enrolled device."""
        ticket: Json = self.administrator().done('POST', '/tickets', {'device': device, 'apps': ['a'], **more})
        return ticket


def await_that(condition: Any) -> None:
    """Waits until it holds."""
    end = time.monotonic() + LIMIT_SECONDS
    while not condition():
        assert time.monotonic() < end, 'waited for too long'
        time.sleep(0.01)


class ApiTest(unittest.TestCase):
    """A test with a service that believes enrolled devices on their word."""
    options: List[str] = ['--allow-list']

    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.service = Service(pathlib.Path(folder.name), *self.options)
        self.addCleanup(lambda: self.service.stop() if self.service.is_running() else None)
        self.admin = self.service.administrator()

    def refused(self, status: int, answer: Answer) -> None:
        """Expects a refusal."""
        self.assertEqual(answer.status, status, answer.body)

    def sign_in(self, name: str, password: str) -> Caller:
        """Who has signed in, with the cookie and the value that goes with it."""
        answer = self.service.stranger().ask('POST', '/session', {'name': name, 'password': password})
        self.assertEqual(answer.status, 200, answer.body)
        cookie = answer.headers['Set-Cookie'].split(';')[0]
        return Caller(self.service, {'Cookie': cookie, 'X-CSRF-Token': answer.json['csrf_token']})

    def add_user(self, name: str, role: str, password: str = 'correct horse') -> None:
        """Makes an account."""
        self.admin.done('POST', '/users', {'name': name, 'role': role, 'password': password})
