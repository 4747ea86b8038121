"""Commands in tools/sandbox.sh leave nothing on this machine, and find a working one inside.

Each test tries to leave something, in a way that harms nobody should it succeed, and looks here afterwards.
"""

import contextlib
import os
import pty
import shutil
import socket
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SANDBOX = ROOT / "tools/sandbox.sh"
UNIQUE = f"pelago-sandbox-{os.getpid()}"
DEVICES = ["full", "null", "random", "tty", "urandom", "zero"]  # besides terminals


def inside(*command, **options):
    return subprocess.run([SANDBOX, *command], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120,
                          **options)


class Case(unittest.TestCase):
    def output_of(self, *command):
        """Runs a command inside, which must succeed, and returns its output."""
        done = inside(*command)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def shell(self, script):
        return self.output_of("sh", "-euc", script)

    def python(self, script):
        return self.output_of("python3", "-c", script)


class Leaks(Case):
    def assertStaysInside(self, path):
        self.addCleanup(Path(path).unlink, missing_ok=True)
        self.assertEqual(self.shell(f"echo kept >{path}; cat {path}"), "kept\n")
        self.assertFalse(os.path.exists(path), path)

    def test_files(self):
        for folder in ("/etc", "/var/lib", "/run", "/tmp", "/dev", "/dev/shm", ROOT):
            with self.subTest(folder):
                self.assertStaysInside(f"{folder}/{UNIQUE}")

    def test_shared_memory_is_another_one(self):
        here = Path("/dev/shm", UNIQUE)
        here.touch()
        self.addCleanup(here.unlink)
        self.assertEqual(self.shell("ls -A /dev/shm"), "")

    def test_message_queues_and_shared_memory_of_system_v(self):
        def listed():
            return subprocess.run(["ipcs", "-q", "-m"], capture_output=True, text=True, check=True).stdout
        before = listed()
        made = self.shell("ipcmk -Q >&2; ipcmk -M 4096 >&2; ipcs -q -m")
        self.assertEqual(made.count("0x"), 2, made)
        self.assertEqual(listed(), before)

    def test_message_queues_of_posix(self):
        script = f"""
import ctypes, os
libc = ctypes.CDLL(None, use_errno=True)
print(libc.mq_open(b"/{UNIQUE}", os.O_RDWR | os.O_CREAT%s, 0o600, None) >= 0)"""
        # Made twice: the second sandbox must not see the first one's queue.
        for _ in range(2):
            self.assertEqual(self.python(script % " | os.O_EXCL"), "True\n")
        here = subprocess.run(["python3", "-c", script.replace(" | os.O_CREAT", "") % ""], capture_output=True, text=True)
        self.assertEqual(here.stdout, "False\n", here.stderr)

    def test_the_host_name(self):
        before = socket.gethostname()
        self.addCleanup(lambda: socket.gethostname() == before or socket.sethostname(before))
        self.assertEqual(self.shell("hostname; hostname thrown-away; hostname"), f"{before}\nthrown-away\n")
        self.assertEqual(socket.gethostname(), before)

    def test_the_kernels_settings_can_be_read_only(self):
        # A process's own settings are writable.
        find = "find /proc /sys -path '/proc/[0-9]*' -prune -o -type f -perm /222 %s -print 2>/dev/null || :"
        self.assertEqual(self.shell(find % "-writable"), "")
        self.assertIn("/proc/sys/vm/swappiness\n", self.shell(find % ""))
        # Writes the present value, so that nothing changes if the write succeeds.
        for path in ("/proc/sys/vm/swappiness", "/proc/sys/kernel/domainname", "/sys/kernel/mm/ksm/run"):
            with self.subTest(path):
                self.assertTrue(os.path.exists(path))
                done = inside("sh", "-c", f"value=$(cat {path}) && echo \"$value\" >{path}")
                self.assertNotEqual(done.returncode, 0)
                self.assertIn("Read-only file system", done.stderr)
        self.assertEqual(self.shell("echo 7 >/proc/self/oom_score_adj; cat /proc/self/oom_score_adj"), "7\n")

    def test_the_clock_and_the_log(self):
        # Sets the present time and level, so that nothing changes if that succeeds.
        answers = self.python("""
import ctypes, errno, time
libc = ctypes.CDLL(None, use_errno=True)
try:
    time.clock_settime(time.CLOCK_REALTIME, time.time())
except PermissionError:
    print("no clock")
level = int(open("/proc/sys/kernel/printk").read().split()[0])
if libc.klogctl(8, None, level) == -1 and ctypes.get_errno() == errno.EPERM:
    print("no log")
print(time.time())""").split("\n")
        self.assertEqual(answers[:2], ["no clock", "no log"])
        self.assertLess(abs(float(answers[2]) - time.time()), 60)

    def test_the_rights_that_modules_and_ports_take(self):
        rights = int(self.shell("sed -n 's/^CapBnd:\\s*//p' /proc/self/status"), 16)
        CAP_CHOWN, CAP_SYS_MODULE, CAP_SYS_RAWIO = 1 << 0, 1 << 16, 1 << 17
        self.assertEqual(rights & (CAP_CHOWN | CAP_SYS_MODULE | CAP_SYS_RAWIO), CAP_CHOWN)

    def test_terminals(self):
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        self.addCleanup(os.close, slave)
        self.assertEqual(self.shell("ls /dev/pts"), "ptmx\n")
        before = os.listdir("/dev/pts")
        made = self.python("import os, pty; _, slave = pty.openpty(); print(os.ttyname(slave)); "
                           "os.chmod(os.ttyname(slave), 0); print(os.listdir('/dev/pts'))")
        self.assertTrue(made.startswith("/dev/pts/0\n"), made)
        self.assertEqual(os.listdir("/dev/pts"), before)

    def test_no_device_that_keeps_anything(self):
        found = self.shell("find /dev ! -path '/dev/pts/*' \\( -type b -o -type c \\) -printf '%f\\n'")
        self.assertEqual(sorted(found.split()), DEVICES)

    def test_processes_die_with_it(self):
        seconds = str(1000000 + os.getpid())

        def runs():
            for path in Path("/proc").glob("[0-9]*/cmdline"):
                with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                    if path.read_bytes() == f"sleep\0{seconds}\0".encode():
                        return True
            return False
        script = f"setsid sleep {seconds} >/dev/null 2>&1 & until pgrep -f '^sleep {seconds}'; do :; done"
        self.assertNotEqual(self.shell(script), "")
        self.assertFalse(runs())

    def test_the_network(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            port = server.getsockname()[1]
            done = inside("python3", "-c", f"import socket; socket.create_connection(('127.0.0.1', {port}))")
            self.assertIn("ConnectionRefusedError", done.stderr)
        self.assertEqual(self.shell("ls /sys/class/net"), "lo\n")


class Works(Case):
    def test_users_and_samba(self):
        before = Path("/etc/passwd").read_bytes()
        listed = self.shell(f"""
mkdir -p /run/samba /var/log/samba /var/cache/samba /var/lib/samba/private
cp {ROOT}/examples/smb.conf /etc/samba/smb.conf
useradd alice
printf 'word\\nword\\n' | smbpasswd -s -a alice >&2
smbd -D
until smbcontrol -t 1 smbd ping >&2; do :; done
smbclient -U alice%word -L 127.0.0.1""")
        self.assertIn("IPC$", listed)
        self.assertEqual(Path("/etc/passwd").read_bytes(), before)

    def test_devices(self):
        self.assertEqual(self.shell("""
echo lost >/dev/null
head -c 4 /dev/zero | od -An -tx1
head -c 4 /dev/urandom | wc -c
echo out >/dev/stdout
echo err >/dev/stderr
! echo too much 2>/dev/null >/dev/full"""), " 00 00 00 00\n4\nout\n")

    def test_devices_are_everybodys_whatever_the_machines_are(self):
        script = ("chmod 755 /dev/null; stat -c %a /dev/null; "
                  f"{SANDBOX} setpriv --reuid 65534 --clear-groups sh -c 'echo lost >/dev/null'")
        self.assertEqual(self.shell(script), "755\n")

    def test_a_terminal_of_ones_own(self):
        self.assertEqual(self.shell("script -qec 'tty; : </dev/tty' /dev/null").split(), ["/dev/pts/0"])

    def test_another_one_in_it(self):
        self.assertEqual(self.output_of(SANDBOX, "sh", "-c", "hostname inner; hostname"), "inner\n")


class Making(Case):
    def test_discards_changes_to_a_project_below_tmp(self):
        # The sandbox has its own /tmp, so a project there is mounted separately.
        with tempfile.TemporaryDirectory(dir="/tmp") as folder:
            project = Path(folder, "a,b:c d\\e")
            shutil.copytree(ROOT / "tools", project / "tools")
            done = subprocess.run([project / "tools/sandbox.sh", "sh", "-c", "rm -r tools && ls -A"], cwd=project,
                                  capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
            self.assertTrue((project / "tools/sandbox.sh").exists())

    def test_failed_bind_mount_has_status_125(self):
        done = inside("--bind", "/nonexistent", "/bound", "true")
        self.assertEqual(done.returncode, 125)
        self.assertIn("/nonexistent", done.stderr)

    def test_runs_nothing_when_any_mount_fails(self):
        mount = shutil.which("mount")
        for part in ("-t overlay", "-t tmpfs -o mode=755 tmpfs */dev", "-t devpts", "-t tmpfs * */dev/shm", "-t sysfs",
                     "--bind -o ro */proc/sys "):
            with self.subTest(part), tempfile.TemporaryDirectory() as folder:
                stub = Path(folder, "mount")
                # The part is a pattern of the shell, in which only blanks need quotes.
                pattern = part.replace(" ", "' '")
                stub.write_text(f'#!/bin/sh\ncase "$*" in {pattern}*) exit 1 ;; esac\nexec {mount} "$@"\n')
                stub.chmod(0o755)
                done = inside("echo", "ran", env=os.environ | {"PATH": f"{folder}:{os.environ['PATH']}"})
                self.assertEqual((done.returncode, done.stdout), (125, ""))

    def test_the_status_is_the_commands(self):
        for status in (0, 1, 125):
            self.assertEqual(inside("sh", "-c", f"exit {status}").returncode, status)

    def test_no_other_machine_is_changed(self):
        # Without its mark a throw-away machine is like any other.
        tests = ROOT / "tests"
        for command in ([ROOT / "demo.sh", "--session"],
                        ["python3", tests / "tool/test_session.py"], ["python3", tests / "scripts/test_adduser.py"],
                        ["python3", tests / "scripts/macos/test_macos.py"]):
            with self.subTest(command):
                done = inside("sh", "-c", 'rm /run/throw-away-machine && exec "$@"', "sh", *command)
                self.assertEqual(done.returncode, 1)
                self.assertIn("in tools/sandbox.sh only", done.stderr)
                self.assertNotIn("Traceback", done.stderr)


if __name__ == "__main__":
    unittest.main()
