"""The macOS share scripts against the owner of the folder, other users, and the share's client.

They run with stand-ins for the programs that they call, as in test_macos.py.  Each attack has an innocent
twin, which must still work.
"""

import ctypes
import os
import re
import signal
import threading
import unittest

import machost
from machost import PASSWORD, MacTest, write

AT_FDCWD, RENAME_EXCHANGE = -100, 2

host = None


def setUpModule():
    global host  # pylint: disable=global-statement
    host = machost.set_up()


def exchange(one, other):
    """Exchanges the names of two files in one step."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.renameat2(AT_FDCWD, os.fsencode(one), AT_FDCWD, os.fsencode(other), RENAME_EXCHANGE):
        raise OSError(ctypes.get_errno(), one)


class AttackTest(MacTest):
    """bob is the owner of the folder, carol another user.  alice is the user of the share."""

    def new_mac(self):
        super().new_mac()
        host.mac.add('Users', 'carol', UniqueID='502', RealName='The carol')
        os.chown(self.home, 501, -1)
        self.hers = self.scratch + '/carol'
        os.mkdir(self.hers, 0o700)
        self.hers_inside = self.make_folder(self.hers + '/Documents')
        for path in [self.hers, *machost.everything_in(self.hers_inside)]:
            os.chown(path, 502, -1)
        self.assert_done(self.add_user())
        self.before = host.snapshot()

    def link(self, target, path, uid=501):
        os.symlink(target, path)
        os.lchown(path, uid, -1)
        return path

    def make(self, path, uid, mode=0o755):
        os.mkdir(path)
        os.chmod(path, mode)
        os.chown(path, uid, -1)
        return path

    def give(self, path, rights, kind='allow', user='bob'):
        host.mac.entries[path] = [(host.mac.attribute('Users', user, 'GeneratedUID'), kind, rights, False)]
        self.before = host.snapshot()

    def assert_attack_fails(self, folder, reason='can change the way there'):
        self.assert_refused(self.add_share(folder=folder), reason)
        self.assert_unchanged(self.before)

    def assert_shared(self, given, folder=None):
        self.assert_done(self.add_share(folder=given))
        self.assertEqual(host.mac.attribute('SharePoints', 'Docs', 'directory_path'), folder or self.folder)
        self.assertIn(folder or self.folder, host.mac.entries)
        self.assert_done(self.run_script('rmshare', 'Docs', given))
        self.assert_unchanged(self.before)


class LinksOnTheWay(AttackTest):

    def test_refuses_a_link_to_anothers_folder(self):
        for number, (target, reason) in enumerate((
                (self.hers_inside, 'can change the way there'), ('../carol/Documents', 'can change the way there'),
                ('/root', 'a link leads to it'))):
            with self.subTest(target):
                link = self.link(target, self.home + '/Mine%d' % number)
                self.assert_attack_fails(link, reason)
                self.assert_attack_fails(link + '/', reason)

    def test_shares_an_owners_link_to_its_folder(self):
        for target in (self.folder, 'Documents', './/../bob/Documents/.'):
            with self.subTest(target):
                link = self.link(target, self.home + '/Mine')
                self.assert_shared(link)
                os.unlink(link)

    def test_a_folder_above_is_a_link(self):
        self.link(self.hers, self.home + '/first')
        self.link('first', self.home + '/second')
        for path in ('/first/Documents', '/second/Documents', '/first/../carol/Documents',
                     '/Documents/../first/Documents'):
            with self.subTest(path):
                self.assert_attack_fails(self.home + path)

    def test_shares_another_owners_folder_named_without_links(self):
        self.assert_shared(self.hers_inside, self.hers_inside)
        self.assert_shared(self.home + '/../carol/Documents', self.hers_inside)

    def test_roots_links_are_followed(self):
        """Such as /tmp and /var, which are links on a Mac."""
        private = self.make(self.scratch + '/private', 0)
        self.make(private + '/var', 0)
        folder = self.make_folder(private + '/var/é a  b\n')
        self.link('private/var', self.scratch + '/var', 0)
        self.link(self.scratch + '/var', self.scratch + '/again', 0)
        for name in ('/var', '/again'):
            self.assert_shared(self.scratch + name + '/é a  b\n', folder)
        self.link(folder, self.scratch + '/ l\n', 0)
        self.assert_shared(self.scratch + '/ l\n', folder)

    def test_roots_link_in_a_folder_of_the_owners(self):
        """bob could have made the link, in an image of a disk that bob mounts."""
        self.link(self.hers_inside, self.make(self.home + '/image', 0) + '/link', 0)
        self.assert_attack_fails(self.home + '/image/link')
        self.link(self.folder, self.home + '/image/his', 0)
        self.assert_shared(self.home + '/image/his')

    def test_where_everybody_may_write(self):
        for mode, uid, target, is_safe in (
                (0o1777, 501, self.hers_inside, False), (0o1777, 0, self.hers_inside, True),
                (0o1777, 501, self.folder, True), (0o777, 0, self.folder, False),
                (0o775, 0, self.folder, False), (0o757, 502, self.hers_inside, False),
                (0o1777, 502, self.folder, False), (0o755, 0, self.folder, True)):
            with self.subTest(mode=oct(mode), uid=uid, target=target):
                public = self.make(self.scratch + '/public', 0, mode)
                link = self.link(target, public + '/link', uid)
                if is_safe:
                    self.assert_shared(link, target)
                else:
                    self.assert_attack_fails(link)
                os.unlink(link)
                os.rmdir(public)

    def test_who_may_write_by_an_access_entry(self):
        public = self.make(self.scratch + '/public', 0)
        link = self.link(self.hers_inside, public + '/link', 0)
        for place in (public, link):
            for rights in ('add_file', 'list,search,delete_child', 'write', 'delete', 'readattr,chown', 'writesecurity'):
                with self.subTest(rights, place=place):
                    self.give(place, rights)
                    self.assert_attack_fails(link)
            for rights, kind in (('list,search,read,execute,readattr,readextattr,readsecurity,file_inherit',
                                  'allow'), ('delete,add_file', 'deny')):
                self.give(place, rights, kind)
                self.assert_shared(link, self.hers_inside)
            del host.mac.entries[place]

    def test_unknown_access_entries_count_as_open(self):
        link = self.link(self.folder, self.scratch + '/link', 0)

        def blind(call):
            host.fault = (1, 10 ** 6, 'refuse') if call.name == 'ls' else None
        host.hook = blind
        self.assert_attack_fails(link)
        host.hook = host.fault = None
        self.assert_shared(link)

    def test_shares_roots_folder_only_by_its_path(self):
        folder = self.make(self.scratch + '/of root', 0)
        self.assert_attack_fails(self.link(folder, self.scratch + '/link', 0), 'its own path is "%s"' % folder)
        self.assert_shared(folder, folder)

    def test_refuses_roots_folder_that_others_can_replace(self):
        for path in (self.home + '/of root', self.home + '/Documents/sub/of root'):
            folder = self.make(path, 0)
            self.assert_attack_fails(folder)
        public = self.make(self.scratch + '/public', 0, 0o777)
        self.assert_attack_fails(self.make(public + '/of root', 0))
        os.chmod(public, 0o1777)
        self.assert_shared(public + '/of root', public + '/of root')
        for mode in (0o2777, 0o4777, 0o777):
            os.chmod(public, mode)
            self.assert_attack_fails(public + '/of root')
            self.assert_shared(public, public)

    def test_links_without_an_end(self):
        self.link('loop', self.home + '/loop')
        self.link('ping/pong', self.home + '/ping')
        for name in ('/loop', '/ping'):
            self.assert_attack_fails(self.home + name, 'more than 40 links')
        path = self.folder
        for number in range(20):
            path = self.link(path, '%s/%d' % (self.home, number))
        self.assert_shared(path)


class SwapsMeanwhile(AttackTest):

    def new_mac(self):
        super().new_mac()
        self.above = self.make(self.home + '/work', 501)
        self.folder = self.make_folder(self.above + '/Documents')
        self.saved = host.save()

    def count_calls(self):
        host.restore(self.saved)
        self.assert_done(self.add_share())
        return len(host.calls)

    def assert_hers_untouched(self):
        self.assertEqual([path for path in host.mac.entries if path.startswith(self.hers)], [])

    def test_swapping_at_each_step_wins_nothing(self):
        """Whatever a script does between two of its programs happens to the other folder."""
        calls, swapped = self.count_calls(), [0]
        sampled = machost.sample(4, range(1, calls + 1), 'steps')
        for place, target in ((self.folder, self.hers_inside), (self.above, self.hers)):
            other = self.link(target, place + ' instead')
            for number in sampled:
                for back in ('before', 'after', 'never'):
                    with self.subTest(place, number=number, back=back):
                        host.restore(self.saved)
                        self.swap_after(number, place, other, back, swapped)
                        result = self.add_share()
                        host.hook = host.after_hook = None
                        self.assert_hers_untouched()
                        if os.path.islink(place):
                            exchange(place, other)
                        self.assertIn(result.status, (0, 1), result)
        self.assertGreater(swapped[0], 10 * (len(sampled) - 5))

    def swap_after(self, number, place, other, back, swapped):
        """Swaps after the call of that number, and back before or after the next one, or never."""
        def swap():
            exchange(place, other)
            swapped[0] += 1

        def before(_):
            if len(host.calls) == number and back == 'before':
                swap()

        def after(_):
            if len(host.calls) == number or len(host.calls) == number + 1 and back == 'after':
                swap()
        host.hook, host.after_hook = before, after

    def test_swapping_in_a_loop_wins_nothing(self):
        link, stop = self.link(self.hers_inside, self.home + '/link'), threading.Event()

        def flip():
            while not stop.is_set():
                exchange(self.folder, link)
        flipper = threading.Thread(target=flip)
        flipper.start()
        try:
            for _ in range(12):
                host.restore(self.saved)
                self.assertIn(self.add_share().status, (0, 1))
                self.assert_hers_untouched()
        finally:
            stop.set()
            flipper.join()
        if os.path.islink(self.folder):
            exchange(self.folder, link)
        host.restore(self.saved)
        self.assert_shared(self.folder)

    def test_for_another_folder_after_it_was_judged(self):
        def swap(_):
            if os.path.exists(machost.STATE + '/shares/_Docs'):
                host.hook = None
                exchange(self.folder, self.hers_inside)
        host.hook = swap
        self.assert_attack_fails(self.folder, 'another folder now')


class FoldersOfTheSystem(AttackTest):

    def test_are_refused_however_they_are_spelt(self):
        for folder in ('/System/Volumes/Data', '/Users', '/Volumes', '/private/var'):
            os.makedirs(folder, exist_ok=True)
        for path in ('/', '//', '/.', '/System', '/System/Volumes/Data/', '/System/../Users', '/Volumes',
                     '/private/var', '/usr', '/Users/../../..'):
            with self.subTest(path):
                self.assert_attack_fails(path, 'whole disk')

    def test_others_beside_them_are_shared(self):
        for folder in ('/Users/Shared', '/Volumes/Stick'):
            os.makedirs(folder)
            self.addCleanup(os.rmdir, folder)
            self.assert_shared(folder, folder)


class Pipes(AttackTest):

    def test_in_the_folder_hinder_nobody(self):
        for name in ('/pipe', '/sub/pipe'):
            os.mkfifo(self.folder + name)
            os.chown(self.folder + name, 501, -1)
        result = self.add_share()
        self.assertEqual((result.status, result.output), (0, ''))
        os.mkfifo(self.folder + '/another')
        self.assert_done(self.run_script('rmshare', 'Docs', self.folder))
        self.assert_unchanged(self.before)
        self.assertEqual(host.held_up, [])

    def swap_in(self, path):
        def swap(found):
            if found == path and os.path.isfile(path):
                os.unlink(path)
                host.mac.entries.pop(path, None)
                os.mkfifo(path)
        host.mac.swap = swap

    def test_pipe_swapped_for_a_file_hangs_no_script(self):
        self.swap_in(self.folder + '/f')
        self.assert_refused(self.add_share(), 'cannot give alice access to all in "%s": ' % self.folder)
        host.mac.swap = None
        self.assert_unchanged(self.before)
        self.assert_done(self.add_share())
        self.swap_in(self.folder + '/sub/deep')
        self.assert_done(self.run_script('rmshare', 'Docs', self.folder))
        host.mac.swap = None
        self.assert_unchanged(self.before)
        self.assertEqual(host.held_up, [self.folder + name for name in ('/f', '/sub/deep')])


    def test_pipe_does_not_hang_the_change_of_owner(self):
        owner = self.session()
        self.assert_done(self.run_script('rmuser', 'alice'))
        self.add_both(run=owner.run)
        for name in ('/new', '/other'):
            host.mac.client_writes('alice', self.folder + name)
        host.mac.late_pipes.add(self.folder + '/new')
        self.assert_refused(self.run_script('rmshare', 'Docs', self.folder, run=owner.run),
                            'cannot give all that was written to the owner of the folder')
        self.assertEqual(host.held_up, [self.folder + '/new'])
        self.assertEqual(os.stat(self.folder + '/other').st_uid, 501)
        host.mac.late_pipes.clear()
        self.assert_done(self.run_script('rmshare', 'Docs', self.folder, run=owner.run))

    def test_hold_up_no_script_that_ignores_sigterm(self):
        self.swap_in(self.folder + '/f')
        self.addCleanup(signal.signal, signal.SIGTERM, signal.signal(signal.SIGTERM, signal.SIG_IGN))
        self.assert_refused(self.add_share(), 'cannot give alice access to all in "%s": ' % self.folder)
        host.mac.swap = None
        self.assert_unchanged(self.before)


class FilesThatCannotBeChanged(AttackTest):

    def new_mac(self):
        super().new_mac()
        self.assert_done(self.run_script('rmuser', 'alice'))
        self.before = host.snapshot()
        self.owner = self.session()
        self.add_both(run=self.owner.run)

    def client_locks(self, name, flag='uchg'):
        host.mac.client_writes('alice', self.folder + name)
        host.mac.flags[self.folder + name] = {flag}
        return self.folder + name

    def end(self, reason=None):
        """Removes share and user, as the tool does.  With a reason, removing the share must fail."""
        result = self.run_script('rmshare', 'Docs', self.folder, run=self.owner.run)
        if reason:
            self.assert_refused(result, reason)
        else:
            self.assert_done(result)
        self.assertEqual(self.run_script('rmuser', 'alice', run=self.owner.run).status, 1 if reason else 0)
        self.assertNotIn('alice', host.mac.records['Users'])

    def test_files_locked_by_the_client_become_the_owners(self):
        locked = [self.client_locks('/-new ' + flag, flag) for flag in ('uchg', 'schg', 'uappnd', 'sappnd')]
        self.end()
        self.assert_unchanged(self.before)
        self.assertEqual({os.stat(path).st_uid for path in locked}, {501})

    def test_owners_locked_file_does_not_block_new_sessions(self):
        host.mac.flags[self.folder + '/f'] = {'uchg'}
        self.end('cannot take the access of alice back: f: Operation not permitted')
        self.owner.kill()
        self.assert_done(self.add_user('dave'))
        self.assert_done(self.add_share('Docs', 'dave', folder=self.make_folder(self.home + '/other')))
        self.assertEqual(host.mac.flags, {self.folder + '/f': {'uchg'}})

    def test_disk_turned_read_only_blocks_no_new_session(self):
        new = self.folder + '/new'
        host.mac.client_writes('alice', new)
        host.mac.read_only.add(self.folder)
        self.owner.kill()
        result = self.add_user('dave')
        self.assert_done(result)
        for reason in ('cannot take the access of alice back: .: Read-only', 'cannot give all that was written'):
            self.assertIn(reason, result.output)
        result = self.add_share('Docs', 'dave', folder=self.hers_inside)
        self.assertEqual((result.status, result.output), (0, ''))

    def test_owners_that_are_ignored_change_nothing_else(self):
        host.mac.client_writes('alice', self.folder + '/new')
        host.mac.owners_ignored.add(self.folder)
        self.end()
        self.assertEqual(host.mac.entries, {})

    def test_share_that_cannot_be_removed_blocks_new_sessions(self):
        self.owner.kill()

        def refuse(call):
            host.fault = (1, 10 ** 6, 'refuse') if call.args == ['-r', 'Docs'] else None
        for script in (lambda: self.add_user('dave'), lambda: self.add_user('erin')):
            host.hook = refuse
            self.assert_refused(script(), 'cannot clear away the share "Docs" of an earlier session')
            self.assertIn('Docs', host.mac.records['SharePoints'])
        host.hook = host.fault = None
        self.assert_done(self.add_user('dave'))
        self.assertEqual(host.mac.records['SharePoints'], {})

    def test_what_needs_consent_is_refused_with_the_reason(self):
        self.end()
        self.assert_done(self.add_user())
        before = host.snapshot()
        host.mac.private.add(self.folder + '/sub')
        self.assert_refused(self.add_share(), 'Operation not permitted')
        self.assertEqual(host.mac.entries, {})
        self.assert_done(self.add_share('More', folder=self.make_folder(self.home + '/other')))
        self.assert_done(self.run_script('rmshare', 'More', self.home + '/other'))
        host.mac.private.clear()
        self.assert_unchanged(before)


class OddNames(AttackTest):

    def test_messages_replace_control_characters_in_file_names(self):
        name = '/\x1b[2Jf\r'
        path = write(self.folder + name, 'some text\n')
        os.chown(path, 501, -1)
        shown = '?[2Jf?'
        host.mac.flags[path] = {'uchg'}
        self.assert_shown(self.add_share(), 'cannot give alice access', shown)
        del host.mac.flags[path]
        os.link(path, self.scratch + '/second')
        self.assert_shown(self.add_share(), 'more than one name, such as', shown)
        host.mac.flags[path] = {'uchg'}
        host.mac.entries[path] = host.mac.entries[self.folder + '/f']
        self.assert_shown(self.run_script('rmshare', 'Docs', self.folder), 'cannot take the access', shown)
        os.chown(path, int(host.mac.attribute('Users', 'alice', 'UniqueID')), -1)
        host.mac.read_only.add(path)
        self.assert_shown(self.run_script('rmshare', 'Docs', self.folder), 'cannot give all that was written', shown)

    def assert_shown(self, result, reason, shown):
        self.assertRegex(result.output, '%s.*%s' % (re.escape(reason), re.escape(shown)))
        self.assertNotRegex(result.output, '[\x1b\r]')


class AccessEntries(AttackTest):

    def test_of_others_stay_as_they_were(self):
        bob = host.mac.attribute('Users', 'bob', 'GeneratedUID')
        host.mac.entries[self.folder + '/f'] = [(bob, 'deny', 'delete', False), (bob, 'allow', 'read', False),
                                                (bob, 'deny', 'write', True), (bob, 'allow', 'write', True)]
        self.before = host.snapshot()
        self.assert_shared(self.folder)

    def test_removes_two_access_entries_on_one_file(self):
        self.assert_done(self.add_share())
        mine = host.mac.entries[self.folder + '/f'][0]
        host.mac.entries[self.folder + '/f'] = [mine, mine[:3] + (True,)]
        host.mac.entries[self.home] *= 2
        self.assert_done(self.run_script('rmshare', 'Docs', self.folder))
        self.assert_unchanged(self.before)

    def test_refuses_access_entries_in_noncanonical_order(self):
        bob = host.mac.attribute('Users', 'bob', 'GeneratedUID')
        host.mac.entries[self.folder + '/f'] = [(bob, 'allow', 'read', False), (bob, 'deny', 'write', False)]
        self.before = host.snapshot()
        self.assert_attack_fails(self.folder, 'f does not have an ACL in canonical order')


class Clients(AttackTest):

    def test_client_needs_the_password_and_a_running_share(self):
        self.assertIsNone(host.mac.client_connects('alice', PASSWORD.encode(), 'Docs'))
        self.assert_done(self.add_share())
        self.assertIsNone(host.mac.client_connects('alice', b'wrong', 'Docs'))
        self.assertIsNotNone(host.mac.client_connects('alice', PASSWORD.encode(), 'Docs'))
        self.remove_both()
        self.assertIsNone(host.mac.client_connects('alice', PASSWORD.encode(), 'Docs'))

    def test_new_user_never_gets_a_connected_clients_number(self):
        self.assert_done(self.add_share())
        client = host.mac.client_connects('alice', PASSWORD.encode(), 'Docs')
        drop_box = self.make(self.scratch + '/Drop Box', 0, 0o777)
        numbers = {client.number}
        for user in ('dave', 'erin', 'frank'):
            self.remove_both() if user == 'dave' else None
            client.writes(drop_box + '/late')
            self.assert_done(self.add_user(user))
            numbers.add(os.stat(drop_box + '/late').st_uid)
            self.assertNotEqual(host.mac.attribute('Users', user, 'UniqueID'), str(client.number))
            self.assert_done(self.run_script('rmuser', user))
        self.assertEqual(numbers, {client.number})

    def test_clears_set_id_bits_of_client_files(self):
        self.assert_done(self.add_share())
        for name in ('/-run me\n', '/sub/me', '/.too'):
            host.mac.client_writes('alice', self.folder + name)
            os.chmod(self.folder + name, 0o6755)
        mine = write(self.folder + '/mine', 'of the owner\n')
        os.chown(mine, 501, -1)
        os.chmod(mine, 0o4755)
        self.remove_both()
        for name, mode in (('/-run me\n', 0o755), ('/sub/me', 0o755), ('/.too', 0o755), ('/mine', 0o4755)):
            found = os.stat(self.folder + name)
            self.assertEqual((found.st_uid, found.st_mode & 0o7777), (501, mode), name)

    def test_succeeds_although_the_service_refuses_clients(self):
        """addshare.sh sees only that a connection succeeds."""
        host.mac.smb_serves = False
        self.assert_done(self.add_share())
        self.assertIsNone(host.mac.client_connects('alice', PASSWORD.encode(), 'Docs'))


if __name__ == '__main__':
    unittest.main()
