"""Runs the shell session in the last comment of each example of the library."""

import contextlib
import os
import re
import shutil
import subprocess
import tempfile
import tty
from pathlib import Path

EXAMPLES = Path(__file__).resolve().parents[2] / "examples/library"
MARK = "---- the next command\n"


def session(source):
    """Returns the commands in the last comment, each with the lines that it prints."""
    comment = re.search(r"/\* In a shell.*?:\n(.*)\*/\n$", source, re.S)
    if comment is None:
        return []
    lines = [line.removeprefix(" *").removeprefix("    ") for line in comment[1].splitlines() if line.strip() not in ("", "*")]
    commands = []
    for line in lines:
        if line.startswith("$ "):
            commands.append((line[2:], ""))
        else:
            commands[-1] = (commands[-1][0], f"{commands[-1][1]}{line}\n")
    return commands


def on_a_terminal(*command, **options):
    """Runs the command with a terminal as standard output and error, and returns its output."""
    shown, terminal = os.openpty()
    tty.setraw(terminal)
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=terminal, stderr=terminal, **options) as started:
        os.close(terminal)
        text = b""
        with contextlib.suppress(OSError):  # the last writer has ended
            while block := os.read(shown, 4096):
                text += block
    os.close(shown)
    return text.decode()


def printed(programs, commands):
    """Returns the output of each command, run in one shell, in a new folder with the programs."""
    script = "".join(f"printf '%s' '{MARK}'\n{command}\n" for command, _ in commands)
    with tempfile.TemporaryDirectory() as folder:
        for program in programs.iterdir():
            if program.is_file():
                shutil.copy(program, folder)
        environment = {"PATH": os.environ["PATH"] + ":/usr/sbin", "LC_ALL": "C.UTF-8", "HOME": folder}
        return on_a_terminal("sh", "-c", script, cwd=folder, env=environment).split(MARK)[1:]
