"""Stand-ins for firstRun.sh in addition to those of the share scripts: the tool, and some more programs.

The model's `bad` has the numbers of the points of the script's list that are bad.
"""

import os
import re
import shutil
import subprocess
import time

import machost
from machost import HERE, SHARES
from macModel import Misuse, Refusal

FIRST_RUN = os.path.dirname(SHARES) + '/firstRun.sh'
HOME, TOP = '/Users/bob', '/Library/pelagofirst'
SECOND_USER = 'pelagosecond'
FLAGS = '+sappnd,schg,uappnd,uchg'
PROGRAMS = {
    'sw_vers': '/usr/bin', 'smbutil': '/usr/bin', 'dsmemberutil': '/usr/bin', 'touch': '/usr/bin',
    'chown': '/usr/sbin', 'prefs': '/usr/bin', 'hostname': '/bin',
    'launchctl': '/usr/bin', 'chflags': '/usr/bin',
}


class FirstRunPrograms(machost.Programs):

    # -- Programs whose output differs when a point is bad

    def osascript(self, args, stdin):
        user = args[4]
        if user in self.mac.policies and len(stdin) < 100:
            if 2 in self.mac.bad:
                return ''
            self.mac.password_refusals = ['error']
        return super().osascript(args, stdin)

    def pwpolicy(self, args, stdin):
        if args[2:] == ['-setpolicy', 'minChars=100']:
            self.mac.policies.add(args[1])
            return ''
        answer = super().pwpolicy(args, stdin)
        return answer.replace('SMB-NT', 'SMBNT') if 3 in self.mac.bad else answer

    def nc(self, args, stdin):
        if args[-1] != '445':
            return super().nc(args, stdin)
        if 4 in self.mac.bad or 'disk' not in self.mac.services:
            self.mac.clock += 1
            raise Refusal('')
        return ''

    def dscl(self, args, stdin):
        if args[1] == '-delete' and 10 in self.mac.bad and args[2].startswith('/Users/'):
            raise Refusal('<dscl_cmd> DS Error: -14120 (eDSPermissionError)', 40)
        if args[1] == '-delete' and 13 in self.mac.bad and 'GroupMembership' in args:
            return ''
        if args[1:] == ['-read', '/Users/' + SECOND_USER, 'RecordName']:
            self.launchd()
        if args[2].endswith('%25') and 16 in self.mac.bad:
            raise Refusal('<dscl_cmd> DS Error: -14136 (eDSRecordNotFound)', 56)
        if args[1] == '-search' and 21 in self.mac.bad:
            return 'somebody'
        if args[1:3] == ['-read', '/SharePoints/pelagogone'] and 'free shares' in self.mac.bad:
            return 'RecordName: it has one\n'
        answer = super().dscl(args, stdin)
        if args[1] == '-delete' and args[2].startswith('/Users/'):
            self.mac.policies.discard(args[2][7:])
        return answer.replace('dsAttrTypeNative:IsHidden', 'IsHidden') if 6 in self.mac.bad else answer

    def launchd(self):
        """Runs the job repeatedly, once it was started."""
        global clearing  # pylint: disable=global-statement
        if self.mac.asked_for_job and 25 not in self.mac.bad and (not clearing or clearing.poll() is not None):
            # pylint: disable=consider-using-with
            clearing = subprocess.Popen([SHARES + '/clear.sh'], stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def sharing(self, args, stdin):
        self.mac.sharing_has_r = 5 not in self.mac.bad
        if args[:1] == ['-a'] and args[1].startswith(TOP + '/Gr'):
            self.spell_in_other_ways(args[1])
        answer = super().sharing(args, stdin)
        return answer.replace('name:', 'called:') if args == ['-l'] and 7 in self.mac.bad else answer

    def spell_in_other_ways(self, path):
        """Models a disk that ignores the case and the normal form of names; a link has a name of its own."""
        for other in (path.replace('Grösse', 'GRöSSE'), path.replace('ö', 'o\u0308')):
            os.mkdir(other) if 18 in self.mac.bad else os.symlink(path, other)

    def chmod(self, args, stdin):
        if 9 in self.mac.bad and self.cwd.startswith(HOME + '/Documents'):
            raise Refusal('chmod: Unable to set the entry: Operation not permitted')
        try:
            return super().chmod(args, stdin)
        except Refusal:
            if 8 in self.mac.bad and args[1] == '-a':
                return ''
            raise

    def dseditgroup(self, args, stdin):
        answer = super().dseditgroup(args, stdin)
        if 14 not in self.mac.bad:
            self.mac.effective.add(args[3])
        return answer

    def id(self, args, stdin):
        if args == ['-u', SECOND_USER] and 22 in self.mac.bad and self.mac.slow_looks < 150:
            self.mac.slow_looks += 1
            raise Refusal('id: no such user')
        return 'bob\n' if args == ['-un', '501'] else super().id(args, stdin)

    def stat(self, args, stdin):
        answer = super().stat(args, stdin)
        return '1:1 40755 0\n' if 17 in self.mac.bad and args[2] == HOME else answer

    def ps(self, args, stdin):
        return '    0\n' if 23 in self.mac.bad and args == ['-axo', 'uid='] else super().ps(args, stdin)

    def readlink(self, args, stdin):
        return super().readlink(args, stdin) + ('?' if 19 in self.mac.bad and args[1] == 'link' else '')

    def pgrep(self, args, stdin):
        if int(args[1]) in self.host.stuck:
            return super().pgrep(args, stdin)
        found = [pid for pid in os.listdir('/proc') if pid.isdigit() and parent_of(pid) == args[1]]
        return ''.join(pid + '\n' for pid in found)

    def sleep(self, args, stdin):
        if args == ['1']:
            time.sleep(0.3)
        return super().sleep(args, stdin)

    def find(self, args, stdin):
        if args[2:] == ['-type', 'f', '-exec', '/usr/bin/stat', '-f', '%Sf', '{}', ';']:
            return ''.join(self.mac.flags.get(os.path.join(args[1], name), '-') + '\n' for name in os.listdir(args[1]))
        if args == ['-P', '.', '-xdev', '-flags', FLAGS, '-print']:
            return ''.join('./%s\n' % os.path.basename(path) for path in self.mac.flags
                           if os.path.dirname(path) == self.cwd)
        if args[0] == '-P' and args[2:] == ['!', '-user', '501', '-print']:
            found = [os.path.join(top, name) for top, _, names in os.walk(args[1]) for name in names]
            return ''.join(path + '\n' for path in found if os.lstat(path).st_uid != 501)
        return super().find(args, stdin)

    # -- More programs

    def sw_vers(self, args, _):
        return {'-productVersion': '12.7.6\n', '-buildVersion': '21H1320\n'}[args[0]]

    def hostname(self, _, __):
        return 'the-mac.local\n'

    def dsmemberutil(self, args, stdin):
        if args[0] != 'checkmembership':
            return super().dsmemberutil(args, stdin) # pylint: disable=no-member
        if args[1] != '-U' or args[3] != '-G':
            raise Misuse
        return 'user is %sa member of the group\n' % ('' if args[2] in self.mac.effective else 'not ')

    def smbutil(self, args, _):
        """Lists the shares for a user who can log in."""
        if args[:2] == ['view', '-g']:
            raise Refusal('smbutil: server rejected the connection: Authentication error', 77)
        match = re.fullmatch('//([a-z]+):([^@]+)@127.0.0.1', args[1])
        if args[0] != 'view' or not match:
            raise Misuse
        if self.mac.nt_hashes.get(match[1]) != match[2].encode() or 1 in self.mac.bad:
            raise Refusal('smbutil: server rejected the connection: Authentication error', 77)
        return 'Share  Type\n' + ''.join(name + '  Disk\n' for name in self.mac.records['SharePoints'])

    def touch(self, args, _):
        """Makes files, which inherit access entries from their folder."""
        if args[0] != '--':
            raise Misuse
        for name in args[1:]:
            path = os.path.join(self.cwd, name)
            open(path, 'wb').close()
            self.mac.entries[path] = [tuple(entry[:3]) + (True,) for entry in self.mac.entries.get(self.cwd, ())
                                      if 'file_inherit' in entry[2]]
        return ''

    def chflags(self, args, _):
        if args[0] == '-R':
            self.mac.flags = {path: flags for path, flags in self.mac.flags.items() if not path.startswith(args[2])}
            return ''
        if args[0] != '-h' or args[1] not in ('uchg', 'nouchg'):
            raise Misuse
        if args[1] == 'uchg':
            self.mac.flags[self.path_of(args[2])] = 'uchg'
        elif 20 in self.mac.bad:
            raise Refusal('chflags: Operation not permitted')
        else:
            del self.mac.flags[self.path_of(args[2])]
        return ''

    def launchctl(self, args, _):
        if args != ['print', 'system/pelago.clear']:
            raise Misuse
        self.mac.asked_for_job = True
        return 'state = not running\n'

    def chown(self, args, _):
        if args[0] == '-h':
            self.check_change(self.path_of(args[2]), args[2])
            os.lchown(self.path_of(args[2]), int(args[1]), -1)
            return ''
        if args[0] != '-R':
            raise Misuse
        for top, _folders, names in os.walk(args[2]):
            for path in [top] + [os.path.join(top, name) for name in names]:
                os.lchown(path, int(args[1]), -1)
        return ''

    def prefs(self, args, _):
        """The tool's calls of the preferences: "lock" with the state that it has read, "on" and "off"."""
        if args[0] == 'lock':
            if len(args) > 1 and args[1] != str(self.mac.generation) and 15 not in self.mac.bad:
                raise Refusal('stale')
            return '%d\n' % self.mac.generation
        changes = ('disk' in self.mac.services) != (args[0] == 'on')
        if changes:
            self.mac.services = ['disk'] if args[0] == 'on' else []
            self.mac.generation += 1
        return '%s %d\n' % ('yes' if changes else 'no', self.mac.generation)


clearing = None


def parent_of(pid):
    try:
        return machost.read('/proc/%s/stat' % pid).rpartition(b')')[2].split()[1].decode()
    except (FileNotFoundError, ProcessLookupError):
        return ''


def set_up():
    machost.PROGRAMS.update(PROGRAMS)
    machost.Programs = FirstRunPrograms
    host = machost.set_up()
    host.pause = 0.05 # checking without a pause would occupy a processor
    shutil.copy(machost.REPO + '/product/macos/firstRun.sh', FIRST_RUN)
    shutil.copy(HERE + '/firstRunTool.py', SHARES + '/pelagoShareTool')
    os.chmod(SHARES + '/pelagoShareTool', 0o755)
    return host


def make_mac(host):
    """Adds a person's home, and more to the model."""
    host.mac.services, host.mac.generation = [], 1
    host.mac.bad, host.mac.policies, host.mac.effective = set(), set(), set()
    host.mac.slow_looks, host.mac.asked_for_job = 0, False
    host.mac.add('Groups', '_lpadmin', other_names=['lpadmin'], PrimaryGroupID='98')
    host.mac.records['Users']['bob']['NFSHomeDirectory'] = [HOME]
    host.mac.add('Groups', machost.ACCESS_GROUP, PrimaryGroupID='399')
    shutil.rmtree('/Users', ignore_errors=True)
    shutil.rmtree(TOP, ignore_errors=True)
    if not os.path.exists('/System/Volumes/Data'):
        os.makedirs('/System/Volumes')
        os.symlink('/', '/System/Volumes/Data')
    os.makedirs('/Library', exist_ok=True)
    os.makedirs(HOME + '/Documents')
    for path in (HOME, HOME + '/Documents'):
        os.chmod(path, 0o700)
        os.chown(path, 501, -1)
