"""Several sessions at once, and sessions after one that was killed."""

import concurrent.futures
import os
import subprocess
import unittest

import sambahost
from sambahost import (command, run_script, samba_knows, script_path, share_exists, user_exists,
                       wait_until)


class Sessions(sambahost.ScriptTest):

    def start_session(self, user, share, folder):
        session = self.session()
        self.add_user(user, run=session.run)
        self.add_share(share, user, folder, run=session.run)
        return session

    def left_behind(self, user='alice', share='Docs'):
        """Makes what a session leaves that is killed while it waits."""
        self.start_session(user, share, self.folder).kill()

    def reboot(self):
        """Leaves the host as after a reboot: /run is empty, users and the registry are unchanged."""
        command('rm', '-rf', sambahost.STATE)

    def test_two_at_once_serve_each_their_user(self):
        first, second = self.session(), self.session()
        other = self.make_folder(self.scratch + '/Other', content=b'other text\n')

        def run(session, user, share, folder):
            self.add_user(user, run=session.run)
            self.add_share(share, user, folder, run=session.run)

        with concurrent.futures.ThreadPoolExecutor() as pool:
            for future in [pool.submit(run, first, 'alice', 'Hers', self.folder),
                           pool.submit(run, second, 'carl', 'His', other)]:
                future.result()
        self.assert_served('Hers', 'alice')
        self.assert_served('His', 'carl', content=b'other text\n')
        self.assert_not_served('ACCESS_DENIED', 'His', 'alice')
        self.assert_not_served('ACCESS_DENIED', 'Hers', 'carl')
        self.assert_done(run_script('rmshare', 'Hers', self.folder, run=first.run))
        self.assert_done(run_script('rmuser', 'alice', run=first.run))
        self.assert_served('His', 'carl', content=b'other text\n')

    def test_the_same_folder_can_be_shared_twice(self):
        self.start_session('alice', 'One', self.folder)
        self.start_session('carl', 'Two', self.folder)
        self.assert_served('One', 'alice')
        self.assert_served('Two', 'carl')

    def test_a_session_that_runs_keeps_what_it_has(self):
        self.start_session('alice', 'Docs', self.folder)
        self.add_user('carl')
        with self.unchanged():
            self.assert_refused(run_script('adduser', 'alice', 'alice', self.password_file), 'in use')
            self.assert_refused(run_script('addshare', 'carl', self.password_file, self.folder, 'Docs',
                                           'rw'), 'in use')
            self.assert_refused(run_script('rmshare', 'Docs', self.folder), 'another session')
            self.assert_refused(run_script('rmuser', 'alice'), 'another session')
        self.assert_served()

    def test_new_session_replaces_a_killed_one(self):
        self.left_behind()
        self.assertTrue(user_exists('alice') and share_exists('Docs'))
        sambahost.write(self.password_file, 'another password\n')
        self.add_user()
        self.assertFalse(share_exists('Docs'), 'nothing is served that the new session did not ask for')
        self.assert_not_served('LOGON_FAILURE', 'IPC$', password=self.password)
        self.add_share()
        self.assert_served(password='another password')
        self.assert_done(run_script('rmshare', 'Docs', self.folder))
        self.assert_done(run_script('rmuser', 'alice'))
        self.assertEqual(os.listdir(sambahost.STATE + '/shares'), [])

    def test_disconnects_the_client_of_a_killed_session(self):
        self.left_behind()
        connected = sambahost.ConnectedClient('alice', self.password, 'Docs')
        self.addCleanup(connected.close)
        self.assertIn('blocks available', connected.ask('ls'))
        self.add_user()
        self.assertNotIn('blocks available', connected.ask('ls'))

    def test_new_user_does_not_inherit_an_old_share(self):
        self.left_behind(share='Private')
        self.add_user()
        self.assert_not_served('BAD_NETWORK_NAME', 'Private')

    def test_another_user_replaces_a_killed_sessions_share(self):
        self.left_behind()
        self.add_user('carl')
        self.add_share('Docs', 'carl')
        self.assert_served('Docs', 'carl')
        self.assert_not_served('LOGON_FAILURE', 'Docs', 'alice')
        self.assertFalse(user_exists('alice') or samba_knows('alice'), 'whatever the new one asks for')

    def test_addshare_replaces_the_share_of_a_killed_session(self):
        self.add_user()
        session = self.session()
        self.add_user('carl', run=session.run)
        self.add_share('Docs', 'carl', run=session.run)
        session.kill()
        self.add_share('dOCS', 'alice')
        self.assert_served('Docs', 'alice')

    def test_scripts_remove_leftovers_of_a_killed_session(self):
        with self.unchanged():
            self.left_behind()
            self.assert_done(run_script('rmshare', 'Docs', self.folder))
            self.assert_done(run_script('rmuser', 'alice'))

    def test_new_session_replaces_one_before_the_boot(self):
        self.left_behind()
        self.reboot()
        self.add_user()
        self.add_share()
        self.assert_served()

    def test_first_script_after_boot_clears_unrecorded_leftovers(self):
        self.left_behind()
        self.reboot()
        result = run_script('adduser', 'carl', 'carl', self.password_file)
        self.assert_done(result)
        self.assertIn('removing the share "Docs" of a session that has ended', result.output)
        self.assertIn('removing the user alice of a session that has ended', result.output)
        self.assertFalse(share_exists('Docs') or user_exists('alice') or samba_knows('alice'))

    def test_retries_clearing_after_boot_until_all_is_gone(self):
        for program, text in (('userdel', 'echo why; exit 1'),
                              ('net', 'case "$*" in *delshare*) echo why; exit 1;; esac; exec $real "$@"')):
            with self.subTest(program):
                self.left_behind()
                self.reboot()
                with sambahost.stand_in(program, text):
                    result = run_script('adduser', 'carl', 'carl', self.password_file)
                self.assert_done(result)
                self.assertIn('why', result.output)
                self.assertTrue(share_exists('Docs') or user_exists('alice'))
                self.assert_done(run_script('rmuser', 'carl'))
                self.add_user('carl')
                self.assertFalse(share_exists('Docs') or user_exists('alice'))
                self.assert_done(run_script('rmuser', 'carl'))

    def test_scripts_remove_leftovers_from_before_the_boot(self):
        self.left_behind()
        self.reboot()
        self.assert_done(run_script('rmshare', 'Docs', self.folder))
        self.assert_done(run_script('rmuser', 'alice'))
        self.assertFalse(share_exists('Docs') or user_exists('alice') or samba_knows('alice'))

    def test_reused_pid_is_not_the_session(self):
        self.left_behind()
        self.change_session(lambda pid, start, boot: (b'%d' % os.getpid(), start, boot))
        self.add_user()
        self.add_share()
        self.assert_served()

    def change_session(self, change):
        """Changes the process id, the start time and the boot of the session in alice's record."""
        path = sambahost.STATE + '/users/alice'
        before, session = sambahost.read(path).split(b'session ')
        sambahost.write(path, before + b'session %s %s %s\n' % change(*session.split()))

    def test_process_of_another_boot_is_not_the_session(self):
        self.add_user()
        for change in (lambda pid, start, boot: (pid, start, boot[::-1]),
                       lambda pid, start, boot: (pid, start, b'')):
            self.change_session(change)
            self.add_user()
        with self.unchanged():
            self.assert_refused(run_script('adduser', 'alice', 'alice', self.password_file), 'in use')

    def test_a_record_that_is_damaged_is_nobodys(self):
        for text in ('', 'x', 'session\n', 'session 1\n', 'session x y z\n', b'\xff\0\n'):
            with self.subTest(text):
                self.add_user()
                sambahost.write(sambahost.STATE + '/users/alice', text)
        self.add_user()
        self.assertEqual(sambahost.client('alice', self.password, 'IPC$', 'exit')[0], 0)

    def test_zombie_session_counts_as_dead(self):
        session = self.start_session('alice', 'Docs', self.folder)
        session.process.kill()
        os.waitid(os.P_PID, session.process.pid, os.WEXITED | os.WNOWAIT)
        self.add_user()

    def test_a_caller_may_have_any_name(self):
        # The program's name is in the middle of the line from which the start time is read.
        with open('/proc/self/comm', encoding='utf-8') as file:
            name = file.read().strip()
        self.addCleanup(sambahost.write, '/proc/self/comm', name)
        sambahost.write('/proc/self/comm', 'a) Z 1 (\n) X *')
        self.add_user()
        rest = sambahost.read('/proc/self/stat').rpartition(b')')[2].split()
        boot = sambahost.read('/proc/sys/kernel/random/boot_id')
        self.assertIn(b'\nsession %d %s %s' % (os.getpid(), rest[22 - 3], boot),
                      sambahost.read(sambahost.STATE + '/users/alice'))
        self.assert_refused(run_script('adduser', 'alice', 'alice', self.password_file), 'in use')

    def test_shares_that_are_not_ours_survive_the_clearing(self):
        command('net', 'conf', 'addshare', 'Other', '/srv', 'writeable=n', 'guest_ok=n', '')
        self.left_behind()
        self.add_user()
        self.assertTrue(share_exists('Other'))
        self.assertFalse(share_exists('Docs'))

    def test_clearing_keeps_the_share_of_a_living_session(self):
        self.start_session('carl', 'His', self.folder)
        self.left_behind()
        self.add_user()
        self.assert_served('His', 'carl')

    def test_user_that_cannot_be_removed_blocks_nobody(self):
        self.left_behind()
        with sambahost.stand_in('userdel', 'echo why; exit 1'):
            result = run_script('adduser', 'carl', 'carl', self.password_file)
        self.assert_done(result)
        self.assertIn('cannot remove the user alice: why', result.output)
        self.assertIn('something of an earlier session is still there', result.output)
        self.assertFalse(samba_knows('alice'), 'nobody logs in any more')
        self.assert_done(run_script('rmuser', 'carl'))
        self.add_user('carl')
        self.assertFalse(user_exists('alice'))

    def test_folder_that_cannot_be_removed_blocks_nobody(self):
        os.makedirs(sambahost.STATE + '/shares/old/more')
        result = run_script('adduser', 'alice', 'alice', self.password_file)
        self.assert_done(result)
        self.assertIn('adduser.sh: cannot remove /run/pelago/shares/old', result.output)

    def test_the_folder_survives_whatever_is_cleared(self):
        self.left_behind()
        self.add_user()
        self.assertEqual(sambahost.read(self.folder + '/f'), b'some text\n')


class BeingCleared(sambahost.ScriptTest):
    """Another process, such as the switch, is removing what a killed session left."""

    NAPS = '-e', 'trace=nanosleep,clock_nanosleep', '-e', 'signal=none'

    def setUp(self):
        super().setUp()
        self.log = self.scratch + '/naps'
        self.add_user('carl')
        left = self.session()
        self.add_both(run=left.run)
        left.kill()

    def start_clearing(self, program, arguments):
        """Starts the clearing in a process that stops when it first starts the program with these arguments."""
        self.stand_in(program, 'case "$*" in %s) [ -e %s/started ] || { %s; };; esac; exec $real "$@"'
                      % (arguments, self.scratch, self.waiting()))
        # pylint: disable=consider-using-with
        clearing = subprocess.Popen([sambahost.PROGRAM, 'sessions', '--clean'], stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.addCleanup(clearing.communicate)
        self.addCleanup(self.go)
        wait_until(self.started, 'the clearing')
        return clearing

    def clear_share(self):
        return self.start_clearing('net', '*delshare*Docs*')

    def clear_user(self):
        return self.start_clearing('userdel', '*alice*')

    def arguments(self, script, user='alice'):
        return [script, user, user, self.password_file] if script == 'adduser' else [
            script, user, self.password_file, self.folder, 'Docs', 'rw']

    def run_beside(self, script, user, end_clearing):
        """Runs a script, which must wait; once it does, the clearing is ended."""
        name, *arguments = self.arguments(script, user)
        sambahost.write(self.log, '')
        # With -D the script stays a child of this process, which is its session.  Its log is empty
        # until the script sleeps or ends.
        with subprocess.Popen(['strace', '-D', '-q', '-o', self.log, *self.NAPS, script_path(name),
                               *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT) as running:
            wait_until(lambda: sambahost.read(self.log), 'the script to wait or to end')
            has_waited = b'exited' not in sambahost.read(self.log)
            end_clearing()
            output = running.communicate(timeout=sambahost.HANG)[0].decode()
        self.assertTrue(has_waited, output)
        return sambahost.scriptRunner.Result(running.returncode, output)

    def test_a_share_is_waited_for(self):
        self.clear_share()
        self.assert_done(self.run_beside('addshare', 'carl', self.go))
        self.assert_served('Docs', 'carl')

    def test_a_user_is_waited_for(self):
        self.clear_user()
        self.assert_done(self.run_beside('adduser', 'alice', self.go))
        self.add_share()
        self.assert_served()

    def test_new_user_waits_for_the_old_shares_removal(self):
        self.clear_share()
        self.assert_done(self.run_beside('adduser', 'alice', self.go))
        self.assertFalse(share_exists('Docs'))

    def test_waiting_script_takes_over_an_interrupted_clearing(self):
        clearing = self.clear_share()
        self.assert_done(self.run_beside('addshare', 'carl', clearing.kill))
        self.assertTrue(samba_knows('carl') and not user_exists('alice'))
        self.go()
        self.assert_done(run_script('rmshare', 'Docs', self.folder))

    def test_other_names_are_not_waited_for(self):
        self.clear_share()
        self.add_user('dora')
        self.add_share('Hers', 'dora')
        self.assert_served('Hers', 'dora')

    def test_share_is_not_waited_for_indefinitely(self):
        self.clear_share()
        self.assert_refused(run_script(*self.arguments('addshare', 'carl'), env=sambahost.in_haste()),
                            'the share "Docs" is still being cleared away')
        self.assert_refused(run_script('rmshare', 'Docs', self.folder),
                            'the share "Docs" is still being cleared away')

    def test_user_is_not_waited_for_indefinitely(self):
        self.clear_user()
        self.assert_refused(run_script(*self.arguments('adduser'), env=sambahost.in_haste()),
                            'the user alice is still being cleared away')
        self.assert_refused(run_script('rmuser', 'alice'), 'the user alice is still being cleared away')


if __name__ == '__main__':
    unittest.main()
