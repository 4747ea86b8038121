"""firstRun.sh on a modelled Mac that is as expected, on one that differs in a single point, and interrupted."""

import os
import re
import signal
import subprocess
import unittest

import firstRunHost
import machost
import textTools
from firstRunHost import FIRST_RUN, HOME, TOP
from machost import HANG, REPO, MacTest, read

POINTS = [number for number in range(1, 26) if number != 12]
OPEN = [9, 24, 25]  # points that a script cannot check completely
SHARE, USER = 'Pelago test', 'pelagofirst'
PROMPT = re.compile(r'(?:\] |press Enter\. )\Z')

host = None


def setUpModule():
    global host  # pylint: disable=global-statement
    host = firstRunHost.set_up()
    textTools.install()


class FirstRun(MacTest):

    def new_mac(self):
        super().new_mac()
        firstRunHost.make_mac(host)
        self.report = self.scratch + '/report.txt'
        self.shown = ''
        self.caller = '501'

    def begin(self, **kwargs):
        environ = {key: value for key, value in os.environ.items() if key != 'SUDO_UID'}
        if self.caller is not None:
            environ['SUDO_UID'] = self.caller
        return subprocess.Popen(['/bin/dash', FIRST_RUN, self.report], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, env=environ, **kwargs)

    def answer(self, process, reply):
        """Answers each question with reply(), and returns the status."""
        since = ''
        while True:
            chunk = os.read(process.stdout.fileno(), 4096).decode()
            if not chunk:
                break
            self.shown += chunk
            since += chunk
            if PROMPT.search(since):
                process.stdin.write(reply(since).encode() + b'\n')
                process.stdin.flush()
                since = ''
        with process:
            return process.wait(HANG)

    def person(self, said):
        """A person's answers on a Mac that is as expected."""
        if 'Stay connected' in said:
            for name in ('from the client', 'locked'):
                host.mac.client_writes(USER, self.shared_folder() + '/' + name)
            host.mac.flags[self.shared_folder() + '/locked'] = 'uchg'
        return 'n' if 11 in host.mac.bad and 'cut off' in said else 'y'

    def shared_folder(self):
        return host.mac.attribute('SharePoints', SHARE, 'directory_path')

    def run_it(self, reply=None):
        return self.answer(self.begin(), reply or self.person)

    def verdicts(self):
        lines = re.findall(r'^point (\d+), .*?: (as expected|not as expected|not looked at, or not in full)$',
                           read(self.report).decode(), re.M)
        self.assertEqual([int(number) for number, _ in lines], list(POINTS))
        return {int(number): word for number, word in lines}

    def bad_points(self):
        return [number for number, word in self.verdicts().items() if word == 'not as expected']

    def assert_put_back(self, before):
        self.assertNotIn('STILL THERE', self.shown)
        after = self.before()
        self.assertEqual(after, before)
        self.assertFalse(os.path.exists(TOP))
        self.assertFalse(os.path.exists(machost.STATE))
        self.assertEqual(os.listdir(HOME + '/Documents'), [])
        self.assertEqual([name for name in os.listdir('/tmp') if name.startswith('pelagofirst.')], [])

    def before(self):
        """Returns everything that must be restored; the model's entries for files are removed with the files."""
        model, files = host.snapshot()
        for key in ('generation', 'effective', 'slow_looks', 'asked_for_job', 'bad', 'sharing_has_r'):
            del model[key]
        model['entries'] = {path: entries for path, entries in model['entries'].items() if os.path.exists(path)}
        return model, files


class WhatItSays(FirstRun):

    def test_only_the_manual_points_stay_open(self):
        before = self.before()
        status = self.run_it()
        words = self.verdicts()
        self.assertEqual({number for number, word in words.items() if word != 'as expected'}, set(OPEN),
                         read(self.report).decode())
        self.assertEqual(status, 3)
        self.assert_put_back(before)

    def test_names_exactly_the_point_that_fails(self):
        for number in machost.sample(6, sorted(set(POINTS) - {24}), 'bad points'):
            with self.subTest(number):
                self.new_mac()
                before = self.before()
                host.mac.bad = {number}
                status = self.run_it()
                self.assertEqual(self.bad_points(), [number], read(self.report).decode())
                self.assertEqual(status, 1)
                if number == 10: # where users cannot be deleted
                    self.assertIn('STILL THERE, remove it by hand: /Users/pelago', self.shown)
                else:
                    self.assert_put_back(before)

    def test_finding_a_free_share_name_fails_its_point(self):
        host.mac.bad = {'free shares'}
        self.assertEqual(self.run_it(), 1)
        self.assertEqual(self.bad_points(), [21], read(self.report).decode())

    def test_no_answer_leaves_a_point_open(self):
        status = self.run_it(lambda _: '')
        words = self.verdicts()
        self.assertEqual([number for number in POINTS if 'not looked' in words[number]], [1, 9, 11, 20, 24, 25])
        self.assertEqual(status, 3)

    def test_the_report_names_nobody(self):
        host.mac.add('Users', 'carol', UniqueID='502')
        host.mac.add('SharePoints', 'Carols own', directory_path='/Users/carol', smb_name='Carols own')
        answer = firstRunHost.FirstRunPrograms.pwpolicy

        def talkative(programs, args, stdin):
            secret = host.mac.passwords[args[1]].decode()
            return answer(programs, args, stdin) + '%s of %s, %s\n' % (secret, HOME, 'bob')
        self.addCleanup(setattr, firstRunHost.FirstRunPrograms, 'pwpolicy', answer)
        firstRunHost.FirstRunPrograms.pwpolicy = talkative
        self.run_it()
        text = read(self.report).decode()
        self.assertIn('(the password) of ~, (the person)\n', text)
        password = re.search('the password (Px7-[a-z0-9]{20})$', self.shown, re.M)[1]
        for secret in (password, 'bob', 'arol', HOME, 'the-mac'):
            self.assertNotIn(secret, text)
        self.assertIn('macOS 12.7.6 (21H1320)', text)


    def test_awk_arguments_do_not_contain_the_password(self):
        seen = self.scratch + '/arguments'
        awk = read('/usr/bin/awk')
        self.addCleanup(machost.write, '/usr/bin/awk', awk, 0o755)
        machost.write('/usr/bin/awk', '#!/bin/dash\nprintf "%%s\\n" "$*" >>%s\nexec %s/awk "$@"\n'
                      % (seen, textTools.TOOLS), 0o755)
        self.run_it()
        password = re.search('the password (Px7-[a-z0-9]{20})$', self.shown, re.M)[1]
        arguments = read(seen).decode()
        self.assertIn('home=' + HOME, arguments)
        self.assertNotIn(password, arguments)

    def test_leaves_the_scripts_notes_where_they_were_before(self):
        host.mac.services = ['disk']
        self.add_both()
        notes = machost.tree(machost.STATE)
        host.mac.services = []
        self.run_it()
        self.assertEqual(machost.tree(machost.STATE), notes)
        self.remove_both()


class ItRefuses(FirstRun):

    def assert_refused_here(self, reason):
        before = self.before()
        self.assertEqual(self.run_it(), 2)
        self.assertIn(reason, self.shown)
        self.assert_put_back(before)

    def test_when_something_of_its_own_names_is_there(self):
        host.mac.add('Users', USER, UniqueID='503')
        self.assert_refused_here('/Users/pelagofirst is there already')

    def test_when_file_sharing_is_on(self):
        host.mac.services = ['disk']
        self.assert_refused_here('file sharing is on')

    def test_without_a_person_who_has_called_sudo(self):
        for number in (None, '', '0', '500', 'bob'):
            with self.subTest(number):
                self.caller = number
                self.shown = ''
                self.assert_refused_here('run this with sudo from the account of a person')

    def test_without_root(self):
        self.addCleanup(setattr, firstRunHost.FirstRunPrograms, 'id', firstRunHost.FirstRunPrograms.id)
        firstRunHost.FirstRunPrograms.id = lambda self, args, stdin: '501\n'
        self.assert_refused_here('run this with sudo')


class Interrupted(FirstRun):

    def interrupt_at(self, words, kind):
        process = self.begin(start_new_session=True,
                             preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))

        def reply(said):
            if words in said:
                os.killpg(process.pid, kind) # as a terminal does: to all processes of the group
            return self.person(said)
        return self.answer(process, reply)

    def test_puts_back_everything(self):
        for words, kind in machost.sample(2, (('Stay connected', signal.SIGINT), ('Start to copy', signal.SIGTERM),
                                              ('can only be read', signal.SIGHUP), ('in Documents', signal.SIGINT)),
                                          'interruptions'):
            with self.subTest(words):
                self.new_mac()
                before = self.before()
                self.assertEqual(self.interrupt_at(words, kind), 128 + kind)
                self.assert_put_back(before)
                self.assertIn('INTERRUPTED', read(self.report).decode())
                self.assertEqual(self.bad_points(), [])

    def test_puts_back_everything_wherever_a_signal_comes(self):
        self.run_it()
        calls = [number for number, call in enumerate(host.calls, 1) if call.changes]
        for number in machost.sample(100, calls, 'signals'):
            with self.subTest(number):
                self.new_mac()
                before = self.before()
                process = self.begin(start_new_session=True)

                def strike(_, process=process, number=number):
                    if len(host.calls) == number:
                        os.killpg(process.pid, signal.SIGTERM)
                host.after_hook = strike
                self.answer(process, self.person)
                host.after_hook = None
                self.assert_put_back(before)


class TheList(unittest.TestCase):
    """The list of points in the README, which the script follows."""

    def points(self):
        text = read(REPO + '/product/macos/README.md').decode()
        text = text.split('## What a Mac has to confirm before a release\n')[1]
        return {int(number): re.sub(r'\s+', ' ', words) for number, words in
                re.findall(r'^(\d+)\. (.*?)(?=^\d+\. |\Z)', text, re.M | re.S)}

    def test_script_and_readme_have_the_same_points(self):
        script = read(REPO + '/product/macos/firstRun.sh').decode()
        points = self.points()
        self.assertEqual(list(points), list(POINTS))
        self.assertEqual(set(map(int, re.findall(r'\bpoint (\d+)', script))), set(points))
        self.assertIn("POINTS='%s' " % ' '.join(map(str, points)), script)
        titles = dict(re.findall(r"""^ +(\d+)\) printf ['"](.*)['"] ;;""", script.replace('%%', '%'), re.M))
        self.assertEqual(set(map(int, titles)), set(points))
        for number, title in titles.items():
            self.assertIn(title.lower(), points[int(number)].replace('`', '').lower())


if __name__ == '__main__':
    unittest.main()
