"""The package on bare Debian hosts: installed, used, upgraded and removed during a session, and purged."""

import contextlib
import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

import bareHost

PACKAGES = Path(os.environ["PELAGO_PACKAGES"])
PREFERENCES = "/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist"
LIBRARY = "/usr/lib/pelago/Pelago.app/Contents/Library"
SWITCH, CLEAN = "pelago-smb-switch", "pelago-share-clean"
CONTENT = "the content\n"
SHARED = "0 is the sharing result (0=ok). Press Enter to delete it and exit:\n"
DELETED = "0 is the delete share result (0=success, nonzero=failure).\n"
OTHERS_SHARE = "[Others]\npath = /srv/others\nvalid users = bob\n"


def packed(name):
    package, = PACKAGES.glob(f"{name}_*_amd64.deb")
    return package


def newer(folder):
    """Builds the tool's package again, with a higher version."""
    tree, package = folder / "tree", folder / "newer.deb"
    subprocess.run(["dpkg-deb", "--raw-extract", packed("pelago-share-tool"), tree], check=True)
    control = tree / "DEBIAN/control"
    control.write_text(re.sub(r"^(Version: .*)$", r"\1+newer", control.read_text(), flags=re.M))
    subprocess.run(["dpkg-deb", "-Znone", "--build", tree, package], check=True, capture_output=True)
    return package


class ConnectedClient:
    """A client that stays connected."""

    def __init__(self, host):
        self.process = host.start_command("stdbuf", "-i0", "-oL", "smbclient", "-A", "/root/alice", "//127.0.0.1/Docs")

    def reads(self):
        """Returns whether the client can list the share."""
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.write("ls\n!echo the end\n")
            self.process.stdin.flush()
        self.shown = ""
        for line in self.process.stdout:
            if "the end" in line:
                break
            self.shown += line
        return re.search(r"^\s+f\s+\w*\s+\d", self.shown, re.M) is not None

    def close(self):
        self.process.kill()
        self.process.communicate()


def install(host, package=None):
    host.copy(package or packed("pelago-share-tool"), "/root/package.deb")
    return host.must("apt-get", "install", "-y", "--no-install-recommends", "/root/package.deb")


def prepare(host):
    """Makes two folders, the passwords, and a share of another user's."""
    host.shell(r"""
        sed -i 's/map to guest = .*/map to guest = never/; /^\[global\]/a registry shares = yes' /etc/samba/smb.conf
        useradd owner
        useradd bob
        printf 'bobs own\nbobs own\n' | smbpasswd -s -a bob
        printf 'secret\n' >/root/password
        printf 'username = alice\npassword = secret\n' >/root/alice
        printf 'username = bob\npassword = bobs own\n' >/root/bob
        mkdir -p /srv/docs /srv/others
    """)
    host.must("tee", "/srv/docs/f", "/srv/others/f", input=CONTENT)
    host.must("tee", "-a", "/etc/samba/smb.conf", input=OTHERS_SHARE)
    host.shell("chown -R owner /srv/docs; chown -R bob /srv/others")


def files(host):
    found = host.must("find", "/", "/run", "-xdev", "-not", "-path", "/var/lib/dpkg/*")
    return {path for path in found.splitlines() if re.search("pelago|Library", path)}


class PackageCase(unittest.TestCase):
    maxDiff = None

    def start(self, systemd=True, disk=None):
        self.host = self.enterContext(bareHost.Host(systemd, disk))

    # ---- The host

    def enable_switch(self):
        self.host.must("systemctl", "enable", "--now", SWITCH)

    def is_(self, what, unit):
        return self.host.run("systemctl", f"is-{what}", unit).stdout.strip()

    def waitForSmbd(self, state):
        self.host.wait_until(lambda: self.is_("active", "smbd") == state, f"smbd to be {state}")

    def assertHealthy(self):
        self.assertEqual(self.host.run("systemctl", "--failed", "--plain", "--no-legend").stdout, "")
        self.assertEqual(self.host.run("systemctl", "is-system-running").stdout, "running\n")

    # ---- A session

    def session(self):
        """Starts the tool, waits for the share, and returns the process."""
        tool = self.host.start_command("pelagoShareTool", "/srv/docs", "Docs", "alice", "/root/password", "rw")
        self.addCleanup(lambda: (tool.kill(), tool.communicate()))
        line = tool.stdout.readline()
        if line != SHARED:
            self.fail(f"{line} {tool.communicate()}")
        return tool

    def end(self, tool):
        out, err = tool.communicate(timeout=bareHost.HANG)
        self.assertEqual((out, tool.returncode), (DELETED, 0), err)

    def connected(self):
        client = ConnectedClient(self.host)
        self.addCleanup(client.close)
        self.assertTrue(client.reads(), client.shown)
        return client

    def get(self, user, share):
        done = self.host.run("smbclient", "-A", f"/root/{user}", f"//127.0.0.1/{share}", "-c", "get f /tmp/got")
        return done.stdout if done.returncode else self.host.must("cat", "/tmp/got")

    def assertServed(self, user, share):
        self.assertEqual(self.get(user, share), CONTENT)

    def left(self):
        """Returns what is left of the session: its user, its share, the service in the preferences, its processes."""
        host = self.host
        users = host.run("sh", "-c", "getent passwd alice; getent group alice; pdbedit -L -u alice 2>/dev/null").stdout
        shares = host.run("net", "conf", "listshares").stdout
        service = host.run("grep", "-s", "disk", PREFERENCES).stdout
        processes = host.run("pgrep", "-a", "pelagoShareTool|(add|rm)(share|user)").stdout
        state = host.run("sh", "-c", "ls /run/pelago/users /run/pelago/shares 2>/dev/null | grep -v ':$' | tr -d '\n'").stdout
        return users + shares + service + processes + state


class TheHost(PackageCase):
    """The properties of the host that the other tests rely on."""

    def test_it_cannot_change_the_machine(self):
        self.start()
        for attempt in ("echo 1 >/proc/sys/kernel/printk", "date --set @0", "echo x >/sys/kernel/mm/ksm/run"):
            self.assertNotEqual(self.host.run("sh", "-c", attempt).returncode, 0, attempt)
        self.host.must("hostname", "inside")
        self.assertNotEqual(os.uname().nodename, "inside")

    def test_a_crash_keeps_the_disk_and_nothing_else(self):
        self.start()
        self.host.shell("echo kept >/root/kept; echo lost >/run/lost; sleep 1000 >/dev/null 2>&1 & ")
        self.host.crash()
        self.host.start()
        self.assertEqual(self.host.must("cat", "/root/kept"), "kept\n")
        self.assertNotEqual(self.host.run("cat", "/run/lost").returncode, 0)
        self.assertEqual(self.host.run("pgrep", "-x", "sleep").stdout, "")


class Fresh(PackageCase):
    """Tests on a host that has never had the package."""

    def test_check_names_missing_settings_until_all_are_there(self):
        self.start()
        self.assertIn("pelago-share-check", install(self.host))
        first = self.host.run("pelago-share-check")
        self.assertNotEqual(first.returncode, 0)
        self.assertIn("registry shares = yes", first.stdout + first.stderr)
        self.host.shell(r"sed -i '/^\[global\]/a registry shares = yes' /etc/samba/smb.conf")
        second = self.host.run("pelago-share-check")
        self.assertNotEqual(second.returncode, 0)
        self.assertIn(SWITCH, second.stdout + second.stderr)
        self.assertNotIn("registry shares = yes", second.stdout + second.stderr)
        self.enable_switch()
        third = self.host.run("pelago-share-check")
        self.assertEqual(third.returncode, 0, third.stdout + third.stderr)

    def test_removal_keeps_its_state_and_purge_leaves_nothing(self):
        self.start()
        before = files(self.host)
        install(self.host)
        prepare(self.host)
        self.enable_switch()
        self.end(self.session())
        self.host.must("apt-get", "remove", "-y", "pelago-share-tool")
        kept = {path for path in files(self.host) if not path.startswith("/usr/")} - before
        self.assertLessEqual({PREFERENCES, "/var/lib/pelago/made"}, kept)
        self.assertNotIn("/run/pelago", kept)
        self.host.must("apt-get", "purge", "-y", "pelago-share-tool")
        self.assertEqual(files(self.host), before)
        self.assertEqual(self.host.must("dpkg", "--audit"), "")

    def test_a_purge_keeps_preferences_that_hold_something(self):
        self.start()
        install(self.host)
        kept = "<plist><dict>\n<key>NetBIOSName</key>\n<string>N</string>\n</dict></plist>\n"
        self.host.must("tee", PREFERENCES, input=kept)
        self.host.must("apt-get", "purge", "-y", "pelago-share-tool")
        self.assertEqual(self.host.must("cat", PREFERENCES), kept)

    def test_purge_keeps_preferences_made_before_the_installation(self):
        self.start()
        self.host.shell(f"mkdir -p {os.path.dirname(PREFERENCES)}; : >{PREFERENCES}")
        install(self.host)
        self.host.must("apt-get", "purge", "-y", "pelago-share-tool")
        self.assertEqual(self.host.must("cat", PREFERENCES), "")

    def test_session_and_purge_work_without_systemd(self):
        self.start(systemd=False)
        install(self.host)
        prepare(self.host)
        switch = self.host.start_command(f"{LIBRARY}/host/pelagoHost", "switch")
        self.addCleanup(lambda: (switch.kill(), switch.communicate()))
        self.end(self.session())
        self.assertEqual(self.left(), "")
        self.session()
        client = self.connected()
        self.host.must("apt-get", "purge", "-y", "pelago-share-tool")
        self.assertFalse(client.reads())
        self.assertEqual(self.left(), "")
        self.assertEqual(switch.wait(bareHost.HANG), 0)


class Prepared(PackageCase):
    """Tests on a host with the package, whose switch is still disabled."""

    @classmethod
    def setUpClass(cls):
        cls.disk = Path(cls.enterClassContext(tempfile.TemporaryDirectory())) / "disk"
        with bareHost.Host(systemd=True) as host:
            install(host)
            prepare(host)
            host.keep_disk(cls.disk)

    def setUp(self):
        self.start(disk=self.disk)

    def test_the_first_session_works(self):
        self.assertEqual(self.is_("enabled", SWITCH), "disabled")
        self.assertServed("bob", "Others") # smbd still runs as Debian's unit
        self.enable_switch()
        self.assertIn("smbd.service was enabled and running", self.host.must("journalctl", "--unit", SWITCH))
        self.waitForSmbd("inactive")
        tool = self.session()
        self.assertServed("alice", "Docs")
        self.end(tool)
        self.assertEqual(self.left(), "")
        self.waitForSmbd("inactive")
        self.host.must("systemctl", "stop", SWITCH)
        self.assertHealthy()

    def test_session_leaves_other_shares_served_with_service_on(self):
        self.host.must("pelago-smb-service", "on")
        self.enable_switch()
        self.assertServed("bob", "Others")
        self.end(self.session())
        self.assertServed("bob", "Others")
        self.assertHealthy()

    def test_an_upgrade_leaves_a_session_alone(self):
        self.enable_switch()
        tool = self.session()
        client = self.connected()
        with tempfile.TemporaryDirectory() as folder:
            self.assertNotIn("pelago-share-check", install(self.host, newer(Path(folder)))) # the hint is for a first installation only
        self.assertIn("+newer", self.host.must("dpkg-query", "-W", "pelago-share-tool"))
        self.assertEqual((self.is_("enabled", SWITCH), self.is_("active", SWITCH)), ("enabled", "active"))
        self.assertTrue(client.reads(), client.shown)
        self.assertServed("alice", "Docs")
        self.end(tool)
        self.assertFalse(client.reads())
        self.assertEqual(self.left(), "")
        self.assertHealthy()

    def test_removal_ends_the_session_and_reenables_smbd(self):
        self.enable_switch()
        self.session()
        client = self.connected()
        self.host.must("apt-get", "remove", "-y", "pelago-share-tool")
        self.assertFalse(client.reads())
        self.assertEqual(self.left(), "")
        self.assertEqual((self.is_("enabled", "smbd"), self.is_("active", "smbd")), ("enabled", "active"))
        self.assertServed("bob", "Others")
        self.assertHealthy()

    def test_a_removal_leaves_smbd_off_where_it_was(self):
        self.host.must("systemctl", "disable", "--now", "smbd")
        self.enable_switch()
        self.host.must("pelago-smb-service", "on")
        self.waitForSmbd("active")
        self.host.must("apt-get", "remove", "-y", "pelago-share-tool")
        self.assertEqual((self.is_("enabled", "smbd"), self.is_("active", "smbd")), ("disabled", "inactive"))
        self.assertHealthy()

    def test_purge_leaves_smbd_alone_without_a_started_switch(self):
        self.assertServed("bob", "Others")
        pid = self.host.must("systemctl", "show", "--property=MainPID", "smbd")
        self.host.must("apt-get", "purge", "-y", "pelago-share-tool")
        self.assertEqual(self.host.must("systemctl", "show", "--property=MainPID", "smbd"), pid)

    def test_removal_leaves_smbd_off_after_switch_is_disabled(self):
        self.enable_switch()
        self.waitForSmbd("inactive")
        self.host.must("systemctl", "disable", "--now", SWITCH)
        self.host.must("apt-get", "remove", "-y", "pelago-share-tool")
        self.assertEqual((self.is_("enabled", "smbd"), self.is_("active", "smbd")), ("disabled", "inactive"))

    def test_removal_fails_when_sessions_cannot_be_ended(self):
        self.host.shell("ln -sf /bin/false /usr/sbin/pelago-share-sessions")
        done = self.host.run("apt-get", "remove", "-y", "pelago-share-tool")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("sessions are left", done.stdout + done.stderr)
        self.assertIn("install ok installed", self.host.must("dpkg-query", "-W", "-f", "${Status}", "pelago-share-tool"))
        self.host.shell(f"ln -sf {LIBRARY}/host/pelagoHost /usr/sbin/pelago-share-sessions")
        self.host.must("apt-get", "remove", "-y", "pelago-share-tool")

    def test_a_boot_clears_away_what_it_cut_off(self):
        self.crash_in_a_session()
        self.assertServed("bob", "Others")
        self.assertIn("NT_STATUS_LOGON_FAILURE", self.get("alice", "Others"))
        self.assertLess(self.moment(CLEAN, "ExecMainExit"), self.moment("smbd", "ExecMainStart"))
        self.assertHealthy()

    def test_boot_clears_crashed_session_and_switches_smbd_off(self):
        self.enable_switch()
        self.crash_in_a_session()
        self.waitForSmbd("inactive")
        self.assertEqual(self.left(), "")
        self.assertHealthy()
        self.end(self.session())

    def crash_in_a_session(self):
        self.session()
        self.assertServed("alice", "Docs")
        self.host.crash()
        self.host.start()
        self.assertNotIn("alice", self.left())
        self.assertNotIn("Docs", self.left())

    def moment(self, unit, what):
        """Returns the time of the event, counted from the start of the host."""
        value = int(self.host.must("systemctl", "show", "--value", f"--property={what}TimestampMonotonic", unit))
        self.assertGreater(value, 0, unit)
        return value

    def test_switch_clears_the_leftovers_of_a_killed_session(self):
        self.enable_switch()
        tool = self.session()
        client = self.connected()
        tool.kill() # nsenter; the tool is killed with it
        self.host.wait_until(lambda: self.left() == "", "the switch to clear away")
        self.assertFalse(client.reads())
        self.waitForSmbd("inactive")

    def test_manual_cleanup_waits_for_the_switch(self):
        self.host.shell("""mv /usr/sbin/userdel /usr/sbin/userdel.real
            printf '#!/bin/sh\nsleep 1\nexec userdel.real "$@"\n' >/usr/sbin/userdel
            chmod 755 /usr/sbin/userdel""")
        self.enable_switch()
        self.session().kill()
        self.host.wait_until(lambda: self.host.run("pgrep", "-x", "userdel").stdout, "the switch to clear away")
        self.host.must("pelago-share-sessions", "--clean")
        self.assertNotIn("alice", self.left())

    def test_units_are_hardened_and_can_still_work(self):
        for unit in (SWITCH, CLEAN):
            self.host.must("systemd-analyze", "security", "--no-pager", "--threshold=30", unit)
        self.enable_switch()
        pid = self.host.must("systemctl", "show", "--value", "--property=MainPID", SWITCH).strip()
        inside = ("nsenter", f"--target={pid}", "--mount", "touch")
        for path in ("/usr/x", "/boot/x", "/root/x", "/srv/x", LIBRARY + "/x"):
            self.assertNotEqual(self.host.run(*inside, path).returncode, 0, path)
        self.host.must(*inside, "/run/pelago/x")


if __name__ == "__main__":
    unittest.main()
