"""A product bundle with the tool, and with recording scripts instead of the real ones.

The tests use the tool's own absolute paths, so they run as root on a throw-away machine
(tools/sandbox.sh).
"""

import errno
import fcntl
import json
import os
import plistlib
import shutil
import subprocess
import sys
import time
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
from throwAway import require_sandbox  # noqa: E402

require_sandbox()
PREFS = Path("/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist")
BUNDLE = Path("/opt/the product's own/Pelago.app")  # a blank and a quote, because paths may have them
SHARES = BUNDLE / "Contents/Library/shares"
STATE = Path("/tmp/toolhost")
SCRIPTS = ("adduser", "addshare", "rmshare", "rmuser")

# Records its arguments, streams and preferences, then runs the test's commands.
SCRIPT = """#!/bin/sh
name=${0##*/}; name=${name%.sh}
call=$(ls /tmp/toolhost/calls | wc -l)
printf '%s\\0' "$0" "$@" >"/tmp/toolhost/calls/$call-$name"
cp "$PREFS" "/tmp/toolhost/calls.prefs/$call" 2>/dev/null
for fd in 0 1 2; do
    [ -e "/proc/$$/fd/$fd" ] || : >"/tmp/toolhost/calls.closed/$call-$fd"
done
if [ -e "$PREFS-lock" ] && ! flock -n "$PREFS-lock" true; then
    : >"/tmp/toolhost/calls.locked/$call"
fi
if [ -e "/tmp/toolhost/$name.do" ]; then . "/tmp/toolhost/$name.do"; fi
exit 0
""".replace("$PREFS", str(PREFS))

FOLDER, SHARE, USER, PASSWORD_FILE, ACCESS = ARGUMENTS = (
    "/srv/a folder", "Docs & more", "alice", "/private/pass word", "rw")

ENABLING = "Enabling Windows File Sharing.\n"
DISABLING = "Disabling Windows File Sharing.\n"
SHARING = f"Sharing {FOLDER} as {SHARE}\n"
WAITING = "Waiting for data or pipe closure to delete share...\n"
CLOSED = "tool deleting share because pipe was closed.\n"
SHARED = "0 is the sharing result (0=ok). Press Enter to delete it and exit:\n"
DELETED = "0 is the delete share result (0=success, nonzero=failure).\n"


def vector(name):
    """Returns the argument vector that a script must be started with."""
    path = str(SHARES / f"{name}.sh")
    return [path] + {
        "adduser": [USER, USER, PASSWORD_FILE],
        "addshare": [USER, PASSWORD_FILE, FOLDER, SHARE, ACCESS],
        "rmshare": [SHARE, FOLDER],
        "rmuser": [USER],
    }[name]


class Call:
    """One run of a script: its name, its arguments, and what it recorded."""

    def __init__(self, path):
        number, self.name = path.name.split("-")
        self.argv = [os.fsdecode(word) for word in path.read_bytes().split(b"\0")[:-1]]
        self.prefs = STATE / "calls.prefs" / number
        self.locked = (STATE / "calls.locked" / number).exists()

    @property
    def services(self):
        return plistlib.loads(self.prefs.read_bytes()).get("EnabledServices")


class ToolCase(unittest.TestCase):
    """Installs the bundle, and preferences in which the SMB service is off."""

    maxDiff = None
    OTHER_KEYS = {"NetBIOSName": "HOST", "MaxClients": 100, "AllowGuestAccess": False}

    def setUp(self):
        for folder in (BUNDLE, STATE, PREFS.parent):
            shutil.rmtree(folder, ignore_errors=True)
            folder.mkdir(parents=True)
        for folder in ("calls", "calls.prefs", "calls.locked", "calls.closed"):
            (STATE / folder).mkdir()
        SHARES.mkdir(parents=True)
        (BUNDLE / "Contents/Library/icu").mkdir()
        (BUNDLE / "Contents/Library/icu/icudt44l.dat").write_bytes(b"")
        for name in SCRIPTS:
            (SHARES / f"{name}.sh").write_text(SCRIPT)
            (SHARES / f"{name}.sh").chmod(0o755)
        self.install(os.environ["PELAGO_TOOL"])
        self.write_prefs()

    def install(self, program):
        self.tool = SHARES / "pelagoShareTool"
        shutil.copy(program, self.tool)

    def write_prefs(self, services=None, **kept):
        """Writes preferences with the given services; for None the key is absent."""
        content = dict(kept or self.OTHER_KEYS)
        if services is not None:
            content["EnabledServices"] = services
        PREFS.write_bytes(plistlib.dumps(content))

    def prefs(self):
        return plistlib.loads(PREFS.read_bytes())

    def services(self):
        return self.prefs().get("EnabledServices")

    def script_does(self, name, body):
        """Sets the shell commands that the script runs after it has recorded its call."""
        (STATE / f"{name}.do").write_text(body)

    def calls(self):
        paths = sorted((STATE / "calls").iterdir(), key=lambda path: int(path.name.split("-")[0]))
        return [Call(path) for path in paths]

    def called(self):
        return [call.name for call in self.calls()]

    def start(self, *arguments, **options):
        return self.start_with(arguments or ARGUMENTS, **options)

    def start_with(self, arguments, **options):
        options = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE} | options
        process = subprocess.Popen([self.tool, *arguments], **options)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.kill()
        process.wait()
        for stream in (process.stdin, process.stdout, process.stderr):
            if stream is not None:
                stream.close()

    def finish(self, process, data=b"", timeout=120):
        """Writes the tool's standard input, closes it, and returns (stdout, stderr, status)."""
        out, err = process.communicate(data, timeout=timeout)
        return tuple(None if text is None else os.fsdecode(text) for text in (out, err)) + (process.returncode,)

    def run_tool(self, *arguments, data=b"", **options):
        return self.finish(self.start(*arguments, **options), data)

    def assertRun(self, outcome, out, err, status):
        self.assertEqual(outcome, (out, err, status))

    def wait_until(self, condition, what, seconds=20):
        deadline = time.monotonic() + seconds
        while not condition():
            if time.monotonic() > deadline:
                self.fail(f"waited in vain: {what}")
            time.sleep(0.005)

    def wait_until_shared(self, process):
        """Reads up to the sharing result, which must come before the tool waits."""
        line = process.stdout.readline()
        if line.decode() != SHARED:
            self.fail(f"{line!r}, and on standard error {self.finish(process)[1]!r}")


def host_number(name):
    """Returns an error's number on the host that the tool was built for: this one, unless a table is named."""
    table = os.environ.get("PELAGO_HOST_NUMBERS")
    return json.loads(Path(table).read_text())[name] if table else getattr(errno, name)


def lock_preferences():
    """Takes the preferences' lock as another process would; closing the file releases it."""
    file = open(f"{PREFS}-lock", "w")
    fcntl.flock(file, fcntl.LOCK_EX)
    return file
