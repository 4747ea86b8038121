#!/bin/sh
# byHand.sh [PREFIX...] -- runs a session of the tool that was built, on a throw-away machine, to try it by hand.
#
#    sudo tools/byHand.sh               shares /srv/docs as Docs for alice until Enter is pressed
#    sudo tools/byHand.sh gdb --args    does the same in the debugger
#    sudo tools/byHand.sh strace -f     does the same under strace
#
# The machine has Samba, the service switch, and preferences in which the service is off.
# PELAGO_BUILD is the build folder, by default build/dev.
# Exit status: the tool's or PREFIX's; 1 when the tool is not built; 125 when no throw-away machine can be made.
set -eu
project=$(cd "$(dirname "$0")/.." && pwd -P)
library=${PELAGO_BUILD:-$project/build/dev}/Pelago.app/Contents/Library
tool=$library/shares/pelagoShareTool
prefs=/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist

[ -x "$tool" ] || {
    printf 'byHand.sh: there is no %s; "cmake --build --preset dev --target pelago_bundle" makes one\n' "$tool" >&2
    exit 1
}
[ -e /run/throw-away-machine ] || exec "$project/tools/sandbox.sh" "$0" "$@"

mkdir -p /etc/samba /run/samba /var/log/samba /var/cache/samba /var/lib/samba/private "${prefs%/*}" /srv/docs
cp "$project/examples/smb.conf" /etc/samba/smb.conf
printf '<plist version="1.0"><dict/></plist>\n' >"$prefs"
(umask 077 && printf 'secret\n' >/root/password)

"$library/host/pelagoHost" switch &
switch=$!
status=0
"$@" "$tool" /srv/docs Docs alice /root/password rw || status=$?
kill "$switch"
wait "$switch" || :
exit "$status"
