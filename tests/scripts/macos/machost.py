"""A Mac for the tests of its share scripts: stand-ins for its programs, and a model of its directory.

The stand-ins lie at the programs' own paths, so this changes the machine: it runs in tools/sandbox.sh
only.  Each call of one is answered here, in the process of the test, from the model.  A call that the
real program would not understand is answered with status 64 and noted as a misuse, which fails the
test whatever the script makes of the status.

The model keeps to what is known of a Mac, and where that is uncertain takes the worse: a share lets
guests in unless told not to, two records may have one number, a password for SMB exists only when it
was set after it was asked for, and setting an attribute can fail with status 0.
"""

import contextlib
import copy
import datetime
import os
import re
import shutil
import socket
import stat
import struct
import subprocess
import sys
import tempfile
import threading
import time
import traceback
import uuid
from pathlib import Path

SCRIPT_TESTS = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(SCRIPT_TESTS), str(SCRIPT_TESTS.parent / 'support')]
import javaScript  # noqa: E402
import scriptRunner  # noqa: E402
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
    'date': '/bin', 'defaults': '/usr/bin',
}
CHANGING = ('-create', '-delete', '-a', '-r', '-sethashtypes', 'edit', '+a', 'JavaScript')

READ = 'list,search,readattr,readextattr,readsecurity,read,execute'
WRITE = 'write,append,delete,delete_child,add_file,add_subdirectory,writeattr,writeextattr'
INHERIT = 'file_inherit,directory_inherit'
RIGHTS = set((READ + ',' + WRITE + ',' + INHERIT).split(','))


class Misuse(Exception):
    """A call that the real program would not understand."""


class Refusal(Exception):
    """A call that the real program understands, and ends with a status other than 0."""

    def __init__(self, text, status=1):
        super().__init__(text)
        self.status = status


# ---- The model

class Mac:
    """What there is on the Mac: records, passwords, shares, access entries."""

    def __init__(self):
        self.records = {'Users': {}, 'Groups': {}, 'SharePoints': {}}
        self.hash_types = {}   # user -> the types that are asked for
        self.passwords = {}    # user -> bytes, as it was set last
        self.password_refusals = []  # what becomes of each try to set one; see osascript.js
        self.nt_hashes = {}    # user -> bytes, when it was set after SMB-NT was asked for
        self.entries = {}      # path -> [(UUID of the user, kind, rights, inherited)]
        self.network_users = {}
        self.smb_after = 0     # how many connections are refused before the service is up
        self.nc_seconds = 0    # how long a refused connection takes
        self.clock = 1.8e9     # the time of day; only waiting takes time
        self.swap = None       # called by find with each path, between its looking and its doing
        self.sharing_has_r = True
        self.services = None   # EnabledServices in the preferences of the SMB service
        for name, number in (('root', '0'), ('bob', '501'), ('_www', '70')):
            self.add('Users', name, UniqueID=number, PrimaryGroupID='20', RealName='The ' + name)
        for name, number in (('wheel', '0'), ('staff', '20'), ('justagroup', '777')):
            self.add('Groups', name, PrimaryGroupID=number)

    def add(self, kind, name, **attributes):
        self.records[kind][name] = {'GeneratedUID': [str(uuid.uuid4()).upper()]}
        for key, value in attributes.items():
            self.records[kind][name][key] = [value]

    def find(self, kind, name):
        """The name as it is written in the directory, which compares without case."""
        return next((known for known in self.records[kind] if known.lower() == name.lower()), None)

    def attribute(self, kind, name, key):
        return self.records[kind][name].get(key, [''])[0]

    def user_uuid(self, name):
        user = self.records['Users'].get(name, {})
        if 'UniqueID' not in user:
            raise Refusal("chmod: Unable to translate '%s' to a UUID" % name)
        return user['GeneratedUID'][0]

    def entry_lines(self, path):
        names = {user['GeneratedUID'][0]: name for name, user in self.records['Users'].items()}
        for number, (owner, kind, rights, inherited) in enumerate(self.entries.get(path, ())):
            who = 'user:' + names[owner] if owner in names else owner
            yield ' %d: %s %s%s %s' % (number, who, 'inherited ' if inherited else '', kind, rights)

    def client_writes(self, user, path, content=b'written\n'):
        """A file as a client makes it: the user's own, with what the folder passes on."""
        write(path, content, 0o600)
        os.chown(path, int(self.attribute('Users', user, 'UniqueID')), -1)
        passed_on = [entry[:3] + (True,) for entry in self.entries.get(os.path.dirname(path), ())
                     if 'file_inherit' in entry[2]]
        if passed_on:
            self.entries[path] = passed_on


# ---- The programs

def everything_in(path):
    """The path and all below it, links neither followed nor counted."""
    yield path
    for folder, folders, files in os.walk(path):
        for name in folders + files:
            if not os.path.islink(os.path.join(folder, name)):
                yield os.path.join(folder, name)


class Programs:
    """One method for each program: from its arguments to its output, on the model."""

    def __init__(self, mac, cwd='/'):
        self.mac = mac
        self.cwd = cwd

    # -- directory

    def dscl(self, args, _):
        if len(args) < 3 or args[0] != '.' or args[1] not in ('-list', '-read', '-create', '-delete'):
            raise Misuse
        verb, path, keys = args[1], args[2], args[3:]
        parts = path.split('/', 2)
        if parts[0] or parts[1] not in self.mac.records or (len(parts) == 2) != (verb == '-list'):
            raise Misuse
        records = self.mac.records[parts[1]]
        if verb == '-list':
            return self.dscl_list(records, keys)
        name = self.mac.find(parts[1], parts[2])
        if verb == '-create' and not keys:
            if name is None and len(parts[2]) <= 244:
                self.mac.add(parts[1], parts[2])
            return ''
        if name is None:
            raise Refusal('<dscl_cmd> DS Error: -14136 (eDSRecordNotFound)', 56)
        if verb == '-read':
            return ''.join(self.dscl_show(records[name], key) for key in keys or [Misuse])
        if verb == '-create':
            if len(keys) != 2:
                raise Misuse
            records[name][keys[0]] = [keys[1]]
            return ''
        if keys:
            if parts[1] != 'Groups' or len(keys) != 2 or keys[0] != 'GroupMembership':
                raise Misuse
            self.drop_member(name, keys[1])
            return ''
        del records[name]
        for table in (self.mac.hash_types, self.mac.passwords, self.mac.nt_hashes):
            table.pop(name, None)
        return ''

    @staticmethod
    def dscl_list(records, keys):
        if len(keys) > 1:
            raise Misuse
        if not keys:
            return ''.join(name + '\n' for name in records)
        return ''.join('%-24s %s\n' % (name, record[keys[0]][0])
                       for name, record in records.items() if keys[0] in record)

    @staticmethod
    def dscl_show(record, key):
        if key not in record:
            return 'No such key: %s\n' % key
        shown = 'dsAttrTypeNative:' + key if key in ('IsHidden', 'directory_path') else key
        if key == 'GroupMembership':
            return '%s: %s\n' % (shown, ' '.join(record[key]))
        blank = any(char.isspace() for char in record[key][0])
        return '%s:%s %s\n' % (shown, '\n' if blank else '', record[key][0])

    def dseditgroup(self, args, _):
        if args[:2] != ['-o', 'edit'] or args[2] not in ('-a', '-d') or args[4:6] != ['-t', 'user'] \
                or len(args) != 7:
            raise Misuse
        if args[6] not in self.mac.records['Groups']:
            raise Refusal('Group not found.')
        self.mac.user_uuid(args[3])
        members = self.mac.records['Groups'][args[6]].setdefault('GroupMembership', [])
        if (args[2] == '-d') != (args[3] in members):
            raise Refusal('The record is %sa member.' % ('' if args[3] in members else 'not '))
        if args[2] == '-a':
            members.append(args[3])
        else:
            self.drop_member(args[6], args[3])
        return ''

    def drop_member(self, group, user):
        members = self.mac.records['Groups'][group].get('GroupMembership', [])
        if user not in members:
            raise Refusal('<dscl_cmd> DS Error: -14134 (eDSAttributeNotFound)', 54)
        members.remove(user)
        if not members:
            del self.mac.records['Groups'][group]['GroupMembership']

    def id(self, args, _):
        if args == ['-u']:
            return '0\n'
        if len(args) != 2 or args[0] != '-u':
            raise Misuse
        if args[1] in self.mac.network_users:
            return self.mac.network_users[args[1]] + '\n'
        number = self.mac.records['Users'].get(args[1], {}).get('UniqueID')
        if not number:
            raise Refusal('id: %s: no such user' % args[1])
        return number[0] + '\n'

    # -- passwords

    def pwpolicy(self, args, _):
        if args[:1] != ['-u'] or args[2:] not in (['-sethashtypes', 'SMB-NT', 'on'], ['-gethashtypes']):
            raise Misuse
        self.mac.user_uuid(args[1])
        if args[2] == '-gethashtypes':
            return ''.join(kind + '\n' for kind in
                           ['SALTED-SHA512-PBKDF2'] + self.mac.hash_types.get(args[1], []))
        if args[1] not in self.mac.passwords:
            raise Refusal('Error: the account has no password.')
        self.mac.hash_types[args[1]] = ['SMB-NT']
        return 'Setting hash types for %s\n' % args[1]

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
            if 'SMB-NT' in self.mac.hash_types.get(user, []):
                self.mac.nt_hashes[user] = password
        if answer.status:
            raise Refusal(answer.complaint, answer.status)
        return ''

    # -- shares

    def sharing(self, args, _):
        points = self.mac.records['SharePoints']
        if not args:
            raise Refusal('usage: sharing -a <path> [options] | -r <name> | -l\n  -S, -n, -s, -g' +
                          (', -R <0|1>' if self.mac.sharing_has_r else ''), 64)
        if args == ['-l']:
            return 'List of Share Points\n' + ''.join(
                'name:\t\t%s\npath:\t\t%s\n\tsmb:\t{\n\t\t\tname:\t%s\n\t\t\tshared:\t1\n\t}\n' %
                (name, self.mac.attribute('SharePoints', name, 'directory_path'),
                 self.mac.attribute('SharePoints', name, 'smb_name')) for name in points)
        if args[0] == '-r' and len(args) == 2:
            name = self.mac.find('SharePoints', args[1])
            if name is None:
                raise Refusal('sharing: there is no such share point')
            del points[name]
            return ''
        options = dict(zip(args[::2], args[1::2]))
        known = {'-a', '-n', '-S', '-s', '-g'} | ({'-R'} if self.mac.sharing_has_r else set())
        if args[0] != '-a' or len(args) % 2 or len(options) != len(args) // 2 or set(options) - known \
                or not re.fullmatch('[01]{3}', options.get('-s', '100')) \
                or not re.fullmatch('[01]{3}', options.get('-g', '111')) \
                or options.get('-R', '0') not in ('0', '1'):
            raise Misuse
        if not os.path.isdir(options['-a']):
            raise Refusal('sharing: no such folder')
        if self.mac.find('SharePoints', options['-n']) is not None:
            raise Refusal('sharing: the share point exists')
        self.mac.add('SharePoints', options['-n'], directory_path=options['-a'],
                     smb_name=options['-S'], services=options.get('-s', '100'),
                     guests=options.get('-g', '111'), read_only=options.get('-R', '0'))
        return 'Share point added.\n'

    def nc(self, args, _):
        if args != ['-z', '-w', '1', '127.0.0.1', '445']:
            raise Misuse
        if self.mac.smb_after > 0:
            self.mac.smb_after -= 1
            self.mac.clock += self.mac.nc_seconds
            raise Refusal('')
        return 'Connection to 127.0.0.1 port 445 [tcp/microsoft-ds] succeeded!\n'

    # -- files

    def chmod(self, args, _):
        """In the current folder only, and with -h not through a link."""
        follows = args[:1] != ['-h']
        verb, text, name = args[0 if follows else 1:]
        if verb not in ('+a', '-a') or '/' in name:
            raise Misuse
        path = os.path.normpath(os.path.join(self.cwd, name))
        path = os.path.realpath(path) if follows else path
        entry = re.fullmatch('user:([a-z0-9_.-]+) (allow) ([a-z_,]+)', text)
        if not entry or set(entry[3].split(',')) - RIGHTS:
            raise Misuse
        owner = self.mac.user_uuid(entry[1])
        if not self.change_entry(verb, (owner, entry[2], entry[3], False), path):
            raise Refusal("chmod: No ACL present '%s'" % name)
        return ''

    def change_entry(self, verb, entry, path):
        """Whether it could be done.  Taking away takes what was passed on as well."""
        there = self.mac.entries.get(path, [])
        if verb == '+a':
            self.mac.entries[path] = [entry] + there
            return os.path.exists(path)
        kept = [one for one in there if one[:3] != entry[:3]]
        self.mac.entries[path] = kept
        if not kept:
            del self.mac.entries[path]
        return kept != there

    def ls(self, args, _):
        """With -R what is in the folder, but not the folder itself."""
        if len(args) != 3 or args[0] not in ('-lqed', '-lqeR') or args[1:] != ['--', '.']:
            raise Misuse
        lines = []
        found = list(everything_in(self.cwd))
        for path in found[1:] if args[0] == '-lqeR' else found[:1]:
            name = re.sub('[^ -~]', '?', path)
            lines.append('-rw-------+ 1 bob  staff  0 Jan  1 00:00 ' + name)
            lines.extend(self.mac.entry_lines(path))
        return '\n'.join(lines) + '\n'

    @staticmethod
    def stat(args, _):
        if len(args) != 3 or args[0] != '-f' or args[1] not in ('%u', '%Lp'):
            raise Misuse
        found = os.lstat(args[2])
        return '%d\n' % found.st_uid if args[1] == '%u' else '%o\n' % stat.S_IMODE(found.st_mode)

    def find(self, args, _):
        """What it finds is true; what it runs is done here.  Its status is not that of what it runs."""
        if args[:3] != ['-P', '.', '-xdev']:
            raise Misuse
        tests, command = args, None
        if '-execdir' in args:
            start, end = args.index('-execdir'), args.index(';')
            command = args[start + 1:end]
            if args[start - 1] != '!' or args[end + 1:] != ['-print'] or command[-1] != '{}':
                raise Misuse
            tests = args[:start - 1] + ['-print0']
        if set(tests[3:]) - {'(', ')', '!', '-o', '-type', 'd', 'f', 'l', '-links', '1', '-user',
                             '-print', '-print0'} - set(re.findall(r'\d+', ' '.join(tests))):
            raise Misuse
        done = subprocess.run(['/usr/bin/find.real', *tests], stdout=subprocess.PIPE, check=False,
                              stderr=subprocess.STDOUT, env={'PATH': '/usr/bin'}, cwd=self.cwd)
        if done.returncode:
            raise Refusal(os.fsdecode(done.stdout))
        if not command:
            return os.fsdecode(done.stdout)
        complaints = ''
        for path in os.fsdecode(done.stdout).split('\0')[:-1]:
            if self.mac.swap:
                self.mac.swap(os.path.normpath(os.path.join(self.cwd, path)))
            try:
                self.run_in_folder(command, path)
            except (Refusal, OSError) as error:
                complaints += '%s\n%s\n' % (error, path)
        return complaints

    def run_in_folder(self, command, path):
        folder, name = os.path.split(os.path.normpath(os.path.join(self.cwd, path)))
        if path == '.':
            folder, name = self.cwd, '.'
        if command[0] == '/bin/chmod':
            Programs(self.mac, folder).chmod(command[1:-1] + [name], b'')
        elif command[:2] == ['/usr/sbin/chown', '-h'] and len(command) == 4:
            os.lchown(os.path.join(folder, name), int(command[2]), -1)
        else:
            raise Misuse

    # -- the rest

    @staticmethod
    def ps(args, _):
        if len(args) != 6 or args[0] != '-p' or args[2:] != ['-o', 'stat=', '-o', 'lstart=']:
            raise Misuse
        try:
            fields = read('/proc/%d/stat' % int(args[1])).rpartition(b')')[2].split()
        except FileNotFoundError as error:
            raise Refusal('') from error
        booted = int(re.search(rb'btime (\d+)', read('/proc/stat'))[1])
        seconds = booted + int(fields[19]) // os.sysconf('SC_CLK_TCK')
        start = datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)
        return '%-4s %s    \n' % (fields[0].decode() + 's', start.strftime('%a %b %e %H:%M:%S %Y'))

    @staticmethod
    def od(args, stdin):
        """Wide gaps, and blanks to the end of the line: as od prints it there."""
        if args != ['-An', '-v', '-to1']:
            raise Misuse
        lines = [stdin[start:start + 16] for start in range(0, len(stdin), 16)]
        return ''.join(' ' * 11 + ''.join('%03o  ' % byte for byte in line).ljust(80) + '\n'
                       for line in lines)

    def sleep(self, args, _):
        if args != ['0.1']:
            raise Misuse
        self.mac.clock += 0.1
        time.sleep(0.002)
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
        self.pid = pid # it waits until it is answered
        self.cwd = os.readlink('/proc/%d/cwd' % pid)
        self.name = os.path.basename(argv[0])
        self.environ, self.stdin = environ, stdin

    def __repr__(self):
        return ' '.join([self.name] + self.args)

    @property
    def changes(self):
        return any(word in CHANGING for word in self.args) and self.name not in ('ls', 'stat', 'id')


class Host:
    """Answers the stand-ins, one at a time, and notes what they were asked."""

    def __init__(self):
        require_sandbox()
        self.lock = threading.Lock()
        self.wipe()
        self.listener = socket.socket(socket.AF_UNIX)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(SOCKET)
        self.listener.bind(SOCKET)
        self.listener.listen(64)
        threading.Thread(target=self.serve, daemon=True).start()

    def wipe(self):
        """A new Mac without a trace of a session."""
        self.mac = Mac()
        self.calls, self.misuses = [], []
        self.fault = None   # (first call, last call, "refuse" | "after" | "lie"), counted from 1
        self.hook = None    # called with each call, before or after it is answered
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
                sizes = struct.unpack('=3I', file.read(12))
                argv, environ, stdin = (file.read(size) for size in sizes)
                caller = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
                call = Call([os.fsdecode(word) for word in argv.split(b'\0')[:-1]], environ, stdin,
                            struct.unpack('=3i', caller)[0])
                if self.hook:
                    self.hook(call)
                with self.lock:
                    self.calls.append(call)
                    status, out, err = self.perform(call, len(self.calls))
                if self.after_hook:
                    self.after_hook(call)
                connection.sendall(struct.pack('=3I', status, len(out), len(err)) + out + err)
        except (BrokenPipeError, ConnectionResetError, ProcessLookupError):
            pass  # killed while it waited for the answer
        except Exception:  # pylint: disable=broad-except
            self.misuses.append(traceback.format_exc())

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
            out = getattr(Programs(self.mac, call.cwd), call.name)(call.args, call.stdin)
        except Refusal as refusal:
            return refusal.status, b'', os.fsencode(str(refusal) + '\n')
        except Exception:  # pylint: disable=broad-except
            self.misuses.append('%r\n%s' % (call, traceback.format_exc()))
            return 64, b'', b'%s: usage\n' % call.name.encode()
        if fault == 'after':
            return 1, b'', b'%s: broke down afterwards\n' % call.name.encode()
        return 0, os.fsencode(out), b''

    def snapshot(self):
        """All that a script could have changed, to compare."""
        with self.lock:
            model = copy.deepcopy({key: value for key, value in vars(self.mac).items()
                                   if key not in ('smb_after', 'clock')})
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
        for path, content in sorted(saved[1].items()):
            os.makedirs(os.path.dirname(path), exist_ok=True)
            os.mkdir(path) if content is None else write(path, content)


def tree(top):
    """Paths below a folder with their contents; the furniture that every script makes left out."""
    found = {}
    for folder, folders, files in os.walk(top):
        for name in folders:
            found[os.path.join(folder, name)] = None
        for name in files:
            found[os.path.join(folder, name)] = read(os.path.join(folder, name))
    for name in ('/shares', '/users'):
        found.pop(top + name, None)
    return found


HOST = None


def set_up():
    """Puts the stand-ins in place of the programs, and the scripts in theirs; the host that answers."""
    global HOST  # pylint: disable=global-statement
    require_sandbox()
    if HOST:
        return HOST
    subprocess.run(['cc', '-O1', '-static', '-Wall', '-Werror', '-o', '/tmp/standIn',
                    HERE + '/standIn.c'], check=True)
    shutil.copytree(REPO + '/product/macos/shares', SHARES)
    shutil.copy(REPO + '/product/macos/shares/base.sh', SHARES)
    os.makedirs('/var/db', exist_ok=True)
    os.rename('/usr/bin/find', '/usr/bin/find.real')
    for name, folder in PROGRAMS.items():
        path = os.path.join(folder, name)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
        shutil.copy('/tmp/standIn', path)
    HOST = Host()
    return HOST


# ---- The tests' base

class MacTest(scriptRunner.ScriptTest):
    """A new Mac for each test, a private folder of bob's, and a password file."""

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
