#!/bin/sh
# rmuser.sh USER -- ends the connections of a user that adduser.sh made, and removes the user.
# It works whether or not smbd runs, and waits for no lock that its caller may hold: the caller holds the
# lock of the system preferences meanwhile.
# Exit status: 0 there is no such user any more; otherwise standard error names what is left.
exec "${0%/*}/../host/pelagoHost" rmuser "$@"
