"""addshare.sh: one folder, served to one user."""

import os
import signal
import subprocess
import unittest

import sambahost
from sambahost import (HANG, command, run_script, samba_knows, script_path, share_exists, succeeds,
                       wait_until, write)

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
                        'ipc$', 'ADMIN$', 'netlogon', 'SysVol')})


class AddShare(sambahost.ScriptTest):

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

    def test_serves_for_an_owner_whose_number_samba_knows_as_somebody_else(self):
        subprocess.run(['smbpasswd', '-s', '-a', 'bob'], input=b'bobs\nbobs\n', check=True,
                       stdout=subprocess.DEVNULL)
        self.assert_done(self.add())
        self.assert_served() # now Samba remembers bob's number as that of its own bob
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

    def test_serves_a_folder_through_a_link_and_with_a_slash_at_the_end(self):
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

    def test_serves_a_folder_where_only_root_and_its_owner_can_change_the_way(self):
        sticky = self.scratch + '/sticky'
        os.mkdir(sticky)
        os.chmod(sticky, 0o1777)
        ways = [self.make_folder(self.scratch + '/roots', 'root'), self.scratch + '/bobs/link',
                self.make_folder(sticky + '/roots', 'root'), self.make_folder(sticky + '/bobs'),
                self.make_folder(sticky + '/bobs/inner')]
        # Whose the link is does not matter: it is followed once, to a place that stays.
        self.make_folder(self.scratch + '/bobs')
        os.symlink(self.scratch + '/roots', ways[1])
        # What others write into it is in it.
        ways.append(self.make_folder(self.scratch + '/open'))
        os.chmod(ways[-1], 0o2775)
        for number, folder in enumerate(ways):
            with self.subTest(folder):
                self.assert_done(self.add('Share%d' % number, folder))
                self.assert_served('Share%d' % number)

    def test_refuses_a_folder_where_others_can_change_the_way(self):
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

    def test_refuses_names_that_would_damage_or_change_the_host(self):
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
                                  ('Textual', 'configuration file'), ('textUAL', 'configuration file'),
                                  ('Üben', 'in use'), ('üBEN', 'in use')):
                with self.subTest(share):
                    self.assert_refused(self.add(share), reason)
            self.assert_refused(self.add('Üben', run=self.session().run), 'belongs to another')

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
        bad = os.fsencode(self.scratch) + b'/\xff'
        os.mkdir(bad)
        with self.unchanged():
            for folder, reason in (
                    ('relative', 'not absolute'), ('-n', 'not absolute'), ('%U', 'not absolute'),
                    (self.scratch + '/missing', 'not a folder'), (self.scratch + '/file', 'not a folder'),
                    (self.scratch + '/dangling', 'not a folder'),
                    (self.folder + ' ', 'not a folder'), (bad, 'UTF-8'),
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
        with self.unchanged():
            for user, reason in (('nosuch', 'no user'), ('bob', 'not made'), ('root', 'not made'),
                                 ('halfmade', 'Samba does not know'), ('dave', 'another session')):
                with self.subTest(user):
                    self.assert_refused(self.add(user=user), reason)

    def test_refuses_a_host_that_would_not_serve_it(self):
        without = sambahost.SMB_CONF.replace('registry shares = yes', 'registry shares = no')
        self.addCleanup(write, '/etc/samba/smb.conf', sambahost.SMB_CONF)
        for text in (without, without.replace('  registry shares = no\n', '')):
            write('/etc/samba/smb.conf', text)
            with self.unchanged():
                self.assert_refused(self.add(), 'registry shares = yes')

    def test_undoes_everything_when_a_step_fails(self):
        importing = 'case "$*" in *import*) %s ;; esac; exec $real "$@"'
        steps = {
            'net': importing % 'exit 255',
            'net after its work': importing % '$real "$@"; exit 255',
            'net does nothing': importing % 'exit 0',
            'net cannot read': 'exit 255',
            'mktemp': 'exit 1',
            'ln': 'exit 1',
            'ln after its work': '$real "$@"; exit 1',
            'chmod': 'exit 1',
            'pdbedit': 'exit 1',
            'testparm': 'exit 1',
        }
        for step, text in steps.items():
            with self.subTest(step), self.unchanged():
                with sambahost.stand_in(step.split()[0], text):
                    result = self.add()
                self.assertEqual(result.status, 1, result)
                self.assertRegex(result.output, r'addshare\.sh: (cannot|Samba did not|Samba does not)')

    def test_undoes_what_it_can_when_the_registry_breaks(self):
        self.stand_in('net', '[ ! -e {0}/broken ] || {{ echo broken; exit 3; }}\n'
                             'case "$*" in *import*) touch {0}/broken ;; esac\n'
                             'exec $real "$@"'.format(self.scratch))
        result = self.add()
        self.assert_refused(result, "cannot read Samba's registry: broken")
        self.assertIn('the share "Docs" is left behind', result.output)
        self.assertEqual(os.listdir(sambahost.STATE + '/shares'), [])
        os.unlink(self.scratch + '/broken')
        self.assert_not_served('NT_STATUS') # it leads nowhere

    def test_undoes_everything_when_it_is_interrupted(self):
        text = ('case "$*" in *import*) $real "$@"; touch started; '
                'while [ ! -e go ]; do sleep 0.01; done; exit 0;; esac; exec $real "$@"')
        self.stand_in('net', 'cd %s; %s' % (self.scratch, text))
        for number in (signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number), self.unchanged():
                with subprocess.Popen([script_path('addshare'), 'alice', self.password_file,
                                       self.folder, 'Docs', 'rw'],
                                      stderr=subprocess.DEVNULL) as script:
                    wait_until(lambda: os.path.exists(self.scratch + '/started'), 'the step')
                    self.assertTrue(share_exists('Docs'))
                    script.send_signal(number)
                    write(self.scratch + '/go', '')
                    self.assertEqual(script.wait(HANG), 128 + number)
                os.unlink(self.scratch + '/started')
                os.unlink(self.scratch + '/go')

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


class AddShareBesideADownedServer(sambahost.ScriptTest):

    needs_smbd = False

    def test_waits_for_smbd_to_come_up(self):
        self.add_user()
        with subprocess.Popen([script_path('addshare'), 'alice', self.password_file, self.folder,
                               'Docs', 'rw']) as script:
            wait_until(lambda: script.poll() is not None or sambahost.has_child(script.pid, 'sleep'),
                       'the script to wait')
            self.assertIsNone(script.poll())
            self.assertTrue(share_exists('Docs'))
            smbd = sambahost.Smbd()
            self.addCleanup(smbd.stop)
            self.assertEqual(script.wait(HANG), 0)
        self.assert_served()

    def test_undoes_everything_when_smbd_does_not_come_up(self):
        self.add_user()
        with self.unchanged():
            self.assert_refused(run_script('addshare', 'alice', self.password_file, self.folder,
                                           'Docs', 'rw'), 'smbd has not come up')

    def test_undoes_everything_when_it_is_interrupted_while_it_waits(self):
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
