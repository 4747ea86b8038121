"""addshare.sh serves one folder to one user."""

import os
import shutil
import pwd
import re
import signal
import subprocess
import unittest

import sambahost
from sambahost import (HANG, STATE, command, read, run_failing, run_script, samba_knows, script_path,
                       share_exists, succeeds, wait_until, write)

# Parts of a path below the scratch folder.
FOLDERS = {
    'BlanksAtTheEnds': b'  a b  ', 'TabAtTheEnd': b'\ta\t', 'OnlyABlank': b' ',
    'ShellSyntax': b'a"b\'c`d`$HOME$(id);&*?[a-z]{b,c}~', 'Comment': b';#a', 'Section': b'[global]',
    'Setting': b'path = /', 'Backslash': b'a\\b', 'BackslashAtTheEnd': b'a\\', 'User': b'%U',
    'Percents': b'%S%%%', 'Newline': b'a\n guest ok = yes', 'NewlineAtTheEnd': b'a\n', 'Dash': b'-n',
    'Unicode': '日本 ünïÁÈ u\u0308 😀'.encode(), 'ControlCharacters': b'\x01\x1b[0m\x7f:',
    'Longest': b'x' * 255,
}

SHARE_NAMES = [
    'a b', "it's", 'Tom & Jerry', 'hidden$', '-dash', '--help', 'ünïÁÈÀ', '#x', '@x', '~!^(x){x}`id`',
    '$x', '...', 'x' * 80, '😀' * 40, 'alice', 'global1',
]

REFUSED_SHARES = {
    'Empty': ('', 'empty'), 'Blank': (' ', 'blank'), 'BlankBefore': (' a', 'blank'),
    'BlankAfter': ('a ', 'blank'), 'TwoBlanks': ('a  b', 'two blanks'),
    'Newline': ('a\nb', 'control'), 'NewlineAfter': ('a\n', 'control'),
    'Injected': ('a]\nguest ok = yes\n[b', 'control'), 'Tab': ('a\tb', 'control'),
    'Delete': ('a\x7f', 'control'), 'Dot': ('.', 'reserved'), 'DotDot': ('..', 'reserved'),
    'TooLong': ('x' * 81, '80'), 'TooLongWide': ('😀' * 41, '80'), 'Bytes256': ('x' * 256, '80'),
    'Bytes300': ('é' * 150, '80'), 'NotUtf8': (b'a\xff', 'UTF-8'), 'CutUtf8': (b'a\xc3', 'UTF-8'),
    'Surrogate': (b'\xed\xa0\x80', 'UTF-8'), 'Overlong': (b'\xc0\xaf', 'UTF-8'),
}
REFUSED_SHARES.update({'Char%d' % ord(char): ('a%sb' % char, 'holds one of')
                       for char in '%<>*?|/\\+=;:",[]'})
REFUSED_SHARES.update({name: (name, 'reserved') for name in
                       ('global', 'GLOBAL', 'Global', 'homes', 'printers', 'print$', 'PRINT$', 'IPC$',
                        'ipc$', 'ADMIN$', 'netlogon', 'SysVol', 'globals', 'Home', 'printer', 'home s',
                        'g l o b a l', 'PRINT $')})


class ShareTest(sambahost.ScriptTest):

    def share_until_the_caller_has_gone(self):
        said = self.run_until_the_caller_has_gone(
            'addshare', 'carl', self.password_file, self.folder, 'Docs', 'rw',
            before='"%s" carl carl %s' % (script_path('adduser'), self.password_file))
        self.assertFalse(share_exists('Docs'))
        self.assertEqual(os.listdir(STATE + '/shares'), [])
        return said


class AddShare(ShareTest):

    def setUp(self):
        super().setUp()
        self.add_user()

    def add(self, share='Docs', folder=None, access='rw', user='alice', **kwargs):
        return run_script('addshare', user, self.password_file, folder or self.folder, share, access,
                          **kwargs)

    def test_serves_a_private_folder_and_says_nothing(self):
        result = self.add()
        self.assertEqual((result.status, result.output), (0, ''))
        self.assert_served()
        self.assertEqual(os.stat(self.folder).st_mode & 0o7777, 0o700, 'untouched')

    def test_lets_nobody_else_in(self):
        subprocess.run(['smbpasswd', '-s', '-a', 'bob'], input=b'bobs\nbobs\n', check=True,
                       stdout=subprocess.DEVNULL)
        self.addCleanup(command, 'pdbedit', '-x', '-u', 'bob')
        self.assert_done(self.add())
        self.assert_not_served('LOGON_FAILURE', password='wrong')
        self.assert_not_served('LOGON_FAILURE', user='nosuchuser')
        self.assert_not_served('ACCESS_DENIED', user='bob', password='bobs')
        self.assert_not_served('ACCESS_DENIED', user='')
        self.assert_served()

    def test_serves_although_samba_cached_the_owners_old_sid(self):
        subprocess.run(['smbpasswd', '-s', '-a', 'bob'], input=b'bobs\nbobs\n', check=True,
                       stdout=subprocess.DEVNULL)
        self.assert_done(self.add())
        self.assert_served() # now Samba caches bob's number as that of its own bob
        self.assert_done(run_script('rmshare', 'Docs', self.folder))
        command('pdbedit', '-x', '-u', 'bob')
        self.assert_done(self.add())
        self.assert_served()

    def test_rw_writes_as_the_owner(self):
        self.assert_done(self.add(access='rw'))
        status, output = sambahost.client('alice', self.password, 'Docs',
                                          'put "%s" new; mkdir sub; rm f' % self.password_file)
        self.assertEqual(status, 0, output)
        self.assertEqual(sorted(os.listdir(self.folder)), ['new', 'sub'])
        owner = os.stat(self.folder)
        for name in ('new', 'sub'):
            self.assertEqual(os.stat(self.folder + '/' + name).st_uid, owner.st_uid)

    def test_ro_refuses_to_write(self):
        self.assert_done(self.add(access='ro'))
        for request in ('put "%s" new' % self.password_file, 'mkdir sub', 'rm f', 'rename f g'):
            with self.subTest(request):
                output = sambahost.client('alice', self.password, 'Docs', request)[1]
                self.assertRegex(output, 'ACCESS_DENIED|MEDIA_WRITE_PROTECTED')
        self.assertEqual(os.listdir(self.folder), ['f'])
        self.assert_served()

    def test_serves_folders_of_any_name(self):
        for number, (name, part) in enumerate(FOLDERS.items()):
            with self.subTest(name):
                content = b'in %r\n' % part
                folder = self.make_folder(os.fsencode(self.scratch) + b'/' + part, content=content)
                share = 'Share%d' % number
                self.assert_done(self.add(share, folder))
                self.assert_served(share, content=content)

    def test_serves_folders_named_by_link_or_trailing_slash(self):
        os.symlink(self.folder, self.scratch + '/link')
        for number, folder in enumerate((self.scratch + '/link', self.folder + '/', self.folder + '/.')):
            with self.subTest(folder):
                self.assert_done(self.add('Share%d' % number, folder))
                self.assert_served('Share%d' % number)

    def test_a_link_that_changes_later_changes_nothing(self):
        other = self.make_folder(self.scratch + '/Other', content=b'other text\n')
        link = self.scratch + '/link\n'
        os.symlink(self.folder, link)
        self.assert_done(self.add(folder=link))
        os.unlink(link)
        os.symlink(other, link)
        self.assert_served()
        self.assert_refused(run_script('rmshare', 'Docs', self.folder), 'another folder')
        self.assert_done(run_script('rmshare', 'Docs', link))

    def test_serves_a_path_that_others_cannot_change(self):
        sticky = self.scratch + '/sticky'
        os.mkdir(sticky)
        os.chmod(sticky, 0o1777)
        ways = [self.make_folder(self.scratch + '/roots', 'root'),
                self.make_folder(sticky + '/roots', 'root'), self.make_folder(sticky + '/bobs'),
                self.make_folder(sticky + '/bobs/inner')]
        # Only root can replace one of these links; only root and bob can replace the last folder.
        for whose, link, target in (('bob', self.scratch + '/link', ways[0]),
                                    ('root', sticky + '/link', ways[3]), ('bob', sticky + '/own', ways[3]),
                                    ('bob', sticky + '/bobs/link', ways[3])):
            self.make_link(link, target, whose)
            ways.append(link)
        # Others may write to the shared folder itself: that leads nowhere else.
        ways.append(self.make_folder(self.scratch + '/open'))
        os.chmod(ways[-1], 0o2775)
        for number, folder in enumerate(ways):
            with self.subTest(folder):
                self.assert_done(self.add('Share%d' % number, folder))
                self.assert_served('Share%d' % number)

    @staticmethod
    def make_link(path, target, owner):
        os.symlink(target, path)
        os.lchown(path, pwd.getpwnam(owner).pw_uid, -1)

    def test_refuses_a_path_that_others_can_change(self):
        command('useradd', '--no-create-home', 'ann')
        self.addCleanup(command, 'userdel', 'ann')
        folders = []
        for owner in ('root', 'ann'):
            for name, mode, whose in (('bobs', 0o700, 'bob'), ('groups', 0o770, owner),
                                      ('everybodys', 0o777, owner), ('stickyBobs', 0o1711, 'bob')):
                above = self.make_folder('%s/%s%s' % (self.scratch, name, owner), whose)
                os.chmod(above, mode)
                os.mkdir(above + '/between')
                folders.append((self.make_folder(above + '/between/own', owner), above))
        for name, mode in (('groups2', 0o770), ('everybodys2', 0o777)):
            folder = self.make_folder(self.scratch + '/' + name, 'root')
            os.chmod(folder, mode)
            folders.append((folder, folder))
        os.symlink(folders[0][0], self.scratch + '/link')
        folders.append((self.scratch + '/link', folders[0][1]))
        # Both the owner of a link in a folder with the sticky bit and the owner of the link's folder matter.
        os.mkdir(self.scratch + '/sticky')
        os.chmod(self.scratch + '/sticky', 0o1777)
        self.make_folder(self.scratch + '/anns', 'ann')
        for link, changeable in (('/sticky/link', '/sticky/link'), ('/anns/link', '/anns')):
            self.make_link(self.scratch + link, self.folder, 'ann')
            folders.append((self.scratch + link, self.scratch + changeable))
        with self.unchanged():
            for folder, changeable in folders:
                with self.subTest(folder):
                    self.assert_refused(self.add(folder=folder), 'others can change "%s"' % changeable)

    def test_serves_under_names_of_many_kinds(self):
        for share in SHARE_NAMES:
            with self.subTest(share):
                self.assert_done(self.add(share))
                self.assert_served(share)
                self.assert_done(run_script('rmshare', share, self.folder))
                self.assertFalse(share_exists(share))

    def test_refuses_share_names_that_would_damage_the_host(self):
        command('net', 'conf', 'addshare', 'Other', '/srv', 'writeable=n', 'guest_ok=n', '')
        with self.unchanged():
            for name, (share, reason) in REFUSED_SHARES.items():
                with self.subTest(name):
                    self.assert_refused(self.add(share), reason)
        self.assertTrue(share_exists('Other'))

    def test_leaves_the_other_shares_of_the_host_alone(self):
        command('net', 'conf', 'addshare', 'Other', '/srv', 'writeable=n', 'guest_ok=n', 'mine')
        before = command('net', 'conf', 'showshare', 'Other')
        self.assert_done(self.add('Docs'))
        self.assertEqual(command('net', 'conf', 'showshare', 'Other'), before)
        self.assertCountEqual(command('net', 'conf', 'listshares').split(), ['Other', 'Docs'])

    def test_refuses_a_share_that_exists(self):
        command('net', 'conf', 'addshare', 'Other', '/srv', 'writeable=n', 'guest_ok=n', '')
        self.assert_done(self.add('Üben'))
        with self.unchanged():
            for share, reason in (('Other', '"Other" exists already\n'), ('oTHER', 'exists already\n'),
                                  ('Textual', 'exists already\n'), ('textUAL', 'exists already\n'),
                                  ('Üben', 'in use'), ('üBEN', 'in use')):
                with self.subTest(share):
                    self.assert_refused(self.add(share), reason)
            self.assert_refused(self.add('Üben', run=self.session().run), 'belongs to another')

    def test_refuses_the_name_of_a_user_share(self):
        shares = '/var/lib/samba/usershares'
        os.makedirs(shares, exist_ok=True)
        self.addCleanup(command, 'rm', '-rf', shares)
        for name in ('docs', b'\xff'):
            write(os.path.join(os.fsencode(shares), os.fsencode(name)), '')
        with self.unchanged():
            self.assert_refused(self.add(), 'the share "Docs" exists already as a user share')
        self.assert_done(self.add('Doc'))

    def test_a_refusal_cuts_off_nobody(self):
        folder = self.make_folder('/srv/textual')
        self.addCleanup(shutil.rmtree, folder)
        self.addCleanup(write, '/etc/samba/smb.conf', sambahost.SMB_CONF)
        write('/etc/samba/smb.conf', sambahost.SMB_CONF + '[Other]\n  path = %s\n  force user = bob\n' % folder)
        subprocess.run(['smbpasswd', '-s', '-a', 'bob'], input=b'bobs\nbobs\n', check=True,
                       stdout=subprocess.DEVNULL)
        self.addCleanup(command, 'pdbedit', '-x', '-u', 'bob')
        connected = sambahost.ConnectedClient('bob', 'bobs', 'Other')
        self.addCleanup(connected.close)
        self.assertIn('blocks available', connected.ask('ls'))
        self.assert_refused(self.add('other'), 'exists already')
        self.assertIn('blocks available', connected.ask('ls'))

    def test_accepts_other_share_names_that_are_not_utf8(self):
        self.addCleanup(write, '/etc/samba/smb.conf', sambahost.SMB_CONF)
        write('/etc/samba/smb.conf', sambahost.SMB_CONF.encode() + b'[B\xfcro]\n  path = /srv\n')
        self.assert_done(self.add())
        self.assert_served()
        self.assertEqual(command(sambahost.PROGRAM, 'sessions', '--clean'), '')

    def test_refuses_a_foreign_share_without_a_path(self):
        subprocess.run(['net', 'conf', 'import', '/dev/stdin', '--', 'Bare'], check=True,
                       input=b'[Bare]\ncomment = x\n')
        with self.unchanged():
            self.assert_refused(self.add('Bare'), 'exists already')

    def test_refuses_folders_that_cannot_be_served(self):
        self.make_folder(self.scratch + '/nobodys', 54321)
        os.makedirs(self.scratch + '/closed/inner')
        os.chmod(self.scratch + '/closed', 0o700)
        os.chown(self.scratch + '/closed/inner', os.stat(self.folder).st_uid, -1)
        write(self.scratch + '/file', '')
        os.symlink('nowhere', self.scratch + '/dangling')
        os.symlink('loop', self.scratch + '/loop')
        bad = os.fsencode(self.scratch) + b'/\xff'
        os.mkdir(bad)
        os.symlink(bad, self.scratch + '/toBad')
        with self.unchanged():
            for folder, reason in (
                    ('relative', 'not absolute'), ('-n', 'not absolute'), ('%U', 'not absolute'),
                    (self.scratch + '/missing', 'not a folder'), (self.scratch + '/file', 'not a folder'),
                    (self.scratch + '/dangling', 'not a folder'),
                    (self.folder + ' ', 'not a folder'), (bad, 'UTF-8'),
                    (self.scratch + '/toBad', 'UTF-8'),
                    (self.scratch + '/file/inner', 'not a folder'),
                    (self.scratch + '/file/..', 'not a folder'),
                    (self.scratch + '/loop', 'Too many levels of symbolic links'),
                    ('/' + 'x' * 256, 'cannot resolve the path'),
                    (self.scratch + '/nobodys', 'no user of this host'),
                    (self.scratch + '/closed/inner', 'cannot enter')):
                with self.subTest(folder):
                    self.assert_refused(self.add(folder=folder), reason)
            self.assert_refused(run_script('addshare', 'alice', self.password_file, '', 'Docs', 'rw'),
                                'not absolute')

    def test_refuses_wrong_arguments(self):
        good = ['alice', self.password_file, self.folder, 'Docs', 'rw']
        with self.unchanged():
            for access in ('', 'r', 'RW', 'rw ', 'rwx', 'yes', 'rw\n'):
                with self.subTest(access):
                    self.assert_refused(run_script('addshare', *good[:4], access), 'neither rw nor ro')
            self.assert_refused(run_script('addshare', *good[:4]), 'usage')
            self.assert_refused(run_script('addshare', *good, 'more'), 'usage')
            self.assert_refused(run_script('addshare', 'alice', '', *good[2:]), 'empty')
            self.assert_refused(self.add(user='@alice'), 'user name')

    def test_refuses_users_that_were_not_made_for_it(self):
        command('useradd', '--no-create-home', '--comment', sambahost.COMMENT, 'halfmade')
        self.add_user('dave', run=self.session().run)
        session = self.session()
        self.add_user('eve', run=session.run)
        session.kill()
        with self.unchanged():
            for user, reason in (('nosuch', 'no user'), ('bob', 'not made'), ('root', 'not made'),
                                 ('halfmade', 'not made'), ('dave', 'another session that runs\n'),
                                 ('eve', 'another session\n')):
                with self.subTest(user):
                    self.assert_refused(self.add(user=user), reason)

    def test_refuses_a_user_who_is_just_being_made(self):
        record = STATE + '/users/alice'
        text = read(record)
        write(record, text + b'maker ' + text.split(b'session ')[1])
        with self.unchanged():
            self.assert_refused(self.add(), 'the user alice was not made for a share')

    def test_refuses_an_owner_whom_samba_cannot_find(self):
        users = read('/etc/passwd')
        self.addCleanup(write, '/etc/passwd', users)
        odd = ('BOB', 's-1-5', 'a%u', '@wheel', '&a', 'a,b', 'a;b', 'a"b', 'a\\b', 'a ', 'a\tb', 'None',
               b'\xff')
        names = [os.fsencode(name) for name in odd + ('Mixed', 'a b', 'ünï')]
        write('/etc/passwd', users + b''.join(b'%s:x:%d:100::/:/bin/sh\n' % (name, 5000 + number)
                                              for number, name in enumerate(names)))
        folders = [self.make_folder(self.scratch + '/of%d' % number, 5000 + number)
                   for number in range(len(names))]
        with self.unchanged():
            for name, folder in zip(odd, folders):
                with self.subTest(name):
                    self.assert_refused(self.add(folder=folder), 'Samba cannot act as the owner')
        for number, folder in list(enumerate(folders))[len(odd):]:
            with self.subTest(names[number]):
                self.assert_done(self.add('Share%d' % number, folder))
                self.assert_served('Share%d' % number)

    def test_requires_a_client_to_encrypt(self):
        self.assert_done(self.add())
        output = command('smbclient', '-U', 'alice%' + self.password, '--max-protocol=SMB2_10',
                         '//127.0.0.1/Docs', '-c', 'ls', check=False) # a client that cannot encrypt
        self.assertIn('ACCESS_DENIED', output)
        self.assert_served()

    def with_settings(self, *settings):
        """Adds the settings to [global] in smb.conf, until the test ends or calls this again."""
        self.addCleanup(write, '/etc/samba/smb.conf', sambahost.SMB_CONF)
        names = [setting.split(' = ')[0] for setting in settings]
        kept = [line for line in sambahost.SMB_CONF.splitlines() if line.strip().split(' = ')[0] not in names]
        kept[1:1] = settings
        write('/etc/samba/smb.conf', '\n'.join(kept) + '\n')

    def test_refuses_a_host_that_would_not_serve_it(self):
        names = write(self.scratch + '/names', '# a comment\nbob = alice\n')
        for setting, reason in (('registry shares = no', 'set "registry shares = yes"'),
                                ('server min protocol = NT1', 'lets in clients of SMB 1'),
                                ('server max protocol = SMB2', 'cannot encrypt'),
                                ('server smb encrypt = off', 'cannot encrypt'),
                                ('ntlm auth = disabled', 'lets no user of this host log in'),
                                ('root directory = /srv', 'a root directory of its own'),
                                ('username map = ' + names, 'maps the user to another one'),
                                ('username map = /nonexistent', 'maps the user to another one'),
                                ('username map script = /bin/echo', 'maps the user to another one')):
            with self.subTest(setting), self.unchanged():
                self.with_settings(setting)
                self.assert_refused(self.add(), reason)
                write('/etc/samba/smb.conf', sambahost.SMB_CONF)

    def test_serves_on_hosts_of_many_kinds(self):
        names = write(self.scratch + '/names', '# bob = alice\nbob = carol\n')
        for setting in ('server min protocol = SMB3_11', 'server max protocol = SMB3_00',
                        'server smb encrypt = required', 'ntlm auth = ntlmv2-only',
                        'root directory = /', 'username map = ' + names):
            with self.subTest(setting):
                self.with_settings(setting)
                self.assert_done(self.add())
                self.assert_done(run_script('rmshare', 'Docs', self.folder))

    def test_undoes_everything_when_a_step_fails(self):
        importing = 'case "$*" in *import*) %s ;; esac; exec $real "$@"'
        changed = importing % ('%%s >%s/share; exec $real conf import %s/share -- Docs'
                               % (self.scratch, self.scratch))
        steps = {
            'net': (importing % 'echo why; exit 255', 'Samba did not take the share "Docs": why'),
            'net after its work': (importing % '$real "$@"; exit 255', 'Samba did not take the share'),
            'net does nothing': (importing % 'exit 0', 'as it was asked for: it is not there'),
            'net makes another share': (changed % "sed 's/^read only = .*/read only = yes/'",
                                        'asked for: read only is "yes" instead of "no"'),
            'net leaves something out': (changed % "sed '/^server smb encrypt/d'",
                                         'asked for: server smb encrypt is "default" instead of "required"'),
            'net adds something': (changed % "sed '$ aveto files = /x/'",
                                   'asked for: it has settings that were not asked for'),
        }
        for step, (text, reason) in steps.items():
            with self.subTest(step), self.unchanged():
                with sambahost.stand_in('net', text):
                    self.assert_refused(self.add(), reason)

    def test_undoes_everything_when_a_system_call_fails(self):
        link = self.scratch + '/link'
        os.symlink(self.folder, link)
        args = ('addshare', 'alice', self.password_file, link, 'Docs', 'rw')
        made = sambahost.straced.recorded([sambahost.PROGRAM, *args], '-D', '-e', 'trace=mkdir')
        self.assert_done(run_script('rmshare', 'Docs', link))
        new = next(call.ordinal for call in made if re.search(r'shares/\w{6}"', call.line))
        faults = (
            ('openat', 'EMFILE', 1, '/', 'cannot resolve the path: '),
            ('readlinkat', 'EIO', None, None, 'cannot resolve the path: '),
            ('clone', 'EAGAIN', 1, None, 'cannot start a process: '),
            ('mkdir', 'ENOSPC', new, None, 'cannot make a folder in /run/pelago/shares: '),
            ('chmod', 'EPERM', None, None, 'cannot make /run/pelago/shares/'),
            ('symlink', 'ENOSPC', None, None, 'cannot make /run/pelago/shares/'),
            ('rename', 'ENOSPC', 1, None, 'cannot write /run/pelago/shares/'),
            ('rename', 'ENOSPC', 2, None, 'cannot write /run/pelago/shares/'),
        )
        for call, error, ordinal, path, reason in faults:
            with self.subTest(call, ordinal=ordinal), self.unchanged():
                self.assert_refused(run_failing(call, error, *args, path=path, ordinal=ordinal),
                                    'addshare.sh: ' + reason)

    def test_refuses_when_the_configuration_cannot_be_read(self):
        with sambahost.stand_in('testparm', 'echo why; exit 1'):
            self.assert_refused(self.add(), "cannot read Samba's configuration: why")
        self.assertFalse(share_exists('Docs'))
        self.assert_done(self.add())
        self.assertEqual(len(os.listdir(STATE + '/shares')), 1, 'the first has left nothing')

    def test_undoes_what_it_can_when_the_registry_breaks(self):
        broken = self.scratch + '/broken'
        with sambahost.stand_in('net', '[ ! -e {0} ] || {{ echo broken; exit 3; }}\n'
                                       'case "$*" in *import*) $real "$@"; touch {0}; exit 1 ;; esac\n'
                                       'exec $real "$@"'.format(broken)):
            result = self.add()
        self.assert_refused(result, 'Samba did not take the share "Docs"')
        self.assertIn('cannot remove the share "Docs": broken', result.output)
        self.assertIn('the share "Docs" is left behind', result.output)
        self.assert_not_served('NT_STATUS') # its link was removed
        with sambahost.stand_in('net', 'echo broken; exit 3'):
            result = self.add('Other')
        self.assert_refused(result, 'Samba did not take the share "Other": broken')
        self.assertIn('cannot remove the share "Docs": broken', result.output)
        self.assertIn('something of an earlier session is still there', result.output)
        self.assert_done(self.add('Other'))
        self.assertFalse(share_exists('Docs'))

    def test_replaces_its_own_share_without_a_record(self):
        subprocess.run(['net', 'conf', 'import', '/dev/stdin', '--', 'docs'], check=True,
                       input=b'[docs]\npath = /run/pelago/shares/abcdef/folder\n')
        with sambahost.stand_in('net', 'case "$*" in *delshare*) echo why; exit 1;; esac\n'
                                       'exec $real "$@"'), self.unchanged():
            result = self.add()
            self.assert_refused(result, 'cannot replace the share "Docs"')
            self.assertIn('cannot remove the share "Docs": why', result.output)
        result = self.add()
        self.assert_done(result)
        self.assertIn('removing the share "Docs" of a session that has ended', result.output)
        self.assert_served()

    def test_undoes_everything_when_its_caller_has_gone(self):
        self.stand_in('net', 'case "$*" in *import*) touch %s/imported;; esac; exec $real "$@"'
                      % self.scratch)
        self.stand_in('testparm', '[ ! -e %s/imported ] || { %s; }; exec $real "$@"'
                      % (self.scratch, self.waiting()))
        said = self.share_until_the_caller_has_gone()
        self.assertEqual(said, 'addshare.sh: the caller has gone\n')

    def test_undoes_everything_when_it_is_interrupted(self):
        self.stand_in('net', 'case "$*" in *import*) $real "$@"; %s; exit 0;; esac; exec $real "$@"'
                      % self.waiting())
        for number in (signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number), self.unchanged():
                with subprocess.Popen([script_path('addshare'), 'alice', self.password_file,
                                       self.folder, 'Docs', 'rw'],
                                      stderr=subprocess.DEVNULL) as script:
                    wait_until(self.started, 'the step')
                    self.assertTrue(share_exists('Docs'))
                    script.send_signal(number)
                    self.go()
                    self.assertEqual(script.wait(HANG), 128 + number)
                self.stop_waiting_for()

    def test_undoes_everything_when_nobody_reads_the_reason(self):
        self.stand_in('net', 'case "$*" in *import*) $real "$@"; echo chatter >&2; exit 1;; esac\n'
                             'exec $real "$@"')
        for ignore in (signal.SIG_DFL, signal.SIG_IGN):
            with self.subTest(ignore), self.unchanged():
                reader, writer = os.pipe()
                os.close(reader)
                with open(writer, 'wb') as broken:
                    done = subprocess.run(
                        [script_path('addshare'), 'alice', self.password_file, self.folder, 'Docs',
                         'rw'], stdout=broken, stderr=broken, timeout=HANG, check=False,
                        preexec_fn=lambda ignore=ignore: signal.signal(signal.SIGPIPE, ignore))
                self.assertEqual(done.returncode, 1)


class AddShareBesideADownedServer(ShareTest):

    needs_smbd = False

    def test_waits_for_smbd_to_come_up(self):
        self.add_user()
        with subprocess.Popen([script_path('addshare'), 'alice', self.password_file, self.folder,
                               'Docs', 'rw']) as script:
            wait_until(lambda: script.poll() is not None or share_exists('Docs'), 'the share')
            self.assertIsNone(script.poll())
            smbd = sambahost.Smbd()
            self.addCleanup(smbd.stop)
            self.assertEqual(script.wait(HANG), 0)
        self.assert_served()

    def test_undoes_everything_when_smbd_does_not_come_up(self):
        self.add_user()
        with self.unchanged():
            self.assert_refused(run_script('addshare', 'alice', self.password_file, self.folder,
                                           'Docs', 'rw', env=sambahost.in_haste()),
                                'smbd has not come up within 10 s: is pelago-smb-switch running')

    def test_undoes_everything_when_its_caller_exits_while_waiting(self):
        self.stand_in('net', 'case "$*" in *import*) $real "$@"; %s; exit 0;; esac; exec $real "$@"'
                      % self.waiting())
        self.assertEqual(self.share_until_the_caller_has_gone(), 'addshare.sh: the caller has gone\n')

    def test_undoes_everything_when_interrupted_while_waiting(self):
        self.add_user()
        with self.unchanged():
            with subprocess.Popen([script_path('addshare'), 'alice', self.password_file,
                                   self.folder, 'Docs', 'rw'], stderr=subprocess.DEVNULL) as script:
                wait_until(lambda: share_exists('Docs'), 'the share')
                script.terminate()
                self.assertEqual(script.wait(HANG), 128 + signal.SIGTERM)
        self.assertTrue(samba_knows('alice'))
        self.assertTrue(succeeds('net', 'conf', 'list'))


if __name__ == '__main__':
    unittest.main()
