#!/bin/dash
# clear.sh -- removes the shares and the users of sessions that have ended without removing them: their
# tool was killed, or the Mac went down.  launchd runs it when the Mac has started, and every half minute.
# The SMB service stays as it is: the preferences do not say who wanted it.  What a session that runs has
# is not touched.
# Exit status: 0 nothing of an ended session is left but, maybe, the service; 1 something is, and stderr
# says what.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

SMB_PREFERENCES=/Library/Preferences/SystemConfiguration/com.apple.smb.server

# Prints a line for each share and each user that sessions have, or have left.
listNotes() {
    for note in "$SHARE_STATE"/_* "$USER_STATE"/*; do
        [ ! -e "$note" ] || printf '%s\n' "$note"
    done
}

isServiceWanted() {
    /usr/bin/defaults read "$SMB_PREFERENCES" EnabledServices 2>/dev/null | grep -w disk >/dev/null
}

# With no session left that could need the service, somebody should know that it may be on for nobody.
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
