"""adduser.sh: the user that a share is served to."""

import base64
import os
import re
import signal
import subprocess
import unittest

import sambahost
from sambahost import (HANG, command, run_script, samba_knows, script_path, user_exists, wait_until,
                       write)

EVERY_BYTE = bytes(byte for byte in range(1, 256) if byte != 0x0A)

PASSWORDS = {
    'OneByte': b'x',
    'BlanksAtTheEnds': b'  a b  ',
    'OnlyBlanks': b'   ',
    'Quotes': b'a"b\'c`d`',
    'Dollar': b'$HOME $(id) ${x}',
    'Backslashes': b'\\n\\\\x\\',
    'Percent': b'%s%d%%%n',
    'LeadingDash': b'-n --',
    'CarriageReturn': b'abc\r',
    'TabsAndControls': b'\ta\x01\x7fb\t',
    'Comment': b'#a=b;c',
    'Glob': b'*?[a]~',
    'Utf8': 'pässwörd €😀'.encode(),
    'ShellMarkerBytes': b'\x81\x82\x83\x84\x85\x86\x87\x88',
    'NotUtf8': b'\xff\xfe\xc3(',
    'Longest': b'0123456789' * 12 + b'abcdefg',
}

REFUSED_PASSWORDS = {
    'EmptyFile': (b'', 'empty'),
    'EmptyLine': (b'\n', 'empty'),
    'TwoLines': (b'one\ntwo\n', 'more than one line'),
    'TwoEqualLines': (b'one\none\n', 'more than one line'),
    'SecondLineEmpty': (b'one\n\n', 'more than one line'),
    'Nul': (b'one\0two\n', 'NUL'),
    'NulFirst': (b'\0\n', 'NUL'),
    'NulLast': (b'one\0', 'NUL'),
    '128Bytes': (b'a' * 128, 'longer than 127'),
    '128BytesAndNewline': (b'a' * 128 + b'\n', 'longer than 127'),
    '255Bytes': (b'a' * 255 + b'\n', 'longer than 127'),
    '600Bytes': (b'a' * 600 + b'\n', 'longer than 127'),
}

REFUSED_USERS = {
    'Empty': '', 'Blank': 'a b', 'BlankAfter': 'alice ', 'Dash': '-alice', 'Digit': '1alice',
    'Dot': '.', 'DotDot': '..', 'UpperCase': 'Alice', 'Group': '@alice', 'Plus': '+alice',
    'Ampersand': '&alice', 'Percent': 'a%u', 'Slash': 'a/b', 'Up': 'a/../b', 'Backslash': 'a\\b',
    'Colon': 'a:b', 'Comma': 'a,b', 'Newline': 'a\nb', 'NewlineAfter': 'alice\n', 'Glob': 'a*',
    'Quote': 'a"b', 'Semicolon': 'a;b', 'Dollar': 'a$b', 'Unicode': 'alicé', 'NotUtf8': b'a\xff',
    '33Characters': 'a' * 33,
}


def heed_interrupts():
    """Whoever runs the tests in the background has them ignore SIGINT."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)


class AddUser(sambahost.ScriptTest):

    def add(self, *args, **kwargs):
        return run_script('adduser', *(args or ('alice', 'alice', self.password_file)), **kwargs)

    def test_makes_a_user_that_can_log_in_to_samba_only(self):
        self.assert_done(self.add())
        fields = command('getent', 'passwd', 'alice').rstrip('\n').split(':')
        self.assertEqual(fields[4:], ['Pelago share user', '/nonexistent', '/usr/sbin/nologin'])
        self.assertLess(int(fields[2]), 1000, 'a system user')
        self.assertRegex(sambahost.read('/etc/shadow').decode(), r'(?m)^alice:!:', 'no password')
        status, output = sambahost.client('alice', self.password, 'IPC$', 'exit')
        self.assertEqual(status, 0, output)
        self.assert_not_served('LOGON_FAILURE', 'IPC$', password='wrong')

    def test_says_nothing_when_all_is_well(self):
        self.assertEqual(self.add().output, '')

    def test_takes_the_longest_and_oddest_names(self):
        for user in ('a' * 32, '_', 'a.b-c_d9', 'a.'):
            with self.subTest(user):
                self.assert_done(self.add(user, user, self.password_file))
                self.assertTrue(samba_knows(user))

    def test_every_password_logs_in(self):
        for name, password in PASSWORDS.items():
            for end in (b'\n', b'') if name in ('OneByte', 'Backslashes') else (b'\n',):
                user = name.lower() + str(len(end))
                with self.subTest(name, end=end):
                    write(self.password_file, password + end)
                    self.assert_done(self.add(user, user, self.password_file))
                    status, output = sambahost.client(user, password, 'IPC$', 'exit')
                    self.assertEqual(status, 0, output)
                    status, output = sambahost.client(user, password[:-1] + b'?', 'IPC$', 'exit')
                    self.assertNotEqual(status, 0, output)

    def test_hands_over_every_byte_as_it_is(self):
        taken = self.scratch + '/taken'
        self.stand_in('smbpasswd', 'cat >%s; exec $real "$@" <%s' % (taken, taken))
        for start in range(0, len(EVERY_BYTE), 127):
            password = EVERY_BYTE[start:start + 127]
            with self.subTest(start):
                write(self.password_file, password)
                self.add()
                self.assertEqual(sambahost.read(taken), password + b'\n' + password + b'\n')
                sambahost.wipe()

    def test_refuses_passwords_that_samba_would_cut_or_leave_out(self):
        for name, (content, reason) in REFUSED_PASSWORDS.items():
            with self.subTest(name), self.unchanged():
                write(self.password_file, content)
                self.assert_refused(self.add(), reason)

    def test_refuses_a_password_file_that_cannot_be_read(self):
        with self.unchanged():
            self.assert_refused(self.add('alice', 'alice', '/nonexistent'), 'cannot read')
            self.assert_refused(self.add('alice', 'alice', '/etc'), 'is a folder')
            self.assert_refused(self.add('alice', 'alice', ''), 'empty')

    def test_refuses_a_password_whose_reading_fails_half_way(self):
        self.stand_in('head', 'printf abc; exit 1')
        with self.unchanged():
            self.assert_refused(self.add(), 'NUL')

    def test_reads_the_password_file_only_once(self):
        # A pipe gives its content once.
        reader, writer = os.pipe()
        os.write(writer, b'correct horse\n')
        os.close(writer)
        with open(reader, 'rb'):
            self.assert_done(self.add('alice', 'alice', '/dev/fd/%d' % reader, pass_fds=[reader]))
        self.assertEqual(sambahost.client('alice', 'correct horse', 'IPC$', 'exit')[0], 0)

    def test_takes_hostile_names_of_the_password_file(self):
        for number, name in enumerate((' "\'$HOME;`id`*\\', 'new\n', 'É ', '-n', '%s')):
            with self.subTest(name):
                user = 'user%d' % number
                write(self.scratch + '/' + name, 'secret\n')
                self.assert_done(self.add(user, user, name, cwd=self.scratch))
                self.assertEqual(sambahost.client(user, 'secret', 'IPC$', 'exit')[0], 0)

    def test_refuses_names_that_mean_something_else_somewhere(self):
        with self.unchanged():
            for name, user in REFUSED_USERS.items():
                with self.subTest(name):
                    self.assert_refused(self.add(user, user, self.password_file), 'a user name')

    def test_refuses_wrong_arguments(self):
        with self.unchanged():
            self.assert_refused(self.add('alice', 'bobby', self.password_file), 'differ')
            self.assert_refused(self.add('alice'), 'usage')
            self.assert_refused(self.add('alice', 'alice'), 'usage')
            self.assert_refused(self.add('alice', 'alice', self.password_file, 'more'), 'usage')

    def test_refuses_users_and_groups_that_are_not_ours(self):
        command('groupadd', 'justagroup')
        self.addCleanup(command, 'groupdel', 'justagroup')
        with self.unchanged():
            for user, reason in (('root', 'user root exists'), ('bob', 'user bob exists'),
                                 ('justagroup', 'group justagroup exists already')):
                with self.subTest(user):
                    self.assert_refused(self.add(user, user, self.password_file), reason)

    def test_never_resets_the_password_of_an_account_that_samba_has(self):
        # The Unix user is gone, so that only Samba's own entry, in another case, stands in the way.
        command('useradd', '--badname', 'Zoe')
        subprocess.run(['smbpasswd', '-s', '-a', 'Zoe'], input=b'hers\nhers\n', check=True,
                       stdout=subprocess.DEVNULL)
        self.addCleanup(command, 'pdbedit', '-x', '-u', 'Zoe', check=False)
        command('userdel', 'Zoe')
        self.assertTrue(samba_knows('zoe'))
        with self.unchanged():
            self.assert_refused(self.add('zoe', 'zoe', self.password_file), 'Samba knows')

    def test_refuses_a_second_user_of_the_same_name(self):
        self.assert_done(self.add())
        with self.unchanged():
            self.assert_refused(self.add(), 'in use')
            self.assert_refused(self.add(run=self.session().run), 'in use')

    def test_undoes_everything_when_a_step_fails(self):
        steps = {
            'useradd': 'exit 1',
            'useradd after its work': 'PROGRAM=useradd $real "$@"; exit 1',
            'smbpasswd': 'exit 1',
            'smbpasswd after its work': '$real "$@"; exit 1',
            'smbpasswd does nothing': 'exit 0',
            'pdbedit': 'exit 1',
        }
        for step, text in steps.items():
            with self.subTest(step), self.unchanged():
                with sambahost.stand_in(step.split()[0], text):
                    result = self.add()
                self.assertEqual(result.status, 1, result)
                self.assertRegex(result.output, r'adduser\.sh: (cannot|Samba did not)')

    def test_says_what_is_left_when_the_password_database_breaks(self):
        broken = self.scratch + '/broken'
        self.stand_in('smbpasswd', '[ -e %s.once ] || { touch %s %s.once; exit 1; }\n'
                                   'exec $real "$@"' % (broken, broken, broken))
        self.stand_in('pdbedit', '[ ! -e %s ] || { echo broken; exit 3; }\nexec $real "$@"' % broken)
        result = self.add()
        self.assert_refused(result, "cannot read Samba's password database: broken")
        self.assertIn('the user alice is left behind', result.output)
        os.unlink(broken)
        self.assert_done(self.add())
        self.assertEqual(sambahost.client('alice', self.password, 'IPC$', 'exit')[0], 0)

    def test_says_what_is_left_when_the_user_database_breaks(self):
        self.stand_in('smbpasswd', 'touch %s/broken; exit 1' % self.scratch)
        self.stand_in('getent', '[ ! -e %s/broken ] || exit 3\nexec $real "$@"' % self.scratch)
        result = self.add()
        self.assert_refused(result, 'cannot read the user database')
        self.assertIn('the user alice is left behind', result.output)

    def test_nobody_else_can_hold_the_lock(self):
        self.assert_done(self.add())
        lock = os.stat(sambahost.STATE + '/lock')
        self.assertEqual((lock.st_uid, lock.st_mode & 0o7777), (0, 0o600))

    def test_holds_the_lock_until_everything_is_undone(self):
        self.stand_in('smbpasswd', 'exit 1')
        self.stand_in('userdel', 'flock -n /run/pelago/lock true && touch %s/free\nexec $real "$@"'
                      % self.scratch)
        self.assert_refused(self.add(), 'cannot set the password')
        self.assertFalse(user_exists('alice'))
        self.assertFalse(os.path.exists(self.scratch + '/free'))

    def test_undoes_everything_when_it_is_interrupted(self):
        wait = 'touch started; while [ ! -e go ]; do sleep 0.01; done'
        for name, text in (('useradd', '$real "$@"; ' + wait),
                           ('smbpasswd', wait + '; exec $real "$@"')):
            for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
                with self.subTest(name, signal=number), self.unchanged():
                    with sambahost.stand_in(name, 'cd %s; %s' % (self.scratch, text)), \
                            subprocess.Popen([script_path('adduser'), 'alice', 'alice',
                                              self.password_file], stderr=subprocess.DEVNULL,
                                             preexec_fn=heed_interrupts) as script:
                        wait_until(lambda: os.path.exists(self.scratch + '/started'), 'the step')
                        script.send_signal(number)
                        write(self.scratch + '/go', '')
                        self.assertEqual(script.wait(HANG), 128 + number)
                    os.unlink(self.scratch + '/started')
                    os.unlink(self.scratch + '/go')

    def test_takes_over_what_a_killed_script_left(self):
        with sambahost.stand_in('smbpasswd', 'touch %s/started; sleep 60' % self.scratch), \
                subprocess.Popen([script_path('adduser'), 'alice', 'alice', self.password_file],
                                 start_new_session=True, stderr=subprocess.DEVNULL) as script:
            wait_until(lambda: os.path.exists(self.scratch + '/started'), 'the step')
            os.killpg(script.pid, signal.SIGKILL)
        self.assertTrue(user_exists('alice'))
        self.assertFalse(samba_knows('alice'))
        self.assert_done(self.add())
        self.assertEqual(sambahost.client('alice', self.password, 'IPC$', 'exit')[0], 0)

    def test_waits_for_another_script_to_end(self):
        self.assert_done(self.add('warm', 'warm', self.password_file)) # makes the lock file
        with subprocess.Popen(['flock', '/run/pelago/lock', 'cat'], stdin=subprocess.PIPE) as holder:
            wait_until(lambda: not sambahost.succeeds('flock', '-n', '/run/pelago/lock', 'true'),
                       'the lock to be held')
            with subprocess.Popen([script_path('adduser'), 'alice', 'alice',
                                   self.password_file]) as script:
                wait_until(lambda: sambahost.has_child(script.pid, 'flock'), 'the script to wait')
                self.assertFalse(user_exists('alice'))
                holder.stdin.close()
                self.assertEqual(script.wait(HANG), 0)
        self.assertTrue(user_exists('alice'))

    def test_does_not_wait_for_ever(self):
        self.assert_done(self.add('warm', 'warm', self.password_file))
        self.stand_in('flock', '[ "$*" != "-w 60 9" ] || exit 1')
        with self.unchanged():
            self.assert_refused(self.add(), 'another share script has not ended')

    def test_gives_the_lock_to_no_other_program(self):
        self.stand_in('useradd', 'ls -l /proc/self/fd >%s/open; exec $real "$@"' % self.scratch)
        self.assert_done(self.add())
        descriptors = sambahost.read(self.scratch + '/open').decode()
        self.assertIn('/dev/null', descriptors)
        self.assertNotIn('/run/pelago', descriptors)

    def test_several_at_once_each_get_their_user(self):
        users = ['user%d' % number for number in range(4)]
        scripts = [subprocess.Popen([script_path('adduser'), user, user, self.password_file])
                   for user in users]
        self.assertEqual([script.wait(HANG) for script in scripts], [0] * len(users))
        self.assertTrue(all(samba_knows(user) for user in users))

    def test_leaves_standard_input_to_the_caller(self):
        self.stand_in('useradd', 'cat >/dev/null; exec $real "$@"')
        reader, writer = os.pipe()
        os.write(writer, b'for the tool\n')
        os.close(writer)
        with open(reader, 'rb') as stdin:
            self.assert_done(self.add(stdin=stdin))
            self.assertEqual(stdin.read(), b'for the tool\n')

    def test_works_whatever_the_caller_did_with_signals(self):
        for number in (signal.SIGCHLD, signal.SIGPIPE, signal.SIGTERM):
            with self.subTest(number):
                result = self.add(preexec_fn=lambda number=number: signal.signal(number, signal.SIG_IGN))
                self.assert_done(result)
                self.assertTrue(samba_knows('alice'))
                self.assert_done(run_script('rmuser', 'alice'))

    def test_works_with_every_standard_descriptor_closed(self):
        def close_all():
            for descriptor in (0, 1, 2):
                os.close(descriptor)
        done = subprocess.run([script_path('adduser'), 'alice', 'alice', self.password_file],
                              preexec_fn=close_all, timeout=HANG, check=False)
        self.assertEqual(done.returncode, 0)
        self.assertTrue(samba_knows('alice'))

    def test_undoes_everything_when_nobody_reads_the_reason(self):
        self.stand_in('smbpasswd', 'echo chatter; echo chatter >&2; exit 1')
        for ignore in (signal.SIG_DFL, signal.SIG_IGN):
            with self.subTest(ignore), self.unchanged():
                reader, writer = os.pipe()
                os.close(reader)
                with open(writer, 'wb') as broken:
                    done = subprocess.run(
                        [script_path('adduser'), 'alice', 'alice', self.password_file],
                        stdout=broken, stderr=broken, timeout=HANG, check=False,
                        preexec_fn=lambda ignore=ignore: signal.signal(signal.SIGPIPE, ignore))
                self.assertEqual(done.returncode, 1)

    def test_the_password_is_in_no_argument_and_in_no_environment(self):
        secret = 'SecretWord'
        write(self.password_file, secret + '\n')
        # Every variable of the scripts comes exported, so that one that is assigned stays it.
        names = set()
        for name in os.listdir(sambahost.SHARES):
            text = sambahost.read('%s/%s' % (sambahost.SHARES, name)).decode()
            names.update(re.findall(r'\b([A-Za-z_][A-Za-z0-9_]*)=', text))
        self.assertIn('passwordOctal', names)
        environment = dict({name: 'preset' for name in names}, PATH=os.environ['PATH'])
        log = self.scratch + '/calls'
        done = subprocess.run(
            ['strace', '-f', '-v', '-s', '100000', '-qq', '-e', 'trace=execve', '-o', log,
             script_path('adduser'), 'alice', 'alice', self.password_file],
            env=environment, stderr=subprocess.PIPE, timeout=HANG, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        calls = sambahost.read(log).decode()
        self.assertRegex(calls, r'"smbpasswd", "-s", "-a", "alice"')
        self.assertIn('STATE=/run/pelago', calls, 'environments are in the log')
        octal = [oct(ord(letter))[2:] for letter in secret]
        for form in (secret, secret[:6], secret.encode().hex(), ' '.join(octal), '\\\\'.join(octal),
                     base64.b64encode(secret.encode()).decode()):
            self.assertNotIn(form, calls)
        self.assertEqual(sambahost.client('alice', secret, 'IPC$', 'exit')[0], 0)

    def test_no_option_of_the_shell_gives_the_password_away(self):
        secret = 'SecretWord'
        write(self.password_file, secret + '\n')
        log = self.scratch + '/calls'
        done = subprocess.run(
            ['strace', '-f', '-v', '-s', '100000', '-qq', '-e', 'trace=execve', '-o', log,
             'bash', '--posix', script_path('adduser'), 'alice', 'alice', self.password_file],
            env=dict(os.environ, SHELLOPTS='allexport:xtrace:verbose'), stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, timeout=HANG, check=False)
        self.assertEqual(done.returncode, 0, done.stdout)
        calls = sambahost.read(log).decode()
        self.assertIn('common.sh', done.stdout.decode(), 'the options were taken')
        self.assertRegex(calls, r'"smbpasswd", "-s", "-a", "alice"')
        octal = [oct(ord(letter))[2:] for letter in secret]
        forms = [secret] + [between.join(octal) for between in (' ', '\\', '\\\\')]
        for form in forms:
            self.assertNotIn(form, calls)
            self.assertNotIn(form, done.stdout.decode())
        self.assertEqual(sambahost.client('alice', secret, 'IPC$', 'exit')[0], 0)


if __name__ == '__main__':
    unittest.main()
