"""The macOS share scripts among other names, in odd environments, and without a caller.

They run with stand-ins for the programs that they call, as in test_macos.py.
"""

import os
import subprocess
import time
import unittest

import machost
from machost import HANG, MacTest, read, script_path, write

EVIL = '/tmp/evil'

host = None


def setUpModule():
    global host  # pylint: disable=global-statement
    host = machost.set_up()


class Names(MacTest):

    def test_refuses_every_name_of_system_users_and_groups(self):
        """The first names begin with an underscore on a Mac, and the list shows only these."""
        host.mac.add('Groups', '_developer', ['developer', 'dev'], PrimaryGroupID='204')
        host.mac.add('Users', '_appserver', ['appserver'], UniqueID='79')
        before = host.snapshot()
        for user, kind in (('developer', 'Groups'), ('dev', 'Groups'), ('_developer', 'Groups'),
                           ('appserver', 'Users'), ('_appserver', 'Users')):
            with self.subTest(user):
                result = self.add_user(user)
                self.assertEqual(result.status, 1)
                self.assertRegex(result.output, 'another of its names|exists already')
                self.assert_unchanged(before)
        self.assert_done(self.add_user('develop'))

    def test_full_names_are_refused(self):
        host.mac.add('Users', 'asmith', UniqueID='502', RealName='Alice')
        before = host.snapshot()
        self.assert_refused(self.add_user(), 'alice is the full name of a user')
        self.assert_unchanged(before)
        self.assert_done(self.add_user('alicia'))

    def test_names_that_macos_itself_serves_are_refused(self):
        os.makedirs('/Volumes/Macintosh HD', exist_ok=True)
        self.assert_done(self.add_user())
        before = host.snapshot()
        for share, reason in (('bob', 'that of a user'), ('BOB', 'that of a user'), ('alice', 'that of a user'),
                              ('Macintosh HD', 'that of a volume'), ('mACINTOSH hd', 'that of a volume')):
            with self.subTest(share):
                self.assert_refused(self.add_share(share), reason)
                self.assert_unchanged(before)
        for share in ('bobby', 'Macintosh', 'b.b', 'Macintosh HD 2'):
            self.assert_done(self.add_share(share))
            self.assert_done(self.run_script('rmshare', share, self.folder))

    def test_percent_sign_does_not_name_another_share(self):
        self.assert_done(self.add_user())
        host.mac.add('SharePoints', 'xA', directory_path=self.folder, smb_name='xA')
        before = host.snapshot()
        self.assert_done(self.add_share('x%41'))
        self.assertEqual(host.mac.attribute('SharePoints', 'x%41', 'smb_name'), 'x%41')
        self.assert_done(self.run_script('rmshare', 'x%41', self.folder))
        self.assert_unchanged(before)

    def test_other_spellings_name_the_same_share(self):
        """As on a disk that ignores case and composition of letters."""
        before = host.snapshot()
        for share, spelt in (('Docs', 'dOCS'), ('Caf\u00e9', 'CAFE\u0301')):
            with self.subTest(share):
                self.assert_done(self.add_user())
                self.assert_done(self.add_share(share))
                os.rename(machost.STATE + '/shares/_' + share, machost.STATE + '/shares/_' + spelt)
                self.assert_refused(self.run_script('rmshare', spelt, '/another'), 'another folder')
                self.assert_done(self.run_script('rmshare', spelt, self.folder))
                self.assertEqual((host.mac.records['SharePoints'], host.mac.entries), ({}, {}))
                self.assert_done(self.run_script('rmuser', 'alice'))
                self.assert_unchanged(before)


class Numbers(MacTest):

    def number(self, user):
        self.assert_done(self.add_user(user))
        number = host.mac.attribute('Users', user, 'UniqueID')
        self.assert_done(self.run_script('rmuser', user))
        return number

    def test_numbers_are_given_in_turn(self):
        self.assertEqual([self.number(user) for user in ('alice', 'alice', 'carol')], ['499', '498', '497'])
        write(machost.STATE + '/lastNumber', '402\n')
        self.assertEqual([self.number('alice') for _ in range(3)], ['401', '499', '498'])

    def test_numbers_of_running_processes_are_skipped(self):
        host.mac.running.update(('499', '497'))
        self.assertEqual([self.number('alice') for _ in range(2)], ['498', '496'])

    def test_damaged_note_restarts_the_numbers(self):
        self.number('alice')
        for note in ('', 'rubbish\n', '0\n', '70000\n', '-1\n'):
            with self.subTest(note):
                write(machost.STATE + '/lastNumber', note)
                self.assertEqual(self.number('alice'), '499')

    def test_finds_the_only_free_number(self):
        for number in range(401, 500):
            if number != 450:
                host.mac.add('Users', 'user%d' % number, UniqueID=str(number))
        for last in ('450\n', '449\n', '451\n', '401\n'):
            os.makedirs(machost.STATE, exist_ok=True)
            write(machost.STATE + '/lastNumber', last)
            self.assertEqual(self.number('alice'), '450')


class TheSystem(MacTest):

    def test_waits_until_macos_knows_the_new_user(self):
        self.assert_done(self.add_user())
        self.assertGreater(len(self.asked('sleep')), 1)
        self.assert_done(self.add_share())

    def test_stops_waiting_when_the_user_stays_unknown(self):
        before = host.snapshot()
        host.mac.unknown['alice'] = 10 ** 6
        self.assert_refused(self.add_user(), 'macOS does not know the user alice within 10 s')
        self.assert_unchanged(before)

    def test_waits_while_macos_caches_a_removed_user(self):
        before = host.snapshot()
        for seconds, reason in ((2, None), (10 ** 6, 'the user alice exists already, in another directory')):
            host.mac.remember_seconds = seconds
            self.assert_done(self.add_user())
            self.assert_done(self.run_script('rmuser', 'alice'))
            host.mac.remember_seconds = 0
            self.assert_refused(self.add_user(), reason) if reason else self.remove_again()
            self.assert_unchanged(before)

    def remove_again(self):
        self.assert_done(self.add_user())
        self.assert_done(self.run_script('rmuser', 'alice'))

    def test_refuses_a_user_of_another_directory_at_once(self):
        for number in ('400', '500', '70000', '-2'):
            host.mac.network_users['alice'] = number
            before = host.snapshot()
            self.assert_refused(self.add_user(), 'in another directory')
            self.assert_unchanged(before)
        self.assertEqual(self.asked('sleep'), [])

    def test_waits_while_macos_returns_another_user(self):
        stale = []

        def confuse(call):
            if call.name == 'dsmemberutil' and len(stale) < 5:
                stale.append(call)
                host.fault = (1, 10 ** 6, 'lie')
            else:
                host.fault = None
        host.hook = confuse
        self.assert_done(self.add_user())
        self.assertEqual(len(stale), 5)

    def test_may_refuse_the_user_a_home(self):
        def refuse(call):
            host.fault = (1, 10 ** 6, 'refuse') if 'NFSHomeDirectory' in call.args[:4] and \
                '-create' in call.args else None
        host.hook = refuse
        result = self.add_user()
        self.assert_done(result)
        self.assertIn('the user alice gets no home folder', result.output)
        self.assertNotIn('NFSHomeDirectory', host.mac.records['Users']['alice'])
        self.assert_done(self.run_script('rmuser', 'alice'))

    def test_may_make_hashes_for_smb_for_everybody(self):
        host.mac.global_hash_types = ['SMB-NT']
        self.assert_done(self.add_user())
        self.assertIn('alice', host.mac.nt_hashes)

    def test_warns_of_remote_login_for_everybody(self):
        host.mac.ssh = True
        self.assertIn('Remote Login is open to all users of this Mac', self.add_user().output)
        host.mac.add('Groups', 'com.apple.access_ssh', PrimaryGroupID='398')
        self.assertEqual(self.add_user('carol').output, '')

    def test_notes_members_of_a_group_twice(self):
        host.mac.add('Groups', machost.ACCESS_GROUP, PrimaryGroupID='399')
        before = host.snapshot()

        def refuse(call):
            host.fault = (1, 10 ** 6, 'refuse') if call.name == 'dseditgroup' and '-d' in call.args else None
        for hook in (None, refuse):
            self.assert_done(self.add_user())
            self.assertEqual(len(host.mac.records['Groups'][machost.ACCESS_GROUP]['GroupMembers']), 1)
            host.hook = hook
            self.assert_done(self.run_script('rmuser', 'alice'))
            host.hook = host.fault = None
            self.assert_unchanged(before)

    def test_does_not_report_pipes_as_left_out(self):
        self.assert_done(self.add_user())
        os.mkfifo(self.folder + '/pipe')
        os.mkfifo(self.folder + '/another', 0o600)
        os.chown(self.folder + '/pipe', 501, -1)
        self.assertEqual(self.add_share().output, '')


class Callers(MacTest):
    """Callers that die, or have an odd environment."""

    def wait_for(self, condition):
        end = time.monotonic() + HANG
        while not condition():
            self.assertLess(time.monotonic(), end)
            time.sleep(0.05)

    def test_callers_that_die_meanwhile_leave_nothing(self):
        for script, args in (('adduser', ['alice', 'alice', self.password_file]),
                             ('addshare', ['alice', self.password_file, self.folder, 'Docs', 'rw'])):
            with self.subTest(script):
                if script == 'addshare':
                    host.wipe()
                    session = self.session()
                    self.assert_done(self.add_user(run=session.run))
                else:
                    session = self.session()
                before = host.snapshot()
                killed = []

                def kill(call, session=session, killed=killed):
                    if call.name == 'nc' and not killed:
                        killed.append(call)
                        session.process.kill()
                        session.process.wait()
                host.hook = kill
                session.begin(self.argv(script, args))
                self.wait_for(lambda killed=killed: killed)
                self.wait_for(lambda before=before: host.snapshot() == before)

    def test_callers_that_die_before_leave_nothing(self):
        """The script's parent is then process 1, which never ends."""
        wait = '(while kill -0 $$ 2>/dev/null; do :; done; exec "$@") &'
        self.assert_done(self.add_user('carol'))
        for script, args in (('adduser', ['alice', 'alice', self.password_file]),
                             ('addshare', ['carol', self.password_file, self.folder, 'Docs', 'rw'])):
            with self.subTest(script):
                before = host.snapshot()
                with subprocess.Popen(['/bin/dash', '-c', wait, 'dash', *self.argv(script, args)], text=True,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as caller:
                    caller.wait(HANG)
                    self.assertIn('the caller has gone', caller.stdout.read())
                self.assert_unchanged(before)

    def odd_environment(self, zone):
        return {'PATH': EVIL, 'LANG': 'de_DE.UTF-8', 'LC_ALL': 'de_DE.UTF-8', 'TZ': zone, 'CDPATH': '/etc:/usr',
                'GREP_OPTIONS': '-v', 'COMMAND_MODE': 'legacy', 'IFS': 'a', 'ENV': EVIL + '/env',
                'PELAGO_STARTED_ANEW': '1', 'POSIXLY_CORRECT': '1', 'BASH_ENV': EVIL + '/env',
                'BASH_FUNC_cat%%': '() { touch ' + EVIL + '/ran; }', 'SHELLOPTS': 'allexport:noglob'}

    def make_evil_programs(self):
        os.makedirs(EVIL, exist_ok=True)
        for name in ('awk', 'cat', 'cd', 'grep', 'sed', 'sleep', 'ps', 'env', 'dash', 'rm', 'od', 'iconv', 'head'):
            write(EVIL + '/' + name, '#!/bin/sh\n: >%s/ran\n' % EVIL, 0o755)
        write(EVIL + '/env', ': >%s/ran\n' % EVIL, 0o755)

    def test_may_have_any_environment_and_change_it(self):
        self.make_evil_programs()
        host.mac.add('Groups', machost.ACCESS_GROUP, PrimaryGroupID='399')
        before = host.snapshot()
        previous = os.umask(0)
        self.addCleanup(os.umask, previous)
        zones = iter(('Europe/Berlin', 'Asia/Tokyo', 'UTC', 'America/Los_Angeles'))
        self.assert_done(self.add_user(env=self.odd_environment(next(zones))))
        self.assert_done(self.add_share(env=self.odd_environment(next(zones))))
        modes = {mode & 0o077 for mode, _ in machost.tree('/var/db').values()} | \
            {mode & 0o077 for mode, _ in machost.tree('/var/run/pelago').values()}
        self.assertEqual(modes, {0})
        for path in (machost.STATE, machost.LOCKS, machost.STATE + '/shares', machost.STATE + '/lastNumber'):
            self.assertEqual(os.stat(path).st_mode & 0o077, 0, path)
        self.remove_both(env=self.odd_environment(next(zones)))
        self.assert_unchanged(before)
        self.assertFalse(os.path.exists(EVIL + '/ran'))
        for call in host.calls:
            names = {os.fsdecode(one).partition('=')[0] for one in call.environ.split(b'\0') if one}
            self.assertLessEqual(names, {'PATH', 'LC_ALL', 'TZ', 'PWD', 'OLDPWD', 'SHLVL', '_',
                                         'PELAGO_STARTED_ANEW'}, call)

    def test_session_survives_a_change_of_time_zone(self):
        for zone in ('Europe/Berlin', 'Asia/Tokyo'):
            environ = dict(os.environ, TZ=zone, LANG='de_DE.UTF-8')
            host.mac.zone = len(zone)
            if zone == 'Europe/Berlin':
                self.assert_done(self.add_user(env=environ))
                self.assertRegex(read(machost.STATE + '/users/alice'), rb'^\d+ \w{3} \w{3} \d+ [\d:]{8} \d{4}\n$')
            else:
                self.assert_refused(self.add_user(run=self.session().run), 'in use')
                self.assert_refused(self.add_user('alice', env=environ), 'in use')
                self.assert_done(self.run_script('rmuser', 'alice', env=environ))

    def test_may_start_the_scripts_with_another_shell(self):
        before = host.snapshot()
        for shell in (['/bin/bash', '--posix'], ['/bin/bash'], []):
            with self.subTest(shell):
                done = subprocess.run([*shell, script_path('adduser'), 'alice', 'alice', self.password_file],
                                      capture_output=True, text=True, timeout=HANG, check=False)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (0, '', ''))
                self.assertIn('alice', host.mac.nt_hashes)
                self.assert_done(self.run_script('rmuser', 'alice'))
                self.assert_unchanged(before)


if __name__ == '__main__':
    unittest.main()
