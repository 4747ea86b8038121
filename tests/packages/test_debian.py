"""The Debian packages: installed, used for one real session, and removed without a trace."""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent / "scripts"), str(HERE.parent / "tool")]
import sambahost  # noqa: E402
from toolhost import DELETED, SHARED  # noqa: E402

BUILD = os.environ["PELAGO_BUILD"]
UNIT = Path("/usr/lib/systemd/system/pelago-smb-switch.service")
# What dpkg keeps of itself, and what every program may touch.
NOT_OURS = ("/var/lib/dpkg", "/var/log", "/var/cache", "/run", "/tmp", "/proc", "/sys", "/dev")


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, **options)


def files():
    found = set()
    for folder, folders, names in os.walk("/"):
        folders[:] = [name for name in folders if not os.path.join(folder, name).startswith((*NOT_OURS, BUILD))]
        found.update(os.path.join(folder, name) for name in folders + names)
    return found


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        sambahost.set_up()
        cls.folder = Path(tempfile.mkdtemp())
        done = run("cpack", "--config", f"{BUILD}/CPackConfig.cmake", "-B", cls.folder)
        assert done.returncode == 0, done.stdout + done.stderr
        cls.tool, = cls.folder.glob("pelago-share-tool_*_amd64.deb")
        cls.library, = cls.folder.glob("libpelago-foundation-dev_*_amd64.deb")

    def dpkg(self, *arguments):
        done = run("dpkg", *arguments)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def test_each_says_what_it_needs(self):
        needs = self.dpkg("--field", self.tool, "Depends")
        for package in ("samba", "inotify-tools", "libc6", "libplist3"):
            self.assertRegex(needs, rf"\b{package}\b")
        self.assertNotIn("libicu", needs, "ICU is inside the tool")
        self.assertIn("libicu-dev", self.dpkg("--field", self.library, "Depends"))

    def test_holds_nothing_but_its_own_folders(self):
        places = [line.split()[5] for line in self.dpkg("--contents", self.tool).splitlines()]
        files = [place for place in places if not place.endswith("/")]
        self.assertIn("./usr/sbin/pelagoShareTool", files)
        for place in files:
            self.assertRegex(place, r"^\./usr/(sbin/pelagoShareTool$|lib/pelago/Pelago\.app/|share/man/man8/"
                                    r"|lib/systemd/system/pelago-smb-switch\.service$|share/doc/)")

    def test_installs_runs_and_removes(self):
        before = files()
        self.dpkg("--install", self.tool)
        self.addCleanup(run, "dpkg", "--purge", "pelago-share-tool")
        self.assertEqual(self.dpkg("--verify", "pelago-share-tool"), "")
        program = next(line for line in UNIT.read_text().splitlines() if line.startswith("ExecStart="))
        switch = Path(program.removeprefix("ExecStart="))
        self.assertTrue(os.access(switch, os.X_OK), switch)
        self.assertEqual(run("systemd-analyze", "verify", "--man=no", UNIT).stderr, "")

        usage = run("pelagoShareTool")
        self.assertEqual((usage.returncode, usage.stdout[:16]), (2, "2 - usage error."))
        self.session(switch)

        self.dpkg("--remove", "pelago-share-tool")
        self.dpkg("--purge", "pelago-share-tool")
        self.assertEqual(self.dpkg("--audit"), "")
        self.assertEqual({path for path in files() - before if "pelago" in path.lower()}, set())

    def session(self, switch):
        preferences = Path("/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist")
        preferences.parent.mkdir(parents=True, exist_ok=True)
        preferences.write_text('<plist version="1.0"><dict></dict></plist>')
        folder, password = Path("/srv/shared"), Path("/root/password")
        folder.mkdir(parents=True)
        sambahost.command("useradd", "--no-create-home", "owner")
        (folder / "f").write_text("the content\n")
        for path in (folder, folder / "f"):
            os.chown(path, *(int(sambahost.command("id", flag, "owner")) for flag in ("-u", "-g")))
        password.write_text("secret\n")
        self.addCleanup(sambahost.wipe)
        watcher = subprocess.Popen([switch], stderr=subprocess.DEVNULL)
        try:
            tool = subprocess.Popen(["pelagoShareTool", folder, "Docs", "alice", password, "ro"], text=True,
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            self.assertEqual(tool.stdout.readline(), SHARED)
            status, output = sambahost.client("alice", "secret", "Docs", "get f /tmp/got")
            self.assertEqual(status, 0, output)
            out, _ = tool.communicate(timeout=60)
            self.assertEqual((out, tool.returncode), (DELETED, 0))
            sambahost.wait_until(lambda: not sambahost.answers(), "smbd to be off")
        finally:
            watcher.terminate()
            watcher.wait()
        preferences.unlink()


if __name__ == "__main__":
    unittest.main()
