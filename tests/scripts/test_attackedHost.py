"""Attacks on a share over the network, and settings in a host's own smb.conf that could weaken it.
Each attack has an innocent twin that must still work."""

import contextlib
import os
import pwd
import re
import socket
import subprocess
import threading
import unittest

import sambahost
from sambahost import HANG, client, command, read, run_script, user_exists, write

CONF = '/etc/samba/smb.conf'
THEIRS = 'theirs'  # the password of users who must not get in
NEW = 'anotherHorse1' # without a blank, which would end it in a chat


def uid_of(user):
    return pwd.getpwnam(user).pw_uid


def with_global(settings):
    """Returns the host's smb.conf with these lines at the end of [global]."""
    return sambahost.SMB_CONF.replace('[Textual]', settings + '\n[Textual]')


def run_client(args, given=''):
    """Runs a program of Samba's that connects, and returns its status and output."""
    done = subprocess.run(args, input=os.fsencode(given), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=HANG, check=False)
    return done.returncode, done.stdout.decode(errors='replace')


class HostTest(sambahost.ScriptTest):
    """ann, like bob and others, has an account on the host and one of Samba's."""

    conf = sambahost.SMB_CONF
    known = ('ann', 'bob')

    @classmethod
    def setUpClass(cls):
        configured, sambahost.SMB_CONF = sambahost.SMB_CONF, cls.conf
        try:
            super().setUpClass()
        finally:
            sambahost.SMB_CONF = configured
        if not user_exists('ann'):
            command('useradd', '--no-create-home', '--shell', '/usr/sbin/nologin', 'ann')
        for user in cls.known:
            subprocess.run(['smbpasswd', '-s', '-a', user], input=(THEIRS + '\n' + THEIRS + '\n').encode(),
                           check=True, stdout=subprocess.DEVNULL)

    def add(self, access='rw', share='Docs', folder=None):
        return run_script('addshare', 'alice', self.password_file, folder or self.folder, share, access)

    def registry_share(self, name, folder, *settings):
        """Adds a share of the host's own, without the settings of addshare.sh."""
        text = '\n'.join(['[%s]' % name, 'path = ' + folder, *settings, ''])
        subprocess.run(['net', 'conf', 'import', '/dev/stdin', '--', name], input=text.encode(), check=True)

    def assert_only_alice(self, share='Docs'):
        for user, password in [(user, THEIRS) for user in self.known] + [
                ('', ''), ('guest', ''), ('nobody', ''), ('root', ''), ('nosuch', 'x'), ('alice', ''),
                ('alice', 'wrong'), ('alice', THEIRS), ('ann%', self.password)]:
            with self.subTest(user):
                status, output = client(user, password, share, 'ls')
                self.assertNotEqual(status, 0, output)
                self.assertRegex(output, 'ACCESS_DENIED|LOGON_FAILURE|ACCOUNT_DISABLED')
        self.assert_served(share)


class Clients(HostTest):
    """Attackers who can reach the host, which also has shares without a list of users."""

    known = ('ann', 'bob', 'root', 'nobody')
    conf = sambahost.SMB_CONF + '  read only = no\n'

    def setUp(self):
        super().setUp()
        self.add_user()

    def test_nobody_else_is_let_in(self):
        for access in ('ro', 'rw'):
            self.assert_done(self.add(access))
            self.assert_only_alice()
            self.assert_done(run_script('rmshare', 'Docs', self.folder))
        status, output = client('ann', THEIRS, 'Textual', 'ls') # her password is the right one
        self.assertEqual(status, 0, output)

    def tree(self, folder):
        found = []
        for place, folders, files in os.walk(folder):
            for name in sorted(folders + files):
                path = os.path.join(place, name)
                status = os.lstat(path)
                found.append((path, status.st_mode, status.st_mtime_ns, status.st_nlink,
                              os.path.isfile(path) and read(path)))
        return sorted(found)

    def test_read_only_is_read_only(self):
        # Each attempt has a file of its own, so that none disturbs the next.
        requests = ['put "%s" new' % self.password_file, 'put "%s" f0' % self.password_file, 'mkdir sub',
                    'rename f1 g', 'rm f2', 'utimes f3 -1 -1 01:01:01-01:01:01 -1', 'deltree d1', 'rmdir d2',
                    'rename d3 d9', 'hardlink f4 h']
        folders = {}
        for access in ('rw', 'ro'):
            folder = folders[access] = self.make_folder(self.scratch + '/' + access)
            for number in range(6):
                write('%s/f%d' % (folder, number), 'old')
                os.mkdir('%s/d%d' % (folder, number))
            command('chown', '-R', 'bob', folder)
            self.assert_done(self.add(access, access, folder))
        for protocol in ('SMB3', 'SMB3_00'):
            for request in requests:
                with self.subTest(request, protocol=protocol):
                    before = self.tree(folders['ro'])
                    output = self.request('ro', protocol, request)
                    self.assertEqual(self.tree(folders['ro']), before, output)
                    self.assertIn('NT_STATUS', output)
        for request in requests:
            with self.subTest('the same where it may', request=request):
                before = self.tree(folders['rw'])
                output = self.request('rw', 'SMB3', request)
                self.assertNotEqual(self.tree(folders['rw']), before, output)
        for request in ('allinfo f', 'ls', 'get f "%s/got"' % self.scratch):
            self.assertNotIn('NT_STATUS', self.request('ro', 'SMB3', request))
        self.assert_served('ro')

    def request(self, share, protocol, request):
        return run_client(['smbclient', '-m', protocol, '-U', 'alice%' + self.password,
                           '//127.0.0.1/' + share, '-c', request])[1]

    @contextlib.contextmanager
    def on_the_wire(self):
        """Opens a port that forwards and records the traffic between client and server."""
        kept = bytearray()
        with socket.create_server(('127.0.0.1', 0)) as listener:
            thread = threading.Thread(target=self.pass_on_all, args=(listener, kept))
            thread.start()
            try:
                yield listener.getsockname()[1], kept
            finally:
                listener.shutdown(socket.SHUT_RDWR)
                thread.join(HANG)

    def pass_on_all(self, listener, kept):
        with contextlib.suppress(OSError):
            while True:
                near = listener.accept()[0]
                with near, socket.create_connection(('127.0.0.1', 445)) as far:
                    back = threading.Thread(target=self.pass_on, args=(far, near, kept))
                    back.start()
                    self.pass_on(near, far, kept)
                    back.join(HANG)

    def pass_on(self, source, target, kept):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                kept += data
                target.sendall(data)
        with contextlib.suppress(OSError):
            target.shutdown(socket.SHUT_WR)

    def fetch(self, share, *options, user='alice', password=None):
        """Returns whether a client with these options gets the file f, and whether the traffic shows its content."""
        got = self.scratch + '/fetched'
        with contextlib.suppress(FileNotFoundError):
            os.unlink(got)
        with self.on_the_wire() as (port, kept):
            login = '%s%%%s' % (user, password or self.password)
            run_client(['smbclient', '-p', str(port), *options, '-U', login, '//127.0.0.1/' + share, '-c',
                        'get f "%s"' % got])
        has = os.path.exists(got) and read(got) == self.content
        return has, self.content in kept

    content = b'a line that is on no other wire\n' * 3

    def test_traffic_does_not_show_the_content(self):
        folder = self.make_folder(self.scratch + '/Wire', content=self.content)
        self.assert_done(self.add(folder=folder))
        plain = self.make_folder(self.scratch + '/Plain', 'ann', self.content)
        self.registry_share('Plain', plain)
        self.assertEqual(self.fetch('Docs'), (True, False))
        # A client that asks for no encryption is encrypted or refused.
        for options in (['--client-protection=off'], ['--client-protection=sign'], ['-m', 'SMB3_00']):
            with self.subTest(options):
                self.assertFalse(self.fetch('Docs', *options)[1])
        for protocol in ('SMB2_02', 'SMB2_10'):
            with self.subTest(protocol):
                self.assertEqual(self.fetch('Docs', '-m', protocol), (False, False))
        # On a share of the host's own the content is visible, so the test would notice it.
        self.assertEqual(self.fetch('Plain', '--client-protection=off', user='ann', password=THEIRS),
                         (True, True))

    def test_number_of_a_former_user_is_not_reused(self):
        os.chmod(self.scratch, 0o777)
        place = os.path.basename(self.scratch) + '\\'
        numbers = []
        for user in ('alice', 'bella', 'alice'):
            if not user_exists(user):
                self.add_user(user)
            self.assertNotIn(uid_of(user), numbers)
            numbers.append(uid_of(user))
            name = 'of%d' % len(numbers)
            status, output = client(user, self.password, 'Textual',
                                    'put "%s" %s%s' % (self.password_file, place, name))
            self.assertEqual(status, 0, output)
            path = self.scratch + '/' + name
            os.chmod(path, 0o600)
            self.assertEqual(os.stat(path).st_uid, uid_of(user))
            for number in range(1, len(numbers)):
                output = client(user, self.password, 'Textual', 'get %sof%d /dev/null' % (place, number))[1]
                self.assertIn('ACCESS_DENIED', output)
            status, output = client(user, self.password, 'Textual', 'get %s%s /dev/null' % (place, name))
            self.assertEqual(status, 0, output)
            self.assert_done(run_script('rmuser', user))

    def test_user_is_served_after_password_database_is_replaced(self):
        database = '/var/lib/samba/private/passdb.tdb'
        self.assert_done(run_script('rmuser', 'alice'))
        kept = read(database)
        # Only this test reuses numbers.
        self.addCleanup(command, 'net', 'cache', 'flush')
        for _ in range(2):
            self.add_both() # with the same SID each time
            self.assert_served()
            self.assert_done(run_script('rmshare', 'Docs', self.folder))
            self.assert_done(run_script('rmuser', 'alice'))
            self.smbd.stop()
            write(database, kept)
            type(self).smbd = sambahost.Smbd()


class PasswordOfTheUser(HostTest):
    """The host changes passwords of its own users when they change theirs at Samba."""

    conf = with_global("""
  unix password sync = yes
  passwd program = /srv/setPassword %u
  passwd chat = *New* %n\\n *done*
""")

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        write('/srv/setPassword', '#!/bin/sh\nprintf "New: "\nread -r new\n'
                                  'usermod --password "\\$$new" "$1" && echo done\n', 0o755)

    def change(self, user, old):
        """Tries all ways to change the password, and returns how many succeeded."""
        login, server = '%s%%%s' % (user, old), '127.0.0.1'
        given = '\n'.join([old, NEW, NEW, ''])
        done = [run_client(['smbpasswd', '-s', '-r', server, '-U', user], given)]
        requests = ['chgpasswd%s %s "%s" "%s"' % (kind, user, old, NEW) for kind in ('', '2', '3', '4')]
        requests += ['setuserinfo%s %s %d "%s"' % (kind, user, level, NEW)
                     for kind in ('', '2') for level in (18, 21, 23, 24, 25, 26)]
        for request in requests:
            done.append(run_client(['rpcclient', '-U', login, server, '-c', request]))
        return [output for status, output in done if status == 0]

    def shadow(self, user):
        return re.search(r'^%s:([^:]*):' % user, read('/etc/shadow').decode(), re.MULTILINE).group(1)

    def test_user_cannot_change_the_password(self):
        odd = b'corr\xffect \xe9'
        for password in (self.password.encode(), odd):
            with self.subTest(password):
                write(self.password_file, password + b'\n', 0o600)
                self.add_both()
                self.assertEqual(self.change('alice', password.decode(errors='surrogateescape')), [])
                self.assert_served(password=password)
                self.assert_not_served('LOGON_FAILURE', password=NEW)
                self.assertEqual(self.shadow('alice'), '!')
                self.assert_done(run_script('rmshare', 'Docs', self.folder))
                self.assert_done(run_script('rmuser', 'alice'))

    def test_other_users_can_change_their_passwords(self):
        self.add_user()
        self.assertEqual(self.shadow('ann')[0], '!')
        self.assertNotEqual(self.change('ann', THEIRS), [])
        self.assertEqual(client('ann', NEW, 'Textual', 'ls')[0], 0)
        self.assertEqual(self.shadow('ann')[0], '$') # the attack would have allowed a login on the host
        subprocess.run(['smbpasswd', '-s', '-a', 'ann'], input=(THEIRS + '\n' + THEIRS + '\n').encode(),
                       check=True, stdout=subprocess.DEVNULL)
        command('usermod', '--password', '!', 'ann')

    def test_user_cannot_change_password_during_account_creation(self):
        ended = threading.Event()
        tries = []

        def change():
            given = '\n'.join([self.password, NEW, NEW, ''])
            while not ended.is_set():
                tries.append(run_client(['smbpasswd', '-s', '-r', '127.0.0.1', '-U', 'alice'], given)[0])

        attackers = [threading.Thread(target=change) for _ in range(2)]
        for attacker in attackers:
            attacker.start()
        try:
            for _ in range(5):
                self.add_both()
                self.assert_served()
                self.assertEqual(self.shadow('alice'), '!')
                self.assert_done(run_script('rmshare', 'Docs', self.folder))
                self.assert_done(run_script('rmuser', 'alice'))
        finally:
            ended.set()
            for attacker in attackers:
                attacker.join(HANG)
        self.assertGreater(len(tries), 5)
        self.assertNotIn(0, tries)


class SettingsThatWiden(HostTest):
    """[global] has the defaults of all shares; here they allow more than the share is meant to."""

    marks = '/srv/marks'
    # A default that the share does not override is noticed, because all others are overridden.
    conf = with_global("""
  write list = alice, @nogroup
  admin users = alice, @nogroup
  force user = root
  force group = root
  guest ok = yes
  guest only = yes
  read only = no
  preexec = touch /srv/marks/preexec.%S
  postexec = touch /srv/marks/postexec.%S
  root preexec = touch /srv/marks/rootPreexec.%S
  root postexec = touch /srv/marks/rootPostexec.%S
  create mask = 06777
  force create mode = 06777
  directory mask = 02777
  force directory mode = 02777
  inherit owner = yes
  map acl inherit = yes
  dos filemode = yes
  magic script = magic
  administrative share = yes
  server smb encrypt = if_required
  null passwords = yes
  username level = 5
  restrict anonymous = 0
  map to guest = bad user
""")

    def setUp(self):
        super().setUp()
        os.makedirs(self.marks, exist_ok=True)
        os.chmod(self.marks, 0o777)
        self.addCleanup(command, 'rm', '-rf', self.marks)
        self.script = write(self.scratch + '/script', '#!/bin/sh\ntouch %s/magic\n' % self.marks, 0o700)

    def write_all(self, share):
        return client('alice', self.password, share,
                      'mkdir sub; put "%s" new; put "%s" magic' % (self.password_file, self.script))[1]

    def test_share_overrides_the_defaults_of_the_host(self):
        os.symlink('/etc/shadow', self.folder + '/outside')
        self.add_user()
        self.assert_done(self.add('ro'))
        self.assertIn('NT_STATUS', self.write_all('Docs'))
        self.assertEqual(sorted(os.listdir(self.folder)), ['f', 'outside'])
        self.assert_only_alice()
        self.assert_done(run_script('rmshare', 'Docs', self.folder))
        self.assert_done(self.add('rw'))
        output = self.write_all('Docs')
        self.assertNotIn('NT_STATUS', output)
        for name, mode in (('new', 0o744), ('magic', 0o744), ('sub', 0o755)):
            status = os.stat(self.folder + '/' + name)
            self.assertEqual((status.st_uid, status.st_gid, status.st_mode & 0o7777),
                             (uid_of('bob'), pwd.getpwnam('bob').pw_gid, mode), name)
        self.assertIn('NT_STATUS', client('alice', self.password, 'Docs', 'get outside /dev/null')[1])
        self.assert_only_alice()
        self.assertEqual([mark for mark in os.listdir(self.marks) if not mark.endswith('.IPC_')], [])

    def test_share_without_our_settings_is_open(self):
        plain = self.make_folder(self.scratch + '/Plain')
        self.registry_share('Plain', plain, 'guest only = no', 'administrative share = no')
        self.add_user()
        output = self.write_all('Plain')
        self.assertIn('new', os.listdir(plain), output)
        self.assertEqual(os.stat(plain + '/new').st_mode & 0o7777, 0o777)
        self.assertLessEqual({'preexec.Plain', 'rootPreexec.Plain', 'magic'}, set(os.listdir(self.marks)))
        self.assertEqual(client('', '', 'Plain', 'ls')[0], 0)


class SettingsThatSpoil(HostTest):
    """[global] makes every share useless that does not override its settings."""

    conf = with_global("""
  available = no
  valid users = nobody
  invalid users = alice, @nogroup
  read list = alice
  max connections = 1
  printable = yes
  vfs objects = readonly
  follow symlinks = no
  wide links = yes
  allow insecure wide links = yes
  smb1 unix extensions = no
  preexec = /bin/false
  preexec close = yes
  root preexec = /bin/false
  root preexec close = yes
  acl check permissions = no
  create mask = 0000
  directory mask = 0000
  inherit permissions = yes
  msdfs root = yes
  msdfs proxy = \\\\elsewhere\\share
  server smb encrypt = desired
  server smb3 encryption algorithms = AES-128-CCM
  server signing = disabled
  ntlm auth = mschapv2-and-ntlmv2-only
  obey pam restrictions = yes
  default service = Nowhere
  dont descend = /
""")

    def test_the_share_can_be_used(self):
        self.add_both()
        first = sambahost.ConnectedClient('alice', self.password, 'Docs')
        self.addCleanup(first.close)
        self.assertNotIn('NT_STATUS', first.ask('ls'))
        self.assert_served()
        output = client('alice', self.password, 'Docs', 'put "%s" new; mkdir sub' % self.password_file)[1]
        self.assertNotIn('NT_STATUS', output)
        self.assertEqual(os.stat(self.folder + '/new').st_mode & 0o7777, 0o744)
        self.assert_only_alice()
        self.assert_not_served('NT_STATUS', 'Textual') # a share without settings of its own


OBSTACLES = [
    ('server smb encrypt = off', 'encrypt'), ('server smb encrypt = no', 'encrypt'),
    ('server max protocol = SMB2_10', 'encrypt'),
    ('max protocol = NT1', 'encrypt'), ('server smb3 encryption algorithms = none', 'encrypt'),
    ('server min protocol = NT1', 'SMB 1'), ('min protocol = LANMAN1', 'SMB 1'),
    ('ntlm auth = disabled', 'ntlm auth'), ('root directory = /srv', 'root directory'),
    ('username map script = /bin/true', 'username map'), ('username map = /nonexistent', 'username map'),
    ('include = /etc/samba/more.conf', 'exists already'), ('registry shares = no', 'registry shares'),
]
NO_OBSTACLES = [
    'server smb encrypt = if_required', 'server smb encrypt = required', 'server max protocol = SMB3_11',
    'server smb3 encryption algorithms = AES-256-GCM', 'server min protocol = SMB3_11', 'root directory = /',
    'server signing = mandatory', 'include = /etc/samba/other.conf', 'include = /etc/samba/%U.conf',
    'include = registry', 'guest account = bob',
]
MAPS = ['root = alice', 'root=alice', 'root =\talice', 'ann = bob\talice\tx', 'ann = \\\nalice',
        'ann = bob \\\n alice', 'ann = alice\r', 'ann = bob;alice', 'ann = bob,alice,x',
        'ann = "alice"', 'ann = ALICE', '!ann = alice', 'ann = @nogroup', 'ann = +nogroup', 'ann = *']
OTHER_MAPS = ['root = administrator admin', 'ann = alice2', 'ann = malice, alic', '# ann = alice\n; ann = *', '']


class Obstacles(HostTest):
    """addshare.sh refuses a host that would not serve the share as promised, and prints the reason."""

    def setUp(self):
        super().setUp()
        self.addCleanup(write, CONF, sambahost.SMB_CONF)
        self.add_user()
        write('/etc/samba/more.conf', '[dOCS]\npath = /srv\nread only = no\n')
        write('/etc/samba/other.conf', '[Others]\npath = /srv\n')
        write('/etc/samba/alice.conf',
              '[global]\nadmin users = alice\n[Docs]\npath = /etc\nforce user = root\n')

    def add_for_a_moment(self):
        """Tries to add the share, and removes it if it was made by mistake."""
        result = self.add()
        if result.status == 0:
            run_script('rmshare', 'Docs', self.folder)
        return result

    def test_refuses_a_host_that_would_not_serve_it(self):
        with self.unchanged():
            for setting, reason in OBSTACLES:
                with self.subTest(setting):
                    write(CONF, with_global(setting))
                    self.assert_refused(self.add_for_a_moment(), reason)

    def test_refuses_a_map_to_another_user(self):
        write(CONF, with_global('username map = /etc/samba/map'))
        with self.unchanged():
            for text in MAPS:
                with self.subTest(text):
                    write('/etc/samba/map', text + '\n')
                    self.assert_refused(self.add_for_a_moment(), 'username map')

    def test_a_user_share_of_the_same_name(self):
        shares = '/var/lib/samba/usershares'
        os.makedirs(shares, exist_ok=True)
        self.addCleanup(command, 'rm', '-rf', shares)
        write(shares + '/docs', '')
        self.assert_refused(self.add(), 'user share')
        os.rename(shares + '/docs', shares + '/docs2')
        self.serve_with(sambahost.SMB_CONF)

    def test_serves_despite_harmless_settings_of_the_host(self):
        for setting in NO_OBSTACLES:
            with self.subTest(setting):
                self.serve_with(with_global(setting))
        for text in OTHER_MAPS:
            with self.subTest(text):
                write('/etc/samba/map', text + '\n')
                self.serve_with(with_global('username map = /etc/samba/map'))

    def serve_with(self, conf):
        write(CONF, conf)
        command('smbcontrol', 'smbd', 'reload-config')
        self.assert_done(self.add('ro'))
        self.assert_served()
        output = client('alice', self.password, 'Docs', 'put "%s" new' % self.password_file)[1]
        self.assertIn('NT_STATUS', output)
        self.assertEqual(os.listdir(self.folder), ['f'])
        self.assert_not_served('ACCESS_DENIED', user='ann', password=THEIRS)
        self.assert_done(run_script('rmshare', 'Docs', self.folder))


if __name__ == '__main__':
    unittest.main()
