#!/bin/sh
# Makes the kernel's target ready for the plug-in: directories, modules, configfs. Takes a second or
# two, can be run again at any time, and prints what it made. The plug-in runs it with -start at its
# start and with -stop at its end.
#
# MOSCSI_ROOT stands in front of every path, for this script's own test.
set -u
PATH="${PATH:-}:/usr/sbin:/usr/bin:/sbin:/bin"
root="${MOSCSI_ROOT:-}"
configfs="$root/sys/kernel/config"
target="$configfs/target"
database=/etc/rtslib-fb-target

usage() {
    echo "usage: moscsi_server.sh -start | -stop"
}

fail() {
    echo "moscsi_server.sh: $*" >&2
    exit 1
}

# Reservations that outlive a restart (pr) and ALUA states are kept in files below the database's
# directory. The kernel makes the files but not the directories, and without them every
# PERSISTENT RESERVE OUT fails.
make_database() {
    for directory in "$1/pr" "$1/alua"; do
        [ -d "$directory" ] && continue
        mkdir -p "$directory" 2>/dev/null || fail "can't make the directory $directory"
        echo "made $directory"
    done
}

load() {
    [ -d "$root/sys/module/$1" ] && return # loaded, or built into the kernel
    modprobe -q "$1" 2>/dev/null ||
        fail "the running kernel, $(uname -r), has no module $1: boot one that has it" \
            "(package linux-image-amd64)"
    echo "loaded $1"
}

mount_configfs() {
    while read -r _ place type _; do
        [ "$place $type" = "/sys/kernel/config configfs" ] && return
    done <"$root/proc/mounts"
    mount -t configfs configfs "$configfs" 2>/dev/null ||
        fail "can't mount configfs on $configfs: the running kernel, $(uname -r), lacks it"
    echo "mounted $configfs"
}

# A device is a directory in a backstore's; core/alua is the kernel's own.
has_device() {
    for device in "$target"/core/*/*/; do
        case "$device" in
        "$target"/core/alua/* | "$target/core/*/*/") ;;
        *) return 0 ;;
        esac
    done
    return 1
}

# targetcli's library keeps its files in another directory than the kernel's first choice, and sets
# it at its first run. The kernel refuses a change once there is a device, and older ones once a
# fabric module is loaded: so before those.
choose_database() {
    if [ "$(cat "$target/dbroot" 2>/dev/null)" != "$database" ] && ! has_device; then
        { echo "$database" >"$target/dbroot"; } 2>/dev/null ||
            fail "the kernel refuses $database as $target/dbroot"
        echo "set $target/dbroot to $database"
    fi
}

start() {
    [ "$(id -u)" = 0 ] || fail "must be run as root"
    [ -S "$root/run/dbus/system_bus_socket" ] ||
        fail "no D-Bus system bus at $root/run/dbus/system_bus_socket, which targetcli needs:" \
            "install and start dbus"
    make_database "$root/etc/target"
    make_database "$root$database"
    load target_core_mod
    mount_configfs
    [ -e "$target/dbroot" ] || fail "target_core_mod is loaded, but there is no $target/dbroot"
    choose_database
    for module in target_core_user target_core_file target_core_iblock iscsi_target_mod; do
        load "$module"
    done
    make_database "$root$(cat "$target/dbroot")"
}

[ $# -eq 1 ] || set -- ""
case "$1" in
-start) start ;;
-stop) ;; # targets, LUNs and modules stay: others may use them, and initiators still do
--help) usage ;;
*)
    usage >&2
    exit 2
    ;;
esac
