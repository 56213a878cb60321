#!/bin/bash
# QEMU's own iSCSI driver, which flushes whatever the LUN says of its cache: images are converted to a LUN and
# back in every cache mode, a qcow2 image lives on it with a snapshot, and a file system's journal with fsync.
. "$(dirname "$0")/../../scripts/lib/session.sh"
requires command -v qemu-img
requires modprobe nbd

its_name=iqn.2008-11.org.linux-kvm # without a word from the user
url=iscsi://$portal/$target/0
host_file "$a $its_name" "$(lun served served 24MiB "number = 0")" >"$work/host.toml"
step "the LUN's file is made" moscsi-host create "$work/host.toml" served
step "the host starts" host_start "$work/host.toml"

there_and_back() { # CACHE-MODE
    head -c 24M /dev/urandom >"$work/image"
    qemu-img convert -n -t "$1" -f raw -O raw "$work/image" "$url"
    qemu-img convert -T "$1" -f raw -O raw "$url" "$work/back"
    cmp "$work/image" "$work/back"
    cmp "$work/image" "$work/served.img"
}
for mode in none directsync writethrough writeback unsafe; do
    step "qemu-img converts to the LUN and back, cache mode $mode" there_and_back $mode
done
rm "$work/image" "$work/back"

qcow2() { qemu-io -f qcow2 -t none "$@" "$url"; }
qcow2_image() {
    qemu-img create -q -f qcow2 "$url" 12M
    qcow2 -c "write -P 7 0 4M" -c flush
    qemu-img snapshot -c before "$url"
    qcow2 -c "write -P 8 1M 6M" -c flush
    qemu-img check -f qcow2 "$url"
    qcow2 -c "read -P 7 0 1M" -c "read -P 8 1M 6M"
    qemu-img snapshot -a before "$url"
    qcow2 -c "read -P 7 0 4M" -c "read -P 0 4M 8M"
}
step "a qcow2 image on the LUN: written, snapshot, checked, taken back" qcow2_image
step "qemu-img bench writes with a flush after every eighth" \
    qemu-img bench -w -c 200 -d 8 -s 4096 --flush-interval=8 -t none -f raw "$url"
step "write zeroes" qemu-io -f raw -t none -c "write -P 9 0 1M" -c "write -z 64k 128k" -c flush \
    -c "read -P 9 0 64k" -c "read -P 0 64k 128k" -c "read -P 9 192k 832k" "$url"

attach() {
    qemu-nbd -c /dev/nbd0 -f raw --cache=none "$url"
    wait_until 20 nbd_has_size
}
nbd_has_size() { (($(<"/sys/block/nbd0/size") > 0)); }
detach() {
    qemu-nbd -d /dev/nbd0
    wait_until 20 gone /sys/block/nbd0/pid
}
file_system() {
    mkfs.ext4 -q -E nodiscard /dev/nbd0
    mount /dev/nbd0 "$work/mnt"
    for ((i = 0; i < 20; i++)); do
        dd if=/dev/urandom of="$work/mnt/file$i" bs=64k count=4 conv=fsync status=none
    done
    (cd "$work/mnt" && sha256sum file*) >"$work/sums"
    umount "$work/mnt"
}
looked_at_again() {
    fsck.ext4 -fn /dev/nbd0
    mount -o ro /dev/nbd0 "$work/mnt"
    (cd "$work/mnt" && sha256sum -c "$work/sums")
    umount "$work/mnt"
}
mkdir "$work/mnt"
cleanup sh -c "umount $work/mnt; qemu-nbd -d /dev/nbd0; true"
step "the guest's nbd is attached through QEMU's driver" attach
step "a file system, 20 files with fsync" file_system
step "detached" detach
step "attached again" attach
step "fsck, and the files are as they were" looked_at_again
step "detached" detach
step "the host stops" host_stop
