#!/bin/dash
# clear.sh -- removes the shares and users of sessions that ended without removing them, because their tool
# was killed or the Mac went down.  launchd runs it when the Mac has started, and every 30 s.  It does not
# switch the SMB service off, because the preferences do not say who switched it on.  It does not touch the
# users and shares of sessions that run.
# Exit status: 0 nothing of an ended session is left, except perhaps the service; 1 something is left, and
# stderr names it.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

SMB_PREFERENCES=/Library/Preferences/SystemConfiguration/com.apple.smb.server

# Prints a line for each share and each user that a session has, or has left.
listNotes() {
    for note in "$SHARE_STATE"/_* "$USER_STATE"/*; do
        [ ! -e "$note" ] || printf '%s\n' "$note"
    done
}

# Returns whether the preferences enable the SMB service.
isServiceWanted() {
    /usr/bin/defaults read "$SMB_PREFERENCES" EnabledServices 2>/dev/null | grep -w disk >/dev/null
}

# When the last session was removed and the service is on, a message warns that nobody may need it.
main() {
    notesBefore=$(listNotes) status=0
    clearDeadSessions || status=1
    notesAfter=$(listNotes)
    if [ -n "$notesBefore" ] && [ -z "$notesAfter" ] && isServiceWanted; then
        say "file sharing is on, by a session that was cleared away or by somebody else: if nobody\
 needs it, switch it off in System Settings, General, Sharing"
    fi
    exit "$status"
}

[ "$#" -eq 0 ] || fail 'usage: clear.sh'
requireRoot
[ -n "$(listNotes)" ] || exit 0
underLock main
