"""Puts text programs in place that lack GNU's inventions: awk from the source that a Mac's is made of, and
busybox for the rest, each as textTool.c lets it."""

import os
import shutil
import subprocess

from machost import HERE

TOOLS = '/tmp/textTools'
BUSYBOX = ('cat', 'grep', 'head', 'ln', 'mkdir', 'rm', 'rmdir', 'sed', 'sort', 'tr', 'wc')


def install():
    """After machost.set_up()."""
    os.mkdir(TOOLS)
    shutil.copy('/usr/bin/original-awk', TOOLS + '/awk')
    for name in BUSYBOX:
        shutil.copy('/bin/busybox', '%s/%s' % (TOOLS, name))
    subprocess.run(['cc', '-O1', '-static', '-Wall', '-Wextra', '-Werror', '-o', '/tmp/textTool',
                    HERE + '/textTool.c'], check=True)
    for name in os.listdir(TOOLS):
        os.unlink('/usr/bin/' + name)
        shutil.copy('/tmp/textTool', '/usr/bin/' + name)
