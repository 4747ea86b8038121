"""The state of the modelled Mac: records, passwords, shares, access entries.

The model follows what is known of a Mac, and assumes the worse case where that is uncertain: a share
admits guests by default, two records may have one number, a password for SMB exists only when it
was set after the request for one, setting an attribute can fail with status 0, and a user who was
not found stays unknown for a while.
"""

import os
import uuid

from scriptRunner import write

UNKNOWN_SECONDS = 0.25  # how long a failed look-up of a user is cached


class Misuse(Exception):
    """A call that the real program would not understand."""


class Refusal(Exception):
    """A call that the real program understands, and ends with a status other than 0."""

    def __init__(self, text, status=1, out=''):
        super().__init__(text)
        self.status, self.out = status, out


class Connection:
    """A connected client.  It keeps its rights when its user or the share is removed."""

    def __init__(self, mac, number):
        self.mac, self.number = mac, number

    def writes(self, path, content=b'written\n'):
        """Makes a file as a client does: it belongs to the client's user and inherits the folder's entries."""
        write(path, content, 0o600)
        os.chown(path, self.number, -1)
        passed_on = [entry[:3] + (True,) for entry in self.mac.entries.get(os.path.dirname(path), ())
                     if 'file_inherit' in entry[2]]
        if passed_on:
            self.mac.entries[path] = passed_on


class Mac:
    def __init__(self):
        self.records = {'Users': {}, 'Groups': {}, 'SharePoints': {}}
        self.hash_types = {}   # user -> the requested types
        self.global_hash_types = []  # those of a user without own ones
        self.passwords = {}    # user -> bytes, as it was set last
        self.password_refusals = []  # the result of each attempt to set one; see osascript.js
        self.nt_hashes = {}    # user -> bytes, if it was set while SMB-NT was requested
        self.network_users = {}
        self.unknown = {}      # user -> value of waited up to which the user is not found
        self.waited = 0        # seconds
        self.remember_seconds = 0  # how long a removed user is still found
        self.remembered = {}   # user -> number, and value of waited up to which it is found
        self.running = set()   # the numbers of the users that processes run as
        self.entries = {}      # path -> [(UUID of the user, kind, rights, inherited)]
        self.flags = {}        # path -> the flags that lock it, such as "uchg"
        self.read_only = set()       # folders that are mounted read-only
        self.owners_ignored = set()  # folders on volumes whose owners are ignored
        self.private = set()   # folders that not even root may change or read without consent
        self.smb_after = 0     # how many connections are refused before the service is up
        self.smb_serves = True # a connection alone does not show that
        self.ssh = False       # whether Remote Login is on
        self.nc_seconds = 0    # how long a refused connection takes
        self.clock = 1.8e9     # the time of day; only waiting takes time
        self.swap = None       # find calls it with each path, between its check and its action
        self.late_pipes = set()  # paths that a pipe replaces between a shell's check and its chmod
        self.zone = 2          # hours that the Mac's own clock is ahead
        self.sharing_has_r = True
        self.services = None   # EnabledServices in the preferences of the SMB service
        for name, number in (('root', '0'), ('bob', '501'), ('_www', '70')):
            self.add('Users', name, UniqueID=number, PrimaryGroupID='20', RealName='The ' + name)
        for name, number in (('wheel', '0'), ('staff', '20'), ('justagroup', '777')):
            self.add('Groups', name, PrimaryGroupID=number)

    # -- records

    def add(self, kind, name, other_names=(), **attributes):
        self.records[kind][name] = {'GeneratedUID': [str(uuid.uuid4()).upper()]}
        if other_names:
            self.records[kind][name]['RecordName'] = [name, *other_names]
        for key, value in attributes.items():
            self.records[kind][name][key] = [value]

    def find(self, kind, name):
        """The record's first name in the directory, which compares all its names without case."""
        return next((first for first, record in self.records[kind].items()
                     if name.lower() in [one.lower() for one in record.get('RecordName', [first])]), None)

    def attribute(self, kind, name, key):
        return self.records[kind][name].get(key, [''])[0]

    def user(self, name):
        """Returns a user's record as the system's look-ups find it, or None."""
        if self.unknown.get(name, 0) > self.waited:
            return None
        user = self.records['Users'].get(name, {})
        if 'UniqueID' not in user:
            self.unknown[name] = self.waited + UNKNOWN_SECONDS
            return None
        return user

    def user_uuid(self, name):
        user = self.user(name)
        if user is None:
            raise Refusal("chmod: Unable to translate '%s' to a UUID" % name)
        return user['GeneratedUID'][0]

    def hash_types_of(self, user):
        return self.hash_types.get(user, self.global_hash_types)

    # -- access entries

    def entry_lines(self, path):
        names = {user['GeneratedUID'][0]: name for name, user in self.records['Users'].items()}
        for number, (owner, kind, rights, inherited) in enumerate(self.entries.get(path, ())):
            who = 'user:' + names[owner] if owner in names else owner
            yield ' %d: %s %s%s %s' % (number, who, 'inherited ' if inherited else '', kind, rights)

    # -- clients

    def client_connects(self, user, password, share):
        """Returns a connection, or None if the client is refused."""
        point = self.records['SharePoints'].get(share)
        access = self.records['Groups'].get('com.apple.access_smb')
        if not self.smb_serves or self.smb_after or not point or point['services'][0][2] != '1' \
                or self.nt_hashes.get(user) != password \
                or (access is not None and user not in access.get('GroupMembership', ())):
            return None
        return Connection(self, int(self.attribute('Users', user, 'UniqueID')))

    def client_writes(self, user, path, content=b'written\n'):
        Connection(self, int(self.attribute('Users', user, 'UniqueID'))).writes(path, content)
