"""The password on a Mac: runs the JavaScript of adduser.sh on a model of the bridge to macOS.

The model (osascript.js) accepts exactly the calls that the program may use; any other fails the test.
"""

import os
import unittest

import javaScript
import machost
from machost import PASSWORD, MacTest

REFUSALS = {
    'error': 'the password was not taken: Credentials could not be verified.',
    'silent': 'the password was not taken',
    'exception': 'The operation could not be completed.',
    'node': 'cannot open the local directory: Connection to the directory server failed.',
}
NOT_UTF8 = {'Latin1': b'p\xe4ss', 'CutOff': b'abc\xc3', 'Surrogate': b'\xed\xa0\x80', 'Overlong': b'\xc0\xaf'}

host = None


def setUpModule():
    global host  # pylint: disable=global-statement
    host = machost.set_up()


class Refused(MacTest):

    def test_refused_password_leaves_no_user(self):
        before = host.snapshot()
        for number in range(2): # it is set twice, and only the second time makes the hash for SMB
            for refusal, reason in REFUSALS.items():
                with self.subTest(refusal, number=number):
                    host.mac.password_refusals = [None] * number + [refusal]
                    result = self.add_user()
                    self.assert_refused(result, reason)
                    self.assertIn('cannot set the password of alice', result.output)
                    self.assertEqual(host.mac.password_refusals, [], 'it was tried as often')
                    self.assert_unchanged(before)

    def test_the_next_try_is_taken(self):
        host.mac.password_refusals = ['error']
        self.assert_refused(self.add_user(), 'not taken')
        self.assert_done(self.add_user())
        self.assertEqual(host.mac.nt_hashes, {'alice': PASSWORD.encode()})


class ThePipe(MacTest):

    def test_the_password_arrives_in_a_pipe(self):
        # A here-document would be a file in a folder that others may read.
        inputs = []
        host.hook = lambda call: call.name == 'osascript' and inputs.append(
            os.readlink('/proc/%d/fd/0' % call.pid))
        self.assert_done(self.add_user())
        self.assertEqual([one.split(':')[0] for one in inputs], ['pipe', 'pipe'])


class TheProgram(MacTest):
    """The JavaScript itself, with input that adduser.sh would not pass to it."""

    def new_mac(self):
        super().new_mac()
        self.assert_done(self.add_user())
        self.program = next(call.args[3] for call in host.calls if call.name == 'osascript')

    def run_program(self, user='alice', stdin=PASSWORD.encode(), refusal=None):
        answer = javaScript.run(self.program, [user], stdin, ['alice', 'bob'], refusal)
        self.assertEqual(answer.misuses, [])
        return answer

    def assert_failed(self, answer, reason):
        self.assertEqual((answer.status, answer.passwords), (1, []))
        self.assertIn(reason, answer.complaint)

    def test_sets_the_password_of_the_one_user(self):
        answer = self.run_program('bob')
        self.assertEqual((answer.status, answer.passwords), (0, [('bob', PASSWORD.encode())]))

    def test_takes_all_that_utf8_has(self):
        for text in ('', 'é', '\ufeffx', 'a\0b', '\U0010ffff', 'x' * 100000):
            answer = self.run_program(stdin=text.encode())
            self.assertEqual((answer.status, answer.passwords), (0, [('alice', text.encode())]))

    def test_refuses_what_is_not_utf8(self):
        for name, stdin in NOT_UTF8.items():
            with self.subTest(name):
                self.assert_failed(self.run_program(stdin=stdin), 'the password is not valid UTF-8')

    def test_fails_without_the_user(self):
        self.assert_failed(self.run_program('carol'),
                           'cannot find the user: The record could not be found.')

    def test_fails_when_it_is_refused(self):
        for refusal, reason in REFUSALS.items():
            with self.subTest(refusal):
                self.assert_failed(self.run_program(refusal=refusal), reason)


class TheModel(unittest.TestCase):
    """The model refuses wrong calls, so that a mistake in the program is noticed."""

    BEGINNING = 'ObjC.import("OpenDirectory"); const error = Ref(); '
    LOCAL = '$.ODNode.nodeWithSessionNameError($.ODSession.defaultSession, "/Local/Default", error)'
    DATA = '$.NSFileHandle.fileHandleWithStandardInput.readDataToEndOfFile'

    def answer_to(self, program):
        return javaScript.run(program, ['alice'], b'p\xc3\xa4ss', ['alice'])

    def test_mistakes_are_misuses(self):
        for program in (
                'ObjC.import("OpenDirectry")', '$.NSHost', '$.ODNode', '$.NSUTF16StringEncoding', '$(1)',
                self.BEGINNING + self.LOCAL.replace('NameError', 'NameErrors'),
                self.BEGINNING + self.LOCAL.replace(', error', ''),
                self.BEGINNING + self.LOCAL.replace('error)', '$())'),
                self.BEGINNING + self.LOCAL + '.recordWithRecordTypeNameError("", "", error)',
                self.BEGINNING + self.LOCAL + '.recordWithRecordTypeNameAttributesError(1, "", $(), error)',
                self.DATA + '.length', self.DATA + '.x = 1', self.DATA + ' + ""',
                '$.NSString.alloc.initWithDataEncoding(%s, "utf8")' % self.DATA,
                '$.NSString.alloc.initWithDataEncoding("x", 4)', 'ObjC.unwrap($())',
                'try { $.x } catch (error) {}'):
            with self.subTest(program):
                self.assertEqual(len(self.answer_to(program).misuses), 1)

    def test_there_is_nothing_of_another_interpreter(self):
        for word in ('require', 'process', 'Buffer'):
            self.assertIn(word + ' is not defined', self.answer_to(word).complaint)

    def test_model_refuses_brackets_after_an_argumentless_method(self):
        self.assertIn('is not a function', self.answer_to(self.DATA + '()').complaint)

    def test_a_syntax_error_is_a_status(self):
        self.assertEqual(self.answer_to('function run(').status, 1)

    def test_without_run_nothing_is_done(self):
        answer = self.answer_to('const run2 = 1;')
        self.assertEqual((answer.status, answer.passwords), (0, []))

    def test_standard_input_is_read_once(self):
        answer = self.answer_to(
            self.DATA + '; const rest = $.NSString.alloc.initWithDataEncoding(%s, 4);' % self.DATA +
            'throw new Error("<" + ObjC.unwrap(rest) + ">");')
        self.assertIn('<>', answer.complaint)

    def test_ascii_takes_no_other_letters(self):
        answer = self.answer_to(
            'const text = $.NSString.alloc.initWithDataEncoding(%s, $.NSASCIIStringEncoding);' % self.DATA +
            'throw new Error(text.isNil() ? "nil" : "text");')
        self.assertIn('Error: nil', answer.complaint)

    def test_the_node_that_searches_changes_nothing(self):
        answer = self.answer_to(
            self.BEGINNING + self.LOCAL.replace('/Local/Default', '/Search') +
            '.recordWithRecordTypeNameAttributesError("dsRecTypeStandard:Users", "alice", $(), error)'
            '.changePasswordToPasswordError($(), $(), error);'
            'throw new Error(ObjC.unwrap(error[0].localizedDescription));')
        self.assertIn('Credentials could not be verified.', answer.complaint)
        self.assertEqual((answer.passwords, answer.misuses), ([], []))


if __name__ == '__main__':
    unittest.main()
