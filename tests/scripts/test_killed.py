"""Whatever a killed tool or script leaves is removed: by the switch within seconds,
and without the switch by the next script of any session."""

import os
import plistlib
import random
import re
import shutil
import signal
import subprocess
import time
import unittest

import sambahost
from sambahost import (HANG, PROGRAM, ConnectedClient, answers, command, run_script, samba_knows,
                       script_path, share_exists, user_exists, wait_until, write)

FOLDER = '/Library/Preferences/SystemConfiguration'
FILE = FOLDER + '/com.apple.smb.server.plist'
TOOL = os.path.dirname(script_path('adduser')) + '/pelagoShareTool'


def services():
    return plistlib.loads(sambahost.read(FILE)).get('EnabledServices')


class KilledCase(sambahost.ScriptTest):

    needs_smbd = False

    def setUp(self):
        super().setUp()
        shutil.rmtree(FOLDER, ignore_errors=True)
        os.makedirs(FOLDER)
        write(FILE, plistlib.dumps({'EnabledServices': ['print']}))
        self.addCleanup(command, PROGRAM, 'sessions', '--end-all', check=False)

    def start_switch(self):
        # pylint: disable=consider-using-with
        switch = subprocess.Popen([PROGRAM, 'switch'], stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(self.end_switch, switch)
        return switch

    @staticmethod
    def end_switch(switch):
        write(FILE, plistlib.dumps({'EnabledServices': []}))
        wait_until(lambda: not answers(), 'smbd to go')
        switch.terminate()
        switch.wait(HANG)

    def start_tool(self, user='alice', share='Docs'):
        """Starts a tool that shares the folder."""
        # pylint: disable=consider-using-with
        tool = subprocess.Popen([TOOL, self.folder, share, user, self.password_file, 'rw'],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(self.end_tool, tool)
        line = tool.stdout.readline()
        self.assertTrue(line.startswith(b'0 is the sharing result'), (line, tool.poll()))
        return tool

    @staticmethod
    def end_tool(tool):
        if tool.poll() is None:
            tool.kill()
        tool.communicate()

    def kill(self, tool):
        tool.kill()
        tool.wait(HANG)

    def finish(self, tool):
        out, err = tool.communicate(timeout=HANG)
        self.assertEqual(tool.returncode, 0, (out, err))

    def nothing_is_left(self, user='alice', share='Docs'):
        return not (user_exists(user) or samba_knows(user) or share_exists(share)
                    or os.listdir(sambahost.STATE + '/users') or os.listdir(sambahost.STATE + '/shares'))


class WithTheSwitch(KilledCase):

    def test_what_a_killed_tool_left_is_cleared_away(self):
        self.start_switch()
        tool = self.start_tool()
        connected = ConnectedClient('alice', self.password, 'Docs')
        self.addCleanup(connected.close)
        self.assertIn('blocks available', connected.ask('ls'))
        self.kill(tool)
        wait_until(self.nothing_is_left, 'the clearing')
        self.assertNotIn('blocks available', connected.ask('ls'))
        wait_until(lambda: services() == ['print'] and not answers(), 'the service to be off again')

    def test_living_session_survives_the_clearing_of_another(self):
        self.start_switch()
        first = self.start_tool()
        second = self.start_tool('carl', 'His')
        connected = ConnectedClient('carl', self.password, 'His')
        self.addCleanup(connected.close)
        self.kill(first)
        wait_until(lambda: not user_exists('alice') and not share_exists('Docs'), 'the clearing')
        # Longer than the switch needs to notice that a service has no owner.
        for _ in range(5):
            time.sleep(1)
            self.assertIn('blocks available', connected.ask('ls'))
        self.assertEqual(services(), ['print', 'disk'])
        self.assert_served('His', 'carl')
        self.finish(second)
        wait_until(lambda: services() == ['print'] and not answers(), 'the service to be off again')

    def test_third_tool_keeps_the_service_for_the_second(self):
        self.start_switch()
        first = self.start_tool()
        second = self.start_tool('carl', 'His')
        self.kill(first)
        self.finish(self.start_tool('dora', 'Hers'))
        self.assertEqual(services(), ['print', 'disk'])
        self.assert_served('His', 'carl')
        self.finish(second)
        wait_until(lambda: services() == ['print'] and not answers(), 'the service to be off again')

    def test_keeps_a_service_that_was_already_on(self):
        write(FILE, plistlib.dumps({'EnabledServices': ['disk']}))
        self.start_switch()
        self.kill(self.start_tool())
        wait_until(self.nothing_is_left, 'the clearing')
        self.assertEqual(services(), ['disk'])
        self.assertTrue(answers())

    def test_what_a_killed_script_left_is_cleared_away(self):
        self.start_switch()
        command(PROGRAM, 'service', 'on')
        for program, script, made in (
                ('useradd', 'adduser', lambda: user_exists('alice')),
                ('net', 'addshare', lambda: share_exists('Docs'))):
            with self.subTest(script):
                session = self.session()
                if script == 'addshare':
                    self.add_user(run=session.run)
                arguments = {'adduser': ['alice', 'alice', self.password_file],
                             'addshare': ['alice', self.password_file, self.folder, 'Docs', 'rw']}
                # The script is killed, and then its tool.
                with sambahost.stand_in(program, 'case "$*" in *showshare*) exec $real "$@" ;; esac; '
                                                 '$real "$@"; kill -9 $PPID'):
                    result = session.run([script_path(script), *arguments[script]])
                self.assertEqual(result.status, -signal.SIGKILL)
                self.assertTrue(made())
                session.kill()
                wait_until(self.nothing_is_left, 'the clearing')

    def test_boot_clears_the_user_before_smbd_starts(self):
        switch = self.start_switch()
        self.kill(self.start_tool())
        # As after a power cut: nothing was removed, and /run is empty.
        switch.kill()
        switch.wait(HANG)
        self.assertTrue(user_exists('alice'))
        command('pkill', '-9', 'smbd', check=False)
        shutil.rmtree(sambahost.STATE)
        log = write(self.scratch + '/log', '')
        with sambahost.stand_in('smbd', 'id alice >>%s 2>&1; exec $real "$@"' % log):
            command(PROGRAM, 'service', 'on')
            self.start_switch()
            wait_until(answers, 'smbd to come up')
        self.assertIn(b'no such user', sambahost.read(log))
        self.assertFalse(user_exists('alice') or samba_knows('alice') or share_exists('Docs'))


class WithoutTheSwitch(KilledCase):

    def setUp(self):
        super().setUp()
        smbd = sambahost.Smbd()
        self.addCleanup(smbd.stop)

    def test_the_next_script_of_any_session_clears_everything(self):
        self.kill(self.start_tool())
        self.assertTrue(user_exists('alice') and samba_knows('alice') and share_exists('Docs'))
        self.add_user('carl')
        self.assertFalse(user_exists('alice') or samba_knows('alice') or share_exists('Docs'))
        self.assertTrue(samba_knows('carl'))

    def test_script_undoes_its_step_when_the_tool_dies(self):
        for program, script in (('useradd', 'adduser'), ('net', 'addshare')):
            with self.subTest(script):
                started = self.scratch + '/started'
                session = self.session()
                if script == 'addshare':
                    self.add_user(run=session.run)
                arguments = {'adduser': ['alice', 'alice', self.password_file],
                             'addshare': ['alice', self.password_file, self.folder, 'Docs', 'rw']}
                wait = ('case "$*" in *import*|*alice*) $real "$@"; touch {0}; while [ -e {0} ]; do sleep 0.01; done;;'
                        ' *) exec $real "$@" ;; esac').format(started)
                with sambahost.stand_in(program, wait):
                    session.begin([script_path(script), *arguments[script]])
                    wait_until(lambda: os.path.exists(started), 'the step')
                    session.kill()
                    os.unlink(started)
                    wait_until(lambda: not share_exists('Docs'), 'the undoing of the share')
                    if script == 'adduser':
                        wait_until(lambda: not user_exists('alice'), 'the undoing of the user')
                command(PROGRAM, 'sessions', '--clean')
                self.assertTrue(self.nothing_is_left())


class Sweep(KilledCase):
    """A script is killed as it enters one of its system calls."""

    # Every 41st call by default, from a random first one on; all of them take half an hour.
    STRIDE = int(os.environ.get('PELAGO_KILL_STRIDE', '41'))

    def setUp(self):
        super().setUp()
        smbd = sambahost.Smbd()
        self.addCleanup(smbd.stop)
        self.log = self.scratch + '/trace'
        self.steps = {'adduser': ['alice', 'alice', self.password_file],
                      'addshare': ['alice', self.password_file, self.folder, 'Docs', 'rw'],
                      'rmshare': ['Docs', self.folder], 'rmuser': ['alice']}

    def trace(self, script, *options):
        """Runs the steps before the script, and the script under strace; returns the session and the result."""
        session = self.session()
        for step, arguments in self.steps.items():
            if step == script:
                break
            self.assert_done(session.run([script_path(step), *arguments]))
        # With -D the script stays a child of the session.
        return session, session.run(['strace', '-D', '-q', '-o', self.log, *options,
                                     script_path(script), *self.steps[script]])

    def points(self, script):
        """Returns each call of an undisturbed run: its name, and its number among the calls of that name."""
        session, result = self.trace(script)
        self.assert_done(result)
        wait_until(lambda: b'+++ exited' in sambahost.read(self.log), 'the end of the trace')
        session.close()
        command(PROGRAM, 'sessions', '--clean')
        names = re.findall(r'^(\w+)\(', sambahost.read(self.log).decode(errors='replace'), re.M)
        return [(name, names[:number + 1].count(name)) for number, name in enumerate(names)][1:]

    def sweep(self, script):
        killed = 0
        for name, ordinal in self.points(script)[random.randrange(self.STRIDE)::self.STRIDE]:
            session, result = self.trace(script, '-e', 'trace=' + name, '-e',
                                         'inject=%s:signal=SIGKILL:when=%d' % (name, ordinal))
            session.close()
            killed += result.status == -signal.SIGKILL
            command(PROGRAM, 'sessions', '--clean')
            self.assertTrue(self.nothing_is_left(), (script, name, ordinal))
        self.assertGreater(killed, 0)

    def test_adduser(self):
        self.sweep('adduser')

    def test_addshare(self):
        self.sweep('addshare')

    def test_rmshare(self):
        self.sweep('rmshare')

    def test_rmuser(self):
        self.sweep('rmuser')


if __name__ == '__main__':
    unittest.main()
