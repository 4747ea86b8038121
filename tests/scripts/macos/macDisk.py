"""The stand-ins that use the Mac's disk: access entries, flags, owners.

The files are on this machine; the model has what Linux lacks, access entries and flags.
"""

import os
import re
import signal
import stat
import subprocess
import sys
import time

from macModel import Misuse, Refusal
from scriptRunner import HANG

READ = 'list,search,readattr,readextattr,readsecurity,read,execute'
WRITE = 'write,append,delete,delete_child,add_file,add_subdirectory,writeattr,writeextattr'
INHERIT = 'file_inherit,directory_inherit'
RIGHTS = set((READ + ',' + WRITE + ',' + INHERIT).split(','))
KEEPING_CHOWN = '/tmp/keepingChown'
KEEPING_CHOWN_TEXT = """#!%s -S
import os, sys
mode = os.lstat(sys.argv[2]).st_mode
os.lchown(sys.argv[2], int(sys.argv[1]), -1)
if mode & 0o170000 == 0o100000:
    os.chmod(sys.argv[2], mode & 0o7777)
""" % sys.executable
# chmod, after a pipe has just replaced its file: it opens the pipe.
OPENING_CHMOD = '/tmp/openingChmod'
OPENING_CHMOD_TEXT = '#!/bin/dash\nmkfifo "$2.pipe" && mv -f "$2.pipe" "$2" && exec cat "$2"\n'
LOCKS = {'uchg', 'uappnd', 'schg', 'sappnd'}
FIND_WORDS = {'(', ')', '!', '-o', '-type', 'd', 'f', 'l', '-links', '1', '-user', '-print', '-print0'}


def everything_in(path):
    """Returns the path and everything below it, except links."""
    yield path
    for folder, folders, files in os.walk(path):
        for name in folders + files:
            if not os.path.islink(os.path.join(folder, name)):
                yield os.path.join(folder, name)


def below(path, folders):
    return any((path + '/').startswith(folder + '/') for folder in folders)


def status_of(pid):
    """Returns the fields of /proc/PID/status, or None unless the process runs."""
    try:
        with open('/proc/%d/status' % pid, encoding='utf-8', errors='replace') as file:
            lines = dict(line.split(':', 1) for line in file)
    except (FileNotFoundError, ProcessLookupError):
        return None
    return None if lines['State'].split()[0] in 'ZX' else lines


def ignores(pid, signal_number):
    status = status_of(pid)
    return status is not None and bool(int(status['SigIgn'], 16) >> (signal_number - 1) & 1)


def rank(entry):
    """The entry's position in the order that chmod keeps: denials first, inherited entries last."""
    return 2 * entry[3] + (entry[1] == 'allow')


class DiskPrograms:
    """One method for each program: from its arguments to its output, on the model."""

    def path_of(self, name):
        return os.path.normpath(os.path.join(self.cwd, name))

    def check_change(self, path, name):
        """Refuses the changes that the kernel refuses even to root."""
        if below(path, self.mac.read_only):
            raise Refusal('%s: Read-only file system' % name)
        if self.mac.flags.get(path) or below(path, self.mac.private):
            raise Refusal('%s: Operation not permitted' % name)

    # -- access entries

    def chmod(self, args, _):
        """Changes files in the current folder only; with -h it does not follow a link."""
        follows = args[:1] != ['-h']
        verb, text, name = args[0 if follows else 1:]
        if verb not in ('+a', '-a') or '/' in name:
            raise Misuse
        path = os.path.realpath(self.path_of(name)) if follows else self.path_of(name)
        entry = re.fullmatch('user:([a-z0-9_.-]+) (allow) ([a-z_,]+)', text)
        if not entry or set(entry[3].split(',')) - RIGHTS:
            raise Misuse
        owner = self.mac.user_uuid(entry[1])
        self.wait_for_writer(path)
        self.check_change(path, name)
        change = self.add_entry if verb == '+a' else self.take_entry
        change((owner, entry[2], entry[3], False), path, name)
        return ''

    def wait_for_writer(self, path):
        """chmod opens the file that it changes; at a pipe without a writer it waits until it is killed."""
        if not stat.S_ISFIFO(os.lstat(path).st_mode):
            return
        ignore = ['/usr/bin/env', '--ignore-signal=TERM'] if ignores(self.pid, signal.SIGTERM) else []
        with subprocess.Popen([*ignore, '/bin/cat', path], stdout=subprocess.DEVNULL) as stuck:
            self.host.stuck[self.pid] = stuck.pid
            self.host.held_up.append(path)
            try:
                status = stuck.wait(HANG)
            except subprocess.TimeoutExpired as hang:
                stuck.kill()
                raise Misuse('chmod waits for ever') from hang
            finally:
                del self.host.stuck[self.pid]
        raise Refusal('', 128 - status)

    def add_entry(self, entry, path, name):
        """Adds the rights to the entry of the same user and kind, or a new entry before others of its rank."""
        there = list(self.mac.entries.get(path, ()))
        if sorted(there, key=rank) != there:
            raise Refusal('chmod: The specified file %s does not have an ACL in canonical order' % name)
        for index, one in enumerate(there):
            if one[:2] == entry[:2] and not one[3]:
                rights = one[2].split(',')
                rights += [right for right in entry[2].split(',') if right not in rights]
                there[index] = entry[:2] + (','.join(rights), False)
                break
        else:
            there = sorted([entry] + there, key=rank)
        self.mac.entries[path] = there

    def take_entry(self, entry, path, name):
        """Removes the rights one by one, from inherited entries, too.  Removing an entry shortens the list during
        the walk, so the walk skips the entry after it."""
        there = list(self.mac.entries.get(path, ()))
        index, found = 0, False
        while index < len(there):
            if there[index][:2] == entry[:2]:
                found = True
                taken = entry[2].split(',')
                rights = [right for right in there[index][2].split(',') if right not in taken]
                there[index:index + 1] = [there[index][:2] + (','.join(rights), there[index][3])] \
                    if rights else []
            index += 1
        self.mac.entries[path] = there
        if not there:
            del self.mac.entries[path]
        if not found:
            raise Refusal("chmod: No ACL present '%s'" % name)

    def ls(self, args, _):
        """With -R changes everything in the folder, but not the folder itself."""
        if len(args) != 3 or args[0] not in ('-lqed', '-lqeR') or args[1] != '--':
            raise Misuse
        if args[0] == '-lqeR' and args[2] != '.':
            raise Misuse
        lines = []
        found = [self.path_of(args[2])] if args[0] == '-lqed' else list(everything_in(self.cwd))[1:]
        for path in found:
            name = re.sub('[^ -~]', '?', path)
            lines.append('-rw-------+ 1 bob  staff  0 Jan  1 00:00 ' + name)
            lines.extend(self.mac.entry_lines(path))
        text = '\n'.join(lines) + '\n'
        if args[0] == '-lqeR' and any(below(folder, [self.cwd]) for folder in self.mac.private):
            raise Refusal('ls: private: Operation not permitted', out=text)
        return text

    # -- looking

    def stat(self, args, _):
        """Does not follow links.  If a file is missing, prints the others and fails."""
        formats = {'%d:%i': '{0.st_dev}:{0.st_ino}', '%d:%i %p %u': '{0.st_dev}:{0.st_ino} {0.st_mode:o} {0.st_uid}'}
        if len(args) < 3 or args[0] != '-f' or args[1] not in formats:
            raise Misuse
        lines, missing = [], []
        for name in args[2:]:
            try:
                lines.append(formats[args[1]].format(os.lstat(os.path.join(self.real_cwd, name))))
            except OSError:
                missing.append(name)
        text = ''.join(line + '\n' for line in lines)
        if missing:
            raise Refusal('stat: %s: No such file or directory' % missing[0], out=text)
        return text

    def readlink(self, args, _):
        if len(args) != 2 or args[0] != '-n':
            raise Misuse
        try:
            return os.readlink(os.path.join(self.real_cwd, args[1]))
        except OSError as error:
            raise Refusal('') from error

    # -- find, and what it runs

    def find(self, args, _):
        """Finds real files, and runs its commands on the model.  Its status does not depend on the commands'."""
        if args[:3] != ['-P', '.', '-xdev']:
            raise Misuse
        tests, command, locked = list(args), None, '-flags' in args
        if locked:
            at = tests.index('-flags')
            if tests[at + 1] != '+' + ','.join(sorted(LOCKS)):
                raise Misuse
            del tests[at:at + 2]
        if '-execdir' in tests:
            start, end = tests.index('-execdir'), tests.index(';')
            command = tests[start + 1:end]
            if tests[start - 1] != '!' or tests[end + 1:] != ['-print'] or command[-1] != '{}':
                raise Misuse
            tests = tests[:start - 1] + ['-print0']
        if set(tests[3:]) - FIND_WORDS - set(re.findall(r'\d+', ' '.join(tests))):
            raise Misuse
        if any(below(folder, [self.cwd]) for folder in self.mac.private):
            raise Refusal('find: ./private: Operation not permitted')
        done = subprocess.run(['/usr/bin/find.real', *tests], stdout=subprocess.PIPE, check=False,
                              stderr=subprocess.STDOUT, env={'PATH': '/usr/bin'}, cwd=self.cwd)
        if done.returncode:
            raise Refusal(os.fsdecode(done.stdout))
        if not command:
            return os.fsdecode(done.stdout)
        found = os.fsdecode(done.stdout).split('\0')[:-1]
        return self.run_for_each(command, [path for path in found
                                           if not locked or self.mac.flags.get(self.path_of(path))])

    def run_for_each(self, command, found):
        complaints = ''
        for path in found:
            if self.mac.swap:
                self.mac.swap(self.path_of(path))
            if status_of(self.pid) is None:
                raise ProcessLookupError('killed while it worked')
            try:
                self.run_in_folder(command, path)
            except (Refusal, OSError) as error:
                complaints += '%s\n%s\n' % (error, path)
        return complaints

    def run_in_folder(self, command, path):
        folder, name = os.path.split(self.path_of(path))
        if path == '.':
            folder, name = self.cwd, '.'
        found = os.path.normpath(os.path.join(folder, name))
        if command[0] == '/bin/chmod':
            type(self)(self.mac, self.call, folder, self.host).chmod(command[1:-1] + [name], b'')
        elif command[:2] == ['/bin/dash', '-c'] and '/usr/sbin/chown -h ' in command[2]:
            self.check_change(found, name)
            self.run_shell(command[2], [*command[3:-1], name], folder, found)
        elif command[:-1] == ['/usr/bin/chflags', '-h', ','.join('no' + flag for flag in sorted(LOCKS))]:
            if below(found, self.mac.read_only):
                raise Refusal('%s: Read-only file system' % name)
            self.mac.flags.pop(found, None)
        else:
            raise Misuse

    def run_shell(self, text, args, folder, path):
        """Changes the owner for real, but keeps the set-user-ID and set-group-ID bits."""
        has_pipe = path in self.mac.late_pipes
        text = text.replace('/usr/sbin/chown -h', ': ' if below(path, self.mac.owners_ignored) else KEEPING_CHOWN)
        text = text.replace('/bin/chmod -h', OPENING_CHMOD if has_pipe else '/bin/chmod.real')
        with subprocess.Popen(['/bin/dash', '-c', text, *args], cwd=folder, start_new_session=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as shell:
            if has_pipe:
                self.note_stuck(shell, path)
            try:
                out = shell.communicate(timeout=HANG)[0]
            except subprocess.TimeoutExpired as hang:
                os.killpg(shell.pid, signal.SIGKILL)
                raise Misuse('chmod waits for ever') from hang
            finally:
                self.host.stuck.pop(self.pid, None)
        if shell.returncode:
            raise Refusal(os.fsdecode(out))

    def note_stuck(self, shell, path):
        """Notes the process once its chmod waits at the pipe."""
        while shell.poll() is None and not stat.S_ISFIFO(os.lstat(path).st_mode):
            time.sleep(0.01)
        self.host.held_up.append(path)
        self.host.stuck[self.pid] = shell.pid

    def pgrep(self, args, _):
        """Prints the child of a process; the model knows only children that are stuck."""
        if len(args) != 2 or args[0] != '-P':
            raise Misuse
        stuck = self.host.stuck.get(int(args[1]))
        if stuck is None:
            raise Refusal('')
        return '%d\n' % stuck
