"""The macOS share scripts with text programs that lack GNU's extensions, as those of a Mac do.

Runs all tests of test_macos.py and test_macosAddShare.py again with PELAGO_MAC_STRIDE=1; otherwise those that parse text.
"""

import os
import subprocess
import unittest

import machost
import test_macos
import test_macosAddShare
import textTools
from machost import MacTest

# A whole session, and each expression of sed, grep and awk with input that it must accept and refuse.
PLAIN = [
    'WholeSession.test_everything_is_as_it_was_afterwards', 'WholeSession.test_only_what_every_system_has_is_started',
    'WholeSession.test_hostile_arguments_arrive_element_by_element',
    'AddUser.test_hands_over_every_password_as_it_is', 'AddUser.test_refuses_passwords_that_cannot_be_kept',
    'AddUser.test_refuses_users_and_groups_that_are_not_ours',
    'AddUser.test_takes_a_number_free_of_users_and_groups', 'AddUser.test_refuses_when_no_number_is_free',
    'AddUser.test_fails_when_another_program_takes_the_number', 'Removing.test_refuses_what_is_not_ours',
]
PLAIN_SHARES = [
    'AddShare.test_takes_any_name_that_smb_can_spell', 'AddShare.test_refuses_folders_that_cannot_be_shared',
    'AddShare.test_refuses_a_share_that_exists',
]

host = None


def setUpModule():
    global host  # pylint: disable=global-statement
    host = machost.set_up()
    textTools.install()


def load_tests(_, own, __):
    suite = unittest.TestSuite([own])
    if machost.STRIDE == '1':
        suite.addTests(unittest.defaultTestLoader.loadTestsFromModule(module) for module in (test_macos, test_macosAddShare))
        return suite
    print('some tests of test_macos.py and test_macosAddShare.py; PELAGO_MAC_STRIDE=1 takes all', flush=True)
    suite.addTests(unittest.defaultTestLoader.loadTestsFromNames(PLAIN, test_macos))
    suite.addTests(unittest.defaultTestLoader.loadTestsFromNames(PLAIN_SHARES, test_macosAddShare))
    return suite


class TheTools(MacTest):
    """The text programs are not this machine's."""

    def run_tool(self, *argv, text='', **kwargs):
        return subprocess.run(argv, input=text, capture_output=True, text=True, check=False, **kwargs)

    def assert_misused(self, *argv):
        self.run_tool(*argv)
        self.assertEqual([argv[0] in one for one in host.misuses], [True])
        host.misuses.clear()

    def test_expressions_that_only_gnu_has_are_misuses(self):
        for argv in (('sed', '-n', r's/^\s*x//p'), ('sed', r's/a\+/b/'), ('sed', r's/a\|b/c/'),
                     ('sed', r's/\t/ /'), ('grep', r'\bx'), ('grep', '-e', r'\w')):
            with self.subTest(argv):
                self.assert_misused(*argv)

    def test_other_expressions_are_no_misuses(self):
        self.assertEqual(self.run_tool('sed', '-n', r's/^[[:blank:]]*\(x\.\)/<\1>/p', text='\t x.y\n').stdout,
                         '<x.>y\n')
        self.assertEqual(self.run_tool('grep', '-ixF', '-e', r'\w', text='\\W\n').stdout, '\\W\n')

    def test_tools_are_not_gnus(self):
        self.assertIn('busybox', self.run_tool('sed', '--version').stdout.lower() +
                      self.run_tool('grep', '--help').stderr.lower())
        self.assertIn('awk version 20', self.run_tool('awk', '--version').stdout)
        self.assertIn('calling undefined function gensub',
                      self.run_tool('awk', 'BEGIN { print gensub("a", "b", "g", "a") }').stderr)

    def test_no_text_program_of_the_scripts_is_missing(self):
        self.assertEqual(set(test_macos.TEXT_PROGRAMS) - set(os.listdir(textTools.TOOLS)),
                         {'dash', 'env', 'iconv'})

    def test_wc_prints_blanks_first(self):
        self.assertEqual(self.run_tool('wc', '-c', text='abc').stdout, '       3\n')

    def test_grep_takes_options_from_the_environment(self):
        self.assertEqual(self.run_tool('grep', '-e', 'a', text='a\nb\n', env={'GREP_OPTIONS': '-v'}).stdout, 'b\n')

    def test_clear_sh_removes_leftovers_of_a_dead_session(self):
        before = host.snapshot()
        session = self.session()
        self.add_both(run=session.run)
        session.kill()
        for services, says in ((['disk'], True), (['diskless'], False)):
            host.mac.services = services
            result = self.run_script('clear')
            self.assert_done(result)
            self.assertEqual('file sharing is on' in result.output, says)
            host.mac.services = None
            self.assert_unchanged(before)
            session = self.session()
            self.add_both(run=session.run)
            session.kill()

    def test_the_scripts_heed_no_options_from_the_environment(self):
        before = host.snapshot()
        environ = dict(os.environ, GREP_OPTIONS='-v', POSIXLY_CORRECT='1')
        self.add_both(env=environ)
        self.assertEqual(host.mac.nt_hashes, {'alice': machost.PASSWORD.encode()})
        self.remove_both(env=environ)
        self.assert_unchanged(before)


if __name__ == '__main__':
    unittest.main()
