# shellcheck shell=sh
# folder.sh -- judges the folder that is to be shared.  It is sourced by addshare.sh.
#
# Other users may own folders on the caller's path, and the owner of a folder can replace a file or
# folder in it by a link.  So the script walks the path as it was given, one component at a time: it
# looks at each component without following a link, enters it, and checks that the folder it has entered
# is the one it looked at.  A link is followed only if nobody but root and the owner of the last folder
# could have made the link or changed the path to it; if that owner is root, the whole path must be root's.

MAX_TURNS=40 # links and ".." that are followed
# What holds the system, or everything of everybody.  Most are root's, who can change what they hold.
SYSTEM_FOLDERS='/ /System /System/Volumes /System/Volumes/Data /Users /Volumes /Library /Applications
    /private /private/etc /private/tmp /private/var /private/var/root /private/var/db /usr /bin /sbin /opt'

# Sets id (device and number), mode (in octal, with the kind) and uid of what is at NAME, which is not
# followed.
look() {
    looked=$(/usr/bin/stat -f '%d:%i %p %u' "$1" 2>/dev/null) || return 1
    id=${looked%% *} uid=${looked##* } looked=${looked% *}
    mode=${looked##* }
}

othersMayWrite() { case $mode in *[2367]? | *[2367]) ;; *) return 1 ;; esac; }

# Whether an access entry of NAME gives anybody more than to look: whom it names is not asked.  So it is
# when the entries cannot be read.
hasOpenEntry() {
    ! /bin/ls -lqed -- "$1" 2>/dev/null | awk '
        BEGIN {
            count = split("list search read execute readattr readextattr readsecurity file_inherit" \
                " directory_inherit limit_inherit only_inherit", names, " ")
            for (i = 1; i <= count; i++) looks[names[i]] = 1
        }
        /^ [0-9]+: / && $(NF - 1) == "allow" {
            count = split($NF, rights, ",")
            for (i = 1; i <= count; i++) if (!(rights[i] in looks)) open = 1
        }
        END { exit open || NR == 0 }'
}

failToFind() { fail "not a folder: \"$given\""; }

turn() {
    turns=$((turns + 1))
    [ "$turns" -le "$MAX_TURNS" ] || fail "more than $MAX_TURNS links and \"..\" on the way: \"$given\""
}

# enter NAME: the folder that was just looked at.  Adds to changers who can change what it holds: in one
# with the sticky bit others cannot rename what is not theirs.  wayChangers are those above it.
enter() {
    enteredId=$id wayChangers=$changers
    { cd -P -- "$1" 2>/dev/null && look . && [ "$id" = "$enteredId" ]; } ||
        fail "the way to the folder changes while it is looked at: \"$given\""
    changers="$changers $uid"
    case $mode in
        *[1357]???) ;;
        *) ! othersMayWrite || changers="$changers others" ;;
    esac
    ! hasOpenEntry . || changers="$changers others"
}

# startOver PATH: goes on with it from the root, before what is ahead.
startOver() {
    ahead=$1/$ahead changers=''
    look / || failToFind
    enter /
}

followLink() {
    turn
    linkUid=$uid
    target=$(/usr/bin/readlink -n "$1" && printf .) || failToFind
    look . || failToFind
    linkChangers="$linkChangers $changers"
    ! othersMayWrite || linkChangers="$linkChangers $linkUid"
    ! hasOpenEntry "$1" || linkChangers="$linkChangers others"
    target=${target%.}
    case $target in
        /*) startOver "$target" ;;
        *) ahead=$target/$ahead ;;
    esac
}

# The folder above is come to by its own path, so that the way to it is judged as well.
goUp() {
    turn
    here=$(pwd -P && printf .)
    here=${here%"$newline".}
    startOver "${here%/*}"
}

takeComponent() {
    case $1 in
        .) return 0 ;;
        ..) goUp; return 0 ;;
    esac
    look "./$1" || failToFind
    case $mode in
        4????) enter "./$1" ;;
        12????) followLink "./$1" ;;
        *) failToFind ;;
    esac
}

# walk PATH: the script is in the folder afterwards, of which look has just been taken.
walk() {
    ahead='' linkChangers='' turns=0
    startOver "$1"
    while :; do
        while [ "${ahead#/}" != "$ahead" ]; do
            ahead=${ahead#/}
        done
        [ -n "$ahead" ] || break
        component=${ahead%%/*}
        ahead=${ahead#"$component"}
        takeComponent "$component"
    done
}

# judgeFolder PATH: sets folder to the same folder without links in its path, folderId, which it is
# known by, and folderOwner.
judgeFolder() {
    given=$1
    case $1 in /*) ;; *) fail "the folder's path is not absolute: \"$1\"" ;; esac
    isUtf8 "$1" || fail "the folder's path is not valid UTF-8"
    walk "$1"
    look . || failToFind
    folderId=$id folderOwner=$uid
    folder=$(pwd -P && printf .) || failToFind
    folder=${folder%"$newline".}
    cd /
    isUtf8 "$folder" || fail "the folder's path is not valid UTF-8"
    # shellcheck disable=SC2086 # a list of names; some are not on every Mac
    ! /usr/bin/stat -f '%d:%i' $SYSTEM_FOLDERS 2>/dev/null | grep -xF -e "$folderId" >/dev/null ||
        fail "a folder of the system's cannot be shared, nor the whole disk: \"$given\""
    judgeWay
}

judgeWay() {
    if [ "$folderOwner" = 0 ]; then
        [ -z "$linkChangers" ] ||
            fail "the folder is root's and a link leads to it; its own path is \"$folder\": \"$given\""
        linkChangers=$wayChangers
    fi
    for changer in $linkChangers; do
        case $changer in
            0 | "$folderOwner") ;;
            *) fail "others than the owner of \"$folder\" can change the way there: \"$given\"" ;;
        esac
    done
}
