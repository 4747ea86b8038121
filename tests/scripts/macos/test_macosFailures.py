"""The macOS share scripts, on stand-ins, when each of their calls fails, under signals, and among other sessions."""

import os
import shutil
import signal
import subprocess
import threading
import time
import unittest

import machost
from macDisk import status_of
from machost import HANG, MacTest, read, write

host = None


def setUpModule():
    global host  # pylint: disable=global-statement
    host = machost.set_up()


class EveryStep(MacTest):
    """Each call that a script makes fails once: without effect, or with its effect and a failure reported."""

    def new_mac(self):
        super().new_mac()
        host.mac.add('Groups', machost.ACCESS_GROUP, PrimaryGroupID='399')
        # At least one in this number of all failures is tried.
        self.share = 1 if machost.STRIDE == '1' else 2 * int(machost.STRIDE or 3)

    def fail_each(self, run, modes=('refuse', 'after')):
        """Makes each call fail in turn, and counts the failures; each leaves no trace, and the next run succeeds."""
        before, saved = host.snapshot(), host.save()
        host.restore(saved) # the same for this run as for all that follow: a lock costs a call
        self.assert_done(run())
        after, calls = host.snapshot()[1].keys(), list(host.calls)
        failures = 0
        for number, call in machost.sample(3, enumerate(calls, 1), 'failures'):
            for mode in modes:
                if mode == 'after' and not call.changes:
                    continue
                with self.subTest(number=number, call=repr(call)[:80], mode=mode):
                    host.restore(saved)
                    host.fault = (number, number, mode)
                    result = run()
                    host.fault = None
                    if result.status == 0: # it was a query, whose failure the script treats as an answer
                        self.assertFalse(call.changes and 'NFSHomeDirectory' not in call.args)
                        self.assertEqual(host.snapshot()[1].keys(), after)
                        continue
                    failures += 1
                    self.assertEqual(result.status, 1, result)
                    self.assertRegex(result.output, r'(?m)^(add|rm)(user|share)\.sh: .')
                    self.assert_unchanged(before)
                    if mode == 'after':
                        self.assert_done(run())
                        self.assertEqual(host.snapshot()[1].keys(), after)
        return failures

    def test_of_adduser_is_undone(self):
        self.assertGreater(self.fail_each(self.add_user), 35 // self.share)

    def test_of_addshare_is_undone(self):
        self.assert_done(self.add_user())
        self.assertGreater(self.fail_each(self.add_share), 12 // self.share)

    def test_detects_each_step_that_only_pretends_success(self):
        before, saved = host.snapshot(), host.save()
        self.assert_done(self.add_user())
        with_user, with_user_saved = host.snapshot(), host.save()
        user_calls = list(host.calls)
        host.restore(with_user_saved)
        self.assert_done(self.add_share())
        share_calls = list(host.calls)
        noticed = 0
        for run, calls, state, expected in ((self.add_user, user_calls, saved, before),
                                            (self.add_share, share_calls, with_user_saved, with_user)):
            for number, call in enumerate(calls, 1):
                # No program shows whether a password was set, and chmod (which find runs) is not
                # known to report a false success.
                if not call.changes or call.name in ('osascript', 'chmod', 'find'):
                    continue
                with self.subTest(repr(call)):
                    host.restore(state)
                    host.fault = (number, number, 'lie')
                    self.assertEqual(run().status, 1)
                    self.assert_unchanged(expected)
                    noticed += 1
        self.assertGreaterEqual(noticed, 12)

    def remove_in_spite_of_failures(self, script, args):
        saved = host.save()
        host.restore(saved)
        self.assert_done(self.run_script(script, *args))
        end, calls = host.snapshot(), list(host.calls)
        failures = 0
        for number, call in enumerate(calls, 1):
            for mode in ('refuse', 'after') if call.changes else ('refuse',):
                with self.subTest(number=number, call=repr(call)[:80], mode=mode):
                    host.restore(saved)
                    host.fault = (number, number, mode)
                    first = self.run_script(script, *args)
                    host.fault = None
                    if first.status != 0:
                        failures += 1
                        self.assertRegex(first.output, r'(?m)^rm(user|share)\.sh: .')
                        self.assert_done(self.run_script(script, *args))
                    self.assert_unchanged(end)
        return failures

    def test_of_rmshare_can_be_done_again(self):
        self.add_both()
        self.assertGreater(self.remove_in_spite_of_failures('rmshare', ['Docs', self.folder]), 5)

    def test_of_rmuser_can_be_done_again(self):
        self.assert_done(self.add_user())
        self.assertGreater(self.remove_in_spite_of_failures('rmuser', ['alice']), 7)

    def test_next_session_recovers_after_everything_fails(self):
        before = host.snapshot()
        self.add_both()
        self.remove_both()
        self.assert_unchanged(before)
        saved = host.save()
        calls = len(host.calls)
        for number in range(8, calls, 17):
            with self.subTest(number):
                host.restore(saved)
                host.fault = (number, 10 ** 6, 'refuse')
                session = self.session()
                for name, args in (('adduser', ['alice', 'alice', self.password_file]),
                                   ('addshare', ['alice', self.password_file, self.folder, 'Docs',
                                                 'rw']),
                                   ('rmshare', ['Docs', self.folder]), ('rmuser', ['alice'])):
                    if self.run_script(name, *args, run=session.run).status != 0:
                        break
                else:
                    self.fail('no script has failed')
                session.kill()
                host.fault = None
                self.add_both()
                self.remove_both()
                self.assert_unchanged(before)


class Interrupted(MacTest):

    def interrupt_at(self, number, script, args, send):
        """Stops the script in its NUMBERth call, after the call had its effect, and sends the script a signal."""
        reached, go = threading.Event(), threading.Event()

        def stop(_):
            if len(host.calls) == number and not reached.is_set():
                reached.set()
                go.wait(HANG)
        host.after_hook = stop
        # A shell makes tests in the background ignore SIGINT.
        process = self.start(script, *args, start_new_session=True, preexec_fn=lambda: signal.signal(
            signal.SIGINT, signal.SIG_DFL))
        self.assertTrue(reached.wait(HANG), 'the call')
        send(process)
        go.set()
        host.after_hook = None
        return process.wait(HANG)

    def points(self, script, args):
        """Returns the numbers of the calls that change something."""
        saved = host.save()
        host.restore(saved)
        self.assert_done(self.run_script(script, *args))
        points = [number for number, call in enumerate(host.calls, 1) if call.changes]
        host.restore(saved)
        return points, saved

    def test_a_signal_undoes_everything(self):
        args = {'adduser': ['alice', 'alice', self.password_file],
                'addshare': ['alice', self.password_file, self.folder, 'Docs', 'rw']}
        for script in args:
            before = host.snapshot()
            points, saved = self.points(script, args[script])
            for index, number in enumerate(points):
                kind = (signal.SIGTERM, signal.SIGHUP, signal.SIGINT)[index % 3]
                with self.subTest(script, number=number, signal=kind):
                    host.restore(saved)
                    status = self.interrupt_at(number, script, args[script],
                                               lambda process, kind=kind: process.send_signal(kind))
                    self.assertEqual(status, 128 + kind)
                    self.assert_unchanged(before)
            if script == 'adduser':
                host.restore(saved)
                self.assert_done(self.add_user())

    def test_group_signal_ends_find_before_the_undo(self):
        """Sends the signal as a terminal does.  A shell makes programs in the background ignore SIGINT."""
        self.assert_done(self.add_user())
        before = host.snapshot()
        for kind in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=kind):
                reached, go, found = threading.Event(), threading.Event(), []

                def stop(call, reached=reached, go=go, found=found):
                    if call.name == 'find' and not found:
                        found.append(call.pid)
                        reached.set()
                        go.wait(HANG)
                        raise ProcessLookupError('killed while it waited')
                host.hook = stop
                process = self.start('addshare', 'alice', self.password_file, self.folder, 'Docs', 'rw',
                                     start_new_session=True,
                                     preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
                self.assertTrue(reached.wait(HANG))
                os.killpg(process.pid, kind)
                self.assertEqual(process.wait(HANG), 128 + kind)
                self.assertFalse(os.path.exists('/proc/%d' % found[0]), 'it has ended')
                host.hook = None
                go.set()
                self.assert_unchanged(before)

    def test_what_a_killed_script_left_is_taken_over(self):
        before = host.snapshot()
        args = ['alice', 'alice', self.password_file]
        points, saved = self.points('adduser', args)
        for number in points[::2]:
            with self.subTest('adduser', number=number):
                host.restore(saved)
                self.interrupt_at(number, 'adduser', args,
                                  lambda process: os.killpg(process.pid, signal.SIGKILL))
                self.assertNotEqual(host.snapshot(), before)
                self.assert_done(self.add_user())
                self.assert_done(self.run_script('rmuser', 'alice'))
                self.assert_unchanged(before)
        host.restore(saved)
        self.assert_done(self.add_user())
        args = ['alice', self.password_file, self.folder, 'Docs', 'rw']
        points, saved = self.points('addshare', args)
        for number in points:
            with self.subTest('addshare', number=number):
                host.restore(saved)
                self.interrupt_at(number, 'addshare', args,
                                  lambda process: os.killpg(process.pid, signal.SIGKILL))
                self.assert_done(self.add_share())
                self.remove_both()
                self.assert_unchanged(before)

    def test_find_ends_when_its_script_is_killed(self):
        before = host.snapshot()
        self.assert_done(self.add_user())
        # pylint: disable=consider-using-with
        script = subprocess.Popen(self.argv('addshare', ['alice', self.password_file, self.folder, 'Docs', 'rw']),
                                  stderr=subprocess.DEVNULL)
        ended = []

        def kill(_):
            script.kill()
            script.wait()
            if not ended:
                ended.append(self.ends(host.calls[-1].pid))
        host.mac.swap = kill
        script.wait(HANG)
        with host.lock: # until the call is answered
            pass
        host.mac.swap = None
        self.assertEqual(ended, [True])
        self.assertEqual([path for path in host.mac.entries if path.startswith(self.folder)], [])
        self.remove_both()
        self.assert_unchanged(before)

    @staticmethod
    def ends(pid):
        end = time.monotonic() + HANG / 2
        while status_of(pid) and time.monotonic() < end:
            time.sleep(0.01)
        return status_of(pid) is None

    def test_everything_is_undone_when_nobody_reads_the_reason(self):
        for script, args in (('adduser', ['alice', 'alice', self.password_file]),
                             ('addshare', ['alice', self.password_file, self.folder, 'Docs', 'rw'])):
            points, saved = self.points(script, args)
            before = host.snapshot()
            for ignore in (signal.SIG_DFL, signal.SIG_IGN):
                with self.subTest(script, ignore=ignore):
                    host.restore(saved)
                    host.fault = (points[-1], points[-1], 'after')
                    self.assertEqual(self.run_deaf(script, args, ignore), 1)
                    self.assert_unchanged(before)
            host.restore(saved)
            self.assert_done(self.run_script(script, *args))

    def test_removes_everything_for_a_caller_that_has_died(self):
        before = host.snapshot()
        self.add_both()
        self.assertEqual(self.run_deaf('rmshare', ['Docs', self.folder], signal.SIG_DFL), 0)
        self.assertEqual(self.run_deaf('rmshare', ['Docs', self.folder], signal.SIG_DFL), 0)
        self.assertEqual(self.run_deaf('rmuser', ['alice'], signal.SIG_DFL), 0)
        self.assertEqual(self.run_deaf('rmuser', ['alice'], signal.SIG_DFL), 0)
        self.assert_unchanged(before)

    def run_deaf(self, script, args, ignore):
        reader, writer = os.pipe()
        os.close(reader)
        with open(writer, 'wb') as broken:
            return subprocess.run(self.argv(script, args), stdout=broken, stderr=broken, timeout=HANG,
                                  check=False,
                                  preexec_fn=lambda: signal.signal(signal.SIGPIPE, ignore)).returncode


class Sessions(MacTest):

    def test_new_session_takes_over_from_a_dead_one(self):
        before = host.snapshot()
        session = self.session()
        self.add_both(run=session.run)
        session.kill()
        result = self.add_user()
        self.assert_done(result)
        self.assertIn('taking over the user alice', result.output)
        self.assertEqual((host.mac.records['SharePoints'], host.mac.entries), ({}, {}))
        self.assert_done(self.add_share())
        self.remove_both()
        self.assert_unchanged(before)

    def test_another_users_session_ends_a_dead_ones_share(self):
        session = self.session()
        self.add_both(run=session.run)
        session.kill()
        self.assert_done(self.add_user('carol'))
        self.assertEqual((host.mac.records['SharePoints'], host.mac.entries), ({}, {}))

    def test_it_works_after_the_next_boot_as_well(self):
        before = host.snapshot()
        session = self.session()
        self.add_both(run=session.run)
        session.kill()
        shutil.rmtree(machost.LOCKS)
        self.add_both()
        self.remove_both()
        self.assert_unchanged(before)

    def test_scripts_remove_leftovers_of_a_dead_session(self):
        before = host.snapshot()
        session = self.session()
        self.add_both(run=session.run)
        session.kill()
        self.remove_both()
        self.assert_unchanged(before)

    def test_what_a_living_session_has_is_refused(self):
        self.add_both(run=self.session().run)
        self.assert_done(self.add_user('carol'))
        before = host.snapshot()
        self.assert_refused(self.add_user(), 'in use')
        self.assert_refused(self.add_share('Docs', 'carol'), 'in use')
        self.assert_unchanged(before)

    def test_zombie_session_counts_as_dead(self):
        session = self.session()
        self.add_both(run=session.run)
        session.process.kill()
        os.waitid(os.P_PID, session.process.pid, os.WEXITED | os.WNOWAIT)
        self.assert_done(self.add_user())

    def test_reused_pid_is_not_the_session(self):
        session = self.session()
        self.add_both(run=session.run)
        session.kill()
        write(machost.STATE + '/users/alice', '%d Thu Jan 1 00:00:00 1970\n' % os.getpid())
        self.assert_done(self.add_user())

    def test_session_of_unknown_state_counts_as_living(self):
        self.add_both(run=self.session().run)
        before = host.snapshot()

        def blind(call):
            host.fault = None
            if call.name == 'ps' and call.args[1] in owner:
                host.fault = (1, 10 ** 6, 'refuse')
        owner = read(machost.STATE + '/users/alice').decode().split()[:1]
        host.hook = blind
        self.assert_refused(self.add_user(), 'in use')
        self.assert_unchanged(before)


class Clearing(MacTest):
    """clear.sh, which runs when the Mac has started."""

    def test_takes_away_all_that_dead_sessions_left(self):
        host.mac.add('Groups', machost.ACCESS_GROUP, PrimaryGroupID='399')
        before = host.snapshot()
        sessions = [self.session(), self.session(), self.session()]
        self.add_both(run=sessions[0].run)
        self.assert_done(self.add_user('carol', run=sessions[1].run))
        self.assert_done(self.add_share('Hers', 'carol', run=sessions[1].run))
        self.assert_done(self.add_user('dave', run=sessions[2].run))
        for session in sessions:
            session.kill()
        shutil.rmtree(machost.LOCKS)  # as after a boot
        result = self.run_script('clear')
        self.assertEqual((result.status, result.output), (0, ''))
        self.assert_unchanged(before)
        self.assertEqual(self.run_script('clear').output, '')

    def test_leaves_alone_what_a_living_session_has(self):
        self.add_both()
        before = host.snapshot()
        self.assert_done(self.run_script('clear'))
        self.assert_unchanged(before)

    def test_keeps_a_new_user_of_the_same_name(self):
        session = self.session()
        self.assert_done(self.add_user(run=session.run))
        session.kill()
        host.mac.records['Users'].pop('alice')
        host.mac.records['Groups'].pop('alice')
        host.mac.add('Users', 'alice', UniqueID='502', RealName='The new alice')
        self.assert_done(self.run_script('clear'))
        self.assertEqual(host.mac.attribute('Users', 'alice', 'UniqueID'), '502')
        self.assertEqual(os.listdir(machost.STATE + '/users'), [])

    def replace_user(self):
        """Deletes our alice by hand and makes another."""
        host.mac.records['Users'].pop('alice')
        host.mac.records['Groups'].pop('alice')
        host.mac.add('Users', 'alice', UniqueID='502', RealName='The new alice')
        return host.mac.attribute('Users', 'alice', 'GeneratedUID')

    def test_leaves_another_users_membership(self):
        for is_replaced in (True, False):
            with self.subTest(is_replaced=is_replaced):
                self.new_mac()
                host.mac.add('Groups', machost.ACCESS_GROUP, PrimaryGroupID='399')
                session = self.session()
                self.assert_done(self.add_user(run=session.run))
                session.kill()
                if is_replaced:
                    self.replace_user()
                self.assert_done(self.run_script('clear'))
                self.assertEqual(host.mac.records['Groups'][machost.ACCESS_GROUP].get('GroupMembership', []),
                                 ['alice'] if is_replaced else [])
                self.assertEqual(os.listdir(machost.STATE + '/users'), [])

    def test_leaves_another_users_entries(self):
        for is_replaced in (True, False):
            with self.subTest(is_replaced=is_replaced):
                self.new_mac()
                session = self.session()
                self.add_both(run=session.run)
                session.kill()
                hers = {}
                if is_replaced:
                    number = self.replace_user()
                    hers = {path: [(number, 'allow', machost.READ, False)]
                            for path in (self.home, self.folder, self.folder + '/f')}
                    hers[self.home] = [(number, 'allow', 'search', False)]
                    host.mac.entries = dict(hers)
                result = self.run_script('clear')
                self.assert_done(result)
                self.assertEqual(host.mac.entries, hers)
                self.assertEqual('alice is another user now' in result.output, is_replaced)
                self.assertEqual(os.listdir(machost.STATE + '/shares'), [])

    def test_clears_the_rest_when_one_cannot_be_removed(self):
        session = self.session()
        for user in ('alice', 'carol', 'dave'):
            self.assert_done(self.add_user(user, run=session.run))
        session.kill()

        def refuse(call):
            refused = call.args[1:] == ['-delete', '/Users/carol']
            host.fault = (1, 10 ** 6, 'refuse') if refused else None
        host.hook = refuse
        self.assert_refused(self.run_script('clear'), 'the user carol, or something of it, is left behind')
        self.assertEqual([user for user in ('alice', 'carol', 'dave') if user in host.mac.records['Users']],
                         ['carol'])
        host.hook = host.fault = None
        self.assertEqual(self.run_script('clear').output, '')
        self.assertNotIn('carol', host.mac.records['Users'])

    def test_changes_nothing_while_the_directory_gives_no_answer(self):
        session = self.session()
        self.add_both(run=session.run)
        session.kill()
        before = host.snapshot()
        for call, reason in ((['-list', '/Users'], 'cannot list /Users'),
                             (['-read', '/Users/alice'], 'cannot read /Users/alice')):
            def deaf(asked, call=call):
                host.fault = (1, 10 ** 6, 'refuse') if asked.args[1:3] == call else None
            host.hook = deaf
            self.assert_refused(self.run_script('clear'), reason)
            self.assertEqual(host.snapshot()[0]['records']['Users'], before[0]['records']['Users'])
        host.hook = host.fault = None
        self.assert_done(self.run_script('clear'))

    def test_takes_no_arguments(self):
        self.assert_refused(self.run_script('clear', 'alice'), 'usage')


class OneAtATime(MacTest):

    def test_waits_for_another_script_to_end(self):
        reached, go, waiting = threading.Event(), threading.Event(), threading.Event()

        def stop(call):
            if call.args[1:] == ['-create', '/Users/alice']:
                reached.set()
                go.wait(HANG)
            if call.name == 'sleep':
                waiting.set()
        host.hook = stop
        first = self.start('adduser', 'alice', 'alice', self.password_file)
        self.assertTrue(reached.wait(HANG))
        second = self.start('adduser', 'carol', 'carol', self.password_file)
        self.assertTrue(waiting.wait(HANG))
        self.assertNotIn('carol', host.mac.records['Users'])
        go.set()
        self.assertEqual((first.wait(HANG), second.wait(HANG)), (0, 0))
        self.assertEqual(len(host.mac.nt_hashes), 2)

    def test_does_not_wait_for_ever(self):
        os.makedirs(machost.LOCKS)
        write(machost.LOCKS + '/lock.7', machost.process_mark(os.getpid()))
        before = host.snapshot()
        common = machost.SHARES + '/common.sh'
        patient = read(common)
        self.addCleanup(write, common, patient)
        self.assertEqual(patient.count(b'LOCK_TRIES=600 '), 1, 'a minute')
        write(common, patient.replace(b'LOCK_TRIES=600 ', b'LOCK_TRIES=40 '))
        self.assert_refused(self.add_user(), 'another share script has not ended within 4 s')
        self.assertEqual(len(self.asked('sleep')), 39)
        self.assert_unchanged(before)
        self.assertEqual(os.listdir(machost.LOCKS), ['lock.7'])

    def test_a_lock_whose_holder_was_killed_is_free(self):
        os.makedirs(machost.LOCKS)
        write(machost.LOCKS + '/lock.7', '%d Thu Jan 1 00:00:00 1970\n' % os.getpid())
        write(machost.LOCKS + '/lock.6', '')
        self.assert_done(self.add_user())
        self.assertEqual(os.listdir(machost.LOCKS), ['lock.8'])

    def test_yields_to_a_higher_lock_made_meanwhile(self):
        """Between the script's check and its lock, two other scripts begin and one ends."""
        os.makedirs(machost.LOCKS)
        write(machost.LOCKS + '/lock.1', '%d Thu Jan 1 00:00:00 1970\n' % os.getpid())
        living = machost.process_mark(os.getpid())

        def overtake(call):
            # The last query before the lock is made is whether the holder still runs.
            if call.args[:2] == ['-p', str(os.getpid())] and os.path.exists(machost.LOCKS + '/lock.1') \
                    and any(name.startswith('wait') for name in os.listdir(machost.LOCKS)):
                os.unlink(machost.LOCKS + '/lock.1')
                write(machost.LOCKS + '/lock.3', living)
            if call.name == 'sleep' and not seen:
                seen.append(sorted(os.listdir(machost.LOCKS)))
                with open(machost.LOCKS + '/lock.3', 'w', encoding='utf-8') as lock:
                    lock.write('')
        seen = []
        host.hook = overtake
        self.assert_done(self.add_user())
        self.assertEqual([name for name in seen[0] if name.startswith('lock')], ['lock.3'])
        self.assertEqual(os.listdir(machost.LOCKS), ['lock.4'])

    def test_several_at_once_each_get_their_user(self):
        users = ['user%d' % number for number in range(5)]
        scripts = [self.start('adduser', user, user, self.password_file) for user in users]
        self.assertEqual([script.wait(HANG) for script in scripts], [0] * len(users))
        self.assertEqual(sorted(host.mac.nt_hashes), users)
        numbers = {host.mac.attribute('Users', user, 'UniqueID') for user in users}
        self.assertEqual(len(numbers), len(users))

    def test_leaves_standard_input_to_the_caller(self):
        reader, writer = os.pipe()
        os.write(writer, b'for the tool\n')
        os.close(writer)
        with open(reader, 'rb') as stdin:
            self.assert_done(self.add_user(stdin=stdin))
            self.assertEqual(stdin.read(), b'for the tool\n')

    def test_works_with_every_standard_descriptor_closed(self):
        def close_all():
            for descriptor in (0, 1, 2):
                os.close(descriptor)
        done = subprocess.run(self.argv('adduser', ['alice', 'alice', self.password_file]),
                              preexec_fn=close_all, timeout=HANG, check=False)
        self.assertEqual(done.returncode, 0)
        self.assertIn('alice', host.mac.nt_hashes)

    def test_only_root_may_do_it(self):
        def deny(call):
            host.fault = (1, 10 ** 6, 'refuse') if repr(call) == 'id -u' else None
        before = host.snapshot()
        host.hook = deny
        for script, args in (('adduser', ['alice', 'alice', self.password_file]), ('rmuser', ['alice'])):
            self.assert_refused(self.run_script(script, *args), 'only root may do this')
        self.assert_unchanged(before)


if __name__ == '__main__':
    unittest.main()
