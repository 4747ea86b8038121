"""adduser.sh when a step fails, when it is interrupted, and when its state is damaged or not its own."""

import fcntl
import os
import signal
import stat
import subprocess
import unittest

import sambahost
import test_adduser
from sambahost import (HANG, STATE, command, read, run_failing, run_script, samba_knows, script_path,
                       user_exists, wait_until, write)

MEMORY = '/var/lib/pelago/lastUserNumber'


def heed_interrupts():
    """Undoes that a shell makes tests in the background ignore SIGINT."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)


class AddUserFailures(sambahost.ScriptTest):

    add = test_adduser.AddUser.add

    def test_undoes_everything_when_a_step_fails(self):
        steps = {
            'useradd': ('echo why; exit 1', 'make the user alice: why'),
            'useradd after its work': ('PROGRAM=useradd $real "$@"; exit 1', 'make the user alice'),
            'python3': ('echo why; exit 1', "make Samba's account for alice: why"),
            'python3 after its work': ('$real "$@"; exit 1', "make Samba's account for alice: S-1-5-21-"),
            'python3 does nothing': ('exit 0', "make Samba's account for alice"),
            'smbpasswd': ('echo why; exit 1', 'set the password of alice: why'),
            'smbpasswd after its work': ('$real "$@"; exit 1', 'set the password of alice'),
        }
        for step, (text, reason) in steps.items():
            write(self.password_file, test_adduser.NOT_TEXT if 'smbpasswd' in step else 'text')
            with self.subTest(step), self.unchanged():
                with sambahost.stand_in(step.split()[0], text):
                    result = self.add()
                self.assert_refused(result, 'adduser.sh: cannot ' + reason)

    def test_undoes_everything_when_a_program_is_missing(self):
        with self.unchanged(), sambahost.stand_in('useradd', ''):
            os.unlink(sambahost.shutil.which('useradd'))
            self.assert_refused(self.add(), 'cannot make the user alice: cannot run useradd: No such file')

    def test_undoes_everything_when_a_system_call_fails(self):
        self.ask_files_only()
        command('rm', '-rf', STATE)
        users, memory = STATE + '/users', os.path.dirname(MEMORY)
        faults = (
            ('mkdir', 'ENOSPC', STATE, 'cannot make /run/pelago: No space left'),
            ('chmod', 'EPERM', STATE, 'cannot make /run/pelago: '),
            ('openat', 'EIO', STATE + '/lock', 'cannot open /run/pelago/lock: '),
            ('openat', 'EIO', '/etc/group', 'cannot read the group database: '),
            ('openat', 'ENOSPC', users + '/.new', 'cannot write /run/pelago/users/alice: '),
            ('write', 'ENOSPC', users + '/.new', 'cannot write /run/pelago/users/alice: '),
            ('rename', 'ENOSPC', users + '/.new', 'cannot write /run/pelago/users/alice: '),
            ('readlink', 'EACCES', '/proc/self/exe', 'cannot find out where this program lies'),
            ('pipe2', 'EMFILE', None, 'cannot make a pipe: '),
            ('clone', 'EAGAIN', None, 'cannot start /usr/bin/python3: '),
            ('mkdir', 'EROFS', memory, 'cannot make %s: ' % memory),
            ('openat', 'EIO', MEMORY, 'cannot open %s: ' % MEMORY),
            ('flock', 'ENOLCK', MEMORY, 'cannot open %s: ' % MEMORY),
            ('pwrite64', 'ENOSPC', MEMORY, 'cannot write %s: ' % MEMORY),
            ('openat', 'EIO', '/dev/urandom', 'cannot read /dev/urandom'),
        )
        write(self.password_file, test_adduser.NOT_TEXT)
        for call, error, path, reason in faults:
            with self.subTest(call, path=path), self.unchanged():
                self.assert_refused(run_failing(call, error, 'adduser', 'alice', 'alice',
                                                self.password_file, path=path), 'adduser.sh: ' + reason)

    def test_continues_when_the_looked_file_cannot_be_written(self):
        result = run_failing('openat', 'ENOSPC', 'adduser', 'alice', 'alice', self.password_file,
                             path=STATE + '/looked')
        self.assert_done(result)
        self.assertIn('cannot write /run/pelago/looked: No space left', result.output)
        self.assertFalse(os.path.exists(STATE + '/looked'), 'the next one looks again')

    def test_repairs_the_mode_of_half_made_folders(self):
        command('rm', '-rf', STATE)
        for path in (STATE, STATE + '/users', STATE + '/shares'):
            os.mkdir(path, 0o700)
        self.assert_done(self.add())
        for path in (STATE, STATE + '/users', STATE + '/shares'):
            self.assertEqual(os.stat(path).st_mode & 0o7777, 0o711)

    def test_refuses_when_the_user_database_is_unreadable(self):
        self.ask_files_only()
        self.assert_done(self.add('warm', 'warm', self.password_file)) # looks for what was left
        with self.unchanged():
            for ordinal in (1, 2):
                self.assert_refused(run_failing('openat', 'EIO', 'adduser', 'alice', 'alice',
                                                self.password_file, path='/etc/passwd', ordinal=ordinal),
                                    'cannot read the user database')

    def test_reports_leftovers_when_the_password_database_breaks(self):
        with sambahost.stand_in('python3', 'touch %s/broken; exit 1' % self.scratch), \
                sambahost.stand_in('pdbedit', '[ ! -e %s/broken ] || { echo broken; exit 3; }\n'
                                              'exec $real "$@"' % self.scratch):
            result = self.add()
        self.assert_refused(result, "cannot make Samba's account")
        self.assertIn('cannot remove alice from Samba: broken', result.output)
        self.assertIn('the user alice is left behind', result.output)
        self.assert_done(self.add())
        self.assertEqual(sambahost.client('alice', self.password, 'IPC$', 'exit')[0], 0)

    def test_reports_leftovers_when_the_user_database_breaks(self):
        args = ('adduser', 'alice', 'alice', self.password_file)
        self.ask_files_only()
        self.assert_done(self.add('warm', 'warm', self.password_file)) # looks for what was left
        with sambahost.stand_in('python3', 'exit 1'):
            opened = sambahost.straced.recorded([sambahost.PROGRAM, *args], '-P', '/etc/passwd', '-e',
                                                'trace=openat', check=False, stderr=subprocess.DEVNULL)
            result = run_failing('openat', 'EIO', *args, path='/etc/passwd', ordinal=len(opened))
        self.assert_refused(result, "cannot make Samba's account")
        self.assertIn('cannot read the user database', result.output)
        self.assertIn('the user alice is left behind', result.output)
        self.assert_done(self.add())

    def test_never_gives_a_number_again_soon(self):
        numbers = []
        for _ in range(3):
            self.assert_done(self.add())
            numbers.append(sambahost.pwd.getpwnam('alice').pw_uid)
            self.assert_done(run_script('rmuser', 'alice'))
        self.assertEqual(numbers, sorted(set(numbers)))

    def test_clock_set_back_does_not_repeat_a_number(self):
        self.addCleanup(os.unlink, MEMORY)
        self.assert_done(self.add('warm', 'warm', self.password_file))
        last = int(read(MEMORY)) + 1_000_000 # a number that the clock alone would reach in some days
        write(MEMORY, '%d\n' % last)
        command('useradd', '--uid', str(last + 1), 'taken')
        self.addCleanup(command, 'userdel', 'taken')
        self.assert_done(self.add())
        self.assertEqual(sambahost.pwd.getpwnam('alice').pw_uid, last + 2)
        self.assertEqual(read(MEMORY), b'%d\n' % (last + 2))

    def test_damaged_last_user_number_does_no_harm(self):
        self.addCleanup(os.unlink, MEMORY)
        os.makedirs(os.path.dirname(MEMORY), exist_ok=True)
        for number, text in enumerate(('', 'x\n', '-1\n', '0\n', '2147483646\n', '9' * 40)):
            with self.subTest(text):
                write(MEMORY, text)
                user = 'user%d' % number
                self.assert_done(self.add(user, user, self.password_file))
                self.assertGreaterEqual(sambahost.pwd.getpwnam(user).pw_uid, test_adduser.FIRST_NUMBER)

    def test_nobody_else_can_hold_the_lock(self):
        self.assert_done(self.add())
        lock = os.stat(sambahost.STATE + '/lock')
        self.assertEqual((lock.st_uid, lock.st_mode & 0o7777), (0, 0o600))

    def test_keeps_the_name_reserved_until_undo_ends(self):
        self.stand_in('python3', 'exit 1')
        self.stand_in('userdel', 'cp /run/pelago/users/alice %s/record; exec $real "$@"' % self.scratch)
        self.assert_refused(self.add(), "cannot make Samba's account")
        self.assertRegex(read(self.scratch + '/record'), rb'(?m)^maker \d+ \d+ [0-9a-f-]{36}$')

    def test_keeps_nobody_waiting_while_it_works(self):
        self.stand_in('useradd', self.waiting() + '; exec $real "$@"')
        with subprocess.Popen([script_path('adduser'), 'alice', 'alice', self.password_file]) as script:
            wait_until(self.started, 'the step')
            with open(STATE + '/lock', 'wb') as lock:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
            self.assert_refused(self.add(), 'the user alice is in use by a session that runs')
            self.go()
            self.assertEqual(script.wait(HANG), 0)

    def test_undoes_everything_when_it_is_interrupted(self):
        for name, text in (('useradd', '$real "$@"; ' + self.waiting()),
                           ('python3', self.waiting() + '; exec $real "$@"')):
            for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
                with self.subTest(name, signal=number), self.unchanged():
                    with sambahost.stand_in(name, text), \
                            subprocess.Popen([script_path('adduser'), 'alice', 'alice',
                                              self.password_file], stderr=subprocess.DEVNULL,
                                             preexec_fn=heed_interrupts) as script:
                        wait_until(self.started, 'the step')
                        script.send_signal(number)
                        self.go()
                        self.assertEqual(script.wait(HANG), 128 + number)
                    self.stop_waiting_for()

    def test_takes_over_what_a_killed_script_left(self):
        with sambahost.stand_in('python3', 'touch %s/started; sleep 60' % self.scratch), \
                subprocess.Popen([script_path('adduser'), 'alice', 'alice', self.password_file],
                                 start_new_session=True, stderr=subprocess.DEVNULL) as script:
            wait_until(lambda: self.started() and user_exists('alice'), 'the step')
            os.killpg(script.pid, signal.SIGKILL)
        self.assertFalse(samba_knows('alice'))
        self.assert_done(self.add())
        self.assertEqual(sambahost.client('alice', self.password, 'IPC$', 'exit')[0], 0)

    def test_undoes_everything_when_its_caller_has_gone(self):
        self.stand_in('useradd', '$real "$@"; ' + self.waiting())
        with self.unchanged():
            self.run_until_the_caller_has_gone('adduser', 'alice', 'alice', self.password_file)

    def test_refuses_to_begin_when_its_caller_has_gone(self):
        log = self.scratch + '/said'
        # The inner shell waits until the outer one has ended.
        command('sh', '-c', '(while [ -e /proc/$$ ]; do sleep 0.01; done; exec "$@") >%s 2>&1 &' % log,
                'sh', script_path('adduser'), 'alice', 'alice', self.password_file)
        wait_until(lambda: b'\n' in read(log), 'the reason')
        self.assertEqual(read(log), b'adduser.sh: the caller has gone\n')
        self.assertFalse(user_exists('alice'))

    def test_takes_over_a_user_whose_record_is_gone(self):
        self.assert_done(self.add())
        os.unlink(STATE + '/users/alice')
        with sambahost.stand_in('userdel', 'echo why; exit 1'):
            result = self.add()
        self.assert_refused(result, 'cannot take over the user alice')
        self.assertIn('cannot remove the user alice: why', result.output)
        self.assertIn('the user alice is left behind', result.output)
        os.unlink(STATE + '/users/alice')
        self.stand_in('useradd', 'cp /run/pelago/users/alice %s/record; exec $real "$@"' % self.scratch)
        result = self.add()
        self.assert_done(result)
        self.assertIn('taking over the user alice from a session that has ended', result.output)
        self.assertIn(b'maker', read(self.scratch + '/record'), 'the name is in use')
        self.assertEqual(sambahost.client('alice', self.password, 'IPC$', 'exit')[0], 0)

    def test_refuses_state_that_is_not_roots_folder(self):
        def make_file():
            write(STATE, '')

        def make_link():
            os.mkdir(self.scratch + '/elsewhere')
            os.symlink(self.scratch + '/elsewhere', STATE)

        def make_bobs():
            os.mkdir(STATE)
            os.chown(STATE, sambahost.pwd.getpwnam('bob').pw_uid, -1)

        self.addCleanup(command, 'rm', '-rf', STATE)
        for make in (make_file, make_link, make_bobs):
            command('rm', '-rf', STATE)
            with self.subTest(make.__name__):
                make()
                self.assert_refused(self.add(), '/run/pelago is not a folder of root\'s')

    def test_replaces_a_lock_that_others_may_hold(self):
        def make_link():
            os.symlink(self.scratch + '/lock', STATE + '/lock')

        def make_open_to_all():
            write(STATE + '/lock', '')
            os.chmod(STATE + '/lock', 0o666)

        self.addCleanup(command, 'rm', '-rf', STATE)
        for make in (make_link, make_open_to_all):
            command('rm', '-rf', STATE)
            os.mkdir(STATE)
            with self.subTest(make.__name__):
                make()
                self.assert_done(self.add())
                lock = os.lstat(STATE + '/lock')
                self.assertEqual((stat.S_IFMT(lock.st_mode), lock.st_mode & 0o777, lock.st_uid),
                                 (stat.S_IFREG, 0o600, 0))
                self.assert_done(run_script('rmuser', 'alice'))
        self.assertFalse(os.path.exists(self.scratch + '/lock'))


if __name__ == '__main__':
    unittest.main()
