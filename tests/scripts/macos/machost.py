"""A Mac for the tests of its share scripts: stand-ins for its programs, which work on a model of it.

The stand-ins are at the programs' own paths, so this changes the machine: it runs in tools/sandbox.sh
only.  The test's process computes the output of each call from the model.  A call that the
real program would not understand gets status 64 and is noted as a misuse, which fails the
test whatever the script does with the status.

macModel.py has the model, macDirectory.py and macDisk.py most of the programs; the others are here.
"""

import contextlib
import copy
import datetime
import os
import random
import re
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import traceback
from pathlib import Path

SCRIPT_TESTS = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(SCRIPT_TESTS), str(SCRIPT_TESTS.parent / 'support')]
import javaScript  # noqa: E402
import scriptRunner  # noqa: E402
from macDirectory import DirectoryPrograms  # noqa: E402
from macDisk import (INHERIT, KEEPING_CHOWN, KEEPING_CHOWN_TEXT, OPENING_CHMOD, OPENING_CHMOD_TEXT,  # noqa: E402,F401
                     READ, WRITE, DiskPrograms, everything_in)
from macModel import Mac, Misuse, Refusal  # noqa: E402
from scriptRunner import HANG, SHARES, read, run_command, script_path, write  # noqa: E402
from throwAway import require_sandbox  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(os.path.dirname(HERE)))
SOCKET = '/tmp/machost.socket'
STATE = '/var/db/pelago'
LOCKS = '/var/run/pelago'
MARK = 'Pelago share user'
SMB_PREFERENCES = '/Library/Preferences/SystemConfiguration/com.apple.smb.server'
ACCESS_GROUP = 'com.apple.access_smb'
SHELL = ['/bin/dash']
PASSWORD = 'correct horse'

PROGRAMS = {
    'dscl': '/usr/bin', 'sharing': '/usr/sbin', 'pwpolicy': '/usr/bin', 'dseditgroup': '/usr/sbin',
    'osascript': '/usr/bin', 'chmod': '/bin', 'ls': '/bin', 'ps': '/bin', 'id': '/usr/bin',
    'stat': '/usr/bin', 'nc': '/usr/bin', 'find': '/usr/bin', 'od': '/usr/bin', 'sleep': '/bin',
    'date': '/bin', 'readlink': '/usr/bin', 'dsmemberutil': '/usr/bin', 'pgrep': '/usr/bin',
    'defaults': '/usr/bin',
}
CHANGING = ('-create', '-delete', '-a', '-r', '-sethashtypes', 'edit', '+a', 'JavaScript')

# ---- The programs

def process_facts(pid, environ=b'TZ=UTC0', zone=0):
    """Returns the state and the start time of a process, the latter in the caller's language and time zone."""
    fields = read('/proc/%d/stat' % pid).rpartition(b')')[2].split()
    booted = int(re.search(rb'btime (\d+)', read('/proc/stat'))[1])
    seconds = booted + int(fields[19]) // os.sysconf('SC_CLK_TCK')
    given = dict(one.decode().partition('=')[::2] for one in environ.split(b'\0'))
    hours = {'UTC0': 0, None: zone}.get(given.get('TZ'), len(given.get('TZ', '')))
    start = datetime.datetime.fromtimestamp(seconds + 3600 * hours, datetime.timezone.utc)
    plain = given.get('LC_ALL', given.get('LANG', 'C')) == 'C'
    return fields[0].decode() + 's', start.strftime('%a %b %e %H:%M:%S %Y' if plain else '%d/%m %H:%M:%S')


def process_mark(pid):
    """Returns the mark by which a script identifies a running process."""
    return '%d %s\n' % (pid, ' '.join(process_facts(pid)[1].split()))


class Programs(DirectoryPrograms, DiskPrograms):
    """One method for each program: from its arguments to its output, on the model."""

    def __init__(self, mac, call, cwd=None, host=None):
        self.mac, self.call, self.host = mac, call, host
        self.pid = call.pid
        self.cwd = cwd or call.cwd
        self.real_cwd = '/proc/%d/cwd' % call.pid # leads to the folder even if it was renamed

    # -- passwords

    def osascript(self, args, stdin):
        if args[:3] != ['-l', 'JavaScript', '-e'] or len(args) < 4:
            raise Misuse
        known = [name for name, user in self.mac.records['Users'].items() if 'UniqueID' in user]
        refusal = self.mac.password_refusals.pop(0) if self.mac.password_refusals else None
        answer = javaScript.run(args[3], args[4:], stdin, known, refusal)
        if answer.misuses:
            raise Misuse(answer.misuses)
        for user, password in answer.passwords:
            self.mac.passwords[user] = password
            if 'SMB-NT' in self.mac.hash_types_of(user):
                self.mac.nt_hashes[user] = password
        if answer.status:
            raise Refusal(answer.complaint, answer.status)
        return ''

    # -- the service

    def nc(self, args, _):
        """Succeeds when something listens, which does not show what it serves."""
        if args[:-1] != ['-z', '-G', '1', '-w', '1', '127.0.0.1'] or args[-1] not in ('22', '445'):
            raise Misuse
        if args[-1] == '22':
            if not self.mac.ssh:
                raise Refusal('')
        elif self.mac.smb_after > 0:
            self.mac.smb_after -= 1
            self.mac.clock += self.mac.nc_seconds
            raise Refusal('')
        return 'Connection to 127.0.0.1 port %s succeeded!\n' % args[-1]

    # -- the rest

    def ps(self, args, _):
        if args == ['-axo', 'uid=']:
            return ''.join('%5s\n' % number for number in ['0', '501', *sorted(self.mac.running)])
        if len(args) != 6 or args[0] != '-p' or args[2:] != ['-o', 'stat=', '-o', 'lstart=']:
            raise Misuse
        try:
            state, start = process_facts(int(args[1]), self.call.environ, self.mac.zone)
        except (FileNotFoundError, ProcessLookupError) as error: # the latter if it ends meanwhile
            raise Refusal('') from error
        return '%-4s %s    \n' % (state, start)

    @staticmethod
    def od(args, stdin):
        """Prints wide gaps, and blanks up to the end of the line, as a Mac's od does."""
        if args != ['-An', '-v', '-to1']:
            raise Misuse
        lines = [stdin[start:start + 16] for start in range(0, len(stdin), 16)]
        return ''.join(' ' * 11 + ''.join('%03o  ' % byte for byte in line).ljust(80) + '\n'
                       for line in lines)

    def sleep(self, args, _):
        if args == ['1']: # a script that watches another program
            time.sleep(0.01)
            return ''
        if args != ['0.1']:
            raise Misuse
        self.mac.clock += 0.1
        self.mac.waited += 0.1
        return ''

    def defaults(self, args, _):
        if args != ['read', SMB_PREFERENCES, 'EnabledServices']:
            raise Misuse
        if self.mac.services is None:
            raise Refusal('The domain/default pair of (%s, EnabledServices) does not exist' % args[1])
        return '(\n%s\n)\n' % ',\n'.join('    ' + name for name in self.mac.services)

    def date(self, args, _):
        if args != ['+%s']:
            raise Misuse
        return '%d\n' % self.mac.clock


# ---- Answering

class Call:
    def __init__(self, argv, environ, stdin, pid):
        self.path, self.args = argv[0], argv[1:]
        self.pid = pid # the stand-in waits for the answer
        try:
            self.cwd = os.readlink('/proc/%d/cwd' % pid)
        except FileNotFoundError as error:
            raise ProcessLookupError('killed meanwhile') from error
        self.name = os.path.basename(argv[0])
        self.environ, self.stdin = environ, stdin

    def __repr__(self):
        return ' '.join([self.name] + self.args)

    @property
    def changes(self):
        return any(word in CHANGING for word in self.args) and self.name not in ('ls', 'stat', 'id')


def read_all(file, size):
    content = file.read(size)
    if len(content) < size:
        raise ProcessLookupError('killed while it called')
    return content


class Host:
    """Answers the stand-ins, one at a time, and records their calls."""

    def __init__(self):
        require_sandbox()
        self.lock = threading.Lock()
        self.pause = 0.002  # the real seconds of a script's wait of a tenth of a second
        self.wipe()
        self.listener = socket.socket(socket.AF_UNIX)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(SOCKET)
        self.listener.bind(SOCKET)
        self.listener.listen(64)
        threading.Thread(target=self.serve, daemon=True).start()

    def wipe(self):
        """Makes a new Mac without a trace of a session."""
        self.mac = Mac()
        self.calls, self.misuses = [], []
        self.held_up = []   # the paths at which a program would have waited for ever
        self.stuck = {}     # waiting process -> the program it has started, which waits for ever
        self.fault = None   # (first call, last call, "refuse" | "after" | "lie"), counted from 1
        self.hook = None    # is called with each call, before or after the answer
        self.after_hook = None
        for folder in (STATE, LOCKS):
            shutil.rmtree(folder, ignore_errors=True)

    def serve(self):
        while True:
            connection, _ = self.listener.accept()
            threading.Thread(target=self.answer, args=[connection], daemon=True).start()

    def answer(self, connection):
        try:
            with connection, connection.makefile('rb') as file:
                sizes = struct.unpack('=3I', read_all(file, 12))
                argv, environ, stdin = (read_all(file, size) for size in sizes)
                caller = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
                call = Call([os.fsdecode(word) for word in argv.split(b'\0')[:-1]], environ, stdin,
                            struct.unpack('=3i', caller)[0])
                if self.hook:
                    self.hook(call)
                status, out, err = self.perform_in_turn(call)
                if self.after_hook:
                    self.after_hook(call)
                connection.sendall(struct.pack('=3I', status, len(out), len(err)) + out + err)
        except (BrokenPipeError, ConnectionResetError, ProcessLookupError):
            pass  # the stand-in was killed while it waited for the answer
        except Exception:  # pylint: disable=broad-except
            self.misuses.append(traceback.format_exc())

    def perform_in_turn(self, call):
        """Performs the call.  Calls that watch another program come at any time, so they get no number."""
        if call.name == 'pgrep' or call.args == ['1']:
            return self.perform(call, 0)
        if call.name == 'sleep':
            time.sleep(self.pause)
        with self.lock:
            self.calls.append(call)
            return self.perform(call, len(self.calls))

    def perform(self, call, number):
        fault = self.fault[2] if self.fault and self.fault[0] <= number <= self.fault[1] else None
        if fault == 'refuse':
            return 1, b'', b'%s: out of order\n' % call.name.encode()
        if fault == 'lie':
            return 0, b'', b''
        try:
            expected = '' if call.name in ('od', 'sleep') else PROGRAMS[call.name] + '/'
            if call.path != expected + call.name:
                raise Misuse
            out = getattr(Programs(self.mac, call, host=self), call.name)(call.args, call.stdin)
        except Refusal as refusal:
            return refusal.status, os.fsencode(refusal.out), os.fsencode(str(refusal) + '\n')
        except ProcessLookupError: # the stand-in was killed meanwhile
            raise
        except Exception:  # pylint: disable=broad-except
            self.misuses.append('%r\n%s' % (call, traceback.format_exc()))
            return 64, b'', b'%s: usage\n' % call.name.encode()
        if fault == 'after':
            return 1, b'', b'%s: broke down afterwards\n' % call.name.encode()
        return 0, os.fsencode(out), b''

    def snapshot(self):
        """Returns everything that a script could change, to compare."""
        with self.lock:
            model = copy.deepcopy({key: value for key, value in vars(self.mac).items()
                                   if key not in ('smb_after', 'clock', 'unknown', 'waited', 'remembered')})
        return model, tree(STATE)

    def save(self):
        with self.lock:
            return copy.deepcopy(self.mac), tree(STATE)

    def restore(self, saved):
        with self.lock:
            self.mac = copy.deepcopy(saved[0])
            self.calls, self.fault = [], None
        for folder in (STATE, LOCKS):
            shutil.rmtree(folder, ignore_errors=True)
        for path, (mode, content) in sorted(saved[1].items()):
            os.makedirs(os.path.dirname(path), 0o700, exist_ok=True)
            os.mkdir(path) if content is None else write(path, content)
            os.chmod(path, mode)


def tree(top):
    """Returns the paths below a folder with their modes and contents, except the folders that every script
    makes, and the note of the last number, which each new user changes."""
    found = {}
    for folder, folders, files in os.walk(top):
        for name in folders + files:
            path = os.path.join(folder, name)
            mode = os.lstat(path).st_mode & 0o7777
            found[path] = mode, None if name in folders else read(path)
    for name in ('/shares', '/users', '/lastNumber'):
        found.pop(top + name, None)
    return found


STRIDE = os.environ.get('PELAGO_MAC_STRIDE')


def sample(every, things, what):
    """Returns every Nth thing, from a random first one on; N is every, or PELAGO_MAC_STRIDE, and 1 is all."""
    things = list(things)
    stride = int(STRIDE or every)
    taken = things[random.randrange(min(stride, len(things))):][::stride]
    if len(taken) < len(things):
        print('%s: %d of %d, drawn by chance; PELAGO_MAC_STRIDE=1 takes all' % (what, len(taken), len(things)), flush=True)
    return taken


HOST = None


def set_up():
    """Replaces the programs by stand-ins and installs the scripts; returns the host that answers the stand-ins."""
    global HOST  # pylint: disable=global-statement
    require_sandbox()
    if HOST:
        return HOST
    subprocess.run(['cc', '-O1', '-static', '-Wall', '-Werror', '-o', '/tmp/standIn',
                    HERE + '/standIn.c'], check=True)
    shutil.copytree(REPO + '/product/macos/shares', SHARES)
    shutil.copy(REPO + '/product/macos/shares/base.sh', SHARES)
    os.makedirs('/var/db', exist_ok=True)
    for path in ('/usr/bin/find', '/bin/chmod'):
        os.rename(path, path + '.real')
    write(KEEPING_CHOWN, KEEPING_CHOWN_TEXT, 0o755)
    write(OPENING_CHMOD, OPENING_CHMOD_TEXT, 0o755)
    for name, folder in PROGRAMS.items():
        path = os.path.join(folder, name)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
        shutil.copy('/tmp/standIn', path)
    HOST = Host()
    return HOST


# ---- The tests' base

class MacTest(scriptRunner.ScriptTest):
    """The tests' base class: a new Mac for each test, a private folder of bob's, and a password file."""

    maxDiff = None
    shell = SHELL

    def setUp(self):
        self.addCleanup(lambda: self.assertEqual(HOST.misuses, []))
        self.new_mac()

    def new_mac(self):
        HOST.wipe()
        self.scratch = tempfile.mkdtemp(dir='/srv')
        self.addCleanup(shutil.rmtree, self.scratch)
        os.chmod(self.scratch, 0o755)
        self.home = self.scratch + '/bob'
        os.mkdir(self.home, 0o700)
        self.folder = self.make_folder(self.home + '/Documents')
        self.password_file = write(self.scratch + '/password', PASSWORD + '\n', 0o600)

    def make_folder(self, path):
        os.mkdir(path, 0o700)
        for name in (b'f', b'sub/deep'):
            name = os.path.join(os.fsencode(path), name)
            os.makedirs(os.path.dirname(name), exist_ok=True)
            write(name, 'some text\n', 0o600)
        for one in list(everything_in(path)):
            os.chown(one, 501, -1)
        return path

    # -- running

    def argv(self, name, args):
        return [*self.shell, script_path(name), *args]

    def run_script(self, name, *args, run=run_command, **kwargs):
        return run(self.argv(name, args), **kwargs)

    def start(self, name, *args, **kwargs):
        process = subprocess.Popen(self.argv(name, args), stderr=subprocess.DEVNULL, **kwargs)
        self.addCleanup(process.wait, HANG)
        return process

    def add_user(self, user='alice', **kwargs):
        return self.run_script('adduser', user, user, self.password_file, **kwargs)

    def add_share(self, share='Docs', user='alice', folder=None, access='rw', **kwargs):
        return self.run_script('addshare', user, self.password_file, folder or self.folder, share,
                               access, **kwargs)

    def add_both(self, **kwargs):
        self.assert_done(self.add_user(**kwargs))
        self.assert_done(self.add_share(**kwargs))

    def remove_both(self, **kwargs):
        self.assert_done(self.run_script('rmshare', 'Docs', self.folder, **kwargs))
        self.assert_done(self.run_script('rmuser', 'alice', **kwargs))

    # -- asserting

    def assert_unchanged(self, before):
        self.assertEqual(HOST.snapshot(), before)

    def asked(self, *names):
        return [repr(call) for call in HOST.calls if call.name in names]

    def entries(self, path):
        return list(HOST.mac.entry_lines(path))
