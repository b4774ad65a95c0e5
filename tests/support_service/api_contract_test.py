#!/usr/bin/env python3
"""api_contract_test.py ROOT SERVICE: whether the support service's API is what docs/support-service-api.yaml says.

Starts the program SERVICE, asks it for every operation of the document, as each role and as nobody, and compares its
routes with the document's. api_service.py holds every answer to the document's schemas.
"""
import io
import re
import tarfile
import unittest
from typing import Any, Dict, List, Set, Tuple

from api_service import DOCUMENT, ROLES, ROOT, Answer, ApiTest, Caller, Operation

# A body that is wrong, and paths to what is not there: who may ask gets another refusal than who may not.
NOTHING_MEANT: Dict[str, str] = {'serial_number': 'nobody', 'ticket': 'ffffffffffffffff', 'version': '1',
                                 'number': '1', 'name': 'nobody', 'id': 'ffffffff'}


def fill(path: str, places: Dict[str, str]) -> str:
    """The path with a value at each of its places."""
    return re.sub(r'\{(\w+)\}', lambda place: places[place.group(1)], path)


class RoutesTest(unittest.TestCase):
    """What stands in the source."""

    def test_routes_are_those_of_the_document(self) -> None:
        source = (ROOT / 'support_service/api_front.cpp').read_text(encoding='utf-8')
        table = source.split('kRoutes[] = {')[1].split('\n};')[0]
        rows = re.findall(r'\{"([A-Z]+)", "(/[^"]*)", Role::k(\w+), (true|false), (\w+)\}', table)
        self.assertEqual(len(rows), table.count('Role::'), 'the table has a row of another form')
        routes = {(method, path, role.lower(), has_body == 'true', name[0].lower() + name[1:])
                  for method, path, role, has_body, name in rows}
        # Whose role depends on who asks, the operation decides itself.
        own_decision = {'signIn', 'changeUser'}
        documented = {(operation.method, re.sub(r'\{\w+\}', '*', operation.path),
                       'viewer' if operation.name in own_decision else operation.role, operation.has_body,
                       operation.name)
                      for operation in DOCUMENT.operations.values()}
        self.assertEqual(routes, documented)


class ContractTest(ApiTest):
    """The answers of the service."""

    def ask_everything(self, caller: Caller) -> Set[str]:
        """Asks for every operation that has an answer without a device, so that it succeeds.

        :param caller: An administrator.
        :return: The names of the operations.
        """
        asked: Set[str] = set()

        def ask(method: str, path: str, status: int, body: Any = None) -> Answer:
            operation = DOCUMENT.operation_of(method, path)
            assert operation is not None, (method, path)
            asked.add(operation.name)
            answer = caller.ask(method, path, body)
            self.assertEqual(answer.status, status, (method, path, answer.body))
            return answer

        ask('GET', '/service', 200)
        self.service.enrol('other', 'one')
        ask('POST', '/devices', 201, {'serial_number': 'SN 1'})
        ask('GET', '/devices?limit=1', 200)
        ask('GET', '/devices/SN%201', 200)
        ask('POST', '/devices/SN%201/block', 200)
        ask('POST', '/devices/SN%201/unblock', 200)
        wanted = {'device': 'SN 1', 'apps': ['a'], 'note': 'why', 'lifetime_hours': 2}
        ticket = ask('POST', '/tickets', 201, wanted).json
        self.service.send_ticket('one')
        ask('GET', '/tickets?limit=1', 200)
        place = '/tickets/' + ticket['id']
        ask('GET', place, 200)
        ask('GET', place + '/events?limit=1', 200)
        ask('GET', '/events?after=0', 200)
        ask('POST', place + '/cancel', 200)
        # Archives come from devices: what happens where one is there is in api_test.cpp.
        ask('GET', place + '/archives/1', 404)
        ask('DELETE', place + '/archives/1', 404)
        for part in ['entries', 'manifest', 'entries/1', 'entries/1/text']:
            ask('GET', f'{place}/archives/1/{part}', 404)
        ask('POST', '/users', 201, {'name': 'ann', 'role': 'viewer', 'password': 'correct horse'})
        ask('GET', '/users', 200)
        ask('POST', '/users/ann', 200, {'role': 'support', 'password': 'another horse'})
        ask('POST', '/session', 200, {'name': 'ann', 'password': 'another horse'})
        session = self.sign_in('ann', 'another horse')
        caller, former = session, caller
        ask('GET', '/session', 200)
        ask('DELETE', '/session', 204)
        caller = former
        ask('DELETE', '/users/ann', 204)
        token = ask('POST', '/tokens', 201, {'name': 'nightly', 'role': 'support', 'days': 1}).json
        ask('GET', '/tokens', 200)
        ask('DELETE', '/tokens/' + token['id'], 204)
        ask('GET', '/audit?limit=1', 200)
        ask('GET', '/settings', 200)
        ask('GET', '/health', 200)
        backup = ask('GET', '/backup?archives=false', 200)
        with tarfile.open(fileobj=io.BytesIO(backup.body)) as tar:
            self.assertEqual((tar.getnames()[0], tar.getnames()[-1]), ('backup-form', 'SHA256SUMS'))
        return asked

    def test_every_operation_answers_as_documented_over_the_control_socket(self) -> None:
        self.assertEqual(self.ask_everything(self.admin), set(DOCUMENT.operations))

    def test_every_operation_answers_as_documented_over_the_network(self) -> None:
        self.assertEqual(self.ask_everything(self.service.with_token('admin')), set(DOCUMENT.operations))

    def test_paths_take_the_documented_methods_alone(self) -> None:
        for path in sorted(DOCUMENT.paths()):
            taken = DOCUMENT.methods_of(path)
            for method in {'GET', 'HEAD', 'POST', 'PUT', 'PATCH', 'DELETE', 'OPTIONS', 'TRACE', 'FROBNICATE'} - taken:
                with self.subTest(path=path, method=method):
                    connection = self.admin.connection()
                    connection.request(method, '/api/v1' + fill(path, NOTHING_MEANT))
                    response = connection.getresponse()
                    body = response.read()
                    connection.close()
                    self.assertEqual(response.status, 405)
                    self.assertEqual(set(response.headers['Allow'].split(', ')), taken)
                    if method != 'HEAD':
                        DOCUMENT.check(None, Answer(response.status, response.headers, body))

    def test_other_paths_are_not_found(self) -> None:
        for path in ['', '/', '/nothing', '/service/', '/service/more', '//service', '/devices/', '/devices//block',
                     '/tickets/0/archives', '/tickets/0/archives/', '/users/a/b', '/Service']:
            for method in ['GET', 'POST', 'DELETE']:
                with self.subTest(path=path, method=method):
                    self.refused(404, self.admin.ask(method, path))

    def test_operations_need_the_documented_roles(self) -> None:
        callers = {role: self.service.with_token(role) for role in ROLES}
        for operation in DOCUMENT.operations.values():
            for role, caller in callers.items():
                with self.subTest(operation=operation.name, role=role):
                    answer = self.ask_in_vain(caller, operation)
                    may = operation.role is None or ROLES.index(role) >= ROLES.index(operation.role)
                    self.assertEqual(answer.status == 403, not may, answer.body)
                    self.assertNotEqual(answer.status, 401)

    def test_operations_need_somebody(self) -> None:
        unknown: List[Tuple[str, Dict[str, str]]] = [
            ('nobody', {}), ('unknown token', {'Authorization': 'Bearer ' + 64 * '0'}),
            ('no token', {'Authorization': 'Bearer '}), ('other scheme', {'Authorization': 'Basic YTpi'}),
            ('unknown session', {'Cookie': 'session=' + 64 * '0'}), ('no session', {'Cookie': 'session='})]
        for operation in DOCUMENT.operations.values():
            for what, headers in unknown:
                with self.subTest(operation=operation.name, what=what):
                    answer = self.ask_in_vain(Caller(self.service, headers), operation)
                    self.assertEqual(answer.status == 401, operation.role is not None, answer.body)
                    self.assertEqual('WWW-Authenticate' in answer.headers, operation.role is not None)

    def test_wrong_credentials_are_not_made_up_for_by_right_ones_beside_them(self) -> None:
        right = self.service.with_token('admin')
        self.add_user('ann', 'admin')
        session = self.sign_in('ann', 'correct horse')
        self.refused(401, session.ask('GET', '/users', headers={'Authorization': 'Bearer wrong'}))
        self.assertEqual(right.ask('GET', '/users', headers={'Cookie': 'session=wrong'}).status, 200)

    def ask_in_vain(self, caller: Caller, operation: Operation) -> Answer:
        """Asks for something that is not there: nothing changes, whoever asks."""
        path = fill(operation.path, NOTHING_MEANT)
        if operation.name == 'followEvents':
            path += '?ticket=nothing'
        return caller.ask(operation.method, path, {} if operation.has_body else None)


class AllowListTest(ApiTest):
    """Enrolment where devices show no certificates."""

    def test_enrolment_has_no_certificates(self) -> None:
        self.assertEqual(self.admin.get('/service')['trust'], 'allow_list')
        enrolment = self.admin.done('POST', '/devices', {'serial_number': 'SN1'})
        self.assertEqual(set(enrolment), {'device', 'configuration'})
        self.assertNotIn('certificate_until', enrolment['device'])


class OwnAuthorityTest(ApiTest):
    """Enrolment where the service issues certificates."""
    options: List[str] = []

    def test_enrolment_has_all_that_a_device_needs_and_another_one_is_another(self) -> None:
        self.assertEqual(self.admin.get('/service')['trust'], 'own_authority')
        bundles = [self.admin.done('POST', '/devices', {'serial_number': 'SN1'}) for _ in range(2)]
        for bundle in bundles:
            self.assertEqual(set(bundle), {'device', 'configuration', 'ca_pem', 'client_pem', 'client_key'})
            self.assertIn('certificate_until', bundle['device'])
        self.assertEqual(bundles[0]['ca_pem'], bundles[1]['ca_pem'])
        self.assertNotEqual(bundles[0]['client_pem'], bundles[1]['client_pem'])
        self.assertNotEqual(bundles[0]['client_key'], bundles[1]['client_key'])
        self.assertEqual(len(self.admin.get('/devices')['devices']), 1)
        for file in filter(lambda path: path.is_file(), self.service.data.rglob('*')):
            for bundle in bundles:
                key = bundle['client_key'].splitlines()[1].encode()
                self.assertNotIn(key, file.read_bytes(), f'a device\'s key is in {file}')


if __name__ == '__main__':
    unittest.main()
