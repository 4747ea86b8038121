#!/bin/sh
# smbSwitch.sh [--once] -- smbd runs while the system preferences say that it shall.
# It shall while the array EnabledServices holds "disk"; smbServiceWanted, which stands beside this
# script, reads that.  With --once it looks once; without, it stays and looks after every change.
# Where systemd is process 1, smbd is the unit smbd.service, otherwise a daemon started here.
# Exit status: 0 --once has done it, or cannot read the preferences and leaves smbd as it is, which
# it says; 1 something failed, with the reason on stderr.  The long-lived form ends only by a signal or
# by failing; its supervisor starts it again.
set -eu
PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C
export PATH LC_ALL
unset SMB_CONF_PATH
umask 022
exec </dev/null

FOLDER=/Library/Preferences/SystemConfiguration
FILE=com.apple.smb.server.plist
LOCK=/run/pelago-smb-switch.lock
SMBD_SECONDS=15  # how long smbd may take to come up, or to go
LOCK_SECONDS=120 # how long to wait for another look

say() { printf 'smbSwitch.sh: %s\n' "$1" >&2 2>/dev/null || :; }

fail() {
    say "$1"
    exit 1
}

uptimeSeconds() {
    read -r uptime _ </proc/uptime
    printf '%s' "${uptime%%.*}"
}

# waitUntil COMMAND [ARG...]: fails when that has not come true in time.
waitUntil() {
    deadline=$(($(uptimeSeconds) + SMBD_SECONDS))
    until "$@"; do
        [ "$(uptimeSeconds)" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

# ---- smbd without systemd

isAnswering() { smbcontrol -t 1 smbd ping >/dev/null 2>&1; }

# Prints the number in PROGRAM's file in pidFolder when that process runs and is PROGRAM: a file that
# was left behind may name anybody.
pidOf() {
    pid=''
    read -r pid 2>/dev/null <"$pidFolder/$1.pid" || [ -n "$pid" ] || return 1
    case $(readlink -- "/proc/$pid/exe") in
        */"$1" | */"$1 (deleted)") printf '%s' "$pid" ;;
        *) return 1 ;;
    esac
}

# By its number: at its end smbd removes its file first.
isGone() { ! readlink -- "/proc/$1/exe" >/dev/null; }

# smbd -D leaves our session and process group.  At its end smbd signals its whole group: had it
# stayed in ours, it would take us along.
startDaemon() {
    ! isAnswering || return 0
    smbd -D >/dev/null 2>&1 || return 1
    waitUntil isAnswering
}

# smbd starts samba-dcerpcd for clients that list the shares, and does not end it.
stopDaemon() {
    pidFolder=$(testparm -s --parameter-name='pid directory' 2>/dev/null) || {
        say "cannot read Samba's configuration, which tells where smbd's number is"
        return 1
    }
    for daemon in smbd samba-dcerpcd; do
        if daemonPid=$(pidOf "$daemon"); then
            kill "$daemonPid" 2>/dev/null || : # it may have ended just now
            waitUntil isGone "$daemonPid" || return 1
        fi
    done
}

startSmbd() {
    if [ -d /run/systemd/system ]; then systemctl start smbd.service; else startDaemon; fi
}

stopSmbd() {
    if [ -d /run/systemd/system ]; then systemctl stop smbd.service; else stopDaemon; fi
}

# ---- Looking

syncSmbd() {
    wanted=0
    "${0%/*}/smbServiceWanted" || wanted=$?
    case $wanted in
        0) startSmbd || fail 'cannot start smbd' ;;
        1) stopSmbd || fail 'cannot stop smbd' ;;
        2) say 'the preferences cannot be read; smbd stays as it is' ;;
        *) fail "smbServiceWanted ended with status $wanted" ;;
    esac
}

# Whoever can open the file can hold the lock.  One that others can open is replaced: they may have
# it open already.
openLock() {
    [ ! -e "$LOCK" ] || [ "$(stat -c '%u %a' -- "$LOCK")" = '0 600' ] || rm -f -- "$LOCK"
    umask 077
    exec 9>"$LOCK"
    umask 022
}

# One look at a time, each of which reads the preferences anew: whoever comes last has seen the last
# change.  The descriptors are closed for what is started, or a daemon would hold the lock for ever.
syncAlone() {
    openLock
    flock -w "$LOCK_SECONDS" 9 || fail "another look has not ended within $LOCK_SECONDS s"
    syncSmbd 3<&- 9>&-
    exec 9>&-
}

# ---- Watching

watcher='' pipeFolder=''
removePipe() {
    [ -z "$pipeFolder" ] || rm -rf -- "$pipeFolder"
    pipeFolder=''
}

endWatcher() {
    [ -z "$watcher" ] || kill "$watcher" 2>/dev/null || :
    [ -z "$watcher" ] || wait "$watcher" 2>/dev/null || :
    removePipe
}

# The folder is watched, not the file: each change puts a new file in the old one's place, and a
# watch goes with the old one.
startWatcher() {
    pipeFolder=$(mktemp -d)
    mkfifo -- "$pipeFolder/events"
    inotifywait --monitor --format '%e %f' \
        -e close_write,moved_to,delete,delete_self,move_self,unmount \
        -- "$FOLDER" >"$pipeFolder/events" 2>&1 &
    watcher=$!
    exec 3<"$pipeFolder/events"
    removePipe
}

watch() {
    trap endWatcher EXIT
    trap 'exit 129' HUP
    trap 'exit 130' INT
    trap 'exit 143' TERM
    startWatcher
    complaint=''
    while read -r line <&3; do
        case $line in
            # Only now, so that no change falls between the first look and the watch.
            'Watches established.') syncAlone ;;
            DELETE_SELF* | MOVE_SELF* | UNMOUNT*) fail "$FOLDER is gone" ;;
            *" $FILE") syncAlone ;;
            'Setting up watches.' | [A-Z]*_*' '* | 'DELETE '*) ;;
            *) complaint=$line ;;
        esac
    done
    fail "cannot watch $FOLDER: ${complaint:-inotifywait has ended}"
}

case $# in
    0) watch ;;
    1) [ "$1" = --once ] || fail 'usage: smbSwitch.sh [--once]'; syncAlone ;;
    *) fail 'usage: smbSwitch.sh [--once]' ;;
esac
