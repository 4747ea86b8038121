"""Runs the JavaScript that a script passes to `osascript -l JavaScript`, in osascript.js."""

import base64
import functools
import json
import os
import subprocess

HERE = os.path.dirname(os.path.abspath(__file__))


class Answer:
    def __init__(self, answer):
        self.status, self.complaint, self.misuses = answer['status'], answer['complaint'], answer['misuses']
        self.passwords = [(one['user'], base64.b64decode(one['password'])) for one in answer['passwords']]


@functools.lru_cache(None)
def interpreter():
    """One process for all programs, because starting it takes longer than they do.  It ends with its standard input."""
    # pylint: disable=consider-using-with
    return subprocess.Popen(['node', HERE + '/osascript.js'], stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE)


def run(program, arguments, stdin, users, refusal=None):
    """Runs the program; not for two threads at once.  USERS are those of the local directory."""
    request = {'program': program, 'arguments': arguments, 'users': list(users), 'refusal': refusal,
               'input': base64.b64encode(stdin).decode()}
    node = interpreter()
    node.stdin.write(json.dumps(request).encode() + b'\n')
    node.stdin.flush()
    line = node.stdout.readline()
    if not line:
        raise RuntimeError('osascript.js has ended')
    return Answer(json.loads(line))
