#!/bin/sh
# smbdHandOver.sh take|back -- hands smbd over from Debian's unit to the switch, or back.  Needs systemd.
#
#   take   notes whether smbd.service is enabled and active, and disables it: from now on the switch starts
#          it.  If it is disabled already, an earlier note is kept.  Only the unit of the switch calls this,
#          before it starts the switch.
#   back   disables and stops the switch, and puts smbd.service into the noted state.  If the switch is
#          disabled and does not run, it changes nothing: smbd does not belong to the switch then.
# Exit status: 0 done; 1 something failed, and standard error has the reason.
set -eu
PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C
export PATH LC_ALL
NOTE=/var/lib/pelago/smbd.service.before

say() { printf '%s\n' "$1" >&2; }
is() { systemctl --quiet "is-$2" "$1.service" 2>/dev/null; }

note() {
    mkdir -p -- "${NOTE%/*}"
    enabled=disabled active=stopped
    ! is smbd enabled || enabled=enabled
    ! is smbd active || active=running
    printf '%s %s\n' "$enabled" "$active" >"$NOTE"
    say "smbd.service was $enabled and $active; from now on it runs while the preferences enable file sharing"
}

take() {
    { [ -e "$NOTE" ] && ! is smbd enabled; } || note
    ! is smbd enabled || systemctl disable smbd.service
}

back() {
    is pelago-smb-switch enabled || is pelago-smb-switch active || return 0
    systemctl disable --now pelago-smb-switch.service
    [ -e "$NOTE" ] || return 0
    read -r enabled active <"$NOTE"
    [ "$enabled" = disabled ] || systemctl enable smbd.service
    if [ "$active" = running ]; then systemctl start smbd.service; else systemctl stop smbd.service; fi
    rm -f -- "$NOTE"
    say "smbd.service is $enabled and $active again, as it was before the switch"
}

case "$#:${1-}" in
    1:take) take ;;
    1:back) back ;;
    *) say 'usage: smbdHandOver.sh take|back'; exit 1 ;;
esac
