"""Runs many sessions on a real Samba, and checks that nothing is left of them.

SESSIONS (1000) run one after the other, the first half on a service that each switches on and off, the second on
one that is on; then, for MINUTES (10), two at a time, each with its own user and share, on a service
that is on (otherwise the one that switched it on would switch it off during the other's session).  Every
tenth has a client that fetches the file.  At the start and the end of each part the test counts everything
that a session could leave: users, shares, passwords, files, processes and their descriptors, the sizes
of Samba's databases, and the memory of smbd and of the switch.  Only logs may grow.

Changes users and services: runs on a throw-away machine only.  Needs PELAGO_TOOL, the tool in its
bundle.  Status 1 when a session failed or something was left.
"""

import contextlib
import os
import plistlib
import re
import shutil
import subprocess
import sys
import threading
import time
from collections import Counter
from pathlib import Path

TESTS = Path(__file__).resolve().parents[1]
sys.path[:0] = [str(TESTS / "scripts"), str(TESTS / "tool")]
import sambahost  # noqa: E402
from toolhost import DELETED, PREFS, SHARED  # noqa: E402

BUNDLE = Path("/opt/Pelago.app")
TOOL = BUNDLE / "Contents/Library/shares/pelagoShareTool"
PLACE = Path("/srv/soak")
ERRORS = Path("/tmp/soak.err")
CONTENT = b"the content\n" * 1000
PASSWORD = "correct horse"
FETCH_EVERY = 10
WARM_UP = 10  # sessions after which caches and databases have their final size
MEMORY_KIB = 512  # the most that a process may grow: less than a KiB for each of 1,000 sessions
DATABASE_BYTES = 131072  # the most that a database may grow: databases grow in steps, and reuse free space
QUIET_LOOKS = 10  # checks in a row that find the same processes
ACCOUNTS = ("/etc/passwd", "/etc/group", "/etc/shadow", "/etc/gshadow", "/etc/subuid", "/etc/subgid")
# Folders in which a session, Samba or the switch might leave a file.
FOLDERS = ("/etc", "/run", "/tmp", "/srv", "/home", "/Library", "/opt/Pelago.app", "/var/lib/samba", "/var/cache/samba",
           "/var/tmp", "/var/mail")
# Files that the first session makes for all others, and that Samba and the user programs keep.
FURNITURE = re.compile(r"/run/pelago(/lock|/accounts\.lock|/looked|/shares|/users)?$|/run/samba/|/var/(lib|cache)/samba/|/tmp/soak\.err$"
                       r"|/etc/(passwd|group|shadow|gshadow|subuid|subgid)-$")


class Failed(Exception):
    pass


# ---- The machine

class Machine:
    """Installs the bundle, starts the switch, and makes a folder to share."""

    def __init__(self):
        sambahost.set_up()
        shutil.copytree(Path(os.environ["PELAGO_TOOL"]).parents[3], BUNDLE)
        PREFS.parent.mkdir(parents=True, exist_ok=True)
        self.switch_service(False)
        self.switch = subprocess.Popen([BUNDLE / "Contents/Library/host/pelagoHost", "switch"], stdin=subprocess.DEVNULL)
        sambahost.command("useradd", "--no-create-home", "owner")
        (PLACE / "folder").mkdir(parents=True)
        (PLACE / "folder/f").write_bytes(CONTENT)
        for path in (PLACE / "folder", PLACE / "folder/f"):
            shutil.chown(path, "owner")
        (PLACE / "folder").chmod(0o700)
        (PLACE / "password").write_text(PASSWORD)

    @staticmethod
    def switch_service(is_on):
        services = ["print", "disk"] if is_on else ["print"]
        PREFS.write_bytes(plistlib.dumps({"EnabledServices": services, "NetBIOSName": "SOAK"}))
        sambahost.wait_until(lambda: sambahost.answers() == is_on, "smbd to follow the preferences")

    def stop(self):
        self.switch.terminate()
        self.switch.wait()


# ---- Sessions

def fetch(user, share):
    got = PLACE / f"got-{user}"
    status, output = sambahost.client(user, PASSWORD, share, f"get f {got}")
    if status != 0 or got.read_bytes() != CONTENT:
        raise Failed(f"{user} cannot fetch the file: {output}")
    got.unlink()


def session(user, share, has_client):
    """Runs a whole session."""
    command = [TOOL, PLACE / "folder", share, user, PLACE / "password", "rw"]
    with ERRORS.open("ab") as errors, subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                                       stderr=errors) as tool:
        line = tool.stdout.readline().decode()
        if line == SHARED and has_client:
            fetch(user, share)
        out = tool.communicate(timeout=2 * sambahost.HANG)[0].decode()
    if (line, out, tool.returncode) != (SHARED, DELETED, 0):
        raise Failed(f"{user}: {line!r}, {out!r}, status {tool.returncode}; {ERRORS.read_text()[-500:]}")
    if sambahost.user_exists(user) or sambahost.share_exists(share):
        raise Failed(f"{user}: the user or the share is left")
    if not has_company() and (os.listdir("/run/pelago/shares") or os.path.exists(f"{PREFS}-lock")):
        raise Failed(f"{user}: a share's folder or a lock is left")


def has_company():
    return threading.active_count() > 2


class Tally:
    def __init__(self):
        self.sessions = self.fetches = 0
        self.failures = []

    def run(self, user, share):
        """Runs one more session; every tenth, beginning with the first, has a client."""
        has_client = self.sessions % FETCH_EVERY == 0
        self.sessions += 1
        self.fetches += has_client
        try:
            session(user, share, has_client)
        except Exception as error:  # any exception is a failed session
            self.failures.append(str(error))
        return not self.failures


# ---- The state of the machine

def processes():
    """Returns every process, as (process id, name)."""
    for number in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            yield int(number), Path(f"/proc/{number}/comm").read_text().strip()


def process_names():
    return sorted(name for _, name in processes())


def settle():
    """Waits until no process starts or ends: one that serves a client or is ending takes a moment."""
    seen = process_names()
    deadline, quiet = time.monotonic() + sambahost.HANG, 0
    while quiet < QUIET_LOOKS and time.monotonic() < deadline:
        time.sleep(0.1)
        names = process_names()
        quiet = quiet + 1 if names == seen else 0
        seen = names


def files():
    """Returns every file.  Samba's message files are named by process id; those of an ended smbd do not count,
    since the next smbd removes them a quarter of an hour after its start."""
    found = set()
    for folder in FOLDERS:
        for place, folders, names in os.walk(folder):
            if place not in ("/run/samba/msg.lock", "/run/samba/msg.sock"):
                found.update(os.path.join(place, name) for name in folders + names)
    return found


class Footprint:
    """Returns everything that a session could leave; call it while no session runs."""

    def __init__(self):
        settle()
        self.exact = {path: sambahost.read(path) for path in ACCOUNTS} | {
            "the passwords": sambahost.command("pdbedit", "-L"),
            "the shares": sambahost.command("net", "conf", "list"),
            "the preferences": PREFS.read_bytes(),
        }
        self.processes = process_names()
        self.files = files()
        self.databases = {path: os.path.getsize(path) for path in self.files if path.endswith(".tdb")}
        self.cached = len(sambahost.command("net", "cache", "list").splitlines())
        self.descriptors, self.memory = Counter(), Counter()
        for number, name in processes():
            if number not in (1, os.getpid()):
                self.descriptors[name] += len(os.listdir(f"/proc/{number}/fd"))
                self.memory[name] += self.private_kib(number)
        self.own_descriptors = len(os.listdir("/proc/self/fd"))

    @staticmethod
    def private_kib(number):
        return int(re.search(r"RssAnon:\s+(\d+)", Path(f"/proc/{number}/status").read_text())[1])

    def left_since(self, before):
        """Returns a line for everything that there is more of than before."""
        for what, content in self.exact.items():
            if content != before.exact[what]:
                yield f"{what}: {before.exact[what]!r} has become {content!r}"
        if self.processes != before.processes:
            yield f"processes: {before.processes} have become {self.processes}"
        for path in sorted(self.files - before.files):
            yield f"file: {path}"
        for path, size in self.databases.items():
            if size > before.databases.get(path, 0) + DATABASE_BYTES:
                yield f"{path}: {before.databases.get(path, 0)} bytes have become {size}"
        if self.cached > before.cached:
            yield f"Samba's cache: {before.cached} entries have become {self.cached}"
        if self.own_descriptors > before.own_descriptors:
            yield f"descriptors of the caller: {before.own_descriptors} have become {self.own_descriptors}"
        for name, count in self.descriptors.items():
            if count > before.descriptors[name]:
                yield f"descriptors of {name}: {before.descriptors[name]} have become {count}"
            if self.memory[name] > before.memory[name] + MEMORY_KIB:
                yield f"memory of {name}: {before.memory[name]} KiB have become {self.memory[name]}"


# ---- Parts

class Part:
    def __init__(self, title):
        self.title, self.tally, self.left = title, Tally(), []
        self.before = self.after = None
        self.seconds = 0

    def run(self, sessions):
        """sessions runs all sessions, and calls back after the warm-up."""
        def warm():
            self.before = Footprint()
        start = time.monotonic()
        sessions(self.tally, warm)
        self.after = Footprint()
        self.seconds = time.monotonic() - start
        self.left = list(self.after.left_since(self.before))

    def show(self):
        tally = self.tally
        print(f"{tally.sessions:6} {self.title}: {tally.fetches} with a client, {len(tally.failures)} failed, "
              f"{self.seconds:.0f} s")
        for name in sorted(self.after.memory):
            print(f"{'':9}{name}: {self.before.memory[name]} KiB, then {self.after.memory[name]}; "
                  f"{self.before.descriptors[name]} descriptors, then {self.after.descriptors[name]}")
        print(f"{'':9}files: {len(self.before.files)}, then {len(self.after.files)}; "
              f"databases: {sum(self.before.databases.values()) >> 10} KiB, "
              f"then {sum(self.after.databases.values()) >> 10}; cache entries: {self.before.cached}, "
              f"then {self.after.cached}")
        for line in tally.failures:
            print(f"  FAILED {line}")
        for line in self.left:
            print(f"  LEFT {line}")
        sys.stdout.flush()


def one_after_the_other(number):
    def sessions(tally, warm):
        for i in range(number):
            if i == min(WARM_UP, number // 2):
                warm()
            if not tally.run("alice", "Docs"):
                return
    return sessions


def two_at_a_time(minutes):
    def sessions(tally, warm):
        tallies = [Tally(), Tally()]

        def work(number, go_on):
            while go_on(tallies[number]) and tallies[number].run(("alice", "carl")[number], ("Hers", "His")[number]):
                pass

        def both(go_on):
            threads = [threading.Thread(target=work, args=(number, go_on)) for number in range(2)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
        both(lambda own: own.sessions < WARM_UP)
        warm()
        end = time.monotonic() + 60 * minutes
        both(lambda own: time.monotonic() < end)
        for own in tallies:
            tally.sessions += own.sessions
            tally.fetches += own.fetches
            tally.failures += own.failures
    return sessions


def main():
    number, minutes = int(os.environ.get("SESSIONS", 1000)), float(os.environ.get("MINUTES", 10))
    if number < 2 * 2:
        sys.exit("soak: at least 4 sessions, for the first of each part are not counted")
    machine, parts = Machine(), []

    def run(title, sessions):
        part = Part(title)
        parts.append(part)
        part.run(sessions)
        part.show()
    at_first = Footprint()
    run("one after the other, each switching the service on and off", one_after_the_other((number + 1) // 2))
    machine.switch_service(True)
    run("one after the other, the service on", one_after_the_other(number // 2))
    if minutes > 0:
        run(f"two at a time for {minutes:g} minutes, the service on", two_at_a_time(minutes))
    machine.switch_service(False)
    at_last = Footprint()
    machine.stop()
    changed = [what for what, content in at_last.exact.items() if content != at_first.exact[what]]
    changed += ["the processes"] if at_last.processes != at_first.processes else []
    changed += [path for path in sorted(at_last.files - at_first.files) if not FURNITURE.match(path)]
    failed = sum(len(part.tally.failures) for part in parts)
    left = sum(len(part.left) for part in parts) + len(changed)
    print(f"{sum(part.tally.sessions for part in parts):6} sessions, {failed} failed; left behind: {left}")
    for what in changed:
        print(f"  LEFT {what}, other than before the first session")
    return 1 if failed or left else 0


if __name__ == "__main__":
    sys.exit(main())
