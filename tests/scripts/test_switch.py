"""The service switch runs smbd while the preferences enable it, and removes what dead sessions left."""

import contextlib
import fcntl
import glob
import os
import plistlib
import shutil
import signal
import subprocess
import unittest

import sambahost
from sambahost import HANG, PROGRAM, answers, command, wait_until, write

FOLDER = '/Library/Preferences/SystemConfiguration'
FILE = FOLDER + '/com.apple.smb.server.plist'
LOCK = '/run/pelago-smb-switch.lock'
SWITCH = [PROGRAM, 'switch']


STARTED = b'pelago-smb-switch: starting smbd, for the preferences enable file sharing\n'
STOPPED = b'pelago-smb-switch: stopping smbd, for the preferences do not enable file sharing\n'


def set_services(*services):
    """Replaces the file by rename, as the preferences are always written."""
    put(plistlib.dumps({'EnabledServices': list(services)}))


def put(content):
    write(FILE + '-new', content)
    os.rename(FILE + '-new', FILE)


def processes(program):
    found = []
    for path in glob.glob('/proc/[0-9]*/exe'):
        try:
            if os.path.basename(os.readlink(path)) == program:
                found.append(int(path.split('/')[2]))
        except OSError:
            pass # it has ended
    return found


def is_off():
    return not processes('smbd')


class Switch(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        sambahost.set_up()

    def setUp(self):
        sambahost.watch_for_a_hang(self)
        self.loop = None
        shutil.rmtree(FOLDER, ignore_errors=True)
        os.makedirs(FOLDER)
        self.addCleanup(self.all_off)

    def all_off(self):
        if self.loop and self.loop.poll() is None:
            self.loop.kill()
            self.loop.wait()
        for program in ('smbd', 'samba-dcerpcd'):
            for pid in processes(program):
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGTERM)
            wait_until(lambda program=program: not processes(program), 'the end of ' + program)

    def start_loop(self):
        # pylint: disable=consider-using-with
        self.loop = subprocess.Popen(SWITCH, start_new_session=True,
                                     stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
        self.addCleanup(self.loop.stderr.close)

    def once(self):
        return subprocess.run([*SWITCH, '--once'], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=HANG,
                              check=False)

    def assert_once(self):
        done = self.once()
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout

    def end_of_loop(self):
        """Waits until the switch ends by itself; returns (status, stderr)."""
        output = self.loop.communicate(timeout=HANG)[1].decode()
        return self.loop.returncode, output

    def test_starts_and_stops_smbd_and_repeats_harmlessly(self):
        set_services('disk')
        self.assertEqual(self.assert_once(), STARTED)
        self.assertTrue(answers())
        before = sorted(processes('smbd'))
        self.assertEqual(self.assert_once(), b'')
        self.assertEqual(sorted(processes('smbd')), before)
        set_services('print')
        self.assertEqual(self.assert_once(), STOPPED)
        wait_until(is_off, "the end of smbd's children")
        self.assert_once()

    def test_no_file_means_off(self):
        set_services('disk')
        self.assert_once()
        os.unlink(FILE)
        self.assert_once()
        wait_until(is_off, "the end of smbd's children")

    def test_a_file_that_cannot_be_read_changes_nothing(self):
        for running in (False, True):
            with self.subTest(running=running):
                set_services(*(['disk'] if running else []))
                self.assert_once()
                put(b'<plist><dict>')
                done = self.once()
                self.assertEqual(done.returncode, 0)
                self.assertIn(b'stays as it is', done.stdout)
                self.assertEqual(answers(), running)

    def test_keeps_smbd_running_when_configuration_is_unreadable(self):
        set_services('disk')
        self.assert_once()
        os.rename('/etc/samba/smb.conf', '/etc/samba/smb.conf.away')
        set_services()
        done = self.once()
        os.rename('/etc/samba/smb.conf.away', '/etc/samba/smb.conf')
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"cannot read Samba's configuration", done.stdout)
        self.assertTrue(answers())
        self.assert_once()
        wait_until(is_off, "the end of smbd's children")

    def test_refuses_wrong_arguments(self):
        for args in (['--twice'], ['--once', 'more'], ['']):
            done = subprocess.run([*SWITCH, *args], stderr=subprocess.PIPE,
                                  timeout=HANG, check=False)
            self.assertEqual(done.returncode, 1)
            self.assertIn(b'usage', done.stderr)

    def test_what_listing_shares_started_ends_with_smbd(self):
        set_services('disk')
        self.assert_once()
        command('useradd', '--no-create-home', 'lister')
        self.addCleanup(command, 'userdel', 'lister')
        subprocess.run(['smbpasswd', '-s', '-a', 'lister'], input=b'x\nx\n', check=True,
                       stdout=subprocess.DEVNULL)
        self.addCleanup(command, 'pdbedit', '-x', '-u', 'lister')
        command('smbclient', '-U', 'lister%x', '-L', '//127.0.0.1')
        wait_until(lambda: processes('samba-dcerpcd'), 'the helper that listing starts')
        set_services()
        self.assert_once()
        self.assertEqual(processes('samba-dcerpcd') + processes('smbd'), [])

    def test_stale_pid_file_does_not_kill_another_process(self):
        with subprocess.Popen(['sleep', '600']) as bystander:
            for name in ('smbd', 'samba-dcerpcd'):
                write('/run/samba/%s.pid' % name, '%d\n' % bystander.pid)
            self.addCleanup(os.unlink, '/run/samba/samba-dcerpcd.pid')
            self.assert_once()
            self.assertIsNone(bystander.poll())
            set_services('disk')
            self.assert_once()
            set_services()
            self.assert_once()
            self.assertIsNone(bystander.poll())
            bystander.kill()

    def test_smbd_holds_nothing_of_the_switch(self):
        set_services('disk')
        self.start_loop()
        wait_until(answers, 'smbd to come up')
        looked_at = 0
        for pid in processes('smbd'):
            with contextlib.suppress(ProcessLookupError, FileNotFoundError): # it has ended
                self.assertNotEqual(os.getsid(pid), os.getsid(self.loop.pid))
                for link in glob.glob('/proc/%d/fd/*' % pid):
                    target = os.readlink(link)
                    self.assertNotIn('smb-switch', target)
                    self.assertNotIn('/events', target)
                looked_at += 1
        self.assertGreater(looked_at, 0)
        self.assertTrue(sambahost.succeeds('flock', '-w', '20', LOCK, 'true'))

    def test_second_switch_is_refused(self):
        self.start_loop()
        set_services('disk')
        wait_until(answers, 'the loop to be under way')
        second = subprocess.run(SWITCH, stdin=subprocess.DEVNULL, capture_output=True, timeout=HANG, check=False)
        self.assertEqual((second.returncode, second.stderr), (1, b'pelago-smb-switch: another switch runs\n'))
        self.assertIsNone(self.loop.poll())

    def test_nobody_else_can_hold_the_lock(self):
        write(LOCK, '', 0o644)
        with open(LOCK, 'rb') as held:
            fcntl.flock(held, fcntl.LOCK_EX)
            self.assert_once() # fails the test if the switch hangs
        before = os.stat(LOCK)
        self.assertEqual((before.st_uid, before.st_mode & 0o7777), (0, 0o600))
        self.assert_once()
        self.assertEqual(os.stat(LOCK).st_ino, before.st_ino, 'one lock for all')

    def test_follows_every_replacement_of_the_file(self):
        self.start_loop()
        for _ in range(3):
            set_services('disk')
            wait_until(answers, 'smbd to come up')
            set_services('print', 'other')
            wait_until(is_off, 'smbd to go')
        os.unlink(FILE)
        set_services('disk')
        wait_until(answers, 'smbd to come up')
        os.unlink(FILE)
        wait_until(is_off, 'smbd to go')
        write(FILE, plistlib.dumps({'EnabledServices': ['disk']})) # not by rename
        wait_until(answers, 'smbd to come up')
        self.assertIsNone(self.loop.poll(), 'stopping smbd does not stop the loop')

    def test_loses_no_change_of_many_quick_ones(self):
        self.start_loop()
        for last, state in ((('disk',), answers), ((), is_off)) * 2:
            for _ in range(8):
                set_services('disk')
                set_services()
            set_services(*last)
            wait_until(state, 'the last change')
        self.assertIsNone(self.loop.poll())

    def test_sees_what_was_set_before_it_started(self):
        set_services('disk')
        self.start_loop()
        wait_until(answers, 'smbd to come up')

    def test_other_files_in_the_folder_do_not_matter(self):
        self.start_loop()
        for name in ('other.plist', 'a\nb', 'com.apple.smb.server.plist-lock', 'x DELETE_SELF',
                     'Watches established.', '-n'):
            write(FOLDER + '/' + name, '')
            os.unlink(FOLDER + '/' + name)
        set_services('disk')
        wait_until(answers, 'smbd to come up')
        self.assertIsNone(self.loop.poll())

    def test_ends_when_the_folder_goes(self):
        for way in (shutil.rmtree, lambda folder: os.rename(folder, folder + '.moved')):
            with self.subTest(way):
                os.makedirs(FOLDER, exist_ok=True)
                set_services('disk')
                self.start_loop()
                wait_until(answers, 'smbd to come up')
                way(FOLDER)
                status, output = self.end_of_loop()
                self.assertEqual(status, 1)
                self.assertIn('is gone', output)
        shutil.rmtree(FOLDER + '.moved')

    def test_ends_when_there_is_no_folder(self):
        os.rmdir(FOLDER)
        self.start_loop()
        status, output = self.end_of_loop()
        self.assertEqual(status, 1)
        self.assertIn('cannot watch ' + FOLDER, output)

    def test_a_signal_ends_it_but_not_smbd(self):
        for number, status in ((signal.SIGTERM, 0), (signal.SIGHUP, 128 + signal.SIGHUP)):
            with self.subTest(number):
                set_services('disk')
                self.start_loop()
                wait_until(answers, 'the loop to be under way')
                self.loop.send_signal(number)
                self.assertEqual(self.end_of_loop()[0], status)
                self.assertTrue(answers())

    def test_uses_systemctl_when_systemd_is_running(self):
        os.makedirs('/run/systemd/system')
        self.addCleanup(os.removedirs, '/run/systemd/system')
        log, active = FOLDER + '/calls', FOLDER + '/active'
        unit = ('echo "$@" >>%s; case "$1" in start) touch %s ;; stop) rm %s ;; *) [ -e %s ] ;; esac'
                % (log, active, active, active))
        with sambahost.stand_in('systemctl', unit):
            for services in (('disk',), ('disk',), (), ()):
                set_services(*services)
                self.assert_once()
        asked = b'is-active --quiet smbd.service\n'
        self.assertEqual(sambahost.read(log), asked + b'start smbd.service\n' + asked + asked
                         + b'stop smbd.service\n' + asked)
        self.assertEqual(processes('smbd'), [])
        with sambahost.stand_in('systemctl', 'echo why >&2; [ "$1" = is-active ]'):
            done = self.once()
        self.assertEqual((done.returncode, done.stdout),
                         (1, STOPPED + b'pelago-smb-switch: cannot stop smbd: why\n'))


class Unit(unittest.TestCase):

    def setUp(self):
        self.unit = os.environ['PELAGO_UNIT']
        self.lines = sambahost.read(self.unit).decode().splitlines()

    def test_is_a_service_that_stays(self):
        for line in ('Type=exec', 'Restart=always'):
            self.assertIn(line, self.lines)

    def test_starts_the_switch_where_it_is_installed(self):
        program = [line.removeprefix('ExecStart=') for line in self.lines
                   if line.startswith('ExecStart=')]
        self.assertEqual(len(program), 1)
        self.assertRegex(program[0], '^/.+/Pelago.app/Contents/Library/host/pelagoHost switch$')


if __name__ == '__main__':
    unittest.main()
