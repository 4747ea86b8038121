"""What firstRun.sh needs of a Mac beside what the share scripts do: a tool, and some more programs.

Each point of its list can be bad: `bad` of the model holds the numbers.
"""

import os
import re
import shutil

import machost
from machost import HERE, SHARES, Misuse, Refusal

FIRST_RUN = os.path.dirname(SHARES) + '/firstRun.sh'
HOME = '/Users/bob'
PROGRAMS = {
    'sw_vers': '/usr/bin', 'smbutil': '/usr/bin', 'dsmemberutil': '/usr/bin', 'touch': '/usr/bin',
    'chown': '/usr/sbin', 'prefs': '/usr/bin', 'hostname': '/bin',
}


class FirstRunPrograms(machost.Programs):

    # -- What others answer differently when a point is bad

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
            self.mac.clock += 75 if 12 in self.mac.bad else 1
            raise Refusal('')
        return ''

    def dscl(self, args, stdin):
        if args[1] == '-delete' and 10 in self.mac.bad and args[2].startswith('/Users/'):
            raise Refusal('<dscl_cmd> DS Error: -14120 (eDSPermissionError)', 40)
        if args[1] == '-delete' and 13 in self.mac.bad and 'GroupMembership' in args:
            return ''
        answer = super().dscl(args, stdin)
        if args[1] == '-delete' and args[2].startswith('/Users/'):
            self.mac.policies.discard(args[2][7:])
        return answer.replace('dsAttrTypeNative:IsHidden', 'IsHidden') if 6 in self.mac.bad else answer

    def sharing(self, args, stdin):
        answer = super().sharing(args, stdin)
        return answer.replace('name:', 'called:') if args == ['-l'] and 7 in self.mac.bad else answer

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
        return 'bob\n' if args == ['-un', '501'] else super().id(args, stdin)

    def find(self, args, stdin):
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
        """Who logs in sees the shares."""
        if args[:2] == ['view', '-g']:
            raise Refusal('smbutil: server rejected the connection: Authentication error', 77)
        match = re.fullmatch('//([a-z]+):([^@]+)@127.0.0.1', args[1])
        if args[0] != 'view' or not match:
            raise Misuse
        if self.mac.nt_hashes.get(match[1]) != match[2].encode() or 1 in self.mac.bad:
            raise Refusal('smbutil: server rejected the connection: Authentication error', 77)
        return 'Share  Type\n' + ''.join(name + '  Disk\n' for name in self.mac.records['SharePoints'])

    def touch(self, args, _):
        """What is new gets what its folder passes on."""
        if args[0] != '--':
            raise Misuse
        for name in args[1:]:
            path = os.path.join(self.cwd, name)
            open(path, 'wb').close()
            self.mac.entries[path] = [tuple(entry[:3]) + (True,) for entry in self.mac.entries.get(self.cwd, ())
                                      if 'file_inherit' in entry[2]]
        return ''

    def chown(self, args, _):
        if args[0] != '-R':
            raise Misuse
        for top, _folders, names in os.walk(args[2]):
            for path in [top] + [os.path.join(top, name) for name in names]:
                os.lchown(path, int(args[1]), -1)
        return ''

    def prefs(self, args, _):
        """What the tool asks of the preferences: "lock" with what it has read, "on" and "off"."""
        if args[0] == 'lock':
            if len(args) > 1 and args[1] != str(self.mac.generation) and 15 not in self.mac.bad:
                raise Refusal('stale')
            return '%d\n' % self.mac.generation
        changes = ('disk' in self.mac.services) != (args[0] == 'on')
        if changes:
            self.mac.services = ['disk'] if args[0] == 'on' else []
            self.mac.generation += 1
        return '%s %d\n' % ('yes' if changes else 'no', self.mac.generation)


def set_up():
    machost.PROGRAMS.update(PROGRAMS)
    machost.Programs = FirstRunPrograms
    host = machost.set_up()
    shutil.copy(machost.REPO + '/product/macos/firstRun.sh', FIRST_RUN)
    shutil.copy(HERE + '/firstRunTool.py', SHARES + '/pelagoShareTool')
    os.chmod(SHARES + '/pelagoShareTool', 0o755)
    return host


def make_mac(host):
    """A person's home, and what the model has to know more."""
    host.mac.services, host.mac.generation = [], 1
    host.mac.bad, host.mac.policies, host.mac.effective = set(), set(), set()
    host.mac.records['Users']['bob']['NFSHomeDirectory'] = [HOME]
    host.mac.add('Groups', machost.ACCESS_GROUP, PrimaryGroupID='399')
    shutil.rmtree('/Users', ignore_errors=True)
    shutil.rmtree('/Library/pelagofirst', ignore_errors=True)
    os.makedirs('/Library', exist_ok=True)
    os.makedirs(HOME + '/Documents')
    for path in (HOME, HOME + '/Documents'):
        os.chmod(path, 0o700)
        os.chown(path, 501, -1)
