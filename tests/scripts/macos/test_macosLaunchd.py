"""The job of launchd that removes what a killed session left, on the modelled Mac.

The test does what launchd would do by the job's own property list: it runs the program with its arguments,
in an environment with few variables.
"""

import os
import plistlib
import shutil
import signal
import subprocess
import unittest

import machost
from machost import REPO, SHARES, MacTest, read, run_command

JOB = REPO + '/product/macos/launchd/pelago.clear.plist'
PLACE = '/Library/Pelago/Pelago.app/Contents/Library/shares'  # where a Mac has the scripts
ON = 'file sharing is on'

host = None


def setUpModule():
    global host  # pylint: disable=global-statement
    host = machost.set_up()
    os.makedirs(os.path.dirname(PLACE))
    os.symlink(SHARES, PLACE)


def job():
    return plistlib.loads(read(JOB))


class TheJob(unittest.TestCase):

    def test_is_a_property_list(self):
        # Two readers, because each accepts files that the other refuses.
        done = subprocess.run(['plistutil', '-i', JOB, '-f', 'bin'], capture_output=True, check=True)
        self.assertTrue(done.stdout.startswith(b'bplist'), done)
        self.assertEqual(plistlib.loads(done.stdout), job())
        self.assertEqual(os.path.basename(JOB), job()['Label'] + '.plist')

    def test_job_keys_have_the_types_launchd_expects(self):
        self.assertEqual({key: type(value) for key, value in job().items()}, {
            'Label': str, 'ProgramArguments': list, 'RunAtLoad': bool, 'StartInterval': int, 'Umask': int,
            'StandardErrorPath': str})
        self.assertEqual(job()['Umask'], 0o077)
        self.assertGreaterEqual(job()['StartInterval'], 10, 'launchd starts nothing more often')

    def test_job_runs_clear_sh_at_boot(self):
        self.assertIs(job()['RunAtLoad'], True)
        self.assertEqual(job()['ProgramArguments'], [PLACE + '/clear.sh'])
        self.assertTrue(os.access(REPO + '/product/macos/shares/clear.sh', os.X_OK))

    def test_its_log_is_kept_small(self):
        rules = [line.split() for line in read(REPO + '/product/macos/launchd/newsyslog.conf').decode().splitlines()
                 if not line.startswith('#')]
        self.assertEqual([rule[0] for rule in rules], [job()['StandardErrorPath']])
        self.assertEqual([rule[1:3] for rule in rules], [['root:wheel', '600']])
        self.assertEqual([len(rule) for rule in rules], [7])

    def test_the_readme_installs_it(self):
        text = read(REPO + '/product/macos/README.md').decode()
        for word in (os.path.basename(JOB), PLACE.split('/Pelago.app')[0], 'newsyslog.conf',
                     job()['StandardErrorPath'], 'system/' + job()['Label']):
            self.assertIn(word, text)


class Clearing(MacTest):

    def new_mac(self):
        super().new_mac()
        host.mac.add('Groups', machost.ACCESS_GROUP, PrimaryGroupID='399')
        host.mac.services = []

    def launch(self, **kwargs):
        return run_command(job()['ProgramArguments'], cwd='/', env={'PATH': '/usr/bin:/bin:/usr/sbin:/sbin'},
                           **kwargs)

    def boot(self):
        shutil.rmtree(machost.LOCKS)
        return self.launch()

    def dead_session(self):
        session = self.session()
        self.add_both(run=session.run)
        session.kill()

    def test_boot_clears_the_leftovers_of_a_killed_session(self):
        before = host.snapshot()
        self.dead_session()
        self.assertNotEqual(host.snapshot(), before)
        result = self.boot()
        self.assertEqual((result.status, result.output), (0, ''))
        self.assert_unchanged(before)

    def test_a_session_that_runs_is_left_alone(self):
        self.dead_session()
        self.assert_done(self.add_user('carol'))
        self.assert_done(self.add_share('Hers', 'carol'))
        self.assert_done(self.launch())
        self.assertEqual(list(host.mac.records['SharePoints']), ['Hers'])
        self.assertNotIn('alice', host.mac.records['Users'])
        before = host.snapshot()
        self.assert_done(self.launch())
        self.assert_unchanged(before)

    def test_killed_while_it_clears_the_next_run_finishes(self):
        before = host.snapshot()
        self.dead_session()
        saved = host.save()
        host.restore(saved) # the same for this run as for all that follow: a lock costs a call
        self.assert_done(self.launch())
        points = [number for number, call in enumerate(host.calls, 1) if call.changes]
        self.assertGreater(len(points), 5)
        for number in points:
            with self.subTest(number=number):
                host.restore(saved)
                self.kill_at(number)
                self.assert_done(self.launch())
                self.assert_unchanged(before)

    def kill_at(self, number):
        """Sends SIGKILL to all processes of the job right after its call of this number was answered."""
        def strike(call):
            if len(host.calls) == number:
                os.killpg(os.getpgid(call.pid), signal.SIGKILL)
        host.after_hook = strike
        result = self.launch(start_new_session=True)
        host.after_hook = None
        self.assertEqual(result.status, -signal.SIGKILL, result)

    def test_starts_only_ps_and_id_without_a_session(self):
        shutil.rmtree(machost.STATE, ignore_errors=True)
        host.mac.services = ['disk']
        result = self.launch()
        self.assertEqual((result.status, result.output), (0, ''))
        self.assertEqual([call.name for call in host.calls], ['ps', 'id'], 'who runs it')
        self.assertFalse(os.path.exists(machost.STATE))

    def test_only_root_is_answered(self):
        answer = machost.Programs.id
        self.addCleanup(setattr, machost.Programs, 'id', answer)
        machost.Programs.id = lambda self, args, stdin: '501\n'
        self.assert_refused(self.launch(), 'only root')

    def test_failed_clearing_is_reported_and_tried_again(self):
        before = host.snapshot()
        self.dead_session()
        host.mac.services = ['disk']

        def refuse(call):
            host.fault = (1, 10 ** 6, 'refuse') if call.args[1:] == ['-delete', '/Users/alice'] else None
        host.hook = refuse
        result = self.launch()
        self.assert_refused(result, 'the user alice, or something of it, is left behind')
        self.assertNotIn(ON, result.output)
        host.hook = host.fault = None
        result = self.launch()
        self.assert_done(result)
        self.assertIn(ON, result.output)
        host.mac.services = []
        self.assert_unchanged(before)


class TheService(MacTest):
    """A Mac does not record who added "disk": it stays, and a message asks somebody to check."""

    def after_a_kill(self, services, others=False):
        host.mac.services = services
        session = self.session()
        self.add_both(run=session.run)
        session.kill()
        if others:
            self.assert_done(self.add_user('carol'))
        result = self.run_script('clear')
        self.assert_done(result)
        self.assertEqual(host.mac.services, services)
        return result.output

    def test_it_may_be_on_for_nobody(self):
        for services in (['disk'], ['print', 'disk']):
            self.assertIn(ON, self.after_a_kill(services))
            self.assertEqual(self.run_script('clear').output, '', 'it is said once')

    def test_it_is_off(self):
        for services in ([], ['print'], ['diskless'], None):
            self.assertEqual(self.after_a_kill(services), '')

    def test_another_session_needs_it(self):
        self.assertNotIn(ON, self.after_a_kill(['disk'], others=True))
        host.mac.services = None
        self.assert_done(self.run_script('rmuser', 'carol'))

    def test_nothing_was_cleared_away(self):
        host.mac.services = ['disk']
        self.add_both()
        self.assertEqual(self.run_script('clear').output, '')
        self.remove_both()
        self.assertEqual(self.run_script('clear').output, '')


if __name__ == '__main__':
    unittest.main()
