"""A Samba host for the tests of the share scripts and of the service switch.

Everything here changes the machine: users, Samba's configuration, programs in /usr/bin.  It runs in
tools/sandbox.sh only, whose machine is thrown away at the end.  The sandbox makes the whole of /etc
private, not single files in it: useradd replaces passwd by renaming, which no mount point survives.
"""

import contextlib
import glob
import os
import pwd
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import scriptRunner
from scriptRunner import HANG, SHARES, read, run_command, script_path, write

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / 'support'))
import straced  # noqa: E402
from throwAway import require_sandbox  # noqa: E402

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PROGRAM = os.path.dirname(SHARES) + '/host/pelagoHost'
STATE = '/run/pelago'
COMMENT = 'Pelago share user'
PROGRAM_PATH = '/usr/sbin:/usr/bin:/sbin:/bin'

SMB_CONF = """\
[global]
  server role = standalone server
  workgroup = WORKGROUP
  interfaces = lo
  bind interfaces only = yes
  smb ports = 445
  disable netbios = yes
  map to guest = never
  restrict anonymous = 2
  server min protocol = SMB2
  load printers = no
  printing = bsd
  printcap name = /dev/null
  disable spoolss = yes
  registry shares = yes
[Textual]
  path = /srv
"""


# ---- The machine

def set_up():
    """Makes this machine a Samba host with the scripts in place and no share, user or smbd."""
    require_sandbox()
    for folder in ('/run/samba', '/var/log/samba', '/var/cache/samba', '/var/lib/samba/private'):
        os.makedirs(folder, exist_ok=True)
    write('/etc/samba/smb.conf', SMB_CONF)
    if not os.path.isdir(SHARES):
        shutil.copytree(os.environ['PELAGO_LIBRARY'], os.path.dirname(SHARES))


def command(*args, check=True, **kwargs):
    """Runs a command of the host, and returns its stdout and stderr together, as text."""
    done = subprocess.run(args, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=HANG, check=False, **kwargs)
    text = done.stdout.decode(errors='surrogateescape')
    if check and done.returncode != 0:
        raise AssertionError('%r ended with %d: %s' % (args, done.returncode, text))
    return text


def succeeds(*args):
    return subprocess.run(args, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, timeout=HANG, check=False).returncode == 0


def wait_until(condition, what):
    deadline = time.monotonic() + HANG
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError('waited in vain for ' + what)
        time.sleep(0.01)


def answers():
    return succeeds('smbcontrol', '-t', '1', 'smbd', 'ping')


class Smbd:
    """The smbd daemon, in a process group of its own."""

    def __init__(self):
        # pylint: disable=consider-using-with
        self.process = subprocess.Popen(
            ['smbd', '--foreground', '--no-process-group'], start_new_session=True,
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until(answers, 'smbd to come up')

    def stop(self):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGTERM)
        self.process.wait(HANG)
        wait_until(lambda: not answers(), 'smbd to go')


# ---- The scripts

def run_script(name, *args, run=run_command, **kwargs):
    return run([script_path(name), *args], **kwargs)


# For programs that the tests preload into or trace, when everything is built with sanitizers.
SANITIZER = {'ASAN_OPTIONS': 'verify_asan_link_order=0:detect_leaks=0'}


def in_haste():
    """Returns an environment in which a script's waits end after a few checks."""
    return dict(os.environ, LD_PRELOAD=os.environ['PELAGO_HASTY_CLOCK'], **SANITIZER)


def run_failing(call, error, name, *args, path=None, ordinal=None):
    """Runs a script's command with a system call that fails, only calls with the path if one is given.
    Programs that it starts are not affected."""
    selection = ['-D'] + (['-P', path] if path else []) # -D: the program, not strace, is our child
    done = straced.failing_at(call, ordinal, error, [PROGRAM, name, *args], *selection,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=HANG, check=False, env=dict(os.environ, **SANITIZER))
    return scriptRunner.Result(done.returncode, done.stdout.decode(errors='surrogateescape'))


def has_open(pid, path):
    with contextlib.suppress(FileNotFoundError):
        for descriptor in os.listdir('/proc/%d/fd' % pid):
            with contextlib.suppress(FileNotFoundError):
                if os.readlink('/proc/%d/fd/%s' % (pid, descriptor)) == path:
                    return True
    return False


# ---- The client

def client(user, password, share, commands):
    """Runs smbclient once; returns (status, output).  It reads the password from a descriptor."""
    password = password if isinstance(password, bytes) else password.encode()
    reader, writer = os.pipe()
    try:
        os.write(writer, password + b'\n')
        os.close(writer)
        args = ['smbclient', '-U', user] if user else ['smbclient', '-N', '-U', '%']
        done = subprocess.run(
            args + ['//127.0.0.1/' + share, '-c', commands], pass_fds=[reader],
            env=dict(os.environ, PASSWD_FD=str(reader)), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=HANG, check=False)
    finally:
        os.close(reader)
    return done.returncode, done.stdout.decode(errors='surrogateescape')


class ConnectedClient:
    """A client that stays connected; ask() sends one command and returns its output."""

    def __init__(self, user, password, share):
        reader, writer = os.pipe()
        os.write(writer, password.encode() + b'\n')
        os.close(writer)
        # pylint: disable=consider-using-with
        self.process = subprocess.Popen(
            # Unbuffered: select() sees the descriptor, not a line that is already in a buffer.
            ['stdbuf', '-i0', '-oL', 'smbclient', '-U', user, '//127.0.0.1/' + share], pass_fds=[reader],
            env=dict(os.environ, PASSWD_FD=str(reader)), stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        os.close(reader)
        self.count = 0

    def ask(self, request):
        self.count += 1
        end = 'end of answer %d' % self.count
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.write(('%s\n!echo %s\n' % (request, end)).encode())
            self.process.stdin.flush()
        lines = []
        for line in self.process.stdout:
            line = line.decode(errors='surrogateescape').rstrip('\n')
            if line.endswith(end):
                break
            lines.append(line)
        return '\n'.join(lines)

    def close(self):
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        self.process.kill()
        self.process.stdout.close()
        self.process.wait(HANG)


def watch_for_a_hang(case):
    """Fails the test if it would wait for ever, for a client for example."""
    def fail(*_):
        raise AssertionError('the test hangs')
    signal.signal(signal.SIGALRM, fail)
    signal.alarm(3 * HANG)
    case.addCleanup(signal.alarm, 0)


# ---- The host's state

def snapshot():
    """Returns everything that a script could change, as text, to compare."""
    state = {path: read(path) for path in
             ('/etc/passwd', '/etc/group', '/etc/shadow', '/etc/gshadow')}
    state['registry'] = command('net', 'conf', 'list')
    state['passwords'] = command('pdbedit', '-L', '-w', check=False)
    tree = []
    for folder, folders, files in os.walk(STATE):
        for name in folders + files:
            path = os.path.join(folder, name)
            kind = os.readlink(path) if os.path.islink(path) else os.path.isfile(path) and read(path)
            tree.append((path, kind))
    furniture = [STATE + name for name in ('/lock', '/accounts.lock', '/looked', '/shares', '/users')]
    state['state'] = sorted(entry for entry in tree if entry[0] not in furniture)
    return state


def user_exists(user):
    with contextlib.suppress(KeyError):
        pwd.getpwnam(user)
        return True
    return False


def samba_knows(user):
    return succeeds('pdbedit', '-L', '-u', user)


def share_exists(share):
    return succeeds('net', 'conf', 'showshare', '--', share)


def wipe():
    """Removes what a test has left, without the scripts."""
    for entry in pwd.getpwall():
        if entry.pw_gecos == COMMENT:
            command('pdbedit', '-x', '-u', entry.pw_name, check=False)
            command('userdel', '-f', entry.pw_name, check=False)
    command('net', 'conf', 'drop')
    # The folders themselves stay, because the switch watches them.
    for path in glob.glob(STATE + '/*/*') + glob.glob(STATE + '/looked'):
        command('rm', '-rf', path)


@contextlib.contextmanager
def stand_in(program, text):
    """Replaces a program by a shell script for a while; in the script $real is the program."""
    path = shutil.which(program, path=PROGRAM_PATH)
    real = path + '.real'
    os.rename(path, real)
    try:
        write(path, '#!/bin/sh\nreal=%s\n%s\n' % (real, text), 0o755)
        yield
    finally:
        os.rename(real, path)


class ScriptTest(scriptRunner.ScriptTest):
    """The tests' base class: a running smbd, a folder of bob's, and ways to make programs fail."""

    needs_smbd = True
    password = 'correct horse'

    @classmethod
    def setUpClass(cls):
        set_up()
        cls.smbd = Smbd() if cls.needs_smbd else None
        if not user_exists('bob'):
            command('useradd', '--no-create-home', '--shell', '/usr/sbin/nologin', 'bob')

    @classmethod
    def tearDownClass(cls):
        if cls.smbd:
            cls.smbd.stop()

    def setUp(self):
        watch_for_a_hang(self)
        self.addCleanup(wipe)
        self.scratch = tempfile.mkdtemp(dir='/srv')
        self.addCleanup(shutil.rmtree, self.scratch)
        os.chmod(self.scratch, 0o711)
        self.password_file = write(self.scratch + '/password', self.password + '\n', 0o600)
        self.folder = self.make_folder(self.scratch + '/Documents')

    def make_folder(self, path, owner='bob', content=b'some text\n'):
        """Makes a folder that only its owner can read, with one file f."""
        os.mkdir(path, 0o700)
        name = os.path.join(os.fsencode(path), b'f')
        write(name, content, 0o600)
        uid = pwd.getpwnam(owner).pw_uid if isinstance(owner, str) else owner
        os.chown(name, uid, -1)
        os.chown(path, uid, -1)
        return path

    def stand_in(self, program, text):
        """Does the same until the test ends."""
        self.enterContext(stand_in(program, text))

    def ask_files_only(self):
        """Leaves the C library one source of users: with two it ignores a failure of the first."""
        sources = read('/etc/nsswitch.conf')
        self.addCleanup(write, '/etc/nsswitch.conf', sources)
        write('/etc/nsswitch.conf', 'passwd: files\ngroup: files\n')

    def waiting(self):
        """Returns shell text for a stand-in that waits until go() is called; started() waits for the stand-in."""
        return 'touch {0}/started; while [ ! -e {0}/go ]; do sleep 0.01; done'.format(self.scratch)

    def started(self):
        return os.path.exists(self.scratch + '/started')

    def go(self):
        write(self.scratch + '/go', '')

    def stop_waiting_for(self):
        """Makes the next stand-in wait again."""
        for name in ('/started', '/go'):
            os.unlink(self.scratch + name)

    def run_until_the_caller_has_gone(self, *args, before=':'):
        """Runs a script whose caller is killed once the script has started a program that waits, and returns
        the script's output.  The caller first runs a command of the shell."""
        log = self.scratch + '/said'
        # A command after the script keeps the shell from replacing itself by the script.
        with subprocess.Popen(['sh', '-c', '%s; "$@" 2>%s; :' % (before, log), 'sh',
                               script_path(args[0]), *args[1:]], stdin=subprocess.DEVNULL) as caller:
            wait_until(self.started, 'the step')
            caller.kill()
        self.go()
        wait_until(lambda: read(log).endswith(b'the caller has gone\n'), 'the reason')
        return read(log).decode()

    def add_user(self, user='alice', **kwargs):
        self.assert_done(run_script('adduser', user, user, self.password_file, **kwargs))

    def add_share(self, share='Docs', user='alice', folder=None, access='rw', **kwargs):
        self.assert_done(run_script('addshare', user, self.password_file, folder or self.folder,
                                    share, access, **kwargs))

    def add_both(self, **kwargs):
        self.add_user(**kwargs)
        self.add_share(**kwargs)

    @contextlib.contextmanager
    def unchanged(self):
        before = snapshot()
        yield
        self.assertEqual(snapshot(), before)

    def assert_served(self, share='Docs', user='alice', password=None, content=b'some text\n'):
        got = self.scratch + '/got'
        with contextlib.suppress(FileNotFoundError):
            os.unlink(got)
        status, output = client(user, password or self.password, share, 'get f "%s"' % got)
        self.assertEqual(status, 0, output)
        self.assertEqual(read(got), content)

    def assert_not_served(self, reason, share='Docs', user='alice', password=None):
        status, output = client(user, password or self.password, share, 'ls')
        self.assertNotEqual(status, 0, output)
        self.assertIn(reason, output)
