#!/bin/sh
# addshare.sh USER PASSWORD_FILE FOLDER SHARE rw|ro -- serves FOLDER as SHARE to USER alone.
# The client acts as the owner of the folder, with the owner's rights.
# Exit status: 0 a client can connect now; otherwise there is no share, and standard error has the
# reason.
exec "${0%/*}/../host/pelagoHost" addshare "$@"
