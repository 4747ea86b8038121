"""The machines that tools/otherMachines.sh makes differ as documented, as do the throw-away machines made on them,
and this machine does not change.  A stand-in for ctest replaces the suite."""

import os
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
OTHER_MACHINES = ROOT / "tools/otherMachines.sh"
SANDBOX = ROOT / "tools/sandbox.sh"


class OtherMachines(unittest.TestCase):
    def run_on(self, machine, suite, *arguments, **programs):
        """Runs the script with this ctest and with these programs before the machine's own."""
        with tempfile.TemporaryDirectory() as folder:
            for name, text in {"ctest": suite, **programs}.items():
                Path(folder, name).write_text("#!/bin/sh -eu\n" + text)
                Path(folder, name).chmod(0o755)
            environment = os.environ | {"PATH": f"{folder}:{os.environ['PATH']}"}
            return subprocess.run([OTHER_MACHINES, machine, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                                  text=True, timeout=120, env=environment)

    def assertThere(self, machine, command, expected):
        """Returns the command's output on that machine, and on a throw-away machine made there."""
        done = self.run_on(machine, f"{command}\n{SANDBOX} sh -euc '{command}'\n")
        self.assertEqual((done.returncode, done.stdout), (0, f"\n== {machine} ==\n" + 2 * f"{expected}\n"), done.stderr)

    def test_another_name(self):
        here = os.uname().nodename
        self.assertThere("hostName", "hostname", "another-host.example.org")
        self.assertEqual(os.uname().nodename, here)

    def test_another_time_zone(self):
        self.assertThere("timeZone", "date +%Z", "+0545")

    def test_other_languages(self):
        for machine, date in (("comma", "Sonntag"), ("turkish", "Pazar")):
            self.assertThere(machine, "date -d 2026-11-22 +%A; /usr/bin/printf \"%.1f\\n\" 1,5", f"{date}\n1,5")

    def test_other_accounts(self):
        before = Path("/etc/passwd").read_bytes()
        self.assertThere("users", "id -un; id -u toor; getent passwd blanks | cut -d: -f6; id -un 713000",
                         "root\n0\n/home/with a blank\nuser3000")
        self.assertEqual(Path("/etc/passwd").read_bytes(), before)

    def test_no_ipv6(self):
        ask = 'python3 -c "import socket\ntry: socket.socket(socket.AF_INET6).bind((\\"::1\\", 0))\nexcept OSError: print(\\"none\\")"'
        self.assertThere("noIPv6", ask, "none")

    def test_other_numbers_of_processors(self):
        for count in (1, 3, 4, 64):
            self.assertThere(f"processors{count}", "getconf _NPROCESSORS_ONLN; getconf _NPROCESSORS_CONF; "
                             "grep -c ^processor /proc/cpuinfo", f"{count}\n{count}\n{count}")
        self.assertThere("processors1", "nproc", "1")

    def test_a_slow_disk(self):
        self.assertThere("slowDisk", "grep -c slowDisk.so /proc/self/maps >/dev/null && echo slow", "slow")

    def test_busy_processors(self):
        count = "ps -e -o stat=,args= | grep -c '^R.*otherMachines.sh [b]usy' || :"
        done = self.run_on("busy", f"sleep 0.2\n{count}\n")
        self.assertEqual(done.stdout, "\n== busy ==\n4\n", done.stderr)
        left = subprocess.run(["sh", "-c", count], capture_output=True, text=True)
        self.assertEqual(left.stdout, "0\n")

    def test_what_is_asked_of_the_suite(self):
        done = self.run_on("hostName", 'echo "$*"\n', "--", "-R", "some")
        self.assertRegex(done.stdout, r"--preset dev --parallel \d+ -R some\n")

    def test_a_failure_is_named(self):
        done = self.run_on("hostName", '[ "$(hostname)" != another-host.example.org ]\n', "timeZone")
        self.assertEqual((done.returncode, done.stdout.splitlines()[-1]), (1, "== FAILED: hostName =="))

    def test_runs_nothing_when_a_machine_cannot_be_made(self):
        for machine, program in (("slowDisk", "cc"), ("hostName", "hostname"), ("processors3", "mount")):
            done = self.run_on(machine, "echo run\n", **{program: "exit 1\n"})
            self.assertEqual((done.returncode, done.stdout.split("\n")[1:-1]),
                             (1, [f"== {machine} ==", "", f"== FAILED: {machine} =="]), done.stderr)

    def test_an_unknown_machine(self):
        done = self.run_on("Mars", "true\n")
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertIn("there are these machines: hostName ", done.stderr)


if __name__ == "__main__":
    unittest.main()
