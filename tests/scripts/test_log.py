"""The system's log: one line for each share that begins and for each that has ended."""

import os
import socket
import sys
import unittest

import sambahost
from sambahost import PROGRAM, command, run_script


PYTHON = os.path.basename(os.path.realpath(sys.executable))
ENDED = ('share "Docs" of "%s" (rw) for alice has ended, which was asked for by ' + PYTHON + ' %d, which '
         + PYTHON + ' %d started')


class Log(sambahost.ScriptTest):

    def setUp(self):
        super().setUp()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.socket.close)
        self.socket.bind('/dev/log')
        self.addCleanup(os.unlink, '/dev/log')
        self.socket.settimeout(0.2)

    def lines(self):
        """Returns the messages of our programs, without priority, time, program and process id."""
        texts = []
        try:
            while True:
                line = self.socket.recv(65536).decode()
                if 'pelago-share[' in line:
                    texts.append(line.split(']: ', 1)[1])
        except TimeoutError:
            return texts

    def test_logs_each_share_with_user_and_caller(self):
        session = self.session()
        self.add_user(run=session.run)
        self.assertEqual(self.lines(), [])
        self.add_share(run=session.run)
        pid = session.process.pid
        begun, = self.lines()
        self.assertRegex(begun, r'^share "Docs" of "%s" \(rw, as bob\) begins for alice, asked for by '
                         r'python\S* %d, which python\S* %d started$' % (self.folder, pid, os.getpid()))
        self.assert_done(run_script('rmshare', 'Docs', self.folder, run=session.run))
        self.assertEqual(self.lines(), [ENDED % (self.folder, pid, os.getpid())])
        self.assert_done(run_script('rmuser', 'alice', run=session.run))
        self.assertEqual(self.lines(), [])

    def test_does_not_log_a_share_that_failed(self):
        self.add_user()
        with sambahost.stand_in('net', 'case "$*" in *import*) exit 1 ;; esac; exec $real "$@"'):
            self.assert_refused(run_script('addshare', 'alice', self.password_file, self.folder, 'Docs', 'ro'),
                                'Samba did not take')
        self.assertEqual(self.lines(), [])

    def test_what_is_cleared_away_has_ended(self):
        session = self.session()
        self.add_user(run=session.run)
        self.add_share(run=session.run)
        session.kill()
        self.lines()
        command(PROGRAM, 'sessions', '--clean')
        self.assertEqual(self.lines(), [ENDED % (self.folder, session.process.pid, os.getpid())])

    def test_escapes_control_characters_and_logs_no_password(self):
        odd = self.make_folder(self.scratch + '/a\npelago-share: forged\x1b[0m')
        self.add_user()
        self.add_share(folder=odd)
        line, = self.lines()
        self.assertIn(r'/a\x0Apelago-share: forged\x1B[0m"', line)
        self.assertNotIn(self.password, line)


if __name__ == '__main__':
    unittest.main()
