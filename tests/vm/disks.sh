#!/bin/bash
# User LUNs on files on what users have below their files: LUKS, LVM (linear, thin, a snapshot and its origin), md,
# xfs, btrfs, tmpfs, overlayfs. Each is written by an initiator, and what it reads afterwards, with no page of it left
# in memory, is that; so is the file past the page cache.
# limit: 400
. "$(dirname "$0")/../../scripts/lib/session.sh"
. "$(dirname "$0")/../../scripts/lib/disks.sh"
export MOSCSI_TARGETCLI_VERSION=2.1.fb42 # made through configfs: many creates at no cost
modprobe -a dm_crypt dm_thin_pool dm_snapshot raid1 xfs btrfs overlay

ext4_at() { mkfs.ext4 -q "$2" && mount_at "$work/$1" "$2"; }
luks() {
    loop_of luks 24M
    echo key | cryptsetup luksFormat -q --type luks1 --pbkdf-force-iterations 1000 --key-file - "$loop"
    echo key | cryptsetup open --key-file - "$loop" disks-luks
    cleanup cryptsetup close disks-luks
    ext4_at luks /dev/mapper/disks-luks
}
lvm() {
    loop_of lvm 140M
    mkdir "$LVM_SYSTEM_DIR"
    printf '%s\n' 'activation { udev_sync=0 udev_rules=0 monitoring=0 }' 'backup { backup=0 archive=0 }' \
        'devices { obtain_device_list_from_udev=0 use_devicesfile=0 }' >"$LVM_SYSTEM_DIR/lvm.conf"
    vgcreate disks "$loop"
    cleanup vgremove -ff disks
    lvcreate -Wn -Zn -n linear -L 20M disks
    lvcreate -Wn -Zn -n origin -L 20M disks
    lvcreate --type thin-pool -n pool -L 32M disks
    lvcreate --thin -n thin -V 20M disks/pool
    mkfs.ext4 -q /dev/mapper/disks-origin
    lvcreate -s -n snap -L 16M disks/origin
    for volume in linear thin; do ext4_at $volume /dev/mapper/disks-$volume; done
    for volume in origin snap; do mount_at "$work/$volume" /dev/mapper/disks-$volume; done
}
export LVM_SYSTEM_DIR=$work/lvm
md() {
    loop_of md1 24M && set -- "$loop"
    loop_of md2 24M
    mdadm --create /dev/md0 --run --assume-clean --level=1 --raid-devices=2 "$1" "$loop"
    cleanup mdadm --stop /dev/md0
    ext4_at md /dev/md0
}
others() {
    loop_of xfs 300M && mkfs.xfs -q "$loop" && mount_at "$work/xfs" "$loop"
    loop_of btrfs 128M && mkfs.btrfs -q "$loop" && mount_at "$work/btrfs" "$loop"
    mount_at "$work/tmpfs" -t tmpfs tmpfs
    mkdir "$work/lower" "$work/upper" "$work/index"
    mount_at "$work/overlay" -t overlay overlay -o "lowerdir=$work/lower,upperdir=$work/upper,workdir=$work/index"
}
step "a file system on LUKS" luks
step "four on LVM" lvm
step "one on md" md
step "xfs, btrfs, tmpfs, overlayfs" others

places=(luks linear thin origin snap md xfs btrfs tmpfs overlay)
for place in "${places[@]}"; do
    lun_dir=$work/$place
    luns+=("$(lun "$place" served 4MiB "engine = \"io_uring\", number = ${#luns[@]}")")
done
host_file $a "${luns[@]}" >"$work/host.toml"
step "the LUNs' files are made" moscsi-host create "$work/host.toml" "${places[@]}"
step "the host starts" host_start "$work/host.toml"
step "host-a logs in" login $a "$target"

head -c $((${#places[@]} << 20)) /dev/urandom >"$work/random"
part() { dd if="$work/random" bs=1M skip="$1" count=1 iflag=fullblock status=none; } # LUN: its data
write_all() {
    for n in "${!places[@]}"; do
        disks[n]=$(disk_of $a "$target" "$n")
        part "$n" | dd of="${disks[n]}" bs=256k iflag=fullblock oflag=direct conv=fsync,notrunc
    done
    echo 3 >/proc/sys/vm/drop_caches
}
# From the disk of the initiator or from the file itself, with no page of it in memory.
same() { dd if="$1" bs=256k count=4 iflag="${3-direct}" status=none | cmp - <(part "$2"); }
read_all() {
    for n in "${!places[@]}"; do
        echo "${places[n]}"
        same "${disks[n]}" "$n"
        flags=direct
        [[ ${places[n]} != tmpfs ]] || flags=fullblock # it knows no O_DIRECT before Linux 6.6
        same "$work/${places[n]}/${places[n]}.img" "$n" $flags
    done
}
step "each is written" write_all
step "each is read" read_all
step "host-a logs out" forget $a "$target" $portal
step "the host stops" host_stop
