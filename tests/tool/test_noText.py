"""Bytes that are not text, wherever users other than root can put them, end no session."""

import os
import shutil
import subprocess
import unittest

from toolhost import ARGUMENTS, BUNDLE, CLOSED, DELETED, PREFS, SCRIPTS, SHARED, WAITING, ToolCase

NO_TEXT = b"caf\xe9 \xff\xc3"


class BytesThatAreNoText(ToolCase):
    def setUp(self):
        super().setUp()
        self.write_prefs(["disk"])

    def test_any_argument_is_passed_on_unchanged(self):
        for place in range(len(ARGUMENTS)):
            with self.subTest(place):
                arguments = [os.fsencode(argument) for argument in ARGUMENTS]
                arguments[place] = NO_TEXT
                out, err, status = self.run_tool(*arguments)
                sharing = f"Sharing {os.fsdecode(arguments[0])} as {os.fsdecode(arguments[1])}\n"
                self.assertRun((out, err, status), SHARED + DELETED, sharing + WAITING + CLOSED, 0)
                words = [word for call in self.calls()[-len(SCRIPTS):] for word in call.argv]
                self.assertIn(os.fsdecode(NO_TEXT), words)

    def test_variables_that_are_not_text_are_harmless(self):
        names = (b"HOME", b"USER", b"LOGNAME", b"PATH", b"TMPDIR", b"LANG", b"LC_ALL", b"CFFIXED_USER_HOME",
                 b"TARVEX_LOCATION_ROOT_FULLPATH", b"ICU_DATA", NO_TEXT)
        environment = {name: NO_TEXT for name in names} | {b"PATH": b"/usr/bin:/bin:" + NO_TEXT}
        out, _, status = self.run_tool(env=environment)
        self.assertEqual((out, status), (SHARED + DELETED, 0))

    def test_working_folder_that_is_not_text_is_harmless(self):
        folder = b"/tmp/" + NO_TEXT
        os.mkdir(folder)
        self.addCleanup(os.rmdir, folder)
        out, _, status = self.run_tool(cwd=folder)
        self.assertEqual((out, status), (SHARED + DELETED, 0))

    def test_link_that_is_not_text_is_harmless(self):
        link = b"/tmp/" + NO_TEXT
        os.symlink(self.tool, link)
        self.addCleanup(os.unlink, link)
        done = subprocess.run([link, *ARGUMENTS], stdin=subprocess.DEVNULL, capture_output=True, timeout=30)
        self.assertEqual((done.stdout.decode(), done.returncode), (SHARED + DELETED, 0))

    def test_tool_in_nontext_path_panics_before_any_change(self):
        """ICU's data is not found at such a path, so the tool has no ICU that would replace the bytes."""
        folder = b"/opt/" + NO_TEXT
        shutil.copytree(os.fsencode(BUNDLE), folder + b"/Pelago.app")
        self.addCleanup(shutil.rmtree, folder)
        before = PREFS.read_bytes()
        tool = folder + b"/Pelago.app/Contents/Library/shares/pelagoShareTool"
        done = subprocess.run([tool, *ARGUMENTS], stdin=subprocess.DEVNULL, capture_output=True, timeout=30)
        self.assertEqual((done.stdout, done.returncode), (b"", 1))
        self.assertIn(b"Panic: Unicode_AllocWithLength: Couldn't convert invalid buffer [", done.stderr)
        self.assertEqual(self.called(), [])
        self.assertEqual(PREFS.read_bytes(), before)


if __name__ == "__main__":
    unittest.main()
