"""The whole product: the tool, its scripts, the service switch, a real Samba and a client."""

import os
import shutil
import signal
import subprocess
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "scripts"))
import sambahost  # noqa: E402
from toolhost import (CLOSED, DELETED, DISABLING, ENABLING, PREFS, WAITING, ToolCase)  # noqa: E402

BUNDLE = Path("/opt/the real/Pelago.app")
PASSWORD = "p\u00e4ss \"word\" $HOME"


switch = None


def setUpModule():
    global switch
    sambahost.set_up()
    shutil.copytree(Path(os.environ["PELAGO_LIBRARY"]).parents[1], BUNDLE)
    shutil.copy(os.environ["PELAGO_TOOL"], BUNDLE / "Contents/Library/shares/pelagoShareTool")
    PREFS.parent.mkdir(parents=True, exist_ok=True)
    switch = subprocess.Popen([BUNDLE / "Contents/Library/host/pelagoHost", "switch"])
    sambahost.command("useradd", "--no-create-home", "owner")


def tearDownModule():
    switch.terminate()
    switch.wait()


class RealCase(ToolCase):
    def setUp(self):
        sambahost.watch_for_a_hang(self)
        self.addCleanup(sambahost.wipe)
        self.write_prefs(["print"])
        self.wait_until(lambda: not sambahost.answers(), "smbd to be off")
        self.tool = BUNDLE / "Contents/Library/shares/pelagoShareTool"
        self.place = Path("/srv/e2e")
        shutil.rmtree(self.place, ignore_errors=True)
        self.folder = self.place / "a folder; 100% $private"
        self.folder.mkdir(parents=True)
        (self.folder / "f").write_text("the content\n")
        for path in (self.folder, self.folder / "f"):
            shutil.chown(path, "owner")
        self.folder.chmod(0o700)
        self.password_file = self.place / "password"
        self.password_file.write_text(PASSWORD)
        self.password_file.chmod(0o600)
        self.accounts = Path("/etc/passwd").read_bytes(), sambahost.command("pdbedit", "-L")

    def share(self, share="Docs", user="alice", access="rw", password_file=None):
        process = self.start(str(self.folder), share, user, str(password_file or self.password_file), access)
        self.wait_until_shared(process)
        return process

    def fetch(self, share="Docs", user="alice", password=PASSWORD):
        return sambahost.client(user, password, share, f"get f {self.place}/got")

    def assertFetched(self, *arguments):
        status, output = self.fetch(*arguments)
        self.assertEqual(status, 0, output)
        self.assertEqual((self.place / "got").read_text(), "the content\n")

    def assertRefused(self, outcome, reason):
        status, output = outcome
        self.assertNotEqual(status, 0)
        self.assertIn(reason, output)

    def assertNothingLeft(self):
        self.assertEqual((Path("/etc/passwd").read_bytes(), sambahost.command("pdbedit", "-L")), self.accounts)
        self.assertEqual(sambahost.command("net", "conf", "listshares").strip(), "")
        self.wait_until(lambda: not list(Path("/run/pelago").glob("*/*")), "the records to go")
        self.assertEqual(sorted(os.listdir(PREFS.parent)), [PREFS.name])


class Sharing(RealCase):
    def test_a_session_serves_its_client_and_leaves_nothing(self):
        before = self.prefs()
        self.assertRefused(self.fetch(), "NT_STATUS_CONNECTION_REFUSED")
        process = self.share()
        self.assertEqual(self.services(), ["print", "disk"])
        self.assertFetched()
        self.assertRefused(self.fetch(password="wrong"), "NT_STATUS_LOGON_FAILURE")
        self.assertRefused(sambahost.client("", "", "Docs", "ls"), "NT_STATUS_ACCESS_DENIED")
        self.assertRefused(self.fetch(share="Other"), "NT_STATUS_BAD_NETWORK_NAME")
        out, err, status = self.finish(process)
        self.assertEqual((out, status), (DELETED, 0), err)
        self.assertEqual(err, ENABLING + f"Sharing {self.folder} as Docs\n" + WAITING + CLOSED + DISABLING)
        self.assertEqual(self.prefs(), before)
        self.wait_until(lambda: self.fetch()[1].count("NT_STATUS_CONNECTION_REFUSED"), "smbd to be off")
        self.assertNothingLeft()

    def test_another_user_is_refused(self):
        bob_s = self.place / "bob's"
        bob_s.write_text("bob's word\n")
        bob_s.chmod(0o600)
        first = self.share()
        second = self.share("Bobs", "bob", password_file=bob_s)
        self.assertRefused(self.fetch("Docs", "bob", "bob's word"), "NT_STATUS_ACCESS_DENIED")
        self.assertRefused(self.fetch("Bobs", "alice"), "NT_STATUS_ACCESS_DENIED")
        self.assertFetched("Bobs", "bob", "bob's word")
        self.assertEqual(self.finish(second)[::2], (DELETED, 0))
        self.assertFetched()
        self.assertEqual(self.finish(first)[::2], (DELETED, 0))
        self.assertNothingLeft()

    def test_access(self):
        for access, reason in (("rw", None), ("ro", "NT_STATUS_ACCESS_DENIED")):
            with self.subTest(access):
                process = self.share(access=access)
                outcome = sambahost.client("alice", PASSWORD, "Docs", f"put {self.password_file} {access}")
                if reason is None:
                    self.assertEqual(outcome[0], 0, outcome[1])
                    self.assertEqual((self.folder / "rw").owner(), "owner")
                else:
                    self.assertRefused(outcome, reason)
                self.assertEqual(self.finish(process)[2], 0)

    def test_a_connected_client_is_cut_off(self):
        process = self.share()
        client = sambahost.ConnectedClient("alice", PASSWORD, "Docs")
        self.addCleanup(client.close)
        self.assertIn("f  ", client.ask("ls"))
        self.assertEqual(self.finish(process)[2], 0)
        self.assertRegex(client.ask("ls"), "NT_STATUS_|not connected")
        self.assertNothingLeft()


class Failing(RealCase):
    def test_an_unknown_access(self):
        out, err, status = self.run_tool(str(self.folder), "Docs", "alice", str(self.password_file), "all")
        self.assertEqual((out, status), ("1 is the sharing result (0=ok). Exiting.\n", 1))
        self.assertIn("neither rw nor ro", err)
        self.assertEqual(self.services(), ["print"])
        self.assertNothingLeft()

    def test_a_user_of_the_host(self):
        out, err, status = self.run_tool(str(self.folder), "Docs", "owner", str(self.password_file), "rw")
        self.assertEqual((out, status), ("1 - failed to create user owner\n", 1))
        self.assertIn("exists already", err)
        self.assertEqual(self.services(), ["print"])
        self.assertEqual(Path("/etc/passwd").read_bytes(), self.accounts[0])

    def test_no_password_file(self):
        out, err, status = self.run_tool(str(self.folder), "Docs", "alice", "/nonexistent", "rw")
        self.assertEqual((out, status), ("1 - failed to create user alice\n", 1))
        self.assertEqual(self.services(), ["print"])
        self.assertNothingLeft()


class Dying(RealCase):
    def test_a_caller_that_is_killed(self):
        caller = subprocess.Popen(
            [os.environ["PELAGO_SHARE_WHILE"], self.tool, self.folder, "Docs", "alice", self.password_file, "rw",
             "sleep", "600"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, start_new_session=True)
        self.addCleanup(self.end, caller)
        for line in caller.stdout:
            if b"sharing result" in line:
                break
        self.assertFetched()
        os.killpg(caller.pid, signal.SIGKILL)
        self.wait_until(lambda: not sambahost.user_exists("alice"), "the clean-up")
        self.wait_until(lambda: not Path(f"{PREFS}-lock").exists(), "the lock given back")
        self.assertEqual(self.services(), ["print"])
        self.assertNothingLeft()

    def test_next_tool_clears_up_after_a_killed_one(self):
        process = self.share()
        process.kill()
        process.wait()
        process = self.share()
        self.assertFetched()
        self.assertEqual(self.finish(process)[::2], (DELETED, 0))
        self.assertEqual(self.services(), ["print"], "the second one takes the first one's away, too")
        self.assertNothingLeft()


class Secrecy(RealCase):
    def test_password_is_in_no_argument_or_environment(self):
        log = self.place / "trace"
        out = subprocess.run(
            ["strace", "-f", "-v", "-s", "100000", "-e", "trace=execve", "-o", log, self.tool, self.folder, "Docs",
             "alice", self.password_file, "rw"], stdin=subprocess.DEVNULL, capture_output=True, text=True,
            env=os.environ | {name: "exported" for name in ("password", "passwordOctal", "pw", "line")}
            | {"ASAN_OPTIONS": "detect_leaks=0"})  # the leak checker cannot run under strace
        self.assertEqual(out.returncode, 0, out.stderr)
        trace = log.read_text(errors="replace")
        for program in ("useradd", "sambaAccount.py", "net", "userdel"):
            self.assertRegex(trace, rf'execve\([^\n]*{program}')
        octal = "".join(f"\\{byte:o}" if byte >= 128 else chr(byte).replace('"', '\\"') for byte in PASSWORD.encode())
        self.assertNotIn(octal, trace)
        for part in ("word\\\" $HOME", "\\\"word", "$HOME"):
            self.assertNotIn(part, trace)
        self.assertNotIn(" 160 303", trace, "nor as octal numbers")


if __name__ == "__main__":
    unittest.main()
