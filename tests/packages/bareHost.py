"""A bare Debian host with its own files in two layers, processes and network, with systemd as process 1 or without.

The lower layer is the root that makeRoot.sh made; nothing writes to it.  The upper layer lasts as long as
the object, so that a host that crashed and was started again keeps its disk and nothing else.
It runs in tools/sandbox.sh only, which protects the clock and the kernel's modules of the machine that
runs the tests from root in the host; the kernel's settings are read-only here.
"""

import contextlib
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
from throwAway import require_sandbox  # noqa: E402

ROOT = "/bareRoot"  # where tools/sandbox.sh mounts the root
HANG = 120 # seconds after which a command counts as hanging

# Runs in new namespaces.  $LOWER names the lower layers, $1 is a folder for the upper layer, the others are process 1.
MAKE_ROOT = r"""
set -eu
new=$1/new; shift
mount -t overlay overlay -o "lowerdir=$LOWER,upperdir=${new%/new}/upper,workdir=${new%/new}/work" "$new"
mount -t proc proc "$new/proc"
for file in "$new/proc/sys" "$new/proc/sysrq-trigger"; do
    [ -e "$file" ] || continue
    mount --bind "$file" "$file"
    mount -o remount,bind,ro "$file"
done
mount -t sysfs -o ro sysfs "$new/sys"
mount -t cgroup2 cgroup2 "$new/sys/fs/cgroup"
for folder in dev run tmp; do mount -t tmpfs -o mode=755 tmpfs "$new/$folder"; done
chmod 1777 "$new/tmp"
for device in null zero full random urandom tty; do
    : >"$new/dev/$device"
    mount --bind "/dev/$device" "$new/dev/$device"
done
mkdir "$new/dev/pts" "$new/dev/shm"
mount -t devpts -o newinstance,ptmxmode=666 devpts "$new/dev/pts"
ln -s pts/ptmx "$new/dev/ptmx"
ln -s /proc/self/fd "$new/dev/fd"
for number in 0:stdin 1:stdout 2:stderr; do
    ln -s "/proc/self/fd/${number%:*}" "$new/dev/${number#*:}"
done
ip link set lo up
hostname bare
cd "$new"
mkdir -p old
pivot_root . old
umount -l /old
rmdir /old
exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 container=bare "$@"
"""
# A process 1 that only reaps orphans.
IDLE = ("sh", "-c", "while :; do sleep 1000 & wait; done")


class Host:
    """A host that is switched on; use it in a with statement.

    Its disk begins as the one that keep_disk() kept of another host, or as the bare root.
    """

    def __init__(self, systemd, disk=None):
        require_sandbox()
        self.lower = f"{disk}:{ROOT}" if disk else ROOT
        self.process_one = ("/lib/systemd/systemd", "--system", "--unit=multi-user.target") if systemd else IDLE
        self.systemd = systemd
        self.folder = Path(tempfile.mkdtemp())
        self.cgroups = self.folder / "cgroups"
        for name in ("new", "upper", "work", "cgroups"):
            (self.folder / name).mkdir()
        subprocess.run(["mount", "-t", "cgroup2", "cgroup2", self.cgroups], check=True)
        mine = next(line for line in Path("/proc/self/cgroup").read_text().splitlines() if line.startswith("0::"))
        self.cgroup = self.cgroups / mine[3:].strip("/") / f"bareHost.{self.folder.name}"

    def __enter__(self):
        try:
            self.start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.crash()
        self.remove_cgroups()
        subprocess.run(["umount", self.cgroups], check=True)
        shutil.rmtree(self.folder)

    def start(self):
        """Switches the host on, and waits until it is up."""
        self.cgroup.mkdir(exist_ok=True)
        self.pid = None
        self.console = open(self.folder / "console", "ab")
        self.outer = subprocess.Popen(
            ["sh", "-c", 'echo $$ >"$1/cgroup.procs"; shift; exec "$@"', "enter", self.cgroup,
             "unshare", "--mount", "--uts", "--ipc", "--net", "--pid", "--cgroup", "--propagation", "private",
             "--fork", "--kill-child", "sh", "-c", MAKE_ROOT, "machine", self.folder, *self.process_one],
            env=os.environ | {"LOWER": self.lower}, stdin=subprocess.DEVNULL, stdout=self.console, stderr=self.console)
        self.wait_until(self.is_up, "the host to be up")

    def is_up(self):
        if self.outer.poll() is not None:
            raise AssertionError("the host did not start: " + (self.folder / "console").read_text())
        with contextlib.suppress(FileNotFoundError, ValueError): # there is no process 1 yet
            self.pid = int(Path(f"/proc/{self.outer.pid}/task/{self.outer.pid}/children").read_text())
            words = Path(f"/proc/{self.pid}/cmdline").read_bytes().split(b"\0")[:-1]
            if tuple(map(os.fsdecode, words)) != self.process_one:
                return False # MAKE_ROOT still runs
            return not self.systemd or self.run("systemctl", "is-system-running").stdout in ("running\n", "degraded\n")
        return False

    def crash(self):
        """Ends all processes at once, as a power cut does; memory is lost."""
        self.outer.kill() # process 1 dies with it, and with process 1 the others
        self.outer.wait(HANG)
        self.wait_until(lambda: self.pid is None or not os.path.exists(f"/proc/{self.pid}"), "the host to be off")
        self.console.close()

    def keep_disk(self, folder):
        """Crashes the host and moves its upper layer to the folder, which must not exist yet."""
        self.crash()
        (self.folder / "upper").rename(folder)

    def remove_cgroups(self):
        for folder, _, _ in os.walk(self.cgroup, topdown=False):
            os.rmdir(folder)

    def inside(self, *command):
        # The command ends when nsenter, which stays outside, is killed.
        return ["nsenter", f"--target={self.pid}", "--mount", "--uts", "--ipc", "--net", "--pid", "--cgroup", "--root",
                "--wd", "setpriv", "--pdeathsig=KILL", "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8",
                "DEBIAN_FRONTEND=noninteractive", *map(str, command)]

    def run(self, *command, **options):
        """Runs a command as root on the host, and returns the result of subprocess.run."""
        options = {"stdin": subprocess.DEVNULL} | options if "input" not in options else options
        return subprocess.run(self.inside(*command), capture_output=True, text=True, timeout=HANG, check=False, **options)

    def must(self, *command, **options):
        """Runs a command that must succeed, and returns its standard output."""
        done = self.run(*command, **options)
        if done.returncode != 0:
            raise AssertionError(f"{command} ended with {done.returncode}: {done.stdout}{done.stderr}")
        return done.stdout

    def shell(self, script):
        return self.must("sh", "-euc", script)

    def start_command(self, *command, **options):
        """Starts a command with a pipe on each of its standard streams."""
        pipes = {name: subprocess.PIPE for name in ("stdin", "stdout", "stderr")}
        return subprocess.Popen(self.inside(*command), text=True, **pipes | options)

    def copy(self, file, to):
        """Copies a file of this machine to a path of the host."""
        with open(file, "rb") as source:
            done = subprocess.run(self.inside("sh", "-c", 'cat >"$1"', "copy", to), stdin=source, timeout=HANG, check=False)
        if done.returncode != 0:
            raise AssertionError(f"cannot copy {file}")

    @staticmethod
    def wait_until(condition, what):
        deadline = time.monotonic() + HANG
        while not condition():
            if time.monotonic() > deadline:
                raise AssertionError("waited in vain for " + what)
            time.sleep(0.02)
