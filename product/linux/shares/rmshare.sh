#!/bin/sh
# rmshare.sh SHARE FOLDER -- ends a share that addshare.sh made, and cuts its clients off.
# Exit status: 0 there is no such share any more; otherwise standard error names what is left.
exec "${0%/*}/../host/pelagoHost" rmshare "$@"
