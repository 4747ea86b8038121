"""Runs a script as its caller does: as a child, with its standard output on its standard error."""

import base64
import contextlib
import json
import os
import subprocess
import sys

HANG = 40  # seconds after which something hangs; nothing is asserted about times below it


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
    """Another process that runs scripts: a second tool, which can be killed."""

    def __init__(self):
        # pylint: disable=consider-using-with
        self.process = subprocess.Popen([sys.executable, os.path.abspath(__file__)],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def start(self, argv):
        self.process.stdin.write(json.dumps([os.fsdecode(arg) for arg in argv]).encode() + b'\n')
        self.process.stdin.flush()

    def finish(self):
        answer = json.loads(self.process.stdout.readline())
        return Result(answer['status'],
                      base64.b64decode(answer['output']).decode(errors='surrogateescape'))

    def run(self, *call):
        self.start(*call)
        return self.finish()

    def kill(self):
        self.process.kill()
        self.close()

    def close(self):
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        self.process.stdout.close()
        self.process.wait(HANG)


def serve_session():
    for line in sys.stdin.buffer:
        result = run_command([os.fsencode(arg) for arg in json.loads(line)])
        output = base64.b64encode(result.output.encode(errors='surrogateescape')).decode()
        print(json.dumps({'status': result.status, 'output': output}), flush=True)


if __name__ == '__main__':
    serve_session()
