#!/bin/dash
# clear.sh -- removes the shares and the users of sessions that have ended without removing them: their
# tool was killed, or the Mac went down.  It is what runs when the Mac has started.
# Exit status: 0 nothing of such a session is left; 1 something is, and stderr says what.  What a
# session that runs has is not touched.
# shellcheck source=SCRIPTDIR/common.sh
. "${0%/*}/common.sh"

[ "$#" -eq 0 ] || fail 'usage: clear.sh'
underLock clearDeadSessions
