#!/bin/sh
# demo.sh -- shares a folder, reads it as a client, ends the share, and shows that nothing is left of it.
#
# Installs the packages that are needed, builds, and runs one real session: the tool, its scripts, Samba and
# a client.  They run on a throw-away copy of this machine (tools/sandbox.sh), which itself is not changed.
# The copy needs root, so a user who is not root is asked for sudo's password.
# Exit status: 0 when every step held.
set -eu
cd "$(dirname "$0")"
project=$(pwd -P)
build=${PELAGO_BUILD:-$project/build/release}
bundle=$build/Pelago.app
prefs=/Library/Preferences/SystemConfiguration/com.apple.smb.server.plist
folder=/home/carol/Documents
failures=0

# ---- The transcript

if [ -t 1 ]; then bold=$(printf '\033[1m') plain=$(printf '\033[0m'); else bold='' plain=''; fi
title() { printf '\n%s%s%s\n' "$bold" "$1" "$plain"; }
say() { printf '   %s\n' "$1"; }

# expect TEXT COMMAND [ARG...]: runs the command, and prints the text with "ok", or with "FAILED" and the output.
expect() {
    expectation=$1
    shift
    if "$@" >/tmp/expect.log 2>&1; then
        printf '   ok      %s\n' "$expectation"
    else
        printf '   FAILED  %s\n' "$expectation"
        sed 's/^/           /' /tmp/expect.log
        failures=$((failures + 1))
    fi
}

# within SECONDS COMMAND [ARG...]: repeats the command until it succeeds; fails when the time is over.
within() {
    attempts=$(($1 * 20))
    shift
    until "$@"; do
        [ "$attempts" -gt 0 ] || return 1
        attempts=$((attempts - 1))
        sleep 0.05
    done
}

# ---- The client

# smbGet USER PASSWORD_FILE: fetches letter.txt as that user.
smbGet() {
    PASSWD_FD=9 smbclient -U "$1" //127.0.0.1/Docs -c 'get letter.txt /tmp/fetched' 9<"$2" 2>&1
}
# isRefused USER PASSWORD_FILE STATUS: succeeds when the server refuses the user with that status.
isRefused() {
    if answer=$(smbGet "$1" "$2"); then
        printf 'let in: %s\n' "$answer"
        return 1
    fi
    printf '%s\n' "$answer"
    printf '%s\n' "$answer" | grep -q "$3"
}
fetchesTheLetter() { smbGet alice /root/password && cmp /tmp/fetched "$folder/letter.txt"; }
cannotConnect() { isRefused alice /root/password NT_STATUS_CONNECTION_REFUSED; }

servicesAre() { [ "$(plistutil -i "$prefs" | grep -o '<string>[a-z]*</string>' | tr -d '\n')" = "$1" ]; }
notHere() { ! "$@"; }
isUser() { getent passwd "$1" || pdbedit -L -u "$1"; }
isShare() { net conf showshare "$1"; }

# Runs while the share is open.
client() {
    expect 'the preferences contain "disk" now' servicesAre '<string>print</string><string>disk</string>'
    expect 'alice fetches letter.txt from \\127.0.0.1\Docs' fetchesTheLetter
    expect 'alice with a wrong password is refused' isRefused alice /root/wrong NT_STATUS_LOGON_FAILURE
    expect 'bob, who has a password of his own, is refused' \
        isRefused bob /root/bob NT_STATUS_ACCESS_DENIED
    return "$failures"
}

# ---- The session, on the throw-away machine

prepare() {
    title 'A machine of its own'
    mkdir -p /etc/samba /run/samba /var/log/samba /var/cache/samba /var/lib/samba/private
    cp "$project/examples/smb.conf" /etc/samba/smb.conf
    mkdir -p "${prefs%/*}"
    plistutil -o "$prefs" <<'END_OF_PREFS'
<plist version="1.0"><dict>
<key>NetBIOSName</key><string>DEMO</string>
<key>EnabledServices</key><array><string>print</string></array>
</dict></plist>
END_OF_PREFS
    cp "$prefs" /root/prefs.before
    umask 077
    # shellcheck disable=SC2016 # the password contains $taple as it is
    printf 'correct horse; "battery" $taple' >/root/password
    printf 'wrong\n' >/root/wrong
    printf 'bobs own\n' >/root/bob
    umask 022
    useradd --no-create-home --home-dir /home/carol carol
    useradd --no-create-home --shell /usr/sbin/nologin bob
    cat /root/bob /root/bob | smbpasswd -s -a bob >/dev/null
    mkdir -p "$folder"
    printf 'Dear Alice, this is for your eyes only.\n' >"$folder/letter.txt"
    chown -R carol "$folder"
    chmod 0700 "$folder"
    timeout 300 "$bundle/Contents/Library/host/pelagoHost" switch &
    say "carol owns $folder (mode 0700).  The SMB service is off."
    say 'bob is a user of this host.  There is no user alice yet.'
    expect 'there is no user alice' notHere isUser alice
    expect 'nobody answers on port 445' cannotConnect
}

session() {
    [ -e /run/throw-away-machine ] || {
        printf 'demo.sh: --session changes the machine: run it in tools/sandbox.sh only\n' >&2
        exit 1
    }
    prepare
    title 'pelagoShareTool shares the folder as Docs for alice'
    status=0
    "$build/examples/shareWhile" \
        "$bundle/Contents/Library/shares/pelagoShareTool" \
        "$folder" Docs alice /root/password ro "$project/demo.sh" --client || status=$?
    title 'Afterwards'
    expect 'the tool and the client succeeded' [ "$status" -eq 0 ]
    expect 'the share is gone' notHere isShare Docs
    expect 'alice is gone' notHere isUser alice
    expect 'nobody answers on port 445 any more' within 10 cannotConnect
    expect 'the preferences are the same as before, byte for byte' cmp "$prefs" /root/prefs.before
    expect 'no process of the session is left' within 10 notHere pgrep -l 'smbd|pelagoShareTool|rpcd'
    title "$([ "$failures" -eq 0 ] && echo 'Every step held.' || echo "$failures steps failed.")"
    [ "$failures" -eq 0 ]
}

case ${1-} in
    --client) client ;;
    --session) session ;;
    '')
        tools/setup.sh
        mkdir -p build
        printf 'building ...\n'
        { cmake --preset release && cmake --build --preset release --target pelago_bundle shareWhile; } >build/demo.log 2>&1 ||
            { cat build/demo.log >&2; exit 1; }
        if [ "$(id -u)" -eq 0 ]; then
            exec tools/sandbox.sh "$project/demo.sh" --session
        else
            exec sudo tools/sandbox.sh "$project/demo.sh" --session
        fi
        ;;
    *) printf 'usage: demo.sh\n' >&2; exit 2 ;;
esac
