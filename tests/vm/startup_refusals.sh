#!/bin/bash
# What keeps the host from serving: each ends in one clear line and a non-zero status, and leaves
# configfs as it was.
. "$(dirname "$0")/lib.sh"
requires command -v moscsi-host

target=iqn.2026-01.com.example:refused
truncate -s 8M "$work/lun.img"
configuration() { # FILE PATH-OF-LUN [SIZE]
    cat >"$1" <<EOF
[[target]]
name = "$target"
[[target.lun]]
name = "lun"
type = "file"
path = "$2"
size = "${3:-8MiB}"
number = 0
[[target.initiator]]
name = "iqn.2026-01.com.example:host-a"
luns = "all"
EOF
}
good=$work/good.toml
configuration "$good" "$work/lun.img"

step "-start" $service -start
foreign_target iqn.2003-01.org.example:foreign
cleanup foreign_remove iqn.2003-01.org.example:foreign
before=$(configfs_snapshot $configfs/target)

# refuses TEXT WHAT CMD...: CMD says TEXT in one line of moscsi-host's, and nothing has changed.
refuses() {
    local text=$1 what=$2
    shift 2
    expect_fails "$text" "$@"
    expect_eq "configfs after $what" "$(configfs_snapshot $configfs/target)" "$before"
    say "           $what: $text"
}
serve=(timeout 100 moscsi-host serve)

configuration "$work/bad.toml" "$work/lun.img; reboot"
refuses "bad.toml:6" "a path with a shell's characters" "${serve[@]}" "$work/bad.toml"
configuration "$work/bad.toml" "$work/lun.img" 4MiB
refuses "bad.toml:" "a file of another length" "${serve[@]}" "$work/bad.toml"
configuration "$work/bad.toml" "$work"
refuses "bad.toml:6" "a directory as path" "${serve[@]}" "$work/bad.toml"
refuses "nothing.toml" "a configuration that isn't there" "${serve[@]}" "$work/nothing.toml"

refuses "upgrade to targetcli version 2.1.fb41 or higher" "an old targetcli" \
    env MOSCSI_TARGETCLI_VERSION=2.1.fb40 "${serve[@]}" "$good"
hidden() { # FILE CMD...: with FILE out of the way
    local file=$1 status=0
    shift
    mv "$file" "$file.away"
    "$@" || status=$?
    mv "$file.away" "$file"
    return $status
}
refuses "targetcli-fb" "no targetcli" hidden /usr/bin/targetcli "${serve[@]}" "$good"
refuses "moscsi_server.sh -start failed" "no service script" hidden $service "${serve[@]}" "$good"
refuses "root" "no root" setpriv --reuid=65534 --clear-groups "${serve[@]}" "$good"
without_dbus() {
    local status=0
    dbus_stop
    "${serve[@]}" "$good" || status=$?
    dbus_start
    return $status
}
refuses "D-Bus" "no D-Bus" without_dbus

# A targetcli that somebody left open holds the lock of all others.
exec {held}>/run/targetcli.lock
flock "$held"
export MOSCSI_TARGETCLI_LOCK_WAIT=2
refuses "lock" "a held targetcli lock" "${serve[@]}" "$good"
flock -u "$held"

foreign_port() { # another target's portal has the service port
    local np=$configfs/target/iscsi/iqn.2003-01.org.example:foreign/tpgt_1/np
    mkdir "$np/127.0.0.1:3260"
    before=$(configfs_snapshot $configfs/target)
}
foreign_port
refuses "portal" "a foreign portal on the service port" "${serve[@]}" "$good"
rmdir $configfs/target/iscsi/iqn.2003-01.org.example:foreign/tpgt_1/np/127.0.0.1:3260
