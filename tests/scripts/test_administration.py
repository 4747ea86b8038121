"""The administrator's commands pelago-share-check and pelago-share-sessions."""

import os
import subprocess
import unittest

import sambahost
from sambahost import (HANG, PROGRAM, command, run_script, samba_knows, share_exists, user_exists,
                       wait_until, write)
from test_killed import FILE, FOLDER, KilledCase, services


def run(*arguments):
    """(status, standard output, standard error)"""
    done = subprocess.run([PROGRAM, *arguments], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=HANG, check=False)
    return done.returncode, done.stdout, done.stderr


class Check(KilledCase):

    def missing(self):
        status, out, err = run('check')
        lines = [line for line in out.splitlines() if line.startswith('MISSING')]
        self.assertEqual(status, 1 if lines else 0, (out, err))
        return '\n'.join(lines)

    def with_smb_conf(self, text):
        self.addCleanup(write, '/etc/samba/smb.conf', sambahost.SMB_CONF)
        write('/etc/samba/smb.conf', text)

    def test_a_host_that_is_ready(self):
        self.start_switch()
        wait_until(lambda: self.missing() == '', 'the switch')
        out = run('check')[1]
        self.assertIn('the share "Textual" has no "valid users"', out)

    def test_check_reports_missing_parts_and_their_remedies(self):
        self.assertIn('systemctl enable --now pelago-smb-switch', self.missing())
        os.unlink(FILE)
        self.assertIn('pelago-smb-service init', self.missing())
        write(FILE, 'junk')
        self.assertIn('it is damaged', self.missing())

    def test_says_what_smb_conf_lacks(self):
        for change, said in (('registry shares = no', 'registry shares = yes'),
                             ('registry shares = yes\n server min protocol = NT1', 'server min protocol'),
                             ('registry shares = yes\n server smb encrypt = off', 'cannot encrypt'),
                             ('registry shares = yes\n server max protocol = SMB2_10', 'cannot encrypt'),
                             ('registry shares = yes\n ntlm auth = disabled', 'ntlm auth'),
                             ('registry shares = yes\n username map script = /bin/true', 'username map')):
            with self.subTest(change):
                self.with_smb_conf(sambahost.SMB_CONF.replace('registry shares = yes', change))
                self.assertIn(said, self.missing())
        os.unlink('/etc/samba/smb.conf')
        self.assertIn("cannot read Samba's configuration", self.missing())

    def test_says_which_programs_are_missing(self):
        os.rename('/usr/bin/smbstatus', '/usr/bin/smbstatus.away')
        self.addCleanup(os.rename, '/usr/bin/smbstatus.away', '/usr/bin/smbstatus')
        self.assertIn('these programs: smbstatus.', self.missing())
        with sambahost.stand_in('python3', 'exit 1'):
            self.assertIn('python3-samba', self.missing())

    def test_judges_a_folder(self):
        self.assertIn('ok       the folder "%s", in which clients act as bob\n' % self.folder, run('check', self.folder)[1])
        os.chmod(self.scratch, 0o777)
        self.assertIn('MISSING  a folder that can be shared: the folder belongs to bob, but others can change "%s"'
                      % self.scratch, run('check', self.folder)[1])
        self.assertIn("note     in a folder of root's the client is root\n", run('check', '/srv')[1])

    def test_refuses_arguments_and_users(self):
        self.assertIn('usage', run('check', self.folder, 'more')[2])
        done = subprocess.run(['setpriv', '--reuid', '65534', PROGRAM, 'check'], capture_output=True, text=True,
                              check=False)
        self.assertEqual((done.returncode, done.stderr), (1, 'pelago-share-check: only root may do this\n'))


class Sessions(KilledCase):

    def setUp(self):
        super().setUp()
        smbd = sambahost.Smbd()
        self.addCleanup(smbd.stop)

    def list(self):
        status, out, err = run('sessions')
        self.assertEqual((status, err), (0, ''))
        return out

    def test_lists_what_there_is_and_whose_it_is(self):
        self.assertEqual(self.list(), '')
        tool = self.start_tool()
        self.assertEqual(self.list(), 'user alice: in use by pelagoShareTool %d\n'
                         'share "Docs" of "%s" for alice (rw): in use by pelagoShareTool %d\n'
                         % (tool.pid, self.folder, tool.pid))
        self.kill(tool)
        self.assertEqual(self.list().count(': left by %d\n' % tool.pid), 2)
        command('rm', '-r', sambahost.STATE)
        self.assertEqual(self.list(), 'user alice: left from before the last boot\n'
                         'share "Docs": left from before the last boot\n')

    def test_a_name_makes_no_line_of_its_own(self):
        odd = self.make_folder(self.scratch + '/a\nuser root: in use')
        self.add_user()
        self.add_share(folder=odd)
        self.assertEqual(len(self.list().splitlines()), 2)

    def test_clean_leaves_those_that_live(self):
        living, dead = self.start_tool(), self.start_tool('carl', 'His')
        self.kill(dead)
        self.assertEqual(run('sessions', '--clean'), (0, '', ''))
        self.assertFalse(user_exists('carl') or samba_knows('carl') or share_exists('His'))
        self.assert_served()
        self.finish(living)

    def test_end_ends_one_session_and_its_tool(self):
        one, other = self.start_tool(), self.start_tool('carl', 'His')
        status, out, err = run('sessions', '--end', 'alice')
        self.assertEqual((status, out, err), (0, '', 'pelago-share-sessions: ending pelagoShareTool %d\n' % one.pid))
        self.assertEqual(one.wait(HANG), -15)
        self.assertFalse(user_exists('alice') or samba_knows('alice') or share_exists('Docs'))
        self.assert_served('His', 'carl')
        self.assertEqual(services(), ['print', 'disk'])
        self.finish(other)

    def test_end_all_ends_sessions_and_stops_the_service(self):
        tools = [self.start_tool(), self.start_tool('carl', 'His')]
        self.assertEqual(run('sessions', '--end-all')[0], 0)
        self.assertEqual([tool.wait(HANG) for tool in tools], [-15, -15])
        self.assertTrue(self.nothing_is_left() and self.nothing_is_left('carl', 'His'))
        self.assertEqual(services(), ['print'])

    def test_end_undoes_manual_scripts_and_keeps_their_shell(self):
        session = self.session()
        self.add_user(run=session.run)
        self.add_share(run=session.run)
        self.assertEqual(run('sessions', '--end', 'alice'), (0, '', ''))
        self.assertTrue(self.nothing_is_left())
        self.assertIsNone(session.process.poll())

    def test_refuses_what_it_does_not_know(self):
        for arguments in (('--end',), ('--all',), ('--clean', 'alice')):
            status, _, err = run('sessions', *arguments)
            self.assertEqual(status, 1)
            self.assertIn('usage', err)
        self.assertEqual(run('sessions', '--end', 'nobody'),
                         (1, '', 'pelago-share-sessions: no session has the user "nobody"\n'))

    def test_says_what_it_cannot_clear_away(self):
        self.kill(self.start_tool())
        with sambahost.stand_in('userdel', 'echo why; exit 1'):
            status, _, err = run('sessions', '--clean')
        self.assertEqual(status, 1)
        self.assertIn('cannot remove the user alice: why\n', err)
        self.assertIn('something of a dead session is still there', err)
        self.assertRegex(self.list(), r'^user alice: left by \d+\n$')
        self.assertEqual(run('sessions', '--clean'), (0, '', ''))
        self.assertTrue(self.nothing_is_left())


if __name__ == '__main__':
    unittest.main()
