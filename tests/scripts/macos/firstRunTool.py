#!/usr/bin/python3 -I
"""Replaces the tool in the test of firstRun.sh: the same steps and the same lines, on the modelled Mac."""

import os
import subprocess
import sys

SHARES = os.path.dirname(os.path.abspath(__file__))


def prefs(*args):
    done = subprocess.run(['/usr/bin/prefs', *args], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    return done.stdout.split() if done.returncode == 0 else None


def script(name, *args):
    return subprocess.run(['%s/%s.sh' % (SHARES, name), *args], stdin=subprocess.DEVNULL, stdout=sys.stderr,
                          check=False).returncode


def restore(generation, switched_on):
    """Returns whether the preferences could be locked again; they name the last process that wrote them."""
    if prefs('lock', generation) is None:
        print('1 - Unable to lock preferences.', flush=True)
        return False
    if switched_on:
        prefs('off')
    return True


def main():
    folder, share, user, password_file, access = sys.argv[1:]
    switched_on, generation = prefs('on')
    switched_on = switched_on == 'yes'
    if script('adduser', user, user, password_file) != 0:
        print('1 - failed to create user %s' % user, flush=True)
        restore(generation, switched_on)
        return 1
    result = script('addshare', user, password_file, folder, share, access)
    if result == 0:
        print('0 is the sharing result (0=ok). Press Enter to delete it and exit:', flush=True)
        sys.stdin.readline()
        result = script('rmshare', share, folder)
        print('%d is the delete share result (0=success, nonzero=failure).' % result, flush=True)
    else:
        print('%d is the sharing result (0=ok). Exiting.' % result, flush=True)
    if not restore(generation, switched_on):
        return 1
    return script('rmuser', user) or result


sys.exit(main())
