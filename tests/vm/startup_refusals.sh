#!/bin/bash
# What keeps the host from serving: each ends in one clear line and a non-zero status, and leaves
# configfs as it was.
. "$(dirname "$0")/../../scripts/lib/session.sh"

truncate -s 8M "$work/lun.img"
configuration() { # KIND [SIZE]
    host_file $a "$(lun lun "$1" "${2:-8MiB}" "number = 0")"
}
good=$work/good.toml user=$work/user.toml
configuration file >"$good"
configuration memory >"$user"

step "-start" $service -start
foreign_target
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

sed 's|/lun.img|&; reboot|' "$good" >"$work/bad.toml"
refuses "bad.toml:5" "a path with a shell's characters" "${serve[@]}" "$work/bad.toml"
configuration file 4MiB >"$work/bad.toml"
refuses "bad.toml:5" "a file of another length" "${serve[@]}" "$work/bad.toml"
sed 's|/lun.img||' "$good" >"$work/bad.toml"
refuses "bad.toml:5" "a directory as path" "${serve[@]}" "$work/bad.toml"
refuses "nothing.toml" "a configuration that isn't there" "${serve[@]}" "$work/nothing.toml"

# Files that can't be written, or that somebody else writes.
mkdir "$work/ro"
mount -t tmpfs tmpfs "$work/ro"
cleanup umount "$work/ro"
fixed=/var/tmp/fixed.img
truncate -s 8M "$work/ro/lun.img" $fixed
mount -o remount,ro "$work/ro"
chattr +i $fixed
cleanup sh -c "chattr -i $fixed; rm $fixed"
unwritable() { # PATH TEXT WHAT
    sed "s|$work/lun.img|$1|" "$good" >"$work/bad.toml"
    refuses "$2" "$3" moscsi-host check "$work/bad.toml"
}
unwritable "$work/ro/lun.img" "mounted read-only" "a read-only file system"
unwritable $fixed "is immutable" "an immutable file"
loop=$(losetup --find --show "$work/lun.img")
unwritable "$work/lun.img" "behind the loop device ${loop#/dev/}" "a file behind a loop device"
losetup -d "$loop"
exec {open}<>"$work/lun.img"
unwritable "$work/lun.img" "open for writing by process" "a file that a process writes"
exec {open}>&-

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
coproc open { exec targetcli 2>&1 {say_fd}>&-; }
cleanup sh -c "pkill -x targetcli || true"
# shellcheck disable=SC2154 # bash sets it for the coprocess
open_pid=$open_PID
wait_until 60 sh -c "lsof -t /run/targetcli.lock || fuser /run/targetcli.lock"
last_complaint() { "$@" 2>&1 | grep '^moscsi-host: ' | tail -n 1; }
MOSCSI_TARGETCLI_LOCK_WAIT=2 refuses "process $open_pid" "a targetcli that somebody left open" \
    last_complaint "${serve[@]}" "$good"
echo exit >&"${open[1]}"
wait_until 20 ended "$open_pid"

# What a user LUN needs beyond that: the bus's name, and the kernel's TCM-USER.
cat >"$work/owner" <<'OWNER'
from gi.repository import Gio, GLib
Gio.bus_own_name(Gio.BusType.SYSTEM, "org.kernel.TCMUService1", 0, None, None, None)
GLib.MainLoop().run()
OWNER
owned() { dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.GetNameOwner string:org.kernel.TCMUService1; }
python3 "$work/owner" {say_fd}>&- &
owner=$!
cleanup sh -c "kill $owner 2>/dev/null || true"
wait_until 30 owned
for version in 2.1.fb53 2.1.fb42; do
    MOSCSI_TARGETCLI_VERSION=$version refuses "owned by python3 (process $owner)" \
        "another owner of the bus's name (targetcli $version)" "${serve[@]}" "$user"
done
kill "$owner"
without_tcmu() {
    local status=0
    rmmod target_core_user
    echo 'install target_core_user /bin/false' >/etc/modprobe.d/no-tcmu.conf
    "${serve[@]}" "$user" || status=$?
    rm /etc/modprobe.d/no-tcmu.conf
    return $status
}
refuses "target_core_user" "no TCM-USER" without_tcmu

foreign_port() { # another target's portal has the service port
    local np=$configfs/target/iscsi/$foreign/tpgt_1/np
    mkdir "$np/127.0.0.1:3260"
    before=$(configfs_snapshot $configfs/target)
}
foreign_port
refuses "portal" "a foreign portal on the service port" "${serve[@]}" "$good"
rmdir $configfs/target/iscsi/$foreign/tpgt_1/np/127.0.0.1:3260
