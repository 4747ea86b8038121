"""Which user's home "~" is in a set-user-ID program. Runs on a machine of its own."""

import os
import pwd
import shutil
import subprocess
import tempfile
import unittest

CALLER = pwd.getpwnam("nobody")


class SetUserId(unittest.TestCase):
    def expand(self, text, mode):
        with tempfile.TemporaryDirectory() as folder:
            os.chmod(folder, 0o755)
            program = shutil.copy(os.environ["EXPAND_ONCE"], folder)
            os.chmod(program, mode)
            done = subprocess.run([program, text], user=CALLER.pw_uid, group=CALLER.pw_gid, extra_groups=[],
                                  capture_output=True, text=True,
                                  env=os.environ | {"CFFIXED_USER_HOME": "/fixed", "HOME": "/u"})
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            return done.stdout

    def test_cffixed_user_home_sets_an_ordinary_programs_home(self):
        self.assertEqual(self.expand("~/x", 0o755), "/fixed/x\n")

    def test_set_user_id_program_ignores_cffixed_user_home(self):
        self.assertEqual(self.expand("~/x", 0o4755), CALLER.pw_dir + "/x\n")

    def test_set_group_id_program_ignores_cffixed_user_home(self):
        self.assertEqual(self.expand("~/x", 0o2755), CALLER.pw_dir + "/x\n")


if __name__ == "__main__":
    unittest.main()
