# shellcheck shell=sh
# folder.sh -- decides whether a folder may be shared.  It is sourced by addshare.sh.
#
# Other users may own folders on the caller's path, and the owner of a folder can replace a file or
# folder in it by a link.  So the script walks the path as it was given, one component at a time: it
# looks at each component without following a link, enters it, and checks that the folder it has entered
# is the one it looked at.  A link is allowed only if nobody but root and the owner of the last folder
# could have made the link or changed the path to it.  If that owner is root, no link is allowed, and
# nobody but root may be able to change the path.

MAX_TURNS=40 # links and ".." that are followed
# Folders that hold the system, or the files of all users.  Root owns most of them, so judgeWay would allow
# them.
SYSTEM_FOLDERS='/ /System /System/Volumes /System/Volumes/Data /Users /Volumes /Library /Applications
    /private /private/etc /private/tmp /private/var /private/var/root /private/var/db /usr /bin /sbin /opt'

# look NAME: sets id (device and inode number), mode (octal, with the type) and uid (the owner's number) of the
# file NAME; does not follow a link.  Returns 1 when there is none.
look() {
    looked=$(/usr/bin/stat -f '%d:%i %p %u' "$1" 2>/dev/null) || return 1
    id=${looked%% *} uid=${looked##* } looked=${looked% *}
    mode=${looked##* }
}

# Returns whether the group or others may write, by mode.
othersMayWrite() { case $mode in *[2367]? | *[2367]) ;; *) return 1 ;; esac; }

# hasOpenEntry NAME: returns whether an access entry allows anybody, whoever it names, more than to read.  True
# also when the entries cannot be read.
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

# Counts a link or ".."; fails after too many.
turn() {
    turns=$((turns + 1))
    [ "$turns" -le "$MAX_TURNS" ] || fail "more than $MAX_TURNS links and \"..\" on the way: \"$given\""
}

# enter NAME: enters the folder, which look has just seen.  changers lists the users who can change what the
# folders on the path hold, "others" for anybody; in a folder with the sticky bit others cannot rename what
# they do not own.  wayChangers is the list without this folder.
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

# startOver PATH: puts PATH before the components that are left, in ahead, and goes back to the root.
startOver() {
    ahead=$1/$ahead changers=''
    look / || failToFind
    enter /
}

# followLink NAME: puts the link's target before the components that are left.  Adds to linkChangers all who
# can change the link or the path to it.
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

# Goes to the folder above from the root by its own path, so that this path is checked, too.
goUp() {
    turn
    here=$(pwd -P && printf .)
    here=${here%"$newline".}
    startOver "${here%/*}"
}

# takeComponent NAME: walks on by one component.  The types are 4 for a folder and 12 for a link.
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

# walk PATH: walks to the end of the path, and leaves the script in the folder there.
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

# judgeFolder PATH: fails unless the folder may be shared.  Sets folder to its path without links, folderId to
# its id as look does, and folderOwner to its owner's number.
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

# Fails when others than root and the owner of the folder could have made a link on the path, or changed the
# path to that link.  A folder of root's must be given without links, and only root may be able to change
# the folders above it.
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
