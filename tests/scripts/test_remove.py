"""rmshare.sh and rmuser.sh remove what was made, and nothing else."""

import fcntl
import os
import signal
import subprocess
import unittest

import sambahost
from sambahost import (HANG, STATE, ConnectedClient, command, run_failing, run_script, samba_knows,
                       script_path, share_exists, user_exists, wait_until, write)

LOCK = '/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist-lock'


def sessions(user):
    lines = command('smbstatus', '-p').splitlines()
    return [line for line in lines if line.split()[1:2] == [user]]


class Remove(sambahost.ScriptTest):

    def remove_share(self, share='Docs', folder=None, **kwargs):
        return run_script('rmshare', share, folder or self.folder, **kwargs)

    def remove_user(self, user='alice', **kwargs):
        return run_script('rmuser', user, **kwargs)

    def connect(self, share='Docs'):
        connected = ConnectedClient('alice', self.password, share)
        self.addCleanup(connected.close)
        self.assertIn('blocks available', connected.ask('ls'))
        return connected

    def test_leaves_nothing_and_says_nothing(self):
        with self.unchanged():
            self.add_both()
            self.assert_served()
            for result in (self.remove_share(), self.remove_user()):
                self.assertEqual((result.status, result.output), (0, ''))
        self.assert_not_served('LOGON_FAILURE')
        self.assertEqual(sambahost.read(self.folder + '/f'), b'some text\n')

    def test_removed_share_is_gone_at_once(self):
        self.add_both()
        self.assert_done(self.remove_share())
        self.assert_not_served('BAD_NETWORK_NAME')

    def test_cuts_off_connected_clients(self):
        for share in ('Docs', 'a b', '-dash', 'ünïÁ', 'x$'):
            with self.subTest(share):
                self.add_user()
                self.add_share(share)
                connected = self.connect(share)
                self.assert_done(self.remove_share(share))
                wait_until(lambda: 'NETWORK_NAME_DELETED' in connected.ask('ls'), 'the cut')
                self.assertIn('BAD_NETWORK_NAME', connected.ask('tcon ' + share.replace(' ', '\\ ')))
                self.assert_done(self.remove_user())

    def test_an_open_connection_cannot_enter_again(self):
        # The client has left the share, so it is not disconnected, but smbd still knows the share.
        self.add_both()
        connected = self.connect()
        connected.ask('tdis')
        self.assertIn('successful', connected.ask('tcon Docs'))
        connected.ask('tdis')
        self.assert_done(self.remove_share())
        wait_until(lambda: 'BAD_NETWORK_NAME' in connected.ask('tcon Docs'), 'the refusal')

    def test_ends_the_sessions_of_the_user(self):
        self.add_both()
        connected = self.connect()
        self.assert_done(self.remove_share())
        connections = sessions('alice')
        self.assertEqual(len(connections), 1, 'without its share the session goes on')
        process = '/proc/' + connections[0].split()[0]
        self.assertTrue(os.path.exists(process))
        self.assert_done(self.remove_user())
        self.assertFalse(os.path.exists(process))
        self.assertRegex(connected.ask('ls'), 'CONNECTION|NETWORK_NAME_DELETED')

    def test_leaves_the_sessions_of_others(self):
        self.add_both()
        self.assert_done(run_script('adduser', 'carol', 'carol', self.password_file))
        self.add_share('Carols', 'carol')
        connected = ConnectedClient('carol', self.password, 'Carols')
        self.addCleanup(connected.close)
        self.assertIn('blocks available', connected.ask('ls'))
        self.assert_done(self.remove_share())
        self.assert_done(self.remove_user())
        self.assertIn('blocks available', connected.ask('ls'))

    def test_ends_smbd_processes_running_as_the_user(self):
        # The user owns the folder, so smbd's process has the identity that userdel looks for.
        self.add_user()
        folder = self.make_folder(self.scratch + '/own', 'alice')
        self.add_share('Own', folder=folder)
        self.connect('Own')
        self.assert_done(self.remove_share('Own', folder))
        self.assert_done(self.remove_user())
        self.assertFalse(user_exists('alice'))

    def test_retries_while_a_process_runs_as_the_user(self):
        self.add_user()
        self.stand_in('userdel', 'cd %s; echo >>tries; [ "$(wc -l <tries)" -gt 3 ] || exit 8\n'
                                 'exec $real "$@"' % self.scratch)
        self.assert_done(self.remove_user())
        self.assertFalse(user_exists('alice'))

    def test_gives_up_when_the_process_stays(self):
        self.add_user()
        with sambahost.stand_in('userdel', 'echo process 77 >&2; exit 8'):
            result = self.remove_user(env=sambahost.in_haste())
        self.assert_refused(result, 'the user alice is left behind')
        self.assertIn('cannot remove the user alice: process 77', result.output)
        self.assertFalse(samba_knows('alice'), 'nobody logs in any more')
        self.assert_done(self.remove_user())
        self.assertFalse(user_exists('alice'))

    def test_gives_up_when_a_session_stays(self):
        self.add_both()
        self.connect()
        with sambahost.stand_in('smbcontrol', 'case "$*" in *shutdown*) exit 0;; esac; exec $real "$@"'):
            result = self.remove_user(env=sambahost.in_haste())
        self.assert_refused(result, 'the user alice is left behind')
        self.assertIn('sessions of alice do not end', result.output)
        self.assertFalse(samba_knows('alice'), 'nobody logs in any more')
        self.assert_done(self.remove_user())
        self.assertFalse(user_exists('alice'))

    def test_a_second_run_succeeds_and_says_so(self):
        self.add_both()
        for script, args in (('rmshare', ('Docs', self.folder)), ('rmuser', ('alice',))):
            self.assert_done(run_script(script, *args))
            with self.unchanged():
                result = run_script(script, *args)
                self.assertEqual(result.status, 0)
                self.assertRegex(result.output, r'there is no .* any more')

    def test_refuses_foreign_shares_and_users(self):
        command('net', 'conf', 'addshare', 'Other', self.folder, 'writeable=n', 'guest_ok=n', '')
        subprocess.run(['smbpasswd', '-s', '-a', 'bob'], input=b'x\nx\n', check=True,
                       stdout=subprocess.DEVNULL)
        self.addCleanup(command, 'pdbedit', '-x', '-u', 'bob')
        with self.unchanged():
            self.assert_refused(self.remove_share('Other'), 'not made by')
            self.assert_refused(self.remove_share('OTHER'), 'not made by')
            self.assert_refused(self.remove_user('bob'), 'not made')
            self.assert_refused(self.remove_user('root'), 'not made')
        self.assertTrue(share_exists('Other'))

    def test_refuses_paths_that_only_look_like_ours(self):
        for path in ('/run/pelago/shares/../../x/folder', '/run/pelago/shares/x/y/folder',
                     '/run/pelago/shares/x/folder/y', '/run/pelago/shares/x', '/srv/folder'):
            subprocess.run(['net', 'conf', 'import', '/dev/stdin', '--', 'Other'], check=True,
                           input=('[Other]\npath = %s\n' % path).encode())
            with self.subTest(path), self.unchanged():
                self.assert_refused(self.remove_share('Other'), 'not made by')

    def test_refuses_another_folder_than_the_share_serves(self):
        self.add_both()
        os.symlink(self.folder, self.scratch + '/link')
        with self.unchanged():
            for folder in ('/srv', self.folder + '/', self.folder + '\n', self.scratch + '/link'):
                with self.subTest(folder):
                    self.assert_refused(self.remove_share(folder=folder), 'another folder')
        self.assert_served()

    def test_compares_every_byte_of_the_folders_path(self):
        self.add_user()
        for number, ending in enumerate((b'\n', b'\n\n', b' ', b'\\', b'%U', b'*', b'\xc3\x88')):
            with self.subTest(ending):
                folder = os.fsencode(self.folder) + ending
                share = 'Share%d' % number
                self.make_folder(folder)
                self.add_share(share, folder=folder)
                self.assert_refused(self.remove_share(share, self.folder), 'another folder')
                self.assert_done(self.remove_share(share, folder))

    def test_killed_removal_does_not_block_the_name(self):
        for moment in ('kill -9 "$PPID"; exit 1', '$real "$@"; kill -9 "$PPID"'):
            with self.subTest(moment), self.unchanged():
                self.add_user()
                with sambahost.stand_in('userdel', moment):
                    self.assertEqual(self.remove_user().status, -signal.SIGKILL)
                self.add_user()
                self.assert_done(self.remove_user())

    def test_leaves_a_group_of_the_users_name(self):
        self.add_user()
        command('groupadd', 'alice')
        self.addCleanup(command, 'groupdel', 'alice')
        self.assert_done(self.remove_user())
        command('getent', 'group', 'alice')

    def test_refuses_wrong_arguments(self):
        self.add_both()
        with self.unchanged():
            for args in ((), ('Docs',), ('Docs', self.folder, 'more')):
                self.assert_refused(run_script('rmshare', *args), 'usage')
            self.assert_refused(run_script('rmshare', 'Docs', ''), 'empty')
            for share, reason in (('', 'empty'), ('global', 'reserved'), ('a\nb', 'control'),
                                  ('x' * 300, '80'), (b'\xff', 'UTF-8'), ('a%U', 'holds one of')):
                with self.subTest(share):
                    self.assert_refused(self.remove_share(share), reason)
            for args in ((), ('alice', 'more')):
                self.assert_refused(run_script('rmuser', *args), 'usage')
            for user in ('', '-f', 'Alice', 'a b', 'alice\n', '../users/alice', '*', 'a' * 33):
                with self.subTest(user):
                    self.assert_refused(self.remove_user(user), 'user name')
        self.assert_served()

    def test_does_not_take_a_failure_for_an_absence(self):
        self.add_both()
        self.connect()
        share, user, other = ('rmshare', 'Docs', self.folder), ('rmuser', 'alice'), ('rmuser', 'other')
        for program, args, reason in (
                ('net', share, 'cannot remove the share "Docs": broken'),
                ('net', ('rmshare', 'Other', self.folder), "cannot read Samba's registry: broken"),
                ('pdbedit', user, 'cannot remove alice from Samba: broken'),
                ('pdbedit', other, "cannot read Samba's password database: broken"),
                ('smbstatus', user, 'cannot list sessions: broken')):
            with self.subTest(program, args=args):
                with sambahost.stand_in(program, 'echo broken; exit 3'):
                    self.assert_refused(run_script(*args), reason)
                self.assertTrue(user_exists('alice') and share_exists('Docs'))
        for args in (share, user):
            self.assert_done(run_script(*args))
        self.assertFalse(user_exists('alice') or share_exists('Docs'))

    def test_removes_the_samba_account_of_a_deleted_user(self):
        self.add_user()
        command('userdel', 'alice')
        self.assertTrue(samba_knows('alice'))
        self.assert_done(self.remove_user())
        self.assertFalse(samba_knows('alice'))

    def test_killed_script_leaves_the_user_database_intact(self):
        for program, script, args in (('useradd', 'adduser', ('alice', 'alice', self.password_file)),
                                      ('userdel', 'rmuser', ('alice',))):
            with self.subTest(program), self.unchanged():
                before = sorted(os.listdir('/etc'))
                session = self.session()
                if script == 'rmuser':
                    self.add_user(run=session.run)
                # The script is killed while its program works; the program goes on, and the next clearing waits for it.
                once = self.scratch + '/once-' + program
                with sambahost.stand_in(program, '[ -e {0} ] || {{ touch {0}; kill -9 $PPID; sleep 0.5; }}\n'
                                                 'exec $real "$@"'.format(once)):
                    self.assertEqual(session.run([script_path(script), *args]).status, -signal.SIGKILL)
                    session.kill()
                    command(sambahost.PROGRAM, 'sessions', '--clean')
                self.assertEqual(sorted(os.listdir('/etc')), before)
                self.assertFalse(user_exists('alice') or samba_knows('alice'))

    def test_uses_the_registry_when_testparm_fails(self):
        self.add_both()
        with sambahost.stand_in('testparm', 'echo broken; exit 3'):
            self.assert_done(self.remove_share())
        self.assertFalse(share_exists('Docs'))

    def test_refuses_when_the_user_database_is_unreadable(self):
        self.ask_files_only()
        self.add_user()
        with self.unchanged():
            self.assert_refused(run_failing('openat', 'EIO', 'rmuser', 'alice', path='/etc/passwd'),
                                'cannot read the user database')
        self.assert_done(self.remove_user())

    def test_refuses_a_user_whom_only_samba_has(self):
        command('useradd', 'zoe')
        subprocess.run(['smbpasswd', '-s', '-a', 'zoe'], input=b'hers\nhers\n', check=True,
                       stdout=subprocess.DEVNULL)
        self.addCleanup(command, 'pdbedit', '-x', '-u', 'zoe')
        command('userdel', 'zoe')
        with self.unchanged():
            self.assert_refused(self.remove_user('zoe'),
                                'Samba knows a user zoe that was not made for a share')

    def test_only_root_may_do_it(self):
        self.add_both()
        with self.unchanged():
            self.assert_refused(self.remove_share(user='bob'), 'only root may do this')
            self.assertEqual(self.remove_user(user='bob').status, 1)
        self.assert_served()

    def test_reports_a_remaining_share_without_a_record(self):
        self.add_both()
        command('rm', '-rf', STATE)
        with sambahost.stand_in('net', 'case "$*" in *delshare*) echo why; exit 1;; esac; exec $real "$@"'):
            result = self.remove_share()
        self.assert_refused(result, 'the share "Docs" is left behind')
        self.assertIn('cannot remove the share "Docs": why', result.output)
        self.assert_done(self.remove_share())
        self.assertFalse(share_exists('Docs'))

    def test_reports_a_record_with_an_invalid_share_name(self):
        self.add_both()
        folder = STATE + '/shares/damaged'
        os.mkdir(folder)
        write(folder + '/record', b'share \xff\n')
        self.assert_refused(self.remove_share('Other'), 'not valid UTF-8')
        self.assert_served()

    def test_reports_an_error_of_the_removal(self):
        self.add_both()
        text = ('case "$*" in *delshare*) echo why it failed >&2; exit 255 ;; esac\n'
                'exec $real "$@"')
        with sambahost.stand_in('net', text):
            result = self.remove_share()
        self.assert_refused(result, 'why it failed')
        self.assertIn('the share "Docs" is left behind', result.output)
        self.assertTrue(share_exists('Docs'))
        self.assert_done(self.remove_share())

    def test_reports_clients_that_stay_connected(self):
        self.add_both()
        self.stand_in('smbcontrol', 'case "$*" in *close-share*) exit 1 ;; esac; exec $real "$@"')
        self.assert_refused(self.remove_share(), 'cannot cut off')
        self.assertFalse(share_exists('Docs'))
        self.assert_refused(self.remove_share('Gone'), 'its clients are not cut off')

    def test_later_run_disconnects_clients_after_a_failure(self):
        self.add_both()
        connected = self.connect()
        with sambahost.stand_in('smbcontrol',
                                'case "$*" in *close-share*) exit 1 ;; esac; exec $real "$@"'):
            for _ in range(2):
                self.assert_refused(self.remove_share(), 'cannot cut off')
        self.assertNotIn('NETWORK_NAME_DELETED', connected.ask('ls'), 'the case that is meant')
        self.assert_done(self.remove_share())
        wait_until(lambda: 'NETWORK_NAME_DELETED' in connected.ask('ls'), 'the cut')

    def test_disconnects_no_clients_of_configuration_file_shares(self):
        log = write(self.scratch + '/calls', '')
        self.stand_in('smbcontrol', 'echo "$@" >>%s; exec $real "$@"' % log)
        for share, calls in (('Textual', b''), ('Docs', b'-- smbd close-share Docs\n')):
            self.assert_done(self.remove_share(share))
            self.assertEqual(sambahost.read(log), calls)

    def test_reports_its_own_folder_when_it_stays(self):
        self.add_both()
        connected = self.connect()
        result = run_failing('rmdir', 'EBUSY', 'rmshare', 'Docs', self.folder)
        self.assert_refused(result, 'the share "Docs" is left behind')
        self.assertIn('rmshare.sh: cannot remove /run/pelago/shares/', result.output)
        self.assertFalse(share_exists('Docs'))
        wait_until(lambda: 'NETWORK_NAME_DELETED' in connected.ask('ls'), 'the cut')

    def test_a_user_can_go_before_its_share(self):
        self.add_both()
        self.assert_done(self.remove_user())
        self.assert_not_served('LOGON_FAILURE')
        self.assert_done(self.remove_share())

    def test_removes_the_user_despite_a_preferences_lock(self):
        self.add_both()
        self.connect()
        os.makedirs(os.path.dirname(LOCK), exist_ok=True)
        with open(LOCK, 'w', encoding='utf-8') as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.assert_done(self.remove_user()) # run_script fails the test if this hangs
        self.assertFalse(user_exists('alice'))

    def test_cleans_up_when_nobody_reads_what_it_says(self):
        for ignore in (signal.SIG_DFL, signal.SIG_IGN):
            with self.subTest(ignore):
                self.add_both()
                self.connect()
                reader, writer = os.pipe()
                os.close(reader)
                with open(writer, 'wb') as broken:
                    def run(*args, ignore=ignore, broken=broken):
                        return subprocess.run(
                            args, stdout=broken, stderr=broken, timeout=HANG, check=False,
                            preexec_fn=lambda: signal.signal(signal.SIGPIPE, ignore)).returncode
                    self.assertEqual(run(script_path('rmshare'), 'Docs', self.folder), 0)
                    self.assertEqual(run(script_path('rmshare'), 'Docs', self.folder), 0)
                    self.assertEqual(run(script_path('rmshare'), 'global', self.folder), 1)
                    self.assertEqual(run(script_path('rmuser'), 'alice'), 0)
                self.assertFalse(user_exists('alice'))


class RemoveWithoutAServer(sambahost.ScriptTest):

    needs_smbd = False

    def test_removes_share_and_user(self):
        smbd = sambahost.Smbd()
        self.add_both()
        self.assert_served()
        smbd.stop()
        for script, args in (('rmshare', ('Docs', self.folder)), ('rmuser', ('alice',))):
            result = run_script(script, *args)
            self.assertEqual((result.status, result.output), (0, ''))
        self.assertFalse(share_exists('Docs') or user_exists('alice') or samba_knows('alice'))

    def test_removes_the_user_while_smbd_goes_down(self):
        for _ in range(3):
            smbd = sambahost.Smbd()
            self.add_both()
            connected = ConnectedClient('alice', self.password, 'Docs')
            self.addCleanup(connected.close)
            self.assertIn('blocks available', connected.ask('ls'))
            self.assert_done(run_script('rmshare', 'Docs', self.folder))
            with subprocess.Popen([script_path('rmuser'), 'alice']) as script:
                smbd.stop()
                self.assertEqual(script.wait(HANG), 0)
            self.assertFalse(user_exists('alice') or samba_knows('alice'))


if __name__ == '__main__':
    unittest.main()
