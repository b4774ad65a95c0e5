"""docs/install.md, typed word for word on a device that has nothing; run_packages_tests boots it."""
import os
import pathlib
import re
import unittest

from device import PACKAGES, Device, run, wait_until

DOCUMENT = pathlib.Path(__file__).parents[2] / 'docs/install.md'
SECTION = 'One machine as both ends'

# There is no way out of the container: what Debian brings has to be there already.
APT_GET = '''#!/bin/bash
case $1 in
  update) ;;
  install)
    for name in "${@:3}"; do
      case $name in ./*) dpkg -i "$name" ;; *) dpkg-query -W "$name" ;; esac || exit
    done
    ;;
  purge) dpkg -P "${@:3}" ;;
  *) exit 1 ;;
esac
'''

# What the output of each block must hold, in the document's order.
EXPECTED = (r'^the packages are built', r'tarvo-support-service', r'^SN-0815 is enrolled\.',
            r'(?s)^available .*^packages: enabled$.*dpkg', r'(?s)Active: active \(running\).*^no problems',
            r'(?s)^[0-9a-f]{16}$.*^/root/archives/[0-9a-f]{16}-1\.dat$.*^manifest\.json$',
            r'(?s)debug-dat-transmitter.*tarvo-support-service')


def blocks() -> list[str]:
    """The section's blocks of commands."""
    section = DOCUMENT.read_text(encoding='utf-8').partition(f'\n## {SECTION}\n')[2].partition('\n## ')[0]
    return re.findall(r'^```sh\n(.*?)^```$', section, re.MULTILINE | re.DOTALL)


def write_program(path: pathlib.Path, text: str) -> None:
    """Makes a program that stands in for another one."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text)
    path.chmod(0o755)


class InstallDocumentTest(unittest.TestCase):
    """A reader who types what the document says."""

    def setUp(self) -> None:
        """The packages are built."""
        checkout = pathlib.Path('/root/checkout')
        write_program(checkout / 'package', '#!/bin/sh\necho the packages are built\n')
        (checkout / 'out').mkdir()
        (checkout / 'out/packages').symlink_to(PACKAGES)
        write_program(checkout / 'stand-ins/apt-get', APT_GET)
        os.environ['PATH'] = f'{checkout}/stand-ins:{os.environ["PATH"]}'
        os.chdir(checkout)

    def test_one_machine_as_both_ends(self) -> None:
        """Each block does what is announced, and nothing runs in the end."""
        device = Device()
        self.assertEqual(len(blocks()), len(EXPECTED))
        for number, (block, expected) in enumerate(zip(blocks(), EXPECTED)):
            if ' send ' in block:  # a reader is slower here, too
                device.wait_connected()
            output = run('bash', '-e', '-c', block).stdout
            self.assertRegex(output, re.compile(expected, re.MULTILINE), block)
            if number == 1:  # a reader is slower
                wait_until(device.service_answers, 'the support service answers')
        self.assertNotEqual(run('pidof', 'debug_dat_transmitter', 'support_service', check=False).returncode, 0)
        self.assertFalse(pathlib.Path('/etc/tarvo').exists())
