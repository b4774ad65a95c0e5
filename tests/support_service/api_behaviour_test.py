#!/usr/bin/env python3
"""api_behaviour_test.py ROOT SERVICE: what the support service's API does, also with what it should not be asked.

Starts the program SERVICE, and asks it as people, programs and attackers do. api_service.py holds every answer to the
document's schemas.
"""
import concurrent.futures
import http.client
import json
import re
import select
import socket
import sqlite3
import time
import unittest
import urllib.parse
from typing import Any, Callable, Dict, List, Tuple

from api_service import DOCUMENT, LIMIT_SECONDS, PREFIX, Answer, ApiTest, Caller, Json, Stream, await_that

SPLIT = 'x\r\nSet-Cookie: a=b\r\n\r\ny'


def encoded(text: str) -> str:
    """As it stands in a path or in a value of a query."""
    return urllib.parse.quote(text, safe='')


class PagingTest(ApiTest):
    """Lists in pages."""

    def check_pages(self, path: str, name: str, key: str, expected: List[Any]) -> None:
        """Expects the whole list, whatever the size of a page."""
        for limit in [1, 2, 3, len(expected) - 1, len(expected), len(expected) + 1, 1000]:
            with self.subTest(path=path, limit=limit):
                pages = self.admin.pages(path, name, limit)
                self.assertEqual([item[key] for page in pages for item in page], expected)
                self.assertTrue(all(len(page) == limit for page in pages[:-1]))
                self.assertTrue(0 < len(pages[-1]) <= limit)

    def test_every_list_is_read_to_its_end_without_loss_or_double(self) -> None:
        serials = ['A', 'A/1', 'A/10', 'A/2', 'AB', 'B', ' ', '~', '0%', '"', "'", 'a b', 'a&limit=1', 'a+b']
        self.service.enrol(*serials)
        self.check_pages('/devices', 'devices', 'serial_number', sorted(serials))
        self.check_pages('/devices?beginning=A', 'devices', 'serial_number', ['A', 'A/1', 'A/10', 'A/2', 'AB'])
        tickets = [self.service.send_ticket('A')['id'] for _ in range(4)]
        others = [self.service.send_ticket('B')['id'] for _ in range(3)]
        for ticket in tickets[:3]:
            self.admin.done('POST', f'/tickets/{ticket}/cancel')
        self.check_pages('/tickets', 'tickets', 'id', (tickets + others)[::-1])
        self.check_pages('/tickets?device=A', 'tickets', 'id', tickets[::-1])
        self.check_pages('/tickets?state=cancelled', 'tickets', 'id', tickets[2::-1])
        self.check_pages(f'/tickets/{tickets[0]}/events', 'events', 'kind', ['created', 'cancelled'])
        records = self.admin.get('/audit?limit=1000')['records']
        self.check_pages('/audit', 'records', 'number', [record['number'] for record in records])
        self.assertEqual([record['number'] for record in records], list(range(len(records), 0, -1)))

    def test_what_is_added_meanwhile_breaks_no_walk(self) -> None:
        self.service.enrol('A', 'C', 'E')
        tickets = [self.service.send_ticket('A')['id'] for _ in range(3)]
        devices = self.admin.get('/devices?limit=2')
        listed = self.admin.get('/tickets?limit=2')
        self.service.enrol('B', 'D')
        self.service.send_ticket('A')
        rest = self.admin.get('/devices?limit=9&after=' + devices['next'])['devices']
        self.assertEqual([device['serial_number'] for device in rest], ['D', 'E'])
        rest = self.admin.get('/tickets?limit=9&after=' + listed['next'])['tickets']
        self.assertEqual([ticket['id'] for ticket in rest], tickets[:1])

    def test_wrong_parameters_are_refused(self) -> None:
        self.service.enrol('A')
        ticket = self.service.send_ticket('A')['id']
        for path in ['/devices', '/tickets', f'/tickets/{ticket}/events', '/audit']:
            for limit in ['0', '1001', '-1', '', 'x', '1.0', '0x1', '99999999999999999999', '%zz', '%']:
                with self.subTest(path=path, limit=limit):
                    self.refused(400, self.admin.ask('GET', f'{path}?limit={limit}'))
        for path in ['/tickets?after=x', '/audit?after=x', f'/tickets/{ticket}/events?after=-1', '/events?after=x',
                     '/events?after=99999999999999999999', '/tickets?state=', '/tickets?state=no%20result',
                     '/tickets?state=Queued', '/devices?connected=false', '/devices?connected=', '/tickets?device=%zz',
                     '/devices?beginning=%', '/devices?beginning=%00', '/devices?after=%f', '/events?ticket=%zz']:
            with self.subTest(path=path):
                self.refused(400, self.admin.ask('GET', path))
        for number in ['x', '1x', '-1', '99999999999999999999']:
            with self.subTest(number=number):
                self.refused(400, self.admin.ask('GET', '/events', headers={'Last-Event-ID': number}))
        self.assertEqual(self.admin.get('/devices?connected=true'), {'devices': []})


class NamesTest(ApiTest):
    """Beginnings of ids and serial numbers in paths."""

    def test_beginning_of_a_serial_number_means_the_one_device_that_has_it(self) -> None:
        self.service.enrol('AB', 'ABC', 'ABD', 'XYZ')
        for beginning, meant in [('AB', 'AB'), ('ABC', 'ABC'), ('X', 'XYZ'), ('XYZ', 'XYZ')]:
            with self.subTest(beginning=beginning):
                self.assertEqual(self.admin.get('/devices/' + beginning)['serial_number'], meant)
        for beginning, status in [('A', 409), ('ABCD', 404), ('B', 404), ('ab', 404), ('%', 400), ('%4', 400),
                                  ('%00', 400), ('A%00', 400), ('%ff', 404), ('*', 404), ('_', 404), ('%25', 404)]:
            for method, action in [('GET', ''), ('POST', '/block'), ('POST', '/unblock')]:
                with self.subTest(beginning=beginning, action=action):
                    answer = self.admin.ask(method, f'/devices/{beginning}{action}')
                    self.refused(status, answer)
                    self.assertEqual(answer.json['error']['code'] == 'ambiguous', status == 409)
        self.assertFalse(any(device['blocked'] for device in self.admin.get('/devices')['devices']))

    def test_serial_number_of_any_printable_characters_has_its_path(self) -> None:
        printable = ''.join(map(chr, range(0x20, 0x7f)))
        serials = ['a/b', 'a%2fb', 'a b', 'a"b', "a'b", 'a\\b', 'a?b=c', 'a#b', 'a+b', 'a;b', 'a&b', '../..', '%', ' ',
                   'events', '*', printable, 128 * 'x']
        self.service.enrol(*serials)
        for serial in serials:
            with self.subTest(serial=serial):
                self.assertEqual(self.admin.get('/devices/' + encoded(serial))['serial_number'], serial)
                self.assertTrue(self.admin.done('POST', f'/devices/{encoded(serial)}/block')['blocked'])
                self.assertFalse(self.admin.done('POST', f'/devices/{encoded(serial)}/unblock')['blocked'])
                self.assertEqual(self.service.send_ticket(serial)['device'], serial)
                listed = self.admin.get('/tickets?device=' + encoded(serial))['tickets']
                self.assertEqual([ticket['device'] for ticket in listed], [serial])

    def test_beginning_of_an_id_means_the_one_ticket_that_has_it(self) -> None:
        self.service.enrol('A')
        # More than there are hex digits: two of them begin with the same one.
        ids = [self.service.send_ticket('A')['id'] for _ in range(17)]
        common: Dict[str, List[str]] = {}
        for ticket in ids:
            common.setdefault(ticket[0], []).append(ticket)
        for digit in '0123456789abcdef':
            found = common.get(digit, [])
            answer = self.admin.ask('GET', '/tickets/' + digit)
            with self.subTest(digit=digit):
                self.assertEqual(answer.status, {0: 404, 1: 200}.get(len(found), 409), answer.body)
        for ticket in ids:
            self.assertEqual(self.admin.get('/tickets/' + ticket)['id'], ticket)
        for wrong in [ids[0] + '0', ids[0].upper() + 'X', '~', '%20', ids[0] + '%20', '%25', '_', "'%20OR%20''='"]:
            with self.subTest(wrong=wrong):
                self.refused(404, self.admin.ask('GET', '/tickets/' + wrong))
        # Who follows a ticket names all of it.
        self.refused(404, self.admin.ask('GET', '/events?ticket=' + ids[0][:-1]))
        self.refused(404, self.admin.ask('GET', '/events?ticket='))


class BodiesTest(ApiTest):
    """Bodies of requests."""

    def setUp(self) -> None:
        super().setUp()
        self.service.enrol('A')
        self.add_user('ann', 'viewer')
        self.good: Dict[str, Json] = {
            '/devices': {'serial_number': 'B'}, '/tickets': {'device': 'A', 'apps': ['a']},
            '/users': {'name': 'bob', 'role': 'viewer', 'password': 'correct horse'},
            '/users/ann': {'role': 'viewer'}, '/tokens': {'name': 'x', 'role': 'viewer'},
            '/session': {'name': 'ann', 'password': 'correct horse'}}

    def state(self) -> List[Any]:
        """What there is."""
        return [self.admin.get(path) for path in ['/devices', '/tickets', '/users', '/tokens']]

    def test_what_is_no_json_object_is_refused(self) -> None:
        before = self.state()
        deep = b'{"device":' + 20000 * b'[' + 20000 * b']' + b'}'
        objects = b'{"a":' * 9000 + b'1' + b'}' * 9000
        for path in self.good:
            for body in [b'', b' ', b'null', b'1', b'"x"', b'[]', b'{', b'{}}', b'{"a":1,}', b"{'a':1}", b'{"a":1}x',
                         b'{"a":1 /* b */}', b'\xff\xfe', b'\x00', b'{"a":NaN}', b'{"role":"viewer","role":"admin"}',
                         deep, objects, 9000 * b'[']:
                with self.subTest(path=path, body=body[:40]):
                    self.refused(400, self.admin.ask('POST', path, body))
            self.refused(400, self.admin.ask('POST', path))
        self.assertEqual(self.state(), before)

    def test_members_that_the_document_does_not_name_are_refused(self) -> None:
        before = self.state()
        for path, body in self.good.items():
            for name in ['more', 'id', 'Name', '', 'a\r\nb']:
                with self.subTest(path=path, name=name):
                    self.refused(400, self.admin.ask('POST', path, {**body, name: 'x'}))
        self.assertEqual(self.state(), before)

    def test_missing_members_are_refused(self) -> None:
        before = self.state()
        for path, body in self.good.items():
            for name in body:
                with self.subTest(path=path, name=name):
                    self.refused(400, self.admin.ask('POST', path, {key: body[key] for key in body if key != name}))
        self.assertEqual(self.state(), before)

    def test_members_of_another_type_are_refused(self) -> None:
        before = self.state()
        wrong: Dict[str, List[Any]] = {
            'text': [None, 1, True, ['x'], {'x': 1}, []], 'apps': [None, 'a', [1], [None], [['a']], {}, {'a': 'b'}],
            'number': [None, '5', 1.5, True, [5], -1, 0, 1e300]}
        members = {**{name: 'text' for name in ['serial_number', 'device', 'note', 'name', 'role', 'password']},
                   'apps': 'apps', 'lifetime_hours': 'number', 'days': 'number'}
        optional = {'/tickets': ['note', 'lifetime_hours'], '/tokens': ['days'], '/users/ann': ['password']}
        for path, body in self.good.items():
            for name in list(body) + optional.get(path, []):
                for value in wrong[members[name]]:
                    with self.subTest(path=path, name=name, value=value):
                        self.refused(400, self.admin.ask('POST', path, {**body, name: value}))
        self.assertEqual(self.state(), before)

    def test_values_beyond_the_documents_limits_are_refused_and_those_at_them_taken(self) -> None:
        def ask(path: str, **members: Any) -> int:
            return self.admin.ask('POST', path, {**self.good[path], **members}).status

        for text, taken in [('', False), (129 * 'x', False), ('\x7f', False), ('\n', False), ('ä', False),
                            (128 * 'y', True), ('~', True)]:
            self.assertEqual(ask('/devices', serial_number=text), 201 if taken else 400, text)
        for note, taken in [('', True), (1000 * 'x', True), (1000 * '\U0001f600', True), (1001 * 'x', False),
                            (1001 * 'ä', False)]:
            self.assertEqual(ask('/tickets', note=note), 201 if taken else 400, (len(note), note[:1]))
        for hours, taken in [(1, True), (8760, True), (8761, False), (0, False)]:
            self.assertEqual(ask('/tickets', lifetime_hours=hours), 201 if taken else 400, hours)
        lists: List[Tuple[List[str], bool]] = [
            ([], True), (['a', 'a'], True), (['a', ''], False), (['x' * 1900], True),
            (['x' * 2100], False), (['ab'] * 1000, False)]
        for apps, taken in lists:
            self.assertEqual(ask('/tickets', apps=apps), 201 if taken else 400, apps[:2])
        for days, taken in [(1, True), (3650, True), (3651, False), (0, False)]:
            self.assertEqual(ask('/tokens', days=days), 201 if taken else 400, days)
        for name, taken in [('x' * 64, True), ('x' * 65, False), ('', False), ('ä', False)]:
            self.assertEqual(ask('/tokens', name=name), 201 if taken else 400, name)
        for name, taken in [('a', True), ('0.b_c@d-e', True), ('a' * 64, True), ('a' * 65, False), ('', False),
                            ('.a', False), ('@', False), ('Ann', False), ('a b', False), ('a/b', False)]:
            self.assertIn(ask('/users', name=name), [201] if taken else [400, 409], name)
        for password, taken in [('x' * 9, False), ('x' * 10, True), ('x' * 200, True), ('x' * 201, False),
                                ('ä' * 5, False), ('ä' * 200, True)]:
            self.assertEqual(ask('/users/ann', password=password), 200 if taken else 400, password)
        for role in ['', 'root', 'Admin', 'admin ']:
            self.assertEqual(ask('/users', name='carl', role=role), 400, role)

    def test_body_is_bounded(self) -> None:
        before = self.state()
        self.refused(413, self.admin.ask('POST', '/tickets', {**self.good['/tickets'], 'note': 70000 * 'x'}))
        self.refused(413, self.admin.ask('POST', '/tickets', 1000000 * b' '))
        # In chunks nobody knows how much comes.
        for count, refused in [(64, True), (4096, False)]:
            connection = self.admin.connection()
            connection.putrequest('POST', PREFIX + '/tickets')
            connection.putheader('Transfer-Encoding', 'chunked')
            connection.putheader('Content-Type', 'application/json')
            connection.endheaders()
            try:
                for _ in range(count):
                    connection.send(b'1000\r\n' + 4096 * b' ' + b'\r\n')
                connection.send(b'0\r\n\r\n')
                response = connection.getresponse()
                self.assertTrue(refused, 'a body of 16 MiB was read')
                self.assertEqual(response.status, 413)
                response.read()
            except (ConnectionError, http.client.HTTPException):
                self.assertFalse(refused, 'a body of 256 KiB was not read')
            connection.close()
        self.assertEqual(self.state(), before)

    def test_text_is_given_back_as_it_was(self) -> None:
        for text in ['ä €', '\u0000', 'a\u0000b', '\r\n\t', '"\\', '</script>', '\u2028', '\U0001f600', '\x7f\x80']:
            with self.subTest(text=text):
                ticket = self.service.send_ticket('A', note=text, lifetime_hours=1)
                self.assertEqual(self.admin.get('/tickets/' + ticket['id'])['note'], text)
                ticket = self.admin.done('POST', '/tickets', {'device': 'A', 'apps': [text]})
                self.assertEqual(self.admin.get('/tickets/' + ticket['id'])['apps'], [text])
        # What is no UTF-8 is answered as UTF-8 all the same.
        for raw in [b'\xff', b'\xc3', b'\xed\xa0\x80', b'\\udc00', b'\xf4\x90\x80\x80', b'\xc0\xaf']:
            answer = self.admin.ask('POST', '/tickets', b'{"device":"A","apps":[],"note":"' + raw + b'"}')
            self.assertIn(answer.status, [201, 400])
            self.admin.get('/tickets')

    def test_what_could_not_be_done_is_a_conflict(self) -> None:
        self.refused(404, self.admin.ask('POST', '/tickets', {'device': 'nobody', 'apps': []}))
        self.refused(409, self.admin.ask('POST', '/users', {**self.good['/users'], 'name': 'ann'}))
        self.admin.done('POST', '/devices/A/block')
        self.refused(409, self.admin.ask('POST', '/devices', {'serial_number': 'A'}))
        self.refused(400, self.admin.ask('POST', '/tickets', self.good['/tickets']))
        self.admin.done('POST', '/devices/A/unblock')
        ticket = self.service.send_ticket('A')['id']
        self.admin.done('POST', f'/tickets/{ticket}/cancel')
        self.refused(409, self.admin.ask('POST', f'/tickets/{ticket}/cancel'))


class SessionTest(ApiTest):
    """Accounts, sessions and tokens."""

    def setUp(self) -> None:
        super().setUp()
        self.add_user('ann', 'support')

    def test_session_is_made_by_a_password_and_ends_when_its_user_signs_out(self) -> None:
        answer = self.service.stranger().ask('POST', '/session', {'name': 'ann', 'password': 'correct horse'})
        self.assertEqual(answer.status, 200)
        self.assertEqual(answer.json['you'], {'name': 'ann', 'role': 'support'})
        value, *attributes = answer.headers['Set-Cookie'].split('; ')
        self.assertRegex(value, r'^session=[0-9a-f]{64}$')
        self.assertEqual(set(attributes), {'Path=/', 'HttpOnly', 'Secure', 'SameSite=Strict', 'Max-Age=43200'})
        self.assertEqual(answer.headers['Cache-Control'], 'no-store')
        session = Caller(self.service, {'Cookie': 'theme=dark; ' + value + '; other=1'})
        self.assertEqual(session.get('/session'), answer.json)
        self.assertEqual(session.get('/service')['you'], answer.json['you'])
        session.headers['X-CSRF-Token'] = answer.json['csrf_token']
        ended = session.ask('DELETE', '/session')
        self.assertEqual(ended.status, 204)
        self.assertRegex(ended.headers['Set-Cookie'], r'^session=;.*Max-Age=0$')
        self.refused(401, session.ask('GET', '/session'))
        self.refused(401, session.ask('DELETE', '/session'))

    def test_what_changes_something_needs_the_sessions_own_value_beside_the_cookie(self) -> None:
        self.service.enrol('A')
        session = self.sign_in('ann', 'correct horse')
        other = self.sign_in('ann', 'correct horse').headers['X-CSRF-Token']
        right = session.headers.pop('X-CSRF-Token')
        body = {'device': 'A', 'apps': []}
        wrong: List[Dict[str, str]] = [
            {}, {'X-CSRF-Token': ''}, {'X-CSRF-Token': other}, {'X-CSRF-Token': right[:-1]},
            {'X-CSRF-Token': right + '0'}, {'X-CSRF-Token': right.upper()}]
        for headers in wrong:
            with self.subTest(headers=headers):
                self.refused(403, session.ask('POST', '/tickets', body, headers))
                self.refused(403, session.ask('DELETE', '/session', None, headers))
        self.assertEqual(self.admin.get('/tickets'), {'tickets': []})
        self.assertEqual(session.ask('POST', '/tickets', body, {'X-CSRF-Token': right}).status, 201)
        # Who shows a token comes from no browser.
        self.assertEqual(self.service.with_token('support').ask('POST', '/tickets', body).status, 201)

    def test_sessions_end_when_their_account_changes_or_goes(self) -> None:
        self.add_user('bob', 'viewer')
        bystander = self.sign_in('bob', 'correct horse')
        changes: List[Callable[[], Any]] = [
            lambda: self.admin.done('POST', '/users/ann', {'role': 'viewer'}),
            lambda: self.admin.done('POST', '/users/ann', {'password': 'correct horse'}),
            lambda: self.admin.done('DELETE', '/users/ann')]
        for change in changes:
            sessions = [self.sign_in('ann', 'correct horse') for _ in range(2)]
            change()
            for session in sessions:
                self.refused(401, session.ask('GET', '/session'))
                self.refused(401, session.ask('POST', '/tickets', {'device': 'A', 'apps': []}))
        bystander.get('/session')
        # An account of the same name is another one.
        self.add_user('ann', 'admin')
        self.refused(401, session.ask('GET', '/session'))

    def test_people_change_their_own_password_and_nothing_else(self) -> None:
        self.add_user('bob', 'viewer')
        session = self.sign_in('bob', 'correct horse')
        for name, body in [('bob', {'role': 'admin'}), ('bob', {'role': 'viewer'}), ('ann', {'password': 'mine now!!'}),
                           ('bob', {'role': 'admin', 'password': 'mine now!!'}), ('nobody', {'password': 'mine now!!'}),
                           ('BOB', {'password': 'mine now!!'}), ('bob%20', {'password': 'mine now!!'})]:
            with self.subTest(name=name, body=body):
                self.refused(403, session.ask('POST', '/users/' + name, body))
        # A token has no password, whatever its name is.
        self.refused(403, self.service.with_token('support', 'bob').ask('POST', '/users/bob', {'password': 'x' * 10}))
        self.assertEqual(session.ask('POST', '/users/bob', {'password': 'another horse'}).status, 200)
        self.refused(401, session.ask('GET', '/session'))
        self.refused(401, self.service.stranger().ask('POST', '/session', self.words('bob', 'correct horse')))
        self.assertEqual(self.sign_in('bob', 'another horse').get('/session')['you']['role'], 'viewer')

    @staticmethod
    def words(name: str, password: str) -> Json:
        """What somebody signs in with."""
        return {'name': name, 'password': password}

    def test_wrong_passwords_and_unknown_names_are_answered_alike(self) -> None:
        def answer_to(name: str, password: str) -> List[Any]:
            answer = self.service.stranger().ask('POST', '/session', self.words(name, password))
            return [answer.status, answer.body, sorted(set(answer.headers) - {'Date'})]

        wrong = answer_to('ann', 'wrong horse')
        self.assertEqual(wrong[0], 401)
        for name, password in [('nobody', 'correct horse'), ('', ''), ('ann', ''), ('ANN', 'correct horse'),
                               ('ann\0', 'correct horse'), ('ann', 'correct horse\0')]:
            self.assertEqual(answer_to(name, password), wrong, name)

    def test_many_guesses_at_once_have_to_wait_and_hold_up_others_for_a_moment(self) -> None:
        self.add_user('bob', 'viewer')
        # A look at a password takes a processor for a while, so few wait for one. Limits are in attempt_limit_test.cpp.
        tries = [self.service.stranger().connection() for _ in range(190)]
        body = json.dumps(self.words('ann', 'wrong horse'))
        for each in tries:
            each.request('POST', PREFIX + '/session', body, {'Content-Type': 'application/json'})
        waiting = {each.sock for each in tries}
        answers: List[bytes] = []
        while not any(b' 429 ' in answer for answer in answers):
            answered, _, _ = select.select(list(waiting), [], [], LIMIT_SECONDS)
            self.assertTrue(answered, 'nobody has to wait')
            answers += [each.recv(32, socket.MSG_PEEK) for each in answered]
            waiting -= set(answered)
        for each in tries:
            each.close()
        self.assertEqual(self.service.with_token('viewer').ask('GET', '/devices').status, 200)
        words = self.words('bob', 'correct horse')
        await_that(lambda: self.service.stranger().ask('POST', '/session', words).status == 200)

    def test_who_knows_the_password_may_sign_in_as_often_as_they_like(self) -> None:
        for _ in range(25):
            self.sign_in('ann', 'correct horse')

    def test_tokens_and_sessions_end_with_their_time(self) -> None:
        token = self.service.with_token('admin')
        session = self.sign_in('ann', 'correct horse')
        self.service.stop()
        past = int(time.time() * 1000) - 1
        database = sqlite3.connect(self.service.data / 'tickets.db')
        self.assertEqual(database.execute('UPDATE api_tokens SET expires = ?', [past]).rowcount, 1)
        self.assertEqual(database.execute('UPDATE sessions SET expires = ?', [past]).rowcount, 1)
        database.commit()
        database.close()
        self.service.start()
        self.refused(401, token.ask('GET', '/devices'))
        self.refused(401, session.ask('GET', '/devices'))

    def test_tokens_and_sessions_outlast_a_restart(self) -> None:
        token = self.service.with_token('admin')
        session = self.sign_in('ann', 'correct horse')
        self.service.stop()
        self.service.start()
        token.get('/devices')
        session.get('/devices')

    def test_token_is_refused_once_it_is_removed(self) -> None:
        token = self.service.with_token('viewer')
        other = self.service.with_token('viewer')
        first, second = self.admin.get('/tokens')['tokens']
        token.get('/devices')
        self.admin.done('DELETE', '/tokens/' + first['id'])
        refused = [caller for caller in [token, other] if caller.ask('GET', '/devices').status == 401]
        self.assertEqual(len(refused), 1)
        self.refused(404, self.admin.ask('DELETE', '/tokens/' + first['id']))
        self.admin.done('DELETE', '/tokens/' + second['id'])
        self.refused(401, token.ask('GET', '/devices'))
        self.refused(401, other.ask('GET', '/devices'))

    def test_secrets_are_in_no_file_and_no_line(self) -> None:
        token = self.service.with_token('admin', 'nightly')
        session = self.sign_in('ann', 'correct horse')
        token.get('/devices')
        session.get('/session')
        wrong = 'guessed-secret-0123456789'
        Caller(self.service, {'Authorization': 'Bearer ' + wrong}).ask('GET', '/devices')
        Caller(self.service, {'Cookie': 'session=' + wrong}).ask('GET', '/devices')
        session.ask('POST', '/session', headers={'X-CSRF-Token': wrong}, body=self.words('ann', wrong))
        secrets = [token.headers['Authorization'].split()[1], session.headers['Cookie'].split('=')[1],
                   session.headers['X-CSRF-Token'], 'correct horse', wrong]
        records = str(self.admin.pages('/audit', 'records', 1000))
        self.check_for_secrets(secrets, records)
        self.service.stop()  # which brings all of the store into its file
        self.check_for_secrets(secrets, records)

    def check_for_secrets(self, secrets: List[str], records: str) -> None:
        """Expects none of them in what the service keeps and says."""
        files = [file for file in self.service.data.rglob('*') if file.is_file()]
        self.assertIn('tickets.db', [file.name for file in files])
        for secret in secrets:
            self.assertNotIn(secret, self.service.log())
            self.assertNotIn(secret, records)
            for file in files:
                content = file.read_bytes()
                self.assertNotIn(secret.encode(), content, file)
                if re.fullmatch('[0-9a-f]{64}', secret):
                    self.assertNotIn(bytes.fromhex(secret), content, file)


class EventsTest(ApiTest):
    """Server-sent events."""

    def setUp(self) -> None:
        super().setUp()
        self.service.enrol('A')

    def send_and_cancel(self, count: int) -> List[str]:
        """Two events for each ticket."""
        ids = []
        for _ in range(count):
            ids.append(self.service.send_ticket('A')['id'])
            self.admin.done('POST', f'/tickets/{ids[-1]}/cancel')
        return ids

    @staticmethod
    def take(stream: Stream, count: int) -> List[Json]:
        """So many events."""
        events = stream.events()
        return [next(events) for _ in range(count)]

    def test_events_come_in_their_order_and_go_on_behind_the_last_one_that_came(self) -> None:
        ids = self.send_and_cancel(120)  # more than are read from the store at once
        stream = self.admin.follow('?after=0')
        all_events = self.take(stream, 240)
        stream.close()
        numbers = [event['event']['number'] for event in all_events]
        self.assertEqual(numbers, list(range(1, 241)))
        self.assertEqual([event['ticket']['id'] for event in all_events], [each for each in ids for _ in range(2)])
        self.assertEqual([event['event']['kind'] for event in all_events], 120 * ['created', 'cancelled'])
        for after in [0, 1, 99, 100, 101, 239]:
            # The header counts, whatever the address says: a client asks the same address again.
            stream = self.admin.follow('?after=7', {'Last-Event-ID': str(after)})
            rest = self.take(stream, min(3, 240 - after))
            stream.close()
            self.assertEqual([event['event']['number'] for event in rest], numbers[after:after + 3])

    def test_without_a_beginning_comes_what_happens_from_now_on(self) -> None:
        self.send_and_cancel(1)
        stream = self.admin.follow()
        ticket = self.send_and_cancel(1)[0]
        events = self.take(stream, 2)
        stream.close()
        self.assertEqual([event['event']['number'] for event in events], [3, 4])
        self.assertEqual([event['ticket']['id'] for event in events], [ticket, ticket])

    def test_stream_of_a_ticket_has_its_events_alone_and_ends_with_it(self) -> None:
        ticket = self.service.send_ticket('A')['id']
        stream = self.service.with_token('viewer').follow(f'?ticket={ticket}&after=0')
        events = stream.events()
        self.assertEqual(next(events)['event']['kind'], 'created')
        self.send_and_cancel(2)
        self.admin.done('POST', f'/tickets/{ticket}/cancel')
        rest = list(events)
        stream.close()
        self.assertEqual([event['event']['kind'] for event in rest], ['cancelled'])
        self.assertEqual(rest[0]['ticket']['id'], ticket)
        # One that has ended before is told to its end.
        for query, kinds in [(f'?ticket={ticket}&after=0', ['created', 'cancelled']), (f'?ticket={ticket}', [])]:
            stream = self.admin.follow(query)
            self.assertEqual([event['event']['kind'] for event in stream.events()], kinds)
            stream.close()

    def test_comment_comes_while_nothing_happens(self) -> None:
        stream = self.admin.follow()
        blocks = stream.blocks()
        self.assertEqual(next(blocks), [':'])
        self.send_and_cancel(1)
        self.assertEqual(next(block for block in blocks if block != [':'])[1], 'event: ticket')
        stream.close()

    def test_note_breaks_no_line(self) -> None:
        stream = self.admin.follow()
        note = 'x\n\nid: 999\nevent: ticket\ndata: {}\n\n\r\u2028'
        self.service.send_ticket('A', note=note)
        self.service.send_ticket('A')
        events = self.take(stream, 2)
        stream.close()
        self.assertEqual(events[0]['ticket']['note'], note)
        self.assertEqual([event['event']['kind'] for event in events], ['created', 'created'])

    def test_many_followers_get_everything(self) -> None:
        streams = [self.admin.follow('?after=0') for _ in range(150)]
        gone = [self.admin.follow('?after=0') for _ in range(20)]
        for stream in gone:
            stream.close()
        self.send_and_cancel(10)
        for stream in streams:
            self.assertEqual([event['event']['number'] for event in self.take(stream, 20)], list(range(1, 21)))
        self.service.stop()
        for stream in streams:
            stream.close()

    def test_followers_see_the_end_of_the_service_and_do_not_hold_it_up(self) -> None:
        token = self.service.with_token('viewer')
        streams = [caller.follow() for caller in [self.admin, token] for _ in range(30)]
        ticket = self.service.send_ticket('A')['id']
        streams.append(self.admin.follow('?ticket=' + ticket))
        self.service.stop()
        for stream in streams:
            try:
                events = [event['event']['kind'] for event in stream.events()]
                self.assertIn(events, [['created'], []])
            except http.client.IncompleteRead:
                pass  # it ended before its last chunk
            stream.close()

    def test_follower_whose_credentials_are_taken_away_hears_no_more(self) -> None:
        self.add_user('ann', 'viewer')
        bystander = self.admin.follow()
        followers = [self.service.with_token('viewer').follow(), self.sign_in('ann', 'correct horse').follow()]
        self.admin.done('DELETE', '/tokens/' + self.admin.get('/tokens')['tokens'][0]['id'])
        self.admin.done('POST', '/users/ann', {'role': 'viewer'})
        self.send_and_cancel(1)
        for stream in followers:
            self.assertIsNone(next(stream.events(), None))
            stream.close()
        self.take(bystander, 2)
        bystander.close()


class AuditTest(ApiTest):
    """Who did what."""

    def records(self) -> List[Json]:
        """All of them, oldest first."""
        return [record for page in self.admin.pages('/audit', 'records', 1000) for record in page][::-1]

    def test_each_thing_that_is_done_is_recorded_in_its_order(self) -> None:
        you = self.admin.get('/service')['you']['name']
        token = self.service.with_token('admin', 'nightly')
        token_id = self.admin.get('/tokens')['tokens'][0]['id']
        program = f'token {token_id} nightly'
        token.done('POST', '/devices', {'serial_number': 'A'})
        ticket = token.done('POST', '/tickets', {'device': 'A', 'apps': []})['id']
        token.done('POST', f'/tickets/{ticket}/cancel')
        token.done('POST', '/devices/A/block')
        token.done('POST', '/devices/A/unblock')
        token.done('POST', '/users', {'name': 'ann', 'role': 'admin', 'password': 'correct horse'})
        session = self.sign_in('ann', 'correct horse')
        self.refused(401, self.service.stranger().ask('POST', '/session', {'name': 'ann', 'password': 'wrong horse'}))
        session.done('DELETE', '/session')
        token.done('POST', '/users/ann', {'role': 'viewer', 'password': 'another horse'})
        token.done('DELETE', '/users/ann')
        self.admin.done('DELETE', '/tokens/' + token_id)
        # What only looks is not recorded, nor what failed.
        self.admin.get('/devices/A')
        self.admin.get('/audit')
        self.refused(404, self.admin.ask('POST', '/devices/nobody/block'))
        self.refused(409, self.admin.ask('POST', f'/tickets/{ticket}/cancel'))
        self.refused(404, self.admin.ask('DELETE', '/users/nobody'))
        records = self.records()
        done = [(record['who'], record['action'], record['object'], record['detail']) for record in records]
        self.assertEqual(done, [
            (you, 'add token', token_id, 'nightly, admin'),
            (program, 'enrol device', 'A', ''),
            (program, 'send ticket', ticket, 'device "A"'),
            (program, 'cancel ticket', ticket, ''),
            (program, 'block device', 'A', ''),
            (program, 'unblock device', 'A', ''),
            (program, 'add user', 'ann', 'admin'),
            ('ann', 'sign in', 'ann', ''),
            ('a stranger', 'sign in refused', 'ann', ''),
            ('ann', 'sign out', 'ann', ''),
            (program, 'change user', 'ann', '["viewer", "password"]'),
            (program, 'remove user', 'ann', ''),
            (you, 'remove token', token_id, '')])
        self.assertEqual([record['number'] for record in records], list(range(1, 14)))
        for record in records:
            over_socket = record['who'] == you
            self.assertRegex(record['from'], '^control socket$' if over_socket else r'^127\.0\.0\.1:\d+$')
        # It is there after the service's end.
        self.service.stop()
        self.service.start()
        self.assertEqual(self.records(), records)

    def test_refusals_are_recorded_with_who_was_refused(self) -> None:
        self.add_user('ann', 'viewer')
        viewer = self.service.with_token('viewer', 'nightly')
        session = self.sign_in('ann', 'correct horse')
        program = f'token {self.admin.get("/tokens")["tokens"][0]["id"]} nightly'
        begin = len(self.records())
        self.refused(403, viewer.ask('POST', '/tickets', {'device': 'A', 'apps': []}))
        self.refused(403, viewer.ask('GET', '/users'))
        self.refused(403, session.ask('POST', '/users/ann', {'role': 'admin'}))
        self.refused(403, session.ask('POST', '/users/ann', {'password': 'x' * 10}, {'X-CSRF-Token': 'wrong'}))
        await_that(lambda: len(self.records()) >= begin + 4)
        records = self.records()[begin:]
        self.assertEqual([record['action'] for record in records], 4 * ['request refused'])
        for record, who, what in zip(records, [program, program, 'ann', 'ann'],
                                     ['POST /api/v1/tickets', 'GET /api/v1/users', 'POST /api/v1/users/ann',
                                      'POST /api/v1/users/ann']):
            self.assertEqual(record['who'], who)
            self.assertRegex(record['from'], r'^127\.0\.0\.1:\d+$')
            self.assertIn(what, record['detail'])

    def refusals(self) -> List[Json]:
        """What the role of a caller did not allow."""
        return [record for record in self.records() if record['action'] == 'request refused']

    def test_refusals_do_not_fill_it(self) -> None:
        viewer = self.service.with_token('viewer')
        begin = time.monotonic()
        for _ in range(100):
            self.refused(403, viewer.ask('POST', '/tickets', {'device': 'A', 'apps': []}))
        await_that(lambda: len(self.refusals()) >= 10)
        refused = self.refusals()
        # One more may come each minute, with a record of how many are left out.
        self.assertLessEqual(len(refused), 10 + 2 * ((time.monotonic() - begin) // 60 + 1))
        # Strangers leave nothing there.
        before = self.records()
        for _ in range(100):
            self.refused(401, self.service.stranger().ask('POST', '/tickets', {'device': 'A', 'apps': []}))
        self.assertEqual(self.records(), before)


class AttackTest(ApiTest):
    """What nobody should ask for."""

    def test_no_place_of_a_path_leads_to_a_file(self) -> None:
        self.service.enrol('A')
        ticket = self.service.send_ticket('A')['id']
        steps = ['..', '.', '%2e%2e', '..%2f..%2ftickets.db', '..%5c..', '%2e%2e%2f%2e%2e%2fetc%2fpasswd',
                 '%2fetc%2fpasswd', '..%252f..%252f', '....%2f%2f', '%c0%ae%c0%ae%c0%af', '..;', '~root',
                 'file:%2f%2f%2fetc%2fpasswd',
                 4000 * 'a', 60 * '..%2f' + 'etc%2fpasswd']
        files = sorted(self.service.data.rglob('*'))
        for operation in DOCUMENT.operations.values():
            names = re.findall(r'\{(\w+)\}', operation.path)
            for place in names:
                for step in steps:
                    # The other places have what is there.
                    others: Dict[str, str] = {'ticket': ticket, 'version': '1', 'serial_number': 'A', 'name': 'ann',
                                              'id': '0'}
                    others[place] = step
                    path = operation.path
                    for name, value in others.items():
                        path = path.replace('{' + name + '}', value)
                    with self.subTest(operation=operation.name, path=path[:200]):
                        body = {'role': 'viewer'} if operation.has_body else None
                        answer = self.admin.ask(operation.method, path, body)
                        self.assertIn(answer.status, [400, 404])
                        self.assertNotIn(b'root:', answer.body)
        for path in ['/../../../etc/passwd', '/tickets/../../../../etc/passwd', '/..%2f..%2fetc/passwd', '/./service',
                     '/devices/../users', '//etc/passwd', '\\..\\..']:
            with self.subTest(path=path):
                answer = self.admin.ask('GET', path)
                self.assertEqual(answer.status, 404, answer.body)
        self.assertEqual(sorted(self.service.data.rglob('*')), files)

    def check_log(self) -> None:
        """Expects a log in which nobody else has written a line, nor anything that a terminal obeys."""
        line = r'\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z [ -~]+|\w+ listening on http://[0-9.:]+|control socket /[ -~]+'
        for each in self.service.log().splitlines():
            self.assertRegex(each, f'^({line})$')
        self.assertNotRegex(self.service.log(), r'(?m)^(Set-Cookie|y$|forged)')

    def check_not_split(self, answer: Answer) -> None:
        """Expects an answer in which what was sent has become no header."""
        self.assertNotIn('a=b', str(answer.headers.items()))
        self.assertNotIn('x', [name.lower() for name in answer.headers])

    def test_line_ends_in_bodies_become_no_headers_and_no_lines(self) -> None:
        self.service.enrol('A')
        for text in [SPLIT, 'x\n2026-01-01T00:00:00.000Z forged', '\x1b[31mred', 'a\rb', 'a\u0085b', 'a\u2028b']:
            cases: List[Tuple[str, Json, List[int]]] = [
                ('/devices', {'serial_number': text}, [400]), ('/tokens', {'name': text, 'role': 'viewer'}, [400]),
                ('/users', {'name': text, 'role': 'viewer', 'password': 'correct horse'}, [400, 409]),
                ('/session', {'name': text, 'password': text}, [401, 429]), ('/tokens', {text: text}, [400]),
                ('/tickets', {'device': text, 'apps': []}, [400, 404]),
                ('/tickets', {'device': 'A', 'apps': [text], 'note': text}, [201])]
            for path, body, statuses in cases:
                with self.subTest(path=path, text=text):
                    answer = self.admin.ask('POST', path, body)
                    self.assertIn(answer.status, statuses)
                    self.check_not_split(answer)
        self.check_log()
        for record in self.admin.get('/audit?limit=1000')['records']:
            for text in record.values():
                self.assertRegex(str(text), '^[ -~]*$')
        for page in self.admin.pages('/tickets', 'tickets', 50):
            for ticket in page:
                self.assertRegex(ticket['last_text'], '^[ -~]*$')

    def test_line_ends_in_paths_and_queries_become_no_headers_and_no_lines(self) -> None:
        self.service.enrol('A')
        viewer = self.service.with_token('viewer')
        split = encoded(SPLIT)
        for path in ['/devices/' + split, '/tickets/' + split, '/users/' + split, '/' + split,
                     '/tickets?state=' + split, '/devices?limit=' + split, '/devices?connected=' + split,
                     '/tickets?after=' + split,
                     '/tickets/0/archives/' + split, '/events?ticket=' + split, '/devices?' + split + '=1']:
            for caller in [self.admin, viewer, self.service.stranger()]:
                for method in ['GET', 'POST', 'DELETE']:
                    with self.subTest(path=path, method=method):
                        self.check_not_split(caller.ask(method, path, b'{}'))
        self.check_log()

    def raw(self, head: bytes) -> bytes:
        """All that comes back for what no library would send."""
        with socket.create_connection(('127.0.0.1', self.service.api_port), LIMIT_SECONDS) as connection:
            connection.sendall(head)
            connection.shutdown(socket.SHUT_WR)
            try:
                return b''.join(iter(lambda: connection.recv(65536), b''))
            except ConnectionResetError:
                return b''

    def test_strange_requests_harm_nobody(self) -> None:
        begin = b'GET /api/v1/devices HTTP/1.1\r\nHost: x\r\n'
        heads = [begin + b'User-Agent: x\r\n\t2026-01-01T00:00:00.000Z forged\r\n\r\n',
                 begin + b'User-Agent: \x1b[31m\xff\x01\r\n\r\n', begin + b'Authorization: Bearer \xff\x00x\r\n\r\n',
                 begin + b'Cookie: ' + 60000 * b'a=b; ' + b'\r\n\r\n', begin + b'Content-Length: -1\r\n\r\n',
                 begin + b'Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\nGET / HTTP/1.1\r\n\r\n',
                 begin + 5000 * b'X: y\r\n' + b'\r\n', b'GET /' + 300000 * b'a' + b' HTTP/1.1\r\n\r\n',
                 b'GET ' + b'/api/v1/devices' + b'\x1b]0;x\x07 HTTP/1.1\r\nHost: x\r\n\r\n',
                 b'\x1b[31mGET /api/v1/devices HTTP/1.1\r\nHost: x\r\n\r\n',
                 b'GET http://x/api/v1/users HTTP/1.1\r\n\r\n',
                 b'CONNECT 127.0.0.1:1 HTTP/1.1\r\nHost: x\r\n\r\n', b'PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n', 64 * b'\0',
                 b'GET /api/v1/devices HTTP/9.9\r\nHost: x\r\n\r\n', b'GET\r\n\r\n', b'\r\n\r\n\r\n']
        # All at once: each that is incomplete is waited for.
        with concurrent.futures.ThreadPoolExecutor(len(heads)) as pool:
            answers = list(pool.map(self.raw, heads))
        for head, answer in zip(heads, answers):
            with self.subTest(head=head[:60]):
                self.assertNotRegex(answer, rb'^HTTP/1\.[01] 2')
                self.assertNotIn(b'serial_number', answer)
        self.admin.get('/devices')
        self.check_log()

    def test_thousand_connections_without_a_request_hold_up_nobody_else(self) -> None:
        token = self.service.with_token('viewer')
        begin = time.monotonic()
        silent = []
        for _ in range(1000):
            connection = socket.create_connection(('127.0.0.1', self.service.api_port), LIMIT_SECONDS)
            silent.append(connection)
        elsewhere = Caller(self.service, token.headers, from_address='127.0.0.2')
        elsewhere.get('/devices')
        self.admin.get('/devices')
        # They are ended, each of them, and their address gets in again.
        for connection in silent:
            try:
                self.assertEqual(connection.recv(1), b'')
            except ConnectionResetError:
                pass
            connection.close()
        self.assertLess(time.monotonic() - begin, LIMIT_SECONDS)
        await_that(lambda: self.gets_in(token))

    @staticmethod
    def gets_in(caller: Caller) -> bool:
        """Whether a request is answered."""
        try:
            return caller.ask('GET', '/devices').status == 200
        except (ConnectionError, http.client.HTTPException):
            return False

    def test_what_a_role_may_not_do_is_not_done(self) -> None:
        self.service.enrol('A')
        self.add_user('ann', 'viewer')
        ticket = self.service.send_ticket('A')['id']
        token = self.service.with_token('viewer')
        token_id = self.admin.get('/tokens')['tokens'][0]['id']
        paths = ['/devices/A', '/tickets', '/users', '/tokens']
        before = [self.admin.get(path) for path in paths]
        for role, caller in [('nobody', self.service.stranger()), ('viewer', token),
                             ('support', self.service.with_token('support'))]:
            attempts: List[Any] = [
                ('POST', '/devices', {'serial_number': 'B'}), ('POST', '/devices/A/block', None),
                ('POST', '/users', {'name': 'eve', 'role': 'admin', 'password': 'correct horse'}),
                ('POST', '/users/ann', {'role': 'admin'}), ('POST', '/users/ann', {'password': 'my own horse'}),
                ('DELETE', '/users/ann', None), ('POST', '/tokens', {'name': 'eve', 'role': 'admin'}),
                ('DELETE', '/tokens/' + token_id, None), ('DELETE', f'/tickets/{ticket}/archives/1', None),
                ('GET', '/audit', None), ('GET', '/users', None), ('GET', '/tokens', None)]
            if role != 'support':
                attempts += [('POST', '/tickets', {'device': 'A', 'apps': []}),
                             ('POST', f'/tickets/{ticket}/cancel', None),
                             ('GET', f'/tickets/{ticket}/archives/1', None)]
            for method, path, body in attempts:
                with self.subTest(role=role, method=method, path=path):
                    self.refused(401 if role == 'nobody' else 403, caller.ask(method, path, body))
        before[3] = self.admin.get('/tokens')
        self.assertEqual(len(before[3]['tokens']), 2)
        self.assertEqual([self.admin.get(path) for path in paths], before)
        self.assertEqual([token['role'] for token in before[3]['tokens']], ['viewer', 'support'])


if __name__ == '__main__':
    unittest.main()
