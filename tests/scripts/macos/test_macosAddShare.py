"""addshare.sh of the macOS share scripts, with stand-ins for the programs that it calls, as in test_macos.py."""

import os
import unittest

import machost
from machost import INHERIT, READ, WRITE, MacTest, write

SHARE_NAMES = [
    'a b', 'a  b', "it's", 'Tom & Jerry', 'hidden$', 'ünïÁÈÀ', '#x', '@x', '~!^(x){x}`id`', '$x', '...',
    '%s%U', '100%', 'a%20b', 'x%41', 'x' * 80, '😀' * 40, 'global',
]

REFUSED_SHARES = {
    'Empty': ('', 'empty'), 'Blank': (' ', 'blank'), 'BlankBefore': (' a', 'blank'),
    'BlankAfter': ('a ', 'blank'), 'Dash': ('-r', 'dash'), 'DashDash': ('--', 'dash'),
    'Newline': ('a\nb', 'control'), 'NewlineAfter': ('a\n', 'control'), 'Delete': ('a\x7f', 'control'),
    'Dot': ('.', 'reserved'), 'DotDot': ('..', 'reserved'), 'Ipc': ('Ipc$', 'reserved'),
    'Admin': ('ADMIN$', 'reserved'), 'Print': ('print$', 'reserved'),
    'TooLong': ('x' * 81, '80'), 'TooLongWide': ('😀' * 41, '80'), 'NotUtf8': (b'a\xff', 'UTF-8'),
    'Overlong': (b'\xc0\xaf', 'UTF-8'),
}
REFUSED_SHARES.update({'Char%d' % ord(char): ('a%sb' % char, 'holds one of')
                       for char in '<>*?|/\\+=;:",[]'})

# Parts of a path below the scratch folder.
FOLDERS = {
    'BlanksAtTheEnds': b'  a b  ', 'TabAtTheEnd': b'\ta\t', 'OnlyABlank': b' ',
    'ShellSyntax': b'a"b\'c`d`$HOME$(id);&*?[a-z]{b,c}~', 'Backslash': b'a\\b\\', 'Percents': b'%s%%',
    'Newline': b'a\nb', 'NewlineAtTheEnd': b'a\n\n', 'Dash': b'-R', 'Control': b'\x01\x1b[0m\x7f:',
    'Unicode': '日本 ünï u\u0308 😀'.encode(), 'Longest': b'x' * 255,
}

host = None


def setUpModule():
    global host  # pylint: disable=global-statement
    host = machost.set_up()


class AddShare(MacTest):

    def new_mac(self):
        super().new_mac()
        self.assert_done(self.add_user())

    def test_gives_exactly_the_rights_that_are_needed(self):
        entry = {'ro': ' 0: user:alice allow %s,%s' % (READ, INHERIT),
                 'rw': ' 0: user:alice allow %s,%s,%s' % (READ, WRITE, INHERIT)}
        for access in ('ro', 'rw'):
            with self.subTest(access):
                self.assert_done(self.add_share(access=access))
                self.assertEqual(
                    {path: self.entries(path) for path in host.mac.entries},
                    {path: [entry[access]] for path in machost.everything_in(self.folder)} |
                    {self.home: [' 0: user:alice allow search']})
                self.assert_done(self.run_script('rmshare', 'Docs', self.folder))
                self.assertEqual(host.mac.entries, {})

    def test_shares_over_smb_only_and_without_guests(self):
        for access, read_only in (('ro', '1'), ('rw', '0')):
            self.assert_done(self.add_share(access=access))
            record = host.mac.records['SharePoints']['Docs']
            self.assertEqual({key: record[key] for key in record if key != 'GeneratedUID'}, {
                'directory_path': [self.folder], 'smb_name': ['Docs'], 'services': ['001'],
                'guests': ['000'], 'read_only': [read_only]})
            self.assert_done(self.run_script('rmshare', 'Docs', self.folder))

    def test_grants_only_missing_access_and_revokes_in_reverse(self):
        os.makedirs(self.home + '/a/b/c', 0o755)
        os.chmod(self.home + '/a/b', 0o750)
        folder = self.make_folder(self.home + '/a/b/c/d')
        host.calls.clear()
        self.assert_done(self.add_share(folder=folder))
        self.assert_done(self.run_script('rmshare', 'Docs', folder))
        changes = [('+a' if '+a' in call.args else '-a', call.cwd) for call in host.calls
                   if 'chmod' in call.name or '/bin/chmod' in call.args]
        opened = [('+a', self.home), ('+a', self.home + '/a/b'), ('+a', folder)]
        self.assertEqual(changes, opened + [('-a', path) for _, path in reversed(opened)])

    def test_every_folder_can_be_shared(self):
        before = host.snapshot()
        for name, part in FOLDERS.items():
            with self.subTest(name):
                folder = os.fsdecode(os.path.join(os.fsencode(self.home), part))
                self.make_folder(folder)
                self.assert_done(self.add_share(folder=folder))
                self.assertEqual(host.mac.attribute('SharePoints', 'Docs', 'directory_path'), folder)
                self.assertEqual(len(self.entries(folder)), 1)
                self.assert_done(self.run_script('rmshare', 'Docs', folder))
                self.assert_unchanged(before)

    def test_repeated_slashes_mean_the_same_folder(self):
        self.assert_done(self.add_share(folder='//' + self.folder.replace('/', '//') + '/'))
        self.assertEqual(host.mac.attribute('SharePoints', 'Docs', 'directory_path'), self.folder)
        self.assertEqual(self.entries(self.home), [' 0: user:alice allow search'])

    def test_a_link_is_followed_once(self):
        link = self.scratch + '/link'
        os.symlink(self.folder, link)
        self.assert_done(self.add_share(folder=link))
        self.assertEqual(host.mac.attribute('SharePoints', 'Docs', 'directory_path'), self.folder)
        os.unlink(link)
        os.symlink('/etc', link)
        self.assert_done(self.run_script('rmshare', 'Docs', link))
        self.assertEqual(host.mac.entries, {})

    def test_takes_any_name_that_smb_can_spell(self):
        before = host.snapshot()
        for share in SHARE_NAMES:
            with self.subTest(share):
                self.assert_done(self.add_share(share))
                self.assertIn(share, host.mac.records['SharePoints'])
                self.assert_done(self.run_script('rmshare', share, self.folder))
                self.assert_unchanged(before)

    def test_refuses_names_that_smb_cannot_spell(self):
        before = host.snapshot()
        for name, (share, reason) in REFUSED_SHARES.items():
            with self.subTest(name):
                self.assert_refused(self.add_share(share), reason)
                self.assert_refused(self.run_script('rmshare', share, self.folder), reason)
        self.assert_unchanged(before)

    def test_refuses_folders_that_cannot_be_shared(self):
        write(self.scratch + '/file', '')
        os.symlink('nowhere', self.scratch + '/dangling')
        os.symlink('/', self.scratch + '/disk')
        bad = os.fsencode(self.scratch) + b'/\xff'
        os.mkdir(bad)
        before = host.snapshot()
        for folder, reason in (
                ('relative', 'not absolute'), ('-R', 'not absolute'), ('/', 'whole disk'),
                ('//', 'whole disk'), (self.scratch + '/disk', 'whole disk'), (bad, 'UTF-8'),
                (self.scratch + '/missing', 'not a folder'), (self.scratch + '/file', 'not a folder'),
                (self.scratch + '/dangling', 'not a folder'), (self.folder + ' ', 'not a folder')):
            with self.subTest(folder):
                self.assert_refused(self.add_share(folder=folder), reason)
        self.assert_unchanged(before)

    def test_refuses_wrong_arguments(self):
        good = ['alice', self.password_file, self.folder, 'Docs', 'rw']
        before = host.snapshot()
        for access in ('', 'r', 'RW', 'rw ', 'rwx', 'yes', 'rw\n'):
            with self.subTest(access):
                self.assert_refused(self.run_script('addshare', *good[:4], access), 'neither rw nor ro')
        self.assert_refused(self.run_script('addshare', *good[:4]), 'usage')
        self.assert_refused(self.run_script('addshare', *good, 'more'), 'usage')
        self.assert_refused(self.run_script('addshare', 'alice', '', *good[2:]), 'empty')
        self.assert_refused(self.run_script('addshare', 'alice', good[1], '', *good[3:]), 'not absolute')
        self.assert_refused(self.add_share(user='@alice'), 'user name')
        self.assert_unchanged(before)

    def test_refuses_users_that_were_not_made_for_it(self):
        other = self.session()
        self.assert_done(self.add_user('dave', run=other.run))
        self.assert_done(self.add_user('erin'))
        host.mac.hash_types.pop('erin')
        before = host.snapshot()
        for user, reason in (('nosuch', 'no user'), ('bob', 'not made'), ('root', 'not made'),
                             ('erin', 'no password for SMB'), ('dave', 'another session')):
            with self.subTest(user):
                self.assert_refused(self.add_share(user=user), reason)
                self.assert_unchanged(before)

    def test_refuses_a_share_that_exists(self):
        host.mac.add('SharePoints', 'Other', directory_path='/srv', smb_name='Its SMB name')
        other = self.session()
        self.assert_done(self.add_user('carol', run=other.run))
        self.assert_done(self.add_share('Hers', 'carol', run=other.run))
        before = host.snapshot()
        for share, reason in (('Other', 'exists already'), ('oTHER', 'exists already'),
                              ('Its SMB name', 'called'), ('ITS smb NAME', 'called'),
                              ('Hers', 'in use'), ('hERS', 'exists already')):
            with self.subTest(share):
                self.assert_refused(self.add_share(share), reason)
                self.assert_unchanged(before)

    def test_leaves_a_share_that_somebody_else_makes_meanwhile(self):
        before = host.snapshot()

        def make(call):
            if call.name == 'find':
                host.hook = None
                host.mac.add('SharePoints', 'Docs', directory_path='/Users/carol', smb_name='Docs')
        host.hook = make
        self.assert_refused(self.add_share(), 'the share "Docs" exists already')
        self.assertEqual(host.mac.attribute('SharePoints', 'Docs', 'directory_path'), '/Users/carol')
        del host.mac.records['SharePoints']['Docs']
        self.assert_unchanged(before)
        self.assert_done(self.add_share())

    def test_refuses_a_second_share_of_one_user(self):
        self.assert_done(self.add_share())
        before = host.snapshot()
        self.assert_refused(self.add_share('More'), 'has a share already')
        self.assert_unchanged(before)

    def test_two_users_share_one_folder_independently(self):
        self.assert_done(self.add_share())
        before = host.snapshot()
        self.assert_done(self.add_user('carol'))
        self.assert_done(self.add_share('Hers', 'carol', access='ro'))
        self.assert_done(self.run_script('rmshare', 'Hers', self.folder))
        self.assert_done(self.run_script('rmuser', 'carol'))
        self.assert_unchanged(before)

    def test_refuses_macos_without_read_only_shares(self):
        host.mac.sharing_has_r = False
        before = host.snapshot()
        for access in ('ro', 'rw'):
            self.assert_refused(self.add_share(access=access), 'it has no -R')
        self.assert_unchanged(before)

    def test_waits_for_the_smb_service(self):
        host.mac.smb_after = 7
        self.assert_done(self.add_share())
        self.assertEqual([call.args[-1] for call in host.calls if call.name == 'nc'], ['22'] + ['445'] * 8)

    def test_undoes_everything_when_smb_does_not_start(self):
        before = host.snapshot()
        host.mac.smb_after = 10 ** 6
        host.calls.clear()
        self.assert_refused(self.add_share(), 'the SMB service has not come up within 30 s')
        self.assertGreater(len(self.asked('nc')), 250)
        self.assert_unchanged(before)

    def test_slow_checks_do_not_extend_the_wait(self):
        host.mac.smb_after, host.mac.nc_seconds = 10 ** 6, 1
        start = host.mac.clock
        self.assert_refused(self.add_share(), 'the SMB service has not come up within 30 s')
        self.assertGreaterEqual(host.mac.clock - start, 29)
        self.assertLess(host.mac.clock - start, 33)

    def test_wait_ends_when_clock_is_set_back(self):
        def set_back(call):
            if call.name == 'sleep':
                host.mac.clock -= 1
        host.mac.smb_after = 10 ** 6
        host.hook = set_back
        self.assert_refused(self.add_share(), 'the SMB service has not come up')

    def test_gives_no_access_to_links_or_foreign_files(self):
        before = host.snapshot()
        secret = write(self.scratch + '/secret', 'of root', 0o600)
        os.link(secret, self.folder + '/a second name')
        write(self.folder + '/sub/of root', 'its own', 0o600)
        os.symlink(secret, self.folder + '/link')
        os.lchown(self.folder + '/link', 501, -1)
        result = self.add_share()
        self.assert_done(result)
        self.assertRegex(result.output, '(?s)alice gets no access to .*(a second name|of root)')
        self.assertEqual(set(host.mac.entries), {self.home, self.folder} | {
            self.folder + name for name in ('/f', '/sub', '/sub/deep')})
        self.assert_done(self.run_script('rmshare', 'Docs', self.folder))
        self.assert_unchanged(before)

    def test_gives_no_access_to_roots_hard_links(self):
        secret = write(self.scratch + '/secret', 'of root', 0o600)
        folder = self.scratch + '/of root'
        os.mkdir(folder, 0o755)
        os.link(secret, folder + '/second')
        self.assert_done(self.add_share(folder=folder))
        self.assertEqual(set(host.mac.entries), {folder})

    def test_granting_follows_no_swapped_in_link(self):
        secret = write(self.scratch + '/secret', 'of root', 0o600)

        def swap(path):
            if path == self.folder + '/f':
                os.unlink(path)
                os.symlink(secret, path)
        host.mac.swap = swap
        self.assert_done(self.add_share())
        self.assertNotIn(secret, host.mac.entries)
        self.assertIn(self.folder + '/f', host.mac.entries, 'the case that is meant')
        self.assertTrue(os.path.islink(self.folder + '/f'))
        host.mac.swap = None

    def test_revoking_follows_no_swapped_in_link(self):
        self.assert_done(self.add_share())
        hers = write(self.scratch + '/hers', 'with access', 0o600)
        host.mac.entries[hers] = host.mac.entries[self.folder + '/f']

        def swap(path):
            if path == self.folder + '/f':
                os.unlink(path)
                os.symlink(hers, path)
        host.mac.swap = swap
        self.assert_done(self.run_script('rmshare', 'Docs', self.folder))
        self.assertEqual(set(host.mac.entries), {hers})
        self.assertTrue(os.path.islink(self.folder + '/f'))
        host.mac.swap = None

    def test_refuses_a_folder_swapped_for_a_link(self):
        before = host.snapshot()
        elsewhere = self.make_folder(self.scratch + '/elsewhere')

        def swap(call):
            if call.name == 'stat' and os.path.exists(machost.STATE + '/shares/_Docs') \
                    and not os.path.islink(self.folder):
                os.rename(self.folder, self.home + '/moved')
                os.symlink(elsewhere, self.folder)
        host.hook = swap
        self.assert_refused(self.add_share(), 'another folder now')
        self.assertEqual([path for path in host.mac.entries if path.startswith(elsewhere)], [])
        self.assert_unchanged(before)

    def test_undoes_most_steps_without_the_directory_service(self):
        shared = []

        def deaf(call):
            if call.name == 'dscl' and call.args[2].startswith('/SharePoints') and shared:
                host.fault = (1, 10 ** 6, 'refuse')
            else:
                host.fault = None
            if call.args[:1] == ['-a'] and call.name == 'sharing':
                shared.append(call)
        host.hook = deaf
        result = self.add_share()
        host.hook = host.fault = None
        self.assert_refused(result, 'the share "Docs", or something of it, is left behind')
        self.assertEqual((host.mac.records['SharePoints'], host.mac.entries), ({}, {}))
        self.assertEqual(len(shared), 1)
        self.assert_done(self.add_share())

    def test_refuses_a_share_with_an_unexpected_path(self):
        """Folders that the directory would spell differently than they were given."""
        before = host.snapshot()

        def misspell(call):
            if call.name == 'sharing' and call.args[:1] == ['-a']:
                host.mac.records['SharePoints']['Docs']['directory_path'] = ['/elsewhere']
        host.after_hook = misspell
        self.assert_refused(self.add_share(), 'does not show the share')
        self.assert_unchanged(before)


if __name__ == '__main__':
    unittest.main()
