#!/bin/sh
# onBareHosts.sh FOLDER COMMAND [ARG...] -- runs COMMAND in tools/sandbox.sh, for what uses bareHost.py.
# The hosts' root is in FOLDER; makeRoot.sh makes it there if need be.
# Exit status: the command's; 77 where the root could not be fetched; 1 where it could not be made.
set -eu
here=$(cd "$(dirname "$0")" && pwd -P)
folder=$1
shift
"$here/makeRoot.sh" "$folder"
exec "$here/../../tools/sandbox.sh" --bind "$folder/root" /bareRoot "$@"
