"""The macOS share scripts, with stand-ins for the programs that they call.

This proves which calls the scripts make, in which order, and how they handle the answers.
It does not prove that a real Mac answers so.
"""

import os
import re
import unittest

import machost
from machost import INHERIT, PASSWORD, READ, WRITE, MacTest, read, write

SECRET = 'sEcReT-kept'  # the tests search everything that other processes can see for it

PASSWORDS = {
    'OneByte': b'x', 'BlanksAtTheEnds': b'  a b  ', 'OnlyBlanks': b'   ', 'Quotes': b'a"b\'c`d`',
    'Dollar': b'$HOME $(id) ${x}', 'Backslashes': b'\\n\\\\x\\012\\', 'Percent': b'%s%d%%%n',
    'LeadingDash': b'-n --', 'CarriageReturn': b'abc\r', 'Controls': b'\ta\x01\x7fb\t',
    'Comment': b'#a=b;c', 'Glob': b'*?[a]~', 'Utf8': 'pässwörd €😀'.encode(),
    'Decomposed': 'u\u0308'.encode(), 'Longest': b'0123456789' * 12 + b'abcdefg',
    'EveryAsciiByte': bytes(range(1, 10)) + bytes(range(11, 128)),
}

REFUSED_PASSWORDS = {
    'EmptyFile': (b'', 'empty'), 'EmptyLine': (b'\n', 'empty'),
    'TwoLines': (b'one\ntwo\n', 'more than one line'),
    'SecondLineEmpty': (b'one\n\n', 'more than one line'),
    'Nul': (b'one\0two\n', 'NUL'), 'NulFirst': (b'\0\n', 'NUL'), 'NulLast': (b'one\0', 'NUL'),
    '128Bytes': (b'a' * 128, 'longer than 127'),
    '128AndNewline': (b'a' * 128 + b'\n', 'longer than 127'),
    '600Bytes': (b'a' * 600, 'longer than 127'), 'NotUtf8': (b'\xff\xfe\xc3(', 'UTF-8'),
    'CutUtf8': (b'a\xc3', 'UTF-8'),
}

REFUSED_USERS = {
    'Empty': '', 'Blank': 'a b', 'BlankAfter': 'alice ', 'Dash': '-alice', 'Digit': '1alice',
    'Dot': '.', 'DotDot': '..', 'UpperCase': 'Alice', 'Group': '@alice', 'Percent': 'a%u',
    'Slash': 'a/b', 'Up': 'a/../b', 'Backslash': 'a\\b', 'Colon': 'a:b', 'Comma': 'a,b',
    'Newline': 'a\nb', 'NewlineAfter': 'alice\n', 'Glob': 'a*', 'Quote': 'a"b', 'Semicolon': 'a;b',
    'Dollar': 'a$b', 'Unicode': 'alicé', 'NotUtf8': b'a\xff', '33Characters': 'a' * 33,
}

# The programs that the scripts may start in addition to the stand-ins, with options that every system has.
TEXT_PROGRAMS = {
    'awk': r'(-v \S+=\S* )*[^-]', 'cat': r'/', 'dash': r'/tmp/Pelago Test\.app/',
    'env': r'-i PELAGO_STARTED_ANEW=\d+ PATH=/usr/bin:/bin:/usr/sbin:/sbin LC_ALL=C TZ=UTC0 /bin/dash /',
     'grep': r'-(ixF|xF|wF) -e ', 'head': r'-c 130$',
    'iconv': r'-f UTF-8 -t UTF-16LE$', 'ln': r'/', 'mkdir': r'(-p|--) /', 'rm': r'-f (-- )?/',
    'rmdir': r'-- /', 'sed': r'(-n )?s', 'sort': r'-n -- /',
    'tr': r'(-d )?(\S+|\S+ \S+| |\n \S*)$', 'wc': r'-c$',
}

host = None


def setUpModule():
    global host  # pylint: disable=global-statement
    host = machost.set_up()


class WholeSession(MacTest):

    def test_everything_is_as_it_was_afterwards(self):
        for access in ('rw', 'ro'):
            host.mac.add('Groups', machost.ACCESS_GROUP, PrimaryGroupID='399')
            before = host.snapshot()
            self.assertEqual(self.add_user().output, '')
            self.assertEqual(self.add_share(access=access).output, '')
            self.assertNotEqual(host.snapshot(), before)
            self.assertEqual(self.run_script('rmshare', 'Docs', self.folder).output, '')
            self.assertEqual(self.run_script('rmuser', 'alice').output, '')
            self.assert_unchanged(before)
            self.assertCountEqual(os.listdir(self.folder), ['f', 'sub'])

    def test_client_files_become_the_folder_owners(self):
        self.add_both()
        new, link = self.folder + '/-new\n', self.folder + '/link'
        host.mac.client_writes('alice', new)
        os.symlink('/etc/passwd', link)
        number = int(host.mac.attribute('Users', 'alice', 'UniqueID'))
        os.lchown(link, number, -1)
        self.assertEqual(len(self.entries(new)), 1)
        self.remove_both()
        self.assertEqual([os.lstat(one).st_uid for one in (new, link, '/etc/passwd')], [501, 501, 0])
        self.assertEqual(host.mac.entries, {})

    def test_file_moved_into_folder_does_not_prevent_removal(self):
        self.add_both()
        write(self.folder + '/moved', 'without an entry\n')
        self.remove_both()
        self.assertEqual(host.mac.entries, {})

    def test_the_password_is_seen_by_nobody(self):
        write(self.password_file, SECRET)
        log = self.scratch + '/strace'
        environ = dict(os.environ, passwordOctal='x', password='x', USER='x')
        steps = [('adduser', 'alice', 'alice', self.password_file),
                 ('addshare', 'alice', self.password_file, self.folder, 'Docs', 'rw'),
                 ('rmshare', 'Docs', self.folder), ('rmuser', 'alice')]
        seen = b''
        for step in steps:
            self.assert_done(machost.run_command(
                ['strace', '-f', '-v', '-s', '4096', '-e', 'trace=execve', '-o', log,
                 *self.argv(step[0], step[1:])], env=environ))
            seen += read(log)
        self.assertEqual(host.mac.passwords, {})
        self.assertGreater(seen.count(b'execve('), 60)
        octal = b''.join(b'\\\\%03o' % byte for byte in SECRET.encode())
        for secret in (SECRET.encode(), octal, octal.replace(b'\\\\', b'\\')):
            self.assertNotIn(secret, seen)
        for call in host.calls:
            self.assertNotIn(SECRET.encode(), call.environ)

    def test_shellopts_does_not_reveal_the_password(self):
        write(self.password_file, SECRET)
        log = self.scratch + '/strace'
        octal = b''.join(b'\\%03o' % byte for byte in SECRET.encode())
        result = machost.run_command(
            ['strace', '-f', '-v', '-s', '4096', '-e', 'trace=execve', '-o', log,
             *self.argv('adduser', ['alice', 'alice', self.password_file])],
            env=dict(os.environ, SHELLOPTS='allexport:xtrace:verbose'))
        self.assert_done(result)
        self.assertEqual(host.mac.nt_hashes, {'alice': SECRET.encode()})
        seen = read(log).replace(b'\\\\', b'\\') + result.output.encode()
        seen += b''.join(call.environ for call in host.calls)
        self.assertIn(b'SHELLOPTS', seen)
        for secret in (SECRET.encode(), octal):
            self.assertNotIn(secret, seen)

    def test_only_what_every_system_has_is_started(self):
        log = self.scratch + '/strace'
        for step in (('adduser', 'alice', 'alice', self.password_file),
                     ('addshare', 'alice', self.password_file, self.folder, 'Docs', 'rw'),
                     ('rmshare', 'Docs', self.folder), ('rmuser', 'alice')):
            self.assert_done(machost.run_command(
                ['strace', '-f', '-s', '4096', '-e', 'trace=execve', '-e', 'signal=none', '-o', log,
                 *self.argv(step[0], step[1:])]))
            started = re.findall(r'execve\("([^"]+)", \[(.*)\], 0x.*\) = 0', read(log).decode())[1:]
            self.assertGreater(len(started), 10)
            for path, argv in started:
                words = [word.encode().decode('unicode_escape')
                         for word in re.findall(r'"((?:[^"\\]|\\.)*)"', argv)]
                name = os.path.basename(path)
                with self.subTest(words[:4]):
                    if name in machost.PROGRAMS:
                        continue
                    self.assertIn(name, TEXT_PROGRAMS)
                    self.assertRegex(' '.join(words[1:]), '^' + TEXT_PROGRAMS[name])

    def test_hostile_arguments_arrive_element_by_element(self):
        share = "~!^(x){x}`id`$HOME%s'é&  b"
        folder = self.make_folder(self.home + "/ -R\n`id`;$(x)\"'\\%s*?[a]é ")
        self.assert_done(self.add_user('a.b-c_'))
        before = len(host.calls)
        self.assert_done(self.add_share(share, 'a.b-c_', folder))
        self.assert_done(self.run_script('rmshare', share, folder))
        asked = [call.args for call in host.calls[before:]]
        self.assertIn(['-a', folder, '-n', share, '-S', share, '-s', '001', '-g', '000', '-R', '0'],
                      asked)
        self.assertIn(['-r', share], asked)
        entry = 'user:a.b-c_ allow %s,%s,%s' % (READ, WRITE, INHERIT)
        self.assertEqual([(call.args[-5:-2], call.cwd) for call in host.calls
                          if '/bin/chmod' in call.args],
                         [(['+a', entry, '{}'], folder), (['-a', entry, '{}'], folder)])


class AddUser(MacTest):

    def test_makes_a_hidden_user_and_its_own_group(self):
        self.assert_done(self.add_user())
        user, group = host.mac.records['Users']['alice'], host.mac.records['Groups']['alice']
        for record in (user, group):
            del record['GeneratedUID']
        self.assertEqual(user, {
            'RealName': ['Pelago share user alice'], 'UserShell': ['/usr/bin/false'],
            'NFSHomeDirectory': ['/var/empty'], 'IsHidden': ['1'], 'PrimaryGroupID': ['499'],
            'UniqueID': ['499']})
        self.assertEqual(group, {'RealName': ['Pelago share user alice'], 'PrimaryGroupID': ['499']})
        self.assertEqual(list(user)[0], 'RealName', 'the mark comes first')
        self.assertEqual(list(user)[-1], 'UniqueID', 'and what makes it a user last')

    def test_sets_the_password_again_after_requesting_smb_hash(self):
        self.assert_done(self.add_user())
        asked = [call.name for call in host.calls if call.name == 'osascript' or
                 '-sethashtypes' in call.args]
        self.assertEqual(asked, ['osascript', 'pwpolicy', 'osascript'])
        self.assertEqual(host.mac.nt_hashes, {'alice': PASSWORD.encode()})

    def test_hands_over_every_password_as_it_is(self):
        saved = host.save()
        for name, password in PASSWORDS.items():
            for end in (b'\n', b'') if name in ('OneByte', 'Backslashes') else (b'\n',):
                with self.subTest(name, end=end):
                    write(self.password_file, password + end)
                    self.assert_done(self.add_user())
                    self.assertEqual(host.mac.nt_hashes['alice'], password)
                host.restore(saved)

    def test_refuses_passwords_that_cannot_be_kept(self):
        before = host.snapshot()
        for name, (content, reason) in REFUSED_PASSWORDS.items():
            with self.subTest(name):
                write(self.password_file, content)
                self.assert_refused(self.add_user(), reason)
                self.assert_unchanged(before)

    def test_refuses_a_password_file_that_cannot_be_read(self):
        before = host.snapshot()
        for path, reason in (('/nonexistent', 'cannot read'), ('/etc', 'is a folder'), ('', 'empty')):
            self.assert_refused(self.run_script('adduser', 'alice', 'alice', path), reason)
        self.assert_unchanged(before)

    def test_reads_the_password_file_only_once(self):
        # A pipe can be read only once.
        reader, writer = os.pipe()
        os.write(writer, b'only once\n')
        os.close(writer)
        with open(reader, 'rb'):
            self.assert_done(self.run_script('adduser', 'alice', 'alice', '/dev/fd/%d' % reader,
                                             pass_fds=[reader]))
        self.assertEqual(host.mac.nt_hashes['alice'], b'only once')

    def test_takes_hostile_names_of_the_password_file(self):
        for number, name in enumerate((' "\'$HOME;`id`*\\', 'new\n', 'É ', '-n', '%s')):
            with self.subTest(name):
                write(self.scratch + '/' + name, 'secret\n')
                user = 'user%d' % number
                self.assert_done(self.run_script('adduser', user, user, name, cwd=self.scratch))
                self.assertEqual(host.mac.nt_hashes[user], b'secret')

    def test_refuses_names_that_mean_something_else_somewhere(self):
        before = host.snapshot()
        for name, user in REFUSED_USERS.items():
            with self.subTest(name):
                self.assert_refused(self.add_user(user), 'user name')
        self.assert_unchanged(before)
        self.assertEqual([call for call in host.calls if call.changes], [])

    def test_takes_the_longest_and_oddest_names(self):
        for user in ('a' * 32, '_', 'a.b-c_d9', 'a.', 'key', 'such'):
            with self.subTest(user):
                before = host.snapshot()
                self.assert_done(self.add_user(user))
                self.assertIn(user, host.mac.nt_hashes)
                self.assert_done(self.run_script('rmuser', user))
                self.assert_unchanged(before)

    def test_refuses_wrong_arguments(self):
        before = host.snapshot()
        good = ['alice', 'alice', self.password_file]
        self.assert_refused(self.run_script('adduser', 'alice', 'bobby', good[2]), 'differ')
        for args in ([], good[:1], good[:2], good + ['more']):
            self.assert_refused(self.run_script('adduser', *args), 'usage')
        self.assert_unchanged(before)

    def test_refuses_users_and_groups_that_are_not_ours(self):
        host.mac.network_users['erin'] = '12345'
        host.mac.add('Users', 'Bert', UniqueID='502', RealName='Pelago share user alice')
        host.mac.records['Users']['unfinished'] = {}
        before = host.snapshot()
        for user, reason in (('root', 'user root exists'), ('bob', 'user bob exists'),
                             ('bert', 'user bert exists'), ('unfinished', 'user unfinished exists'),
                             ('justagroup', 'group justagroup exists'),
                             ('erin', 'another directory')):
            with self.subTest(user):
                self.assert_refused(self.add_user(user), reason)
                self.assert_unchanged(before)

    def test_takes_a_number_free_of_users_and_groups(self):
        host.mac.add('Users', 'one', UniqueID='499')
        host.mac.add('Groups', 'two', PrimaryGroupID='498')
        self.assert_done(self.add_user())
        self.assertEqual(host.mac.attribute('Users', 'alice', 'UniqueID'), '497')

    def test_refuses_when_no_number_is_free(self):
        for number in range(401, 500):
            host.mac.add('Users', 'user%d' % number, UniqueID=str(number))
        before = host.snapshot()
        self.assert_refused(self.add_user(), 'no number from 401 to 499 is free')
        self.assert_unchanged(before)

    def test_fails_when_another_program_takes_the_number(self):
        def intrude(call):
            if call.args[1:] == ['-create', '/Users/alice', 'UniqueID', '499']:
                host.mac.add('Users', 'intruder', UniqueID='499')
        host.hook = intrude
        self.assert_refused(self.add_user(), 'taken meanwhile')
        self.assertNotIn('alice', host.mac.records['Users'])
        self.assertIn('intruder', host.mac.records['Users'])

    def test_joins_the_access_group_if_it_exists(self):
        self.assert_done(self.add_user())
        self.assertEqual(self.asked('dseditgroup'), [])
        self.assertNotIn(machost.ACCESS_GROUP, host.mac.records['Groups'])
        host.mac.add('Groups', machost.ACCESS_GROUP, PrimaryGroupID='399')
        host.mac.records['Groups'][machost.ACCESS_GROUP]['GroupMembership'] = ['bob']
        self.assert_done(self.add_user('carol'))
        members = host.mac.records['Groups'][machost.ACCESS_GROUP]['GroupMembership']
        self.assertEqual(members, ['bob', 'carol'])
        self.assert_done(self.run_script('rmuser', 'alice'))
        self.assert_done(self.run_script('rmuser', 'carol'))
        self.assertEqual(members, ['bob'])

    def test_refuses_a_second_user_of_the_same_name(self):
        self.assert_done(self.add_user())
        before = host.snapshot()
        self.assert_refused(self.add_user(), 'in use')
        self.assert_refused(self.add_user(run=self.session().run), 'in use')
        self.assert_unchanged(before)

    def test_a_refusal_of_the_password_is_passed_on(self):
        self.add_user()
        number = [call.name for call in host.calls].index('osascript') + 1
        host.wipe()
        before = host.snapshot()
        host.fault = (number, number, 'refuse')
        self.assert_refused(self.add_user(), 'osascript: out of order')
        self.assert_unchanged(before)


class Removing(MacTest):

    def test_removing_again_succeeds_and_says_so(self):
        self.add_both()
        self.remove_both()
        before = host.snapshot()
        for result in (self.run_script('rmshare', 'Docs', self.folder),
                       self.run_script('rmuser', 'alice')):
            self.assert_done(result)
            self.assertRegex(result.output, 'there is no (share "Docs"|user alice) any more')
        self.assert_unchanged(before)
        self.assertEqual([call.args[-1] for call in host.calls if call.name == 'nc'], ['22', '445'],
                         'rmshare and rmuser have not asked')

    def test_refuses_what_is_not_ours(self):
        host.mac.add('SharePoints', 'Other', directory_path='/srv', smb_name='Other')
        before = host.snapshot()
        self.assert_refused(self.run_script('rmshare', 'Other', '/srv'), 'was not made by addshare.sh')
        for user in ('bob', 'root'):
            self.assert_refused(self.run_script('rmuser', user), 'was not made for a share')
        self.assert_unchanged(before)

    def test_refuses_what_another_session_has(self):
        self.add_both(run=self.session().run)
        before = host.snapshot()
        self.assert_refused(self.run_script('rmshare', 'Docs', self.folder), 'another session')
        self.assert_refused(self.run_script('rmuser', 'alice'), 'another session')
        self.assert_unchanged(before)

    def test_refuses_another_folder(self):
        self.add_both()
        before = host.snapshot()
        self.assert_refused(self.run_script('rmshare', 'Docs', '/srv'), 'another folder')
        self.assert_refused(self.run_script('rmshare', 'Docs', ''), 'empty')
        self.assert_unchanged(before)

    def test_refuses_wrong_arguments(self):
        before = host.snapshot()
        for args in ([], ['Docs'], ['Docs', '/srv', 'more']):
            self.assert_refused(self.run_script('rmshare', *args), 'usage')
        for args in ([], ['alice', 'more']):
            self.assert_refused(self.run_script('rmuser', *args), 'usage')
        for user in REFUSED_USERS.values():
            self.assert_refused(self.run_script('rmuser', user), 'user name')
        self.assert_unchanged(before)

    def test_keeps_a_share_that_replaced_its_own(self):
        self.add_both()
        host.mac.records['SharePoints']['Docs']['directory_path'] = ['/srv']
        self.remove_both()
        self.assertIn('Docs', host.mac.records['SharePoints'])
        self.assertEqual(host.mac.entries, {})

    def test_removing_the_user_also_removes_its_share(self):
        before = host.snapshot()
        self.add_both()
        self.assert_done(self.run_script('rmuser', 'alice'))
        self.assert_unchanged(before)

    def test_a_user_goes_even_when_its_share_cannot(self):
        self.add_both()
        refusing = []

        def refuse(call):
            stuck = call.name in ('chmod', 'ls') or '/bin/chmod' in call.args
            host.fault = (1, 10 ** 6, 'refuse') if stuck else None
            refusing.append(host.fault)
        host.hook = refuse
        self.assert_refused(self.run_script('rmuser', 'alice'), 'cannot take the access of alice back')
        self.assertNotIn('alice', host.mac.records['Users'])
        self.assertNotIn('Docs', host.mac.records['SharePoints'])
        self.assertTrue(any(refusing))

    def test_removes_the_user_when_shares_are_unreadable(self):
        for verb in ('-list', '-read'):
            host.wipe()
            self.add_both()
            self.refuse(lambda call, verb=verb: call.name == 'dscl' and call.args[1] == verb and
                        call.args[2].startswith('/SharePoints'))
            self.assert_refused(self.run_script('rmuser', 'alice'), 'may still be there')
            self.assertNotIn('alice', host.mac.records['Users'])
            self.assertNotIn('alice', host.mac.records['Groups'])
            self.assertEqual((host.mac.passwords, host.mac.entries), ({}, {}))

    def test_removes_user_who_cannot_leave_access_group(self):
        host.mac.add('Groups', machost.ACCESS_GROUP, PrimaryGroupID='399')
        before = host.snapshot()
        for script, args in (('rmuser', ['alice']),
                             ('adduser', ['alice', 'alice', self.password_file])):
            self.assert_done(self.add_user())
            self.refuse(lambda call: call.name == 'dseditgroup' or 'GroupMembership' in call.args[:4] and
                        '-delete' in call.args)
            self.assert_refused(self.run_script('rmuser', 'alice'), 'cannot take alice out of the group')
            self.assertNotIn('alice', host.mac.records['Users'])
            self.assertEqual(host.mac.passwords, {})
            host.hook = host.fault = None
            self.assert_done(self.run_script(script, *args))
        self.assert_done(self.run_script('rmuser', 'alice'))
        self.assert_unchanged(before)

    def test_removes_the_user_when_its_group_is_unreadable(self):
        self.assert_done(self.add_user())
        self.refuse(lambda call: call.name == 'dscl' and call.args[2] == '/Groups')
        self.assert_refused(self.run_script('rmuser', 'alice'), 'the group alice may still be there')
        self.assertEqual((host.mac.records['Users'].get('alice'), host.mac.passwords), (None, {}))
        host.hook = host.fault = None
        self.assert_done(self.run_script('rmuser', 'alice'))
        self.assertNotIn('alice', host.mac.records['Groups'])

    def test_changes_nothing_when_users_are_unreadable(self):
        self.assert_done(self.add_user())
        before = host.snapshot()
        for args in (['-list', '/Users'], ['-read', '/Users/alice']):
            self.refuse(lambda call, args=args: call.args[1:3] == args)
            for result in (self.run_script('rmuser', 'alice'), self.add_user(), self.add_share()):
                self.assert_refused(result, 'dscl: out of order')
            self.assert_unchanged(before)

    def test_reports_a_user_that_may_be_left(self):
        failed = []

        def deaf(call):
            failed.extend([call] if call.name == 'pwpolicy' else [])
            host.fault = (1, 10 ** 6, 'refuse') if failed else None
        host.hook = deaf
        self.assert_refused(self.add_user(), 'the user alice may be left behind')
        host.hook = host.fault = None
        self.assert_done(self.run_script('rmuser', 'alice'))
        self.assertNotIn('alice', host.mac.records['Users'])

    def refuse(self, condition):
        def hook(call):
            host.fault = (1, 10 ** 6, 'refuse') if condition(call) else None
        host.hook = hook

    def test_reports_a_missing_folder_only_once(self):
        before = host.snapshot()
        self.add_both()
        os.rename(self.folder, self.home + '/gone')
        result = self.run_script('rmshare', 'Docs', self.folder)
        self.assert_refused(result, 'the access of alice stays on what was "%s"' % self.folder)
        self.assertEqual(host.mac.records['SharePoints'], {})
        self.assertNotIn(self.home, host.mac.entries)
        self.assertTrue(any(path.startswith(self.folder) for path in host.mac.entries))
        self.assert_done(self.run_script('rmshare', 'Docs', self.folder))
        self.assert_done(self.run_script('rmuser', 'alice'))
        host.mac.entries.clear()
        self.assert_unchanged(before)

    def test_missing_folder_does_not_block_the_next_session(self):
        session = self.session()
        self.add_both(run=session.run)
        session.kill()
        os.rename(self.folder, self.home + '/gone')
        os.symlink('/etc', self.folder)
        result = self.add_user('carol')
        self.assert_done(result)
        self.assertIn('the access of alice stays on', result.output)
        os.unlink(self.folder)

    def test_detects_a_user_deletion_that_did_nothing(self):
        self.assert_done(self.add_user())
        saved = host.save()
        host.restore(saved)
        self.assert_done(self.run_script('rmuser', 'alice'))
        number = [repr(call) for call in host.calls].index('dscl . -delete /Users/alice') + 1
        host.restore(saved)
        host.fault = (number, number, 'lie')
        self.assert_refused(self.run_script('rmuser', 'alice'), '/Users/alice is still there')
        host.fault = None
        self.assert_done(self.run_script('rmuser', 'alice'))


if __name__ == '__main__':
    unittest.main()
