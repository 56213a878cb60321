# shellcheck shell=bash
# shellcheck disable=SC2154 # $work is of session.sh
# Disks below a scenario's LUN files; sourced after session.sh. The guest has no udev to wait for.
export DM_DISABLE_UDEV=1 MDADM_NO_UDEV=1

# loop_of NAME SIZE: $loop is a loop device of SIZE on a new sparse file.
loop_of() {
    truncate -s "$2" "$work/$1.disk"
    loop=$(losetup --find --show "$work/$1.disk")
    cleanup losetup -d "$loop"
}
# mount_at PLACE [ARG...]: mounts there, with the arguments of mount(8).
mount_at() {
    mkdir "$1"
    mount "${@:2}" "$1"
    cleanup umount "$1"
}
# dm COMMAND NAME: without what it says of udev each time.
# shellcheck disable=SC2086 # a command may have options
dm() { dmsetup $1 "$2" 2>>"$work/dm.log"; }
# dm_table NAME LINE...: the lines are the mapped device's table from now on; what its old one holds back goes on.
dm_table() {
    dm "suspend --noflush --nolockfs" "$1"
    printf '%s\n' "${@:2}" | dm load "$1"
    dm resume "$1"
}
