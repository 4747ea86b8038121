"""Runs a script as the tool does: as a child, with its standard output on its standard error."""

import base64
import contextlib
import json
import os
import subprocess
import sys
import unittest

SHARES = '/tmp/Pelago Test.app/Contents/Library/shares'  # a blank, because paths may have one
HANG = 40  # seconds after which a program counts as hanging; no shorter time is asserted


def write(path, content, mode=None):
    with open(path, 'wb') as file:
        file.write(content if isinstance(content, bytes) else content.encode())
    if mode is not None:
        os.chmod(path, mode)
    return path


def read(path):
    with open(path, 'rb') as file:
        return file.read()


def script_path(name):
    return '%s/%s.sh' % (SHARES, name)


class Result:
    def __init__(self, status, output):
        self.status, self.output = status, output

    def __repr__(self):
        return 'status %d, stderr %r' % (self.status, self.output)


def run_command(argv, **kwargs):
    """A child of this process."""
    kwargs.setdefault('stdin', subprocess.DEVNULL)
    done = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=HANG,
                          check=False, **kwargs)
    return Result(done.returncode, done.stdout.decode(errors='surrogateescape'))


class Session:
    """Another process that runs scripts, as a second tool would, and can be killed."""

    def __init__(self):
        # pylint: disable=consider-using-with
        self.process = subprocess.Popen([sys.executable, os.path.abspath(__file__)],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def begin(self, argv):
        """Starts a script and does not wait for it."""
        self.process.stdin.write(json.dumps([os.fsdecode(arg) for arg in argv]).encode() + b'\n')
        self.process.stdin.flush()

    def run(self, argv):
        self.begin(argv)
        answer = json.loads(self.process.stdout.readline())
        return Result(answer['status'],
                      base64.b64decode(answer['output']).decode(errors='surrogateescape'))

    def kill(self):
        self.process.kill()
        self.close()

    def close(self):
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        self.process.stdout.close()
        self.process.wait(HANG)


class ScriptTest(unittest.TestCase):
    """The base class of the tests of both hosts' scripts."""

    def session(self):
        session = Session()
        self.addCleanup(session.close)
        return session

    def assert_done(self, result):
        self.assertEqual(result.status, 0, result.output)

    def assert_refused(self, result, reason):
        self.assertEqual(result.status, 1, result.output)
        self.assertIn(reason, result.output)


def serve_session():
    for line in sys.stdin.buffer:
        result = run_command([os.fsencode(arg) for arg in json.loads(line)])
        output = base64.b64encode(result.output.encode(errors='surrogateescape')).decode()
        print(json.dumps({'status': result.status, 'output': output}), flush=True)


if __name__ == '__main__':
    serve_session()
