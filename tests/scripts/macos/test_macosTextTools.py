"""The macOS share scripts with text programs that lack GNU's inventions, as those of a Mac do.

All tests of test_macos.py once more.
"""

import os
import subprocess
import unittest

import machost
import test_macos
import textTools
from machost import MacTest

host = None


def setUpModule():
    global host  # pylint: disable=global-statement
    host = machost.set_up()
    textTools.install()


def load_tests(_, own, __):
    return unittest.TestSuite([own, unittest.defaultTestLoader.loadTestsFromModule(test_macos)])


class TheTools(MacTest):
    """That they are others than this machine's."""

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

    def test_other_expressions_are_not(self):
        self.assertEqual(self.run_tool('sed', '-n', r's/^[[:blank:]]*\(x\.\)/<\1>/p', text='\t x.y\n').stdout,
                         '<x.>y\n')
        self.assertEqual(self.run_tool('grep', '-ixF', '-e', r'\w', text='\\W\n').stdout, '\\W\n')

    def test_they_are_not_gnus(self):
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

    def test_the_scripts_heed_no_options_from_the_environment(self):
        before = host.snapshot()
        environ = dict(os.environ, GREP_OPTIONS='-v', POSIXLY_CORRECT='1')
        self.add_both(env=environ)
        self.assertEqual(host.mac.nt_hashes, {'alice': machost.PASSWORD.encode()})
        self.remove_both(env=environ)
        self.assert_unchanged(before)


if __name__ == '__main__':
    unittest.main()
