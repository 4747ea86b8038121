"""Provokes faults in a program with strace, and checks that they happened.

strace counts calls per process and per name, so a point is a pair (name, ordinal) of a recorded run.  strace silently
injects nothing into a call that it does not trace, so the call is always traced, too, and its log must show the
injection.  Without -f faults occur only in the program itself, not in its children.
"""

import re
import subprocess
from collections import Counter, namedtuple
from pathlib import Path

LOG = Path("/tmp/strace.log")

# The errors of each call.  EINTR is listed where these programs can receive it.
ERRORS = {
    "access": ["EACCES", "EIO", "ENOMEM"],
    "chdir": ["EACCES", "EIO", "ENOMEM"],
    "chmod": ["EPERM", "EIO", "EROFS"],
    "chown": ["EPERM", "EIO", "EDQUOT"],
    "clone": ["EAGAIN", "ENOMEM"],
    "clone3": ["EAGAIN", "ENOMEM"],
    "close": ["EIO"],
    "connect": ["ECONNREFUSED", "EAGAIN", "EINTR"],
    "creat": ["EACCES", "EMFILE", "ENFILE", "ENOMEM", "ENOSPC", "EDQUOT", "EIO"],
    "dup2": ["EINTR"],
    "dup3": ["EINTR"],
    "execve": ["EACCES", "EIO", "ENOMEM", "ETXTBSY"],
    "fchmod": ["EPERM", "EIO"],
    "fchown": ["EPERM", "EIO", "EDQUOT"],
    "fgetxattr": ["ENODATA", "EOPNOTSUPP", "EIO"],
    "flock": ["ENOLCK", "EINTR"],
    "fork": ["EAGAIN", "ENOMEM"],
    "fsetxattr": ["EOPNOTSUPP", "ENOSPC", "EDQUOT", "EIO"],
    "fstat": ["EIO", "ENOMEM"],
    "fsync": ["EIO", "ENOSPC", "EDQUOT"],
    "ftruncate": ["EIO"],
    "getdents64": ["EIO", "ENOMEM"],
    "getrandom": ["EAGAIN"],
    "ioctl": ["EIO"],
    "kill": ["EPERM"],
    "lchown": ["EPERM", "EIO", "EDQUOT"],
    "link": ["EXDEV", "EMLINK", "ENOSPC", "EIO"],
    "lseek": ["ESPIPE"],
    "mkdir": ["EACCES", "ENOSPC", "EDQUOT", "EIO"],
    "mknodat": ["EPERM", "ENOSPC", "EDQUOT", "EIO"],
    "mmap": ["ENOMEM"],
    "mprotect": ["ENOMEM"],
    "munmap": ["ENOMEM"],
    "newfstatat": ["EIO", "EACCES", "ENOMEM"],
    "open": ["EACCES", "EMFILE", "ENFILE", "ENOMEM", "ENOSPC", "EDQUOT", "EIO"],
    "openat": ["EACCES", "EMFILE", "ENFILE", "ENOMEM", "ENOSPC", "EDQUOT", "EIO"],
    "pipe2": ["EMFILE", "ENFILE"],
    "pread64": ["EIO"],
    "read": ["EIO", "EINTR"],
    "readlink": ["EACCES", "EIO", "ENOMEM"],
    "readlinkat": ["EACCES", "EIO", "ENOMEM"],
    "rename": ["ENOSPC", "EDQUOT", "EXDEV", "EACCES", "ENOMEM", "EIO"],
    "renameat": ["ENOSPC", "EDQUOT", "EXDEV", "EACCES", "ENOMEM", "EIO"],
    "renameat2": ["ENOSPC", "EDQUOT", "EXDEV", "EACCES", "ENOMEM", "EIO"],
    "rmdir": ["EBUSY", "EIO", "ENOMEM"],
    "rseq": ["ENOSYS"],
    "socket": ["EAFNOSUPPORT", "EMFILE", "ENFILE", "ENOMEM"],
    "stat": ["EIO", "EACCES", "ENOMEM"],
    "statfs": ["EIO", "ENOMEM", "ENOSYS"],
    "symlink": ["EACCES", "ENOSPC", "EDQUOT", "EIO"],
    "truncate": ["EPERM", "EIO", "EFBIG"],
    "unlink": ["EIO", "EACCES", "ENOMEM"],
    "unlinkat": ["EIO", "EACCES", "ENOMEM"],
    "utimensat": ["EPERM", "EACCES", "EROFS"],
    "vfork": ["EAGAIN", "ENOMEM"],
    "wait4": ["EINTR"],
    "write": ["ENOSPC", "EDQUOT", "EIO", "EINTR"],
}
# Calls that cannot fail with the arguments of these programs.  (brk reports a failure by its result, not by an error
# number; other tests refuse allocations instead.)
CANNOT_FAIL = {"arch_prctl", "brk", "exit_group", "fcntl", "futex", "getegid", "geteuid", "getgid", "getpid", "getuid",
               "prctl", "prlimit64", "rt_sigaction", "rt_sigprocmask", "rt_sigreturn", "set_robust_list",
               "set_tid_address"}


class Point(namedtuple("Point", "name ordinal line")):
    """One call of a recorded run; line is strace's line about it."""

    @property
    def errors(self):
        """The errors that the call may fail with.  A call that is in neither table raises AssertionError."""
        if self.name not in ERRORS and self.name not in CANNOT_FAIL:
            raise AssertionError(f"no errors are known for {self.line}")
        return ERRORS.get(self.name, [])

    @property
    def result(self):
        """The call's result if it is a number of 0 or more, else None."""
        match = re.search(r" = (\d+)$", self.line)
        return int(match[1]) if match else None


def read_log():
    """Returns the calls of the last traced run, in order, as points."""
    counts = Counter()
    found = []
    lines = LOG.read_text(errors="replace").splitlines()
    # The first execve is made by strace, which does not count it.
    for line in lines[1:] if lines and lines[0].startswith("execve(") else lines:
        if match := re.match(r"(\w+)\(", line):
            counts[match[1]] += 1
            found.append(Point(match[1], counts[match[1]], line))
    return found


def tracing(*selection):
    """Returns the words to put before a command to trace it; selection is further options of strace."""
    return ["strace", "-qq", "-o", LOG, *selection]


def recorded(command, *selection, **options):
    """Runs the command without faults, and returns its points."""
    subprocess.run([*tracing(*selection), *command], **{"check": True} | options)
    return read_log()


def injecting(names, what, *selection, also=()):
    """Returns the words to put before a command to trace these calls and inject what into them; also lists further
    calls to trace."""
    return tracing(*selection, "-e", f"trace={','.join((names, *also))}", "-e", f"inject={names}:{what}")


def was_injected():
    return "(INJECTED)" in LOG.read_text(errors="replace")


def killed_at(point, command, **options):
    """Kills the program when it enters the call; returns whether that happened."""
    name, ordinal = point[:2]
    done = subprocess.run([*injecting(name, f"signal=KILL:when={ordinal}"), *command], **options)
    return done.returncode == -9


def failing_at(names, ordinal, error, command, *selection, **options):
    """Makes a call fail, and returns the finished process.  Raises AssertionError when nothing was injected."""
    when = f":when={ordinal}" if ordinal else ""
    LOG.unlink(missing_ok=True)  # the log of an earlier run must not count for this one
    done = subprocess.run([*injecting(names, f"error={error}{when}", *selection), *command], **options)
    if not was_injected():
        raise AssertionError(f"{names}:{ordinal} was never reached")
    return done
