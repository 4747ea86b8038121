#!/usr/bin/env python3
"""shareWhile.py -- an example caller: shares a folder for as long as a command runs.

    shareWhile.py TOOL FOLDER SHARE USER PASSWORD_FILE rw|ro COMMAND [ARG...]

Does in Python 3.11 what shareWhile.cpp does: starts TOOL with a pipe on each of its standard streams, waits for its
sharing result, runs COMMAND, closes the tool's standard input and reads how the clean-up went.  Each line of the
tool's is shown as it comes, marked with its stream.  Exit status: COMMAND's (1 when a signal ended it, 127 when it
cannot be started) if the tool shared and cleaned up; 1 if it did not; 2 for wrong arguments.
"""

import os
import re
import signal
import subprocess
import sys
import threading

RESULT = re.compile(rb"(\d+) is the (sharing|delete share) result")


def show(mark, line):
    try:
        os.write(1, mark + b"| " + line.rstrip(b"\n") + b"\n")
    except OSError:
        pass  # the tool's output is read on, or the tool would wait for us


def show_all(mark, stream):
    for line in stream:
        show(mark, line)


def run(command):
    """The command's exit status.  It inherits none of the tool's pipes: subprocess closes them in every child."""
    try:
        status = subprocess.run(command).returncode
        return status if status >= 0 else 1
    except OSError as error:
        print(f"{command[0]}: {error.strerror}", file=sys.stderr)
        return 127


class Share:
    """One session of the tool's, and the command that runs meanwhile."""

    def __init__(self, tool, command):
        self.command, self.command_status, self.user = command, 1, None
        self.results = {}
        # A process group of its own: Ctrl-C is to end this program, and the closing pipe then ends the share.
        self.tool = subprocess.Popen(tool, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     process_group=0)

    def use(self):
        self.command_status = run(self.command)
        self.tool.stdin.close()  # this ends the share

    def take(self, line):
        """Only standard output is the protocol; anybody may write to standard error."""
        show(b"stdout", line)
        found = RESULT.match(line)
        if found is None:
            return
        self.results[found[2]] = int(found[1])
        if found[2] == b"sharing" and int(found[1]) == 0 and self.user is None:
            self.user = threading.Thread(target=self.use)
            self.user.start()

    def serve(self):
        """Reads both streams to their ends; returns this program's exit status."""
        errors = threading.Thread(target=show_all, args=(b"stderr", self.tool.stderr))
        errors.start()
        for line in self.tool.stdout:
            self.take(line)
        errors.join()
        if self.user is not None:
            self.user.join()
        is_whole = self.tool.wait() == 0 and self.results == {b"sharing": 0, b"delete share": 0}
        return self.command_status if is_whole else 1


def open_closed_streams():
    """Opens /dev/null for each standard stream that is closed: else a pipe of the tool's would get its number."""
    for fd in range(3):
        try:
            os.fstat(fd)
        except OSError:
            os.open(os.devnull, os.O_RDWR)  # gets the lowest free number, which is fd


def main(arguments):
    open_closed_streams()
    if len(arguments) < 7:
        print("usage: shareWhile.py TOOL FOLDER SHARE USER PASSWORD_FILE rw|ro COMMAND...", file=sys.stderr)
        return 2
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    signal.signal(signal.SIGCHLD, signal.SIG_DFL)  # where it is ignored, no child's exit status can be had
    try:
        return Share(arguments[:6], arguments[6:]).serve()
    except OSError as error:
        print(f"{arguments[0]}: {error.strerror}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
