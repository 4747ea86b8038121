"""The stand-ins that use the Mac's directory: records, groups, passwords and shares."""

import os
import re
import urllib.parse

from macModel import Misuse, Refusal

NOT_FOUND = '<dscl_cmd> DS Error: -14136 (eDSRecordNotFound)'


def without_escapes(part):
    """Decodes percent escapes, as dscl does in each part of a path; dscl crashes on an invalid one."""
    if re.search('%(?![0-9A-Fa-f]{2})', part):
        raise Refusal('*** Terminating app due to uncaught exception', 134)
    return urllib.parse.unquote(part)


class DirectoryPrograms:
    """One method for each program: from its arguments to its output, on the model."""

    def dscl(self, args, _):
        verbs = {'-list': self.dscl_list, '-read': self.dscl_read, '-create': self.dscl_create,
                 '-delete': self.dscl_delete, '-search': self.dscl_search}
        if len(args) < 3 or args[0] != '.' or args[1] not in verbs:
            raise Misuse
        parts = args[2].split('/', 2)
        has_name = args[1] not in ('-list', '-search')
        if parts[0] or parts[1] not in self.mac.records or (len(parts) == 3) != has_name:
            raise Misuse
        if not has_name:
            return verbs[args[1]](parts[1], args[3:])
        return verbs[args[1]](parts[1], without_escapes(parts[2]), args[3:])

    def dscl_list(self, kind, keys):
        if len(keys) > 1:
            raise Misuse
        records = self.mac.records[kind]
        if not keys:
            return ''.join(name + '\n' for name in records)
        return ''.join('%-24s %s\n' % (name, record[keys[0]][0])
                       for name, record in records.items() if keys[0] in record)

    def dscl_search(self, kind, keys):
        if len(keys) != 2:
            raise Misuse
        return ''.join('%s\t\t%s = (\n    "%s"\n)\n' % (name, keys[0], keys[1])
                       for name, record in self.mac.records[kind].items()
                       if keys[1].lower() in [value.lower() for value in record.get(keys[0], ())])

    def dscl_read(self, kind, name, keys):
        record = self.record(kind, name)
        return ''.join(self.dscl_show(record, key) for key in keys or [Misuse])

    def dscl_create(self, kind, name, keys):
        if not keys:
            if self.mac.find(kind, name) is None and len(name) <= 244:
                self.mac.add(kind, name)
            return ''
        if len(keys) != 2:
            raise Misuse
        self.record(kind, name)[keys[0]] = [keys[1]]
        return ''

    def dscl_delete(self, kind, name, keys):
        self.record(kind, name)
        name = self.mac.find(kind, name)
        if keys:
            if kind != 'Groups' or len(keys) != 2 or keys[0] not in ('GroupMembership', 'GroupMembers'):
                raise Misuse
            self.drop_value(name, *keys)
            return ''
        if kind == 'Users' and self.mac.remember_seconds:
            self.mac.remembered[name] = (self.mac.attribute(kind, name, 'UniqueID'),
                                         self.mac.waited + self.mac.remember_seconds)
        del self.mac.records[kind][name]
        for table in (self.mac.hash_types, self.mac.passwords, self.mac.nt_hashes):
            table.pop(name, None)
        return ''

    def record(self, kind, name):
        first = self.mac.find(kind, name)
        if first is None:
            raise Refusal(NOT_FOUND, 56)
        return self.mac.records[kind][first]

    @staticmethod
    def dscl_show(record, key):
        if key == 'RecordName' and key not in record:
            return 'RecordName: it has one\n'
        if key not in record:
            return 'No such key: %s\n' % key
        shown = 'dsAttrTypeNative:' + key if key in ('IsHidden', 'directory_path') else key
        if key in ('GroupMembership', 'RecordName'):
            return '%s: %s\n' % (shown, ' '.join(record[key]))
        blank = any(char.isspace() for char in record[key][0])
        return '%s:%s %s\n' % (shown, '\n' if blank else '', record[key][0])

    # -- users and groups

    def dseditgroup(self, args, _):
        """A group lists a member twice, by name and by UUID."""
        if args[:2] != ['-o', 'edit'] or args[2] not in ('-a', '-d') or args[4:6] != ['-t', 'user'] \
                or len(args) != 7:
            raise Misuse
        if args[6] not in self.mac.records['Groups']:
            raise Refusal('Group not found.')
        user = self.mac.records['Users'].get(args[3])
        if user is None:
            raise Refusal('Record not found.')
        group = self.mac.records['Groups'][args[6]]
        values = {'GroupMembership': args[3], 'GroupMembers': user['GeneratedUID'][0]}
        if (args[2] == '-d') != (args[3] in group.get('GroupMembership', [])):
            raise Refusal('The record is %sa member.' % ('' if args[2] == '-a' else 'not '))
        for key, value in values.items():
            if args[2] == '-a':
                group.setdefault(key, []).append(value)
            else:
                self.drop_value(args[6], key, value)
        return ''

    def drop_value(self, group, key, value):
        values = self.mac.records['Groups'][group].get(key, [])
        if value not in values:
            raise Refusal('<dscl_cmd> DS Error: -14134 (eDSAttributeNotFound)', 54)
        values.remove(value)
        if not values:
            del self.mac.records['Groups'][group][key]

    def id(self, args, _):
        if args == ['-u']:
            return '0\n'
        if len(args) != 2 or args[0] != '-u':
            raise Misuse
        if args[1] in self.mac.network_users:
            return self.mac.network_users[args[1]] + '\n'
        number, until = self.mac.remembered.get(args[1], ('', 0))
        if until > self.mac.waited:
            return number + '\n'
        user = self.mac.user(args[1])
        if user is None:
            raise Refusal('id: %s: no such user' % args[1])
        return user['UniqueID'][0] + '\n'

    def dsmemberutil(self, args, _):
        if args[:2] != ['getuuid', '-U'] or len(args) != 3:
            raise Misuse
        return self.mac.user_uuid(args[2]) + '\n'

    # -- passwords

    def pwpolicy(self, args, _):
        if args[:1] != ['-u'] or args[2:] not in (['-sethashtypes', 'SMB-NT', 'on'], ['-gethashtypes']):
            raise Misuse
        if args[1] not in self.mac.records['Users']:
            raise Refusal('Error: no such user.')
        if args[2] == '-gethashtypes':
            return ''.join(kind + '\n' for kind in
                           ['SALTED-SHA512-PBKDF2'] + self.mac.hash_types_of(args[1]))
        if args[1] not in self.mac.passwords:
            raise Refusal('Error: the account has no password.')
        self.mac.hash_types[args[1]] = ['SMB-NT']
        return 'Setting hash types for %s\n' % args[1]

    # -- shares

    def sharing(self, args, _):
        points = self.mac.records['SharePoints']
        if not args:
            raise Refusal('usage: sharing -a <path> [options] | -r <name> | -l\n  -S, -n, -s, -g' +
                          (', -R <0|1>' if self.mac.sharing_has_r else ''), 64)
        if args == ['-l']:
            return self.sharing_list(points)
        if args[0] == '-r' and len(args) == 2:
            name = self.mac.find('SharePoints', args[1])
            if name is None:
                raise Refusal('sharing: there is no such share point')
            del points[name]
            return ''
        return self.sharing_add(args)

    def sharing_list(self, points):
        if not points:
            raise Refusal('No share point records.')
        return 'List of Share Points\n' + ''.join(
            'name:\t\t%s\npath:\t\t%s\n\tsmb:\t{\n\t\t\tname:\t%s\n\t\t\tshared:\t1\n\t}\n' %
            (name, self.mac.attribute('SharePoints', name, 'directory_path'),
             self.mac.attribute('SharePoints', name, 'smb_name')) for name in points)

    def sharing_add(self, args):
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
