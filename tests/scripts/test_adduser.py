"""adduser.sh makes the user that a share is served to."""

import base64
import fcntl
import os
import signal
import subprocess
import sys
import unittest

import sambahost
from sambahost import (HANG, STATE, command, read, run_failing, run_script, samba_knows, script_path,
                       user_exists, wait_until, write)

EVERY_BYTE = bytes(byte for byte in range(1, 256) if byte != 0x0A)
NOT_TEXT = b'\xff\xfe'
FIRST_NUMBER = 1879048192

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


class AddUser(sambahost.ScriptTest):

    def add(self, *args, **kwargs):
        return run_script('adduser', *(args or ('alice', 'alice', self.password_file)), **kwargs)

    def test_makes_a_user_that_only_samba_admits(self):
        self.assert_done(self.add())
        fields = command('getent', 'passwd', 'alice').rstrip('\n').split(':')
        self.assertEqual(fields[4:], ['Pelago share user', '/nonexistent', '/usr/sbin/nologin'])
        self.assertGreaterEqual(int(fields[2]), FIRST_NUMBER, 'a number that nobody else gives out')
        self.assertEqual(fields[3], '65534', 'the group of nobody')
        self.assertNotIn(b'\nalice:', read('/etc/group'))
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

    def taken_by(self, program, password):
        """Makes and removes a user with that password, and returns the program's standard input."""
        taken = self.scratch + '/taken'
        write(self.password_file, password)
        with sambahost.stand_in(program, 'cat >%s; exec $real "$@" <%s' % (taken, taken)):
            self.assert_done(self.add())
            self.assert_done(run_script('rmuser', 'alice'))
        return read(taken)

    def test_hands_over_every_byte_as_it_is(self):
        half = EVERY_BYTE.index(0x80)
        self.assertEqual(self.taken_by('python3', EVERY_BYTE[:half]), EVERY_BYTE[:half])
        for password in (EVERY_BYTE[half:half + 127], EVERY_BYTE[-127:]):
            self.assertEqual(self.taken_by('smbpasswd', password), 2 * (password + b'\n'))

    def test_random_password_precedes_one_that_is_not_text(self):
        first, second = (self.taken_by('python3', NOT_TEXT) for _ in range(2))
        self.assertRegex(first, rb'\A[a-p]{64}\Z')
        self.assertNotEqual(first, second)

    def test_refuses_passwords_that_samba_would_truncate_or_ignore(self):
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
        with self.unchanged():
            for ordinal in (1, 2):
                self.assert_refused(
                    run_failing('read', 'EIO', 'adduser', 'alice', 'alice', self.password_file,
                                path=self.password_file, ordinal=ordinal),
                    'cannot read the password file: "%s": Input/output error' % self.password_file)

    def test_warns_when_others_can_read_the_password_file(self):
        for number, (mode, count) in enumerate(((0o640, 1), (0o604, 1), (0o622, 0), (0o400, 0))):
            with self.subTest(oct(mode)):
                os.chmod(self.password_file, mode)
                user = 'user%d' % number
                result = self.add(user, user, self.password_file)
                self.assert_done(result)
                self.assertEqual(result.output.count('others than its owner can read'), count)

    def test_reads_the_password_file_only_once(self):
        # A pipe can be read only once.
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
            for user in ('s-1-1-0', 's-1', 's-9x'):
                with self.subTest(user):
                    self.assert_refused(self.add(user, user, self.password_file), 'takes it for a SID')
        self.assert_done(self.add('s-', 's-', self.password_file))
        self.assert_done(self.add('s-a1', 's-a1', self.password_file))

    def test_refuses_wrong_arguments(self):
        with self.unchanged():
            self.assert_refused(self.add('alice', 'bobby', self.password_file), 'differ')
            self.assert_refused(self.add('alice'), 'usage')
            self.assert_refused(self.add('alice', 'alice'), 'usage')
            self.assert_refused(self.add('alice', 'alice', self.password_file, 'more'), 'usage')

    def test_refuses_users_and_groups_that_are_not_ours(self):
        command('groupadd', 'justagroup')
        self.addCleanup(command, 'groupdel', 'justagroup')
        command('useradd', '--badname', 'CARL')
        self.addCleanup(command, 'userdel', 'CARL')
        with self.unchanged():
            for user, reason in (('carl', 'user "CARL" exists already, and Samba would hold carl for'),
                                 ('root', 'user root exists'), ('bob', 'user bob exists'),
                                 ('justagroup', 'group justagroup exists already')):
                with self.subTest(user):
                    self.assert_refused(self.add(user, user, self.password_file), reason)

    def test_keeps_the_password_of_an_existing_samba_account(self):
        # The Unix user is gone; only Samba's own entry, in another case, has the name.
        command('useradd', '--badname', 'Zoe')
        subprocess.run(['smbpasswd', '-s', '-a', 'Zoe'], input=b'hers\nhers\n', check=True,
                       stdout=subprocess.DEVNULL)
        self.addCleanup(command, 'pdbedit', '-x', '-u', 'Zoe', check=False)
        command('userdel', 'Zoe')
        self.assertTrue(samba_knows('zoe'))
        with self.unchanged():
            self.assert_refused(self.add('zoe', 'zoe', self.password_file), 'Samba knows')

    def test_refuses_while_the_package_is_being_removed(self):
        os.makedirs('/run/pelago', exist_ok=True)
        closed = write('/run/pelago/closed', '')
        self.addCleanup(os.unlink, closed)
        with self.unchanged():
            self.assert_refused(self.add(), 'no session can begin, for the package is being removed')

    def test_does_not_take_a_reaper_for_its_caller(self):
        # A reaper of orphans, such as a supervisor, keeps running, and so would a session of which it were the caller.
        reaper = ('import ctypes,os,sys\n'
                  'ctypes.CDLL(None).prctl(36, 1)\n' # PR_SET_CHILD_SUBREAPER
                  'reader, writer = os.pipe()\n'
                  'if os.fork() == 0:\n'
                  '    os.setpgid(0, 0)\n'
                  '    if os.fork() == 0:\n'
                  '        os.close(writer)\n'
                  '        os.read(reader, 1)\n' # until its parent is gone
                  '        os.execv(sys.argv[1], sys.argv[1:])\n'
                  '    os._exit(0)\n'
                  'os.wait()\n'
                  'os.close(writer)\n'
                  'sys.exit(os.waitstatus_to_exitcode(os.wait()[1]))\n')
        with self.unchanged():
            done = subprocess.run([sys.executable, '-c', reaper, script_path('adduser'), 'alice', 'alice',
                                   self.password_file], stdin=subprocess.DEVNULL, capture_output=True,
                                  timeout=HANG, check=False)
            self.assertEqual((done.returncode, done.stderr), (1, b'adduser.sh: the caller has gone\n'))

    def test_refuses_a_second_user_of_the_same_name(self):
        self.assert_done(self.add())
        with self.unchanged():
            self.assert_refused(self.add(), 'in use')
            self.assert_refused(self.add(run=self.session().run), 'in use')

    def test_only_root_may_do_it(self):
        os.chown(self.password_file, sambahost.pwd.getpwnam('bob').pw_uid, -1)
        with self.unchanged():
            self.assert_refused(self.add(user='bob'), 'only root may do this')

    def test_the_program_refuses_what_is_no_command(self):
        for args in ((), ('',), ('adduse',), ('adduser.sh', 'alice', 'alice', self.password_file)):
            with self.subTest(args):
                self.assert_refused(sambahost.run_command([sambahost.PROGRAM, *args]),
                                    'pelagoHost: usage: pelagoHost COMMAND [ARGUMENT...]')

    @unittest.skipUnless('PELAGO_REFUSE_ALLOCATION' in os.environ, 'the sanitizer brings its own memory')
    def test_says_when_it_has_no_memory(self):
        proof, answers = self.scratch + '/proof', []
        for at in range(1, 1000):
            environment = dict(os.environ, LD_PRELOAD=os.environ['PELAGO_REFUSE_ALLOCATION'],
                               REFUSE_AT=str(at), REFUSE_PROOF=proof)
            result = sambahost.run_command([sambahost.PROGRAM, 'adduser', 'A' * 100, 'A', 'file'],
                                           env=environment)
            self.assertEqual(result.status, 1, result)
            if not os.path.exists(proof):
                break
            os.unlink(proof)
            answers.append(result.output.split(': ')[1])
        self.assertIn('out of memory\n', answers)
        self.assertLess(len(answers), 999, 'the last run had all its memory')

    def test_waits_for_another_script_to_end(self):
        self.assert_done(self.add('warm', 'warm', self.password_file)) # makes the lock file
        with open(STATE + '/lock', 'wb') as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            # pylint: disable-next=consider-using-with
            script = subprocess.Popen([script_path('adduser'), 'alice', 'alice', self.password_file])
            wait_until(lambda: sambahost.has_open(script.pid, STATE + '/lock'), 'the script to wait')
            self.assertFalse(user_exists('alice'))
        self.assertEqual(script.wait(HANG), 0)
        self.assertTrue(user_exists('alice'))

    def test_does_not_wait_for_ever(self):
        self.assert_done(self.add('warm', 'warm', self.password_file))
        with self.unchanged(), open(STATE + '/lock', 'wb') as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.assert_refused(self.add(env=sambahost.in_haste()),
                                'another share script has not ended within 60 s')

    def test_passes_no_open_descriptors_to_other_programs(self):
        self.stand_in('useradd', 'ls -l /proc/self/fd >%s/open; exec $real "$@"' % self.scratch)
        self.assert_done(self.add())
        descriptors = read(self.scratch + '/open').decode()
        self.assertEqual(descriptors.count(' -> '), 4, 'the three, and that of ls itself: ' + descriptors)
        self.assertNotIn('pelago', descriptors)

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
        self.stand_in('python3', 'echo chatter; echo chatter >&2; exit 1')
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

    def executed(self, *argv, **kwargs):
        """Runs the command under strace, and returns its output and all calls that executed a program."""
        log = self.scratch + '/calls'
        done = subprocess.run(
            ['strace', '-f', '-v', '-s', '100000', '-qq', '-e', 'trace=execve', '-o', log, *argv],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=HANG, check=False, **kwargs)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout.decode(), read(log).decode()

    def test_password_is_in_no_argument_or_environment(self):
        environment = dict(os.environ, PELAGO_PRESET='preset', **sambahost.SANITIZER)
        helper = r'"/usr/bin/python3", \["/usr/bin/python3", "-I", "-S", "-B", ".*/host/sambaAccount.py"'
        for user, secret, program in (('alice', b'SecretWord', helper),
                                      ('carol', b'SecretWord\xff', '"smbpasswd", "-s", "carol"')):
            with self.subTest(user):
                write(self.password_file, secret + b'\n')
                calls = self.executed(script_path('adduser'), user, user, self.password_file,
                                      env=environment)[1]
                self.assertRegex(calls, program)
                self.assertEqual(calls.count('PELAGO_PRESET'), 2, 'the script and its program')
                environments = calls.count('["PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"]')
                self.assertGreaterEqual(environments, 2, calls)
                for form in (b'SecretWord', b'Secret', secret.hex().encode(), base64.b64encode(secret)[:12]):
                    self.assertNotIn(form.decode(), calls)
                self.assertEqual(sambahost.client(user, secret, 'IPC$', 'exit')[0], 0)

    def test_shell_options_do_not_reveal_the_password(self):
        secret = 'SecretWord'
        write(self.password_file, secret + '\n')
        said, calls = self.executed(
            'bash', '--posix', script_path('adduser'), 'alice', 'alice', self.password_file,
            env=dict(os.environ, SHELLOPTS='allexport:xtrace:verbose', **sambahost.SANITIZER))
        self.assertIn('+ exec', said, 'the options were taken')
        self.assertIn('sambaAccount.py', calls)
        self.assertNotIn(secret, calls + said)
        self.assertEqual(sambahost.client('alice', secret, 'IPC$', 'exit')[0], 0)


if __name__ == '__main__':
    unittest.main()
