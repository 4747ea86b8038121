#!/bin/sh
# rmuser.sh USER -- ends the connections of a user that adduser.sh made, and removes the user.
# It works whether or not smbd runs, and asks for nothing that its caller may hold: the caller has the
# system preferences locked meanwhile.
# Exit status: 0 there is no such user any more; otherwise standard error says what is left.
exec "${0%/*}/../host/pelagoHost" rmuser "$@"
