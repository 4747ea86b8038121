"""Attacks on the share scripts by another user of the host: with folders and links of that user's, names,
the environment, and locks.  Each attack has an innocent twin that must still work."""

import contextlib
import ctypes
import errno
import fcntl
import os
import pwd
import re
import signal
import socket
import subprocess
import unittest

import sambahost
from sambahost import HANG, STATE, client, command, read, run_script, script_path, user_exists, write

AT_FDCWD, RENAME_EXCHANGE = -100, 2
NOLOGIN = 65534

# The content of a file in a folder that is not bob's.
SECRET = b'not for him\n'


def uid_of(user):
    return pwd.getpwnam(user).pw_uid


@contextlib.contextmanager
def acting_as(user, act):
    """A process of the user's that calls act() repeatedly."""
    reader, writer = os.pipe()
    pid = os.fork()
    if pid == 0:
        try:
            os.setgroups([])
            os.setgid(NOLOGIN)
            os.setuid(uid_of(user))
            act()
            os.write(writer, b'x')
            while True:
                act()
        finally:
            os._exit(1)
    os.close(writer)
    with open(reader, 'rb') as begun:
        started = begun.read(1)
        try:
            yield
        finally:
            os.kill(pid, signal.SIGKILL)
            status = os.waitpid(pid, 0)[1]
    if started != b'x' or status != signal.SIGKILL:
        raise AssertionError('the attacker did not attack to the end: %r, %r' % (started, status))


def attempt(user, act):
    """Returns the error with which act() fails for the user, or None."""
    pid = os.fork()
    if pid == 0:
        os.setgroups([])
        os.setgid(NOLOGIN)
        os.setuid(uid_of(user))
        try:
            act()
            os._exit(0)
        except OSError as error:
            os._exit(error.errno)
    return os.WEXITSTATUS(os.waitpid(pid, 0)[1]) or None


class AttackTest(sambahost.ScriptTest):

    def setUp(self):
        super().setUp()
        if not user_exists('ann'):
            command('useradd', '--no-create-home', '--shell', '/usr/sbin/nologin', 'ann')

    def add(self, folder=None, share='Docs', access='rw'):
        return run_script('addshare', 'alice', self.password_file, folder or self.folder, share, access)

    def assert_served_once(self, folder, given=None, content=b'some text\n', share='Docs'):
        self.assert_done(self.add(given or folder, share))
        self.assert_served(share, content=content)
        self.assert_done(run_script('rmshare', share, given or folder))

    def link(self, target, path, owner='bob'):
        os.symlink(target, path)
        os.chown(path, uid_of(owner), -1, follow_symlinks=False)
        return path

    def start(self, user, argv):
        """Starts a process of the user's, which runs until the test ends."""
        # pylint: disable=consider-using-with
        process = subprocess.Popen(argv, cwd='/', preexec_fn=lambda: os.setuid(uid_of(user)))
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def add_host_user(self, name, uid):
        """Adds a user whose name useradd may refuse; another source of users may have such a name."""
        before = read('/etc/passwd')
        self.addCleanup(write, '/etc/passwd', before)
        write('/etc/passwd', before + ('%s:x:%d:%d::/nonexistent:/usr/sbin/nologin\n' %
                                       (name, uid, NOLOGIN)).encode())


class OwnersOfFolders(AttackTest):
    """bob owns a home that nobody else can enter; the targets of the links in it are not bob's."""

    def setUp(self):
        super().setUp()
        self.add_user()
        self.home = self.make_folder(self.scratch + '/home')
        self.roots = self.make_folder(self.scratch + '/roots', 'root', SECRET)
        self.anns = self.make_folder(self.scratch + '/anns', 'ann', SECRET)

    def ways_to(self, prey):
        """Returns paths through bob's home that lead to the folder."""
        place = os.path.join(self.home, os.path.basename(prey) or 'root')
        os.mkdir(place)
        os.chown(place, uid_of('bob'), -1)
        name = place + '/Documents'
        self.link(prey, name)
        self.link('Documents', place + '/second')
        self.link(place + '/second', place + '/third')
        self.link(os.path.relpath(prey, os.path.realpath(place)), place + '/relative')
        self.link(os.path.dirname(prey), place + '/above')
        inner = place + '/inner'
        os.mkdir(inner)
        os.chown(inner, uid_of('bob'), -1)
        up = os.path.relpath(prey, inner)
        return [name, name + '/', name + '/.', name + '//', place + '/second', place + '/third',
                place + '/relative', place + '/above/' + os.path.basename(prey),
                inner + '/../Documents', inner + '/' + up, inner + '/../second/.']

    def test_link_in_a_home_gives_no_rights(self):
        with self.unchanged():
            for prey in ('/', self.roots, self.anns):
                for way in self.ways_to(prey):
                    with self.subTest(way):
                        self.assert_refused(self.add(way), 'others can change "%s' % self.home)

    def test_serves_links_between_folders_of_one_owner(self):
        for way in self.ways_to(self.folder):
            with self.subTest(way):
                self.assert_served_once(way)

    def test_roots_links_are_followed(self):
        # As on a host where /home is a link.
        homes = self.link(self.scratch, self.scratch + '/homes', 'root')
        odd = self.make_folder(self.scratch + '/  blänk\n 日本 ')
        self.link(odd, self.scratch + '/ \n', 'root')
        for way, content in ((homes + '/home', None), (homes + '/homes/roots', SECRET),
                             (homes + '/Documents/../home/', None), (homes + '/ \n/', None)):
            with self.subTest(way):
                self.assert_served_once(way, content=content or b'some text\n')

    def test_link_owner_decides_in_a_sticky_folder(self):
        sticky = self.make_folder(self.scratch + '/sticky', 'root')
        os.chmod(sticky, 0o1777)
        annsSticky = self.make_folder(self.scratch + '/annsSticky', 'ann')
        os.chmod(annsSticky, 0o1777)
        served = [(self.link(self.roots, sticky + '/rootsToRoots', 'root'), SECRET),
                  (self.link(self.folder, sticky + '/rootsToBobs', 'root'), b'some text\n'),
                  (self.link(self.folder, sticky + '/bobsToBobs', 'bob'), b'some text\n'),
                  (self.make_folder(sticky + '/bobs'), b'some text\n')]
        refused = [self.link(self.roots, sticky + '/bobsToRoots', 'bob'),
                   self.link(self.folder, sticky + '/annsToBobs', 'ann'),
                   self.link(self.anns, sticky + '/bobsToAnns', 'bob'),
                   self.link(self.folder, annsSticky + '/bobsToBobs', 'bob'),
                   self.make_folder(annsSticky + '/bobs'),
                   self.make_folder(self.make_folder(sticky + '/anns', 'ann') + '/bobs')]
        os.chmod(sticky + '/anns', 0o711)
        with self.unchanged():
            for way in refused:
                with self.subTest(way):
                    self.assert_refused(self.add(way), 'others can change')
        for way, content in served:
            with self.subTest(way):
                self.assert_served_once(way, content=content)

    def test_judges_a_mount_by_its_path(self):
        for prey, place, reason in ((self.roots, self.home + '/mount', 'others can change'),
                                    (self.folder, self.scratch + '/mount', None)):
            os.mkdir(place)
            command('mount', '--bind', prey, place)
            self.addCleanup(command, 'umount', place)
            with self.subTest(place):
                if reason:
                    self.assert_refused(self.add(place), reason)
                else:
                    self.assert_served_once(place)

    def test_refuses_mounts_inside_a_sticky_folder(self):
        # A user's own mount may claim any owner, and the user can unmount it and put a link there.
        sticky = self.scratch + '/sticky'
        os.mkdir(sticky)
        os.chmod(sticky, 0o1777)
        for prey in (self.roots, self.folder):
            place = '%s/%s' % (sticky, os.path.basename(prey))
            os.mkdir(place)
            with self.subTest(place):
                command('mount', '--bind', prey, place)
                self.assert_refused(self.add(place), 'others can change "%s"' % place)
                command('umount', place)
        innocent = self.make_folder(sticky + '/own')
        self.assert_served_once(innocent)

    def make_deep_folder(self, name, depth):
        at = os.open(self.scratch, os.O_RDONLY)
        for _ in range(depth):
            os.mkdir(name, dir_fd=at)
            inner = os.open(name, os.O_RDONLY, dir_fd=at)
            os.close(at)
            at = inner
        os.fchown(at, uid_of('bob'), -1)
        os.close(at)

    def test_refuses_anything_but_a_folder_without_waiting(self):
        os.mkfifo(self.scratch + '/fifo')
        write(self.scratch + '/file', '')
        with socket.socket(socket.AF_UNIX) as bound:
            bound.bind(self.scratch + '/socket')
        self.link('fifo', self.scratch + '/toFifo')
        self.link('circle', self.scratch + '/circle')
        deep = '/'.join([self.scratch] + ['d' * 200] * 25) # longer than PATH_MAX
        self.make_deep_folder('d' * 200, 25)
        ways = [(self.scratch + '/' + name + end, 'not a folder') for end in ('', '/', '/inner', '/..')
                for name in ('fifo', 'file', 'socket', 'toFifo')]
        ways += [('/dev/null', 'not a folder'), ('/dev/null/..', 'not a folder'),
                 ('/proc/self/exe', 'not a folder'), (self.scratch + '/circle', 'cannot resolve'),
                 (self.scratch + '/' + 'x' * 256, 'cannot resolve'),
                 (deep, 'cannot enter it'), (self.scratch + '/../' * 3000 + 'x', 'not a folder')]
        with self.unchanged():
            for way, reason in ways:
                with self.subTest(way):
                    self.assert_refused(self.add(way), reason)
        self.assert_served_once(self.scratch + '/.' * 3000 + '/Documents')

    def test_refuses_proc_links_of_another_users_process(self):
        bobs = self.start('bob', ['sleep', 'infinity'])
        for name in ('cwd', 'root'):
            self.assert_refused(self.add('/proc/%d/%s' % (bobs.pid, name)), 'others can change')
        self.assert_served_once('/proc/self/root' + self.folder)

    def swap(self, one, other):
        libc = ctypes.CDLL(None, use_errno=True)
        if libc.renameat2(AT_FDCWD, os.fsencode(one), AT_FDCWD, os.fsencode(other), RENAME_EXCHANGE) != 0:
            raise OSError(ctypes.get_errno(), 'cannot swap')

    def test_swapping_the_folder_for_a_link_wins_nothing(self):
        real = self.make_folder(self.home + '/Documents')
        trap = self.link(self.roots, self.home + '/trap')
        got = self.scratch + '/got'
        with acting_as('bob', lambda: self.swap(real, trap)):
            for _ in range(20):
                if self.add(real).status != 0:
                    continue
                client('alice', self.password, 'Docs', 'get f "%s"' % got)
                self.assertNotIn(SECRET, read(got) if os.path.exists(got) else b'')
                self.assert_done(run_script('rmshare', 'Docs', real))
        if os.path.islink(real):
            self.swap(real, trap)
        self.assert_served_once(real)

    def test_swapping_it_while_it_is_served_wins_nothing(self):
        real = self.make_folder(self.home + '/Documents')
        trap = self.link(self.roots, self.home + '/trap')
        self.assert_done(self.add(real))
        self.assert_served()
        self.swap(real, trap)
        self.assert_not_served('NT_STATUS')
        self.swap(real, trap)
        self.assert_served()

    def test_folder_owner_cannot_stop_the_script(self):
        def stop_all_of_his():
            with contextlib.suppress(ProcessLookupError):
                os.kill(-1, signal.SIGSTOP)

        with acting_as('bob', stop_all_of_his):
            for _ in range(20):
                self.assert_done(self.add())
                self.assert_done(run_script('rmshare', 'Docs', self.folder))
        self.assert_served_once(self.folder)


class Names(AttackTest):

    def global_settings(self):
        text = command('testparm', '-s').partition('[global]')[2]
        return text.partition('\n[')[0]

    def variants(self, name):
        """Returns spellings that Samba takes for the name."""
        upper = name.upper()
        mixed = ''.join(c.upper() if i % 2 else c for i, c in enumerate(name))
        half = len(name) // 2
        blank = name[:half] + ' ' + name[half:]
        return [name, upper, mixed, blank, blank.upper(), ' '.join(name), name + ' ', ' ' + name,
                name[:1] + '\t' + name[1:], name[:1] + '\r' + name[1:], name[:1] + '\v' + name[1:]]

    def test_refuses_every_spelling_of_special_section_names(self):
        self.add_user()
        command('net', 'conf', 'addshare', 'Other', '/srv', 'writeable=n', 'guest_ok=n', '')
        before = self.global_settings()
        names = [v for name in ('global', 'globals', 'homes', 'home', 'printers', 'printer', 'print$',
                                'ipc$', 'admin$', 'netlogon', 'sysvol') for v in self.variants(name)]
        with self.unchanged():
            for name in names + ['home\u017f', 'pr\u0131nters', 'pr\u0130nters', 'GLOBALſ']:
                with self.subTest(name):
                    self.assertEqual(self.add(share=name).status, 1)
        self.assertEqual(self.global_settings(), before)

    def test_names_resembling_special_sections_are_ordinary_shares(self):
        self.add_user()
        command('net', 'conf', 'addshare', 'Other', '/srv', 'writeable=n', 'guest_ok=n', '')
        other = command('net', 'conf', 'showshare', 'Other')
        before = self.global_settings()
        for name in ('global1', 'ɡlobal', 'ＧＬＯＢＡＬ', 'glob\u200bal', 'glob\u00a0al', 'home sweet homes',
                     'print', '\u212aeys', '\u0131pc', 'global.s'):
            with self.subTest(name):
                self.assert_done(self.add(share=name))
                self.assert_served(name)
                self.assertEqual(self.global_settings(), before)
                self.assertEqual(command('net', 'conf', 'showshare', 'Other'), other)
                self.assert_done(run_script('rmshare', name, self.folder))
        self.assertEqual(command('net', 'conf', 'listshares').split(), ['Other'])

    def test_refuses_users_whom_samba_would_confuse_with_others(self):
        self.add_host_user('Carol', 4001)
        self.add_host_user('DORA', 4002)
        with self.unchanged():
            for user, reason in (
                    ('s-1-1-0', 'SID'), ('s-1-5-11', 'SID'), ('s-1-5-32-544', 'SID'), ('S-1-1-0', 'not a user'),
                    ('@staff', 'not a user'), ('+staff', 'not a user'), ('&staff', 'not a user'),
                    ('bob$', 'not a user'), ('Root', 'not a user'), ('roo\u212a', 'not a user'),
                    ('root ', 'not a user'), ('%U', 'not a user'), ('WORKGROUP\\bob', 'not a user'),
                    ('root', 'exists already'), ('staff', 'group'), ('carol', '"Carol" exists already'),
                    ('dora', '"DORA" exists already')):
                with self.subTest(user):
                    self.assert_refused(run_script('adduser', user, user, self.password_file), reason)
        for user in ('carola', 's-', 's-one', '_', 'a.b-c_1'):
            with self.subTest(user):
                self.add_both(user=user)
                self.assert_served(user=user)
                self.assert_done(run_script('rmshare', 'Docs', self.folder))
                self.assert_done(run_script('rmuser', user))

    def test_refuses_owners_whom_samba_would_confuse_with_others(self):
        self.add_user()
        self.add_host_user('üben', 4000)
        owners = ['Root', 'BOB', 'ÜBEN', 'S-1-5-18', 's-1-1-0', '@staff', 'a+b', '&staff', 'a,b', 'a;b',
                  'a%Ub', '"q"', 'after ', 'WORKGROUP\\bob', 'none', 'a\x01b']
        folders = []
        for number, owner in enumerate(owners, 4001):
            self.add_host_user(owner, number)
            folders.append(self.make_folder('%s/%d' % (self.scratch, number), number))
        with self.unchanged():
            for owner, folder in zip(owners, folders):
                with self.subTest(owner):
                    self.assert_refused(self.add(folder), 'cannot act as the owner')

    def test_serves_owners_with_unusual_but_unambiguous_names(self):
        self.add_user()
        for number, owner in enumerate(('Frank', 'üben', 'ÜBELST', 'web$', 'system', 'everyone', 's-one',
                                        'local service', '\u212aarl'), 4001):
            with self.subTest(owner):
                self.add_host_user(owner, number)
                folder = self.make_folder('%s/%d' % (self.scratch, number), number)
                self.assert_done(self.add(folder))
                status, output = client('alice', self.password, 'Docs', 'put "%s" new' % self.password_file)
                self.assertEqual((status, os.stat(folder + '/new').st_uid), (0, number), output)
                self.assert_done(run_script('rmshare', 'Docs', folder))


class Callers(AttackTest):
    """The caller is root, but its environment, folder and descriptors may be anybody's."""

    def up_and_down(self, **kwargs):
        self.add_both(**kwargs)
        self.assert_served()
        self.assert_done(run_script('rmshare', 'Docs', self.folder, **kwargs))
        self.assert_done(run_script('rmuser', 'alice', **kwargs))

    def hostile_environment(self, mark):
        """Makes a folder of programs and libraries that write the mark when they are run or loaded."""
        evil = self.scratch + '/evil'
        os.makedirs(evil + '/samba')
        for name in ('net', 'pdbedit', 'smbpasswd', 'useradd', 'userdel', 'testparm', 'python3', 'env.sh'):
            write(evil + '/' + name, '#!/bin/sh\ntouch "%s"\n' % mark, 0o755)
        for name in ('samba/__init__.py', 'sitecustomize.py', 'encodings.py', 'start.py'):
            write(evil + '/' + name, 'open(%r, "w")\n' % mark)
        for name in ('libtalloc.so.2', 'libsmbconf.so.0', 'libtdb.so.1', 'libpython3.11.so.1.0'):
            write(evil + '/' + name, 'not a library')
        write(evil + '/smb.conf', '[global]\nregistry shares = no\nroot preexec = touch "%s"\n' % mark)
        return {'POSIXLY_CORRECT': '1', 'POSIX_ME_HARDER': '1', 'PASSWD_FD': '0', 'PASSWD': 'x',
                'PASSWD_FILE': '/nonexistent', 'USER': 'root%x', 'LOGNAME': 'root', 'HOME': '/nonexistent',
                'SMB_CONF_PATH': evil + '/smb.conf', 'LD_LIBRARY_PATH': evil, 'PYTHONPATH': evil,
                'PYTHONSTARTUP': evil + '/start.py', 'PYTHONHOME': evil, 'IFS': '/', 'PATH': evil,
                'ENV': evil + '/env.sh', 'BASH_ENV': evil + '/env.sh', 'LIBSMB_PROG': evil + '/net',
                'LC_ALL': 'tr_TR.UTF-8', 'LANGUAGE': 'tr', 'TZ': evil + '/net', 'TMPDIR': '/nonexistent',
                'TDB_NO_FSYNC': '1', 'TALLOC_FREE_FILL': '0xff', 'KRB5_CONFIG': '/nonexistent',
                'LDB_MODULES_PATH': evil, 'GETOPT_COMPATIBLE': '1', 'RES_OPTIONS': 'x', 'CDPATH': evil}

    def test_no_environment_changes_what_is_done(self):
        mark = self.scratch + '/mark'
        for environment in (self.hostile_environment(mark), {}):
            with self.subTest(environment), self.unchanged():
                self.up_and_down(env=environment)
        self.assertFalse(os.path.exists(mark))
        command(self.scratch + '/evil/net') # checks that the trap works
        self.assertTrue(os.path.exists(mark))

    def test_works_from_a_deleted_working_directory(self):
        os.mkdir(self.scratch + '/gone')
        gone = os.open(self.scratch + '/gone', os.O_RDONLY)
        os.rmdir(self.scratch + '/gone')
        try:
            self.up_and_down(preexec_fn=lambda: os.fchdir(gone))
        finally:
            os.close(gone)

    def test_control_characters_forge_no_line(self):
        odd = b'a\nadduser.sh: all is well\r\x1b[2J\xc2\x85\xc2\x9b\x7f\x01'
        password_file, folder = os.fsencode(self.password_file), os.fsencode(self.folder)
        arguments = {'adduser': [b'alice', b'alice', password_file],
                     'addshare': [b'alice', password_file, folder, b'Docs', b'rw'],
                     'rmshare': [b'Docs', folder], 'rmuser': [b'alice']}
        self.add_both()
        for name, good in arguments.items():
            for number in range(len(good) + 1):
                bad = good[:number] + [odd] + good[number + 1:]
                with self.subTest(name, number=number):
                    done = subprocess.run([script_path(name), *bad], stdin=subprocess.DEVNULL, timeout=HANG,
                                          capture_output=True, check=False)
                    text = done.stderr.decode()
                    self.assertEqual((done.stdout, done.returncode), (b'', 1))
                    self.assertTrue(text.endswith('\n'))
                    for line in text[:-1].split('\n'):
                        self.assertTrue(line.startswith(name + '.sh: '), line)
                        self.assertIsNone(re.search('[\x00-\x1f\x7f-\x9f]', line), line)
        self.assert_served()


class OtherUsers(AttackTest):
    """ann has an account on the host, and must not get in."""

    def test_other_users_cannot_read_or_change_the_state(self):
        self.add_both()
        share = os.path.join(STATE, 'shares', os.listdir(STATE + '/shares')[0])
        records = [STATE + '/lock', STATE + '/users/alice', share + '/record', '/var/lib/pelago/lastUserNumber']
        folders = [STATE, STATE + '/users', STATE + '/shares', share]
        acts = [lambda p=p, f=f: os.open(p, f) for p in records for f in (os.O_RDONLY, os.O_WRONLY)]
        # A folder that others can open could be locked by them, just as a file.
        acts += [lambda p=p: os.open(p, os.O_RDONLY) for p in folders]
        acts += [lambda p=p: os.mkdir(p + '/x') for p in folders]
        acts += [lambda p=p: os.rename(p, p + 'x') for p in records + folders]
        acts += [lambda p=p: os.chmod(p, 0o777) for p in records + folders]
        acts += [lambda: os.unlink(share + '/folder'), lambda: os.symlink('/', share + '/folder2'),
                 lambda: os.listdir(share + '/folder')]
        with self.unchanged():
            for number, act in enumerate(acts):
                with self.subTest(number):
                    self.assertIn(attempt('ann', act), (errno.EACCES, errno.EPERM))
        for path in folders:
            status = os.lstat(path)
            self.assertEqual((status.st_uid, status.st_mode & 0o7777), (0, 0o711), path)
        for path in records:
            status = os.lstat(path)
            self.assertEqual((status.st_uid, status.st_mode & 0o7777), (0, 0o600), path)
        self.assert_served()

    def test_script_waits_for_the_lock(self):
        self.add_user()
        with open(STATE + '/lock', 'rb') as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            with subprocess.Popen([script_path('rmuser'), 'alice'], stderr=subprocess.DEVNULL) as script:
                with self.assertRaises(subprocess.TimeoutExpired):
                    script.wait(0.3)
                fcntl.flock(lock, fcntl.LOCK_UN)
                self.assertEqual(script.wait(HANG), 0)

    def test_other_users_cannot_block_a_session(self):
        os.chmod(self.scratch, 0o1777)
        for name in ('smbd', 'pelagoShareTool', 'pelagoHost', 'alice'):
            write(self.scratch + '/' + name, read('/bin/sleep'), 0o755)
            self.start('ann', [self.scratch + '/' + name, 'infinity'])
        for place in ('/tmp', '/var/tmp', '/dev/shm'):
            if not os.path.isdir(place):
                continue
            for name in ('pelago', 'alice', 'Docs'):
                path = self.make_folder('%s/%s' % (place, name), 'ann')
                self.addCleanup(command, 'rm', '-rf', path)
        self.add_both()
        self.assert_served()
        self.assert_done(run_script('rmshare', 'Docs', self.folder))
        self.assert_done(run_script('rmuser', 'alice'))
        self.assertFalse(user_exists('alice'))

    def test_refuses_anything_planted_at_the_state_path(self):
        command('rm', '-rf', STATE)
        trap = self.make_folder(self.scratch + '/trap', 'ann')
        # /run belongs to root, so only root can have made these.
        self.assertEqual(attempt('ann', lambda: os.symlink(trap, STATE)), errno.EACCES)
        for make in (lambda: os.symlink(trap, STATE), lambda: write(STATE, ''),
                     lambda: self.make_folder(STATE, 'ann')):
            make()
            self.assert_refused(run_script('adduser', 'alice', 'alice', self.password_file),
                                'not a folder of root')
            self.assertEqual(os.listdir(trap), ['f'])
            command('rm', '-rf', STATE)
        self.add_both()
        self.assert_served()


if __name__ == '__main__':
    unittest.main()
