"""Installs text programs without GNU's extensions: awk from the source of a Mac's awk, and
busybox for the others, each started by textTool.c."""

import os
import shutil
import subprocess

from machost import HERE

TOOLS = '/tmp/textTools'
BUSYBOX = ('cat', 'grep', 'head', 'ln', 'mkdir', 'rm', 'rmdir', 'sed', 'sort', 'tr', 'wc')


def install():
    """Installs the programs; call it after machost.set_up()."""
    os.mkdir(TOOLS)
    shutil.copy('/usr/bin/original-awk', TOOLS + '/awk')
    for name in BUSYBOX:
        shutil.copy('/bin/busybox', '%s/%s' % (TOOLS, name))
    subprocess.run(['cc', '-O1', '-static', '-Wall', '-Wextra', '-Werror', '-o', '/tmp/textTool',
                    HERE + '/textTool.c'], check=True)
    for name in os.listdir(TOOLS):
        os.unlink('/usr/bin/' + name)
        shutil.copy('/tmp/textTool', '/usr/bin/' + name)
