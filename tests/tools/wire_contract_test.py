#!/usr/bin/env python3
"""wire_contract_test.py ROOT: whether devices and services of the last release and of today understand each other.

Compares proto/ with proto/released/, as protoc understands both. What was released stays: each message, field, enum
value and method, with its number, name, type and place. What is new may come; what goes leaves its number and name
reserved. Needs protoc and no network.
"""
import pathlib
import subprocess
import sys
import tempfile
import unittest
from typing import Dict, Iterator, List, Set, Tuple

ROOT = pathlib.Path(sys.argv.pop(1)) if len(sys.argv) > 1 else pathlib.Path(__file__).parents[2]
FILE = 'tarvo/support/v1/notification.proto'

# A block of protobuf's text format: its members in their order, a nested block as a Block.
Block = List[Tuple[str, 'str | Block']]


def parse(lines: Iterator[str]) -> Block:
    """The members up to the end of a block."""
    block: Block = []
    for line in lines:
        text = line.strip()
        if text == '}':
            break
        if text.endswith('{'):
            block.append((text[:-1].strip(), parse(lines)))
        else:
            name, _, value = text.partition(': ')
            block.append((name, value.strip('"')))
    return block


def blocks(block: Block, name: str) -> Iterator[Block]:
    """The nested blocks of that name."""
    return (value for key, value in block if key == name and isinstance(value, list))


def value_of(block: Block, name: str) -> str:
    """A member's value; empty where there is none."""
    return next((value for key, value in block if key == name and isinstance(value, str)), '')


def describe(folder: pathlib.Path) -> Block:
    """What protoc understands of the file below the folder."""
    with tempfile.NamedTemporaryFile() as binary:
        subprocess.run(['protoc', '-I', str(folder), '-o', binary.name, FILE], check=True)
        with open(binary.name, 'rb') as described:
            text = subprocess.run(['protoc', '--decode=google.protobuf.FileDescriptorSet', '-I', '/usr/include',
                                   'google/protobuf/descriptor.proto'], stdin=described, stdout=subprocess.PIPE,
                                  text=True, check=True).stdout
    return next(blocks(parse(iter(text.splitlines())), 'file'))


def numbered(holder: Block, members: str, whole: str) -> Dict[str, str]:
    """What stands under each number of a message or an enum: all that is said of it."""
    oneofs = [value_of(oneof, 'name') for oneof in blocks(holder, 'oneof_decl')]
    facts = {}
    for member in blocks(holder, members):
        index = value_of(member, 'oneof_index')
        told = [value_of(member, key) for key in ('name', 'label', 'type', 'type_name')]
        facts[f'{whole} {value_of(member, "number") or "0"}'] = ' '.join(told + ([oneofs[int(index)]] if index else []))
    return facts


def reserved(holder: Block, whole: str) -> Set[str]:
    """The numbers that nobody may use again. An enum's range holds its end, a message's does not."""
    numbers: Set[str] = set()
    for key, last in (('reserved_range', 1), ('reserved_range_of_enum', 0)):
        for area in blocks(holder, key):
            numbers.update(f'{whole} {number}' for number in
                           range(int(value_of(area, 'start')), int(value_of(area, 'end')) + 1 - last))
    return numbers | {f'{whole} {name}' for key, name in holder if key == 'reserved_name' and isinstance(name, str)}


def facts_of(file: Block) -> Tuple[Dict[str, str], Set[str]]:
    """What the two ends rely on, and the numbers that are given up."""
    facts = {'package': value_of(file, 'package')}
    given_up: Set[str] = set()
    for message in blocks(file, 'message_type'):
        name = 'message ' + value_of(message, 'name')
        facts[name] = 'is there'
        assert not [*blocks(message, 'nested_type'), *blocks(message, 'enum_type')], 'nested types are not compared'
        facts.update(numbered(message, 'field', name))
        given_up |= reserved(message, name)
    for enum in blocks(file, 'enum_type'):
        name = 'enum ' + value_of(enum, 'name')
        facts[name] = 'is there'
        facts.update(numbered(enum, 'value', name))
        as_enum: Block = [('reserved_range_of_enum' if key == 'reserved_range' else key, value) for key, value in enum]
        given_up |= reserved(as_enum, name)
    for service in blocks(file, 'service'):
        for method in blocks(service, 'method'):
            told = ' '.join(value_of(method, key) for key in
                            ('input_type', 'output_type', 'client_streaming', 'server_streaming'))
            facts[f'method {value_of(service, "name")}.{value_of(method, "name")}'] = told
    return facts, given_up


def breaks(released: pathlib.Path, present: pathlib.Path) -> List[str]:
    """What of the released contract does not hold any more."""
    before, given_up_before = facts_of(describe(released))
    now, given_up = facts_of(describe(present))

    def is_given_up(place: str, told: str) -> bool:
        """A member whose number and name are reserved."""
        whole = place.rpartition(' ')[0]
        return place not in now and place in given_up and f'{whole} {told.split()[0]}' in given_up

    found = [f'{place}: was {told.strip()!r}, is {now.get(place, "gone").strip()!r}' for place, told in before.items()
             if now.get(place) != told and not is_given_up(place, told)]
    return found + [f'{place}: was given up' for place in sorted(given_up_before - given_up)]


class WireContractTest(unittest.TestCase):
    """The contract, and the comparison itself."""

    def test_present_ends_understand_released_ones(self) -> None:
        """And the other way round."""
        self.assertEqual(breaks(ROOT / 'proto/released', ROOT / 'proto'), [])

    def changed(self, *changes: Tuple[str, str]) -> List[str]:
        """What breaks by changes of the released file's text."""
        text = (ROOT / 'proto/released' / FILE).read_text()
        for old, new in changes:
            self.assertIn(old, text)
            text = text.replace(old, new, 1)
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / FILE
            path.parent.mkdir(parents=True)
            path.write_text(text)
            return breaks(ROOT / 'proto/released', pathlib.Path(folder))

    def test_each_kind_of_break_is_told(self) -> None:
        """A line for each, which names its place."""
        for place, old, new in (
                ('package', 'package tarvo.support.v1;', 'package tarvo.support.v2;'),
                ('method NotificationService.Open', 'returns (stream ServerMessage)', 'returns (ServerMessage)'),
                ('method NotificationService.Open', 'rpc Open(', 'rpc Start('),
                ('message Hello 2', 'uint32 protocol = 2;', 'uint64 protocol = 2;'),
                ('message Hello 2', 'uint32 protocol = 2;', 'uint32 version = 2;'),
                ('message Hello 2', 'uint32 protocol = 2;', 'uint32 protocol = 3;'),
                ('message Hello 2', 'uint32 protocol = 2;', ''),
                ('message Hello 2', 'uint32 protocol = 2;', 'reserved 2;'),
                ('message Hello 2', 'uint32 protocol = 2;', 'reserved 2; string protocol = 3;'),
                ('message Hello 1', 'string serial_number = 1;', 'repeated string serial_number = 1;'),
                ('message ClientMessage 2', 'oneof kind {', 'oneof sort {'),
                ('enum ClientStatus 1', 'CLIENT_STATUS_ACCEPTED = 1;', 'CLIENT_STATUS_TAKEN = 1;'),
                ('enum ClientStatus 2', 'CLIENT_STATUS_REJECTED = 2;', 'CLIENT_STATUS_REJECTED = 3;')):
            with self.subTest(new=new):
                self.assertIn(place, '\n'.join(self.changed((old, new))))

    def test_what_is_new_may_come_and_reserved_numbers_may_go(self) -> None:
        """Neither end has to know the other's age."""
        self.assertEqual(self.changed(('uint32 protocol = 2;', 'uint32 protocol = 2; string model = 3;')), [])
        self.assertEqual(self.changed(('uint32 protocol = 2;', 'reserved 2; reserved "protocol";')), [])
        self.assertEqual(self.changed(('CLIENT_STATUS_REJECTED = 2;',
                                       'reserved 2 to 4; reserved "CLIENT_STATUS_REJECTED";')), [])
        self.assertEqual(self.changed(('message Hello {', 'message Another {}\nmessage Hello {')), [])


if __name__ == '__main__':
    unittest.main()
