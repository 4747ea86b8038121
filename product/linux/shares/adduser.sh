#!/bin/sh
# adduser.sh USER USER PASSWORD_FILE -- makes the user that a share is served to.
# Exit status: 0 the user can log in to Samba with that password; otherwise nothing was changed, and
# standard error has the reason.
exec "${0%/*}/../host/pelagoHost" adduser "$@"
