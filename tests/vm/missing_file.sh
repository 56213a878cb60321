#!/bin/bash
# The host is killed while an initiator has a LUN's file system mounted, and the LUN's file goes out of sight: the
# next start serves the others, the LUN answers NOT READY, and nothing is made in the file's place. When the file
# is back, so is the data. Without anything in the kernel such a LUN isn't made, and its number stays its own.
# limit: 500
. "$(dirname "$0")/../../scripts/lib/session.sh"
export MOSCSI_TARGETCLI_VERSION=2.1.fb42 # made through configfs: with fewer of targetcli's runs

host_file $a "$(lun lost served 16MiB)" "$(lun other served 8MiB)" "$(lun kernel file 8MiB "number = 7")" >"$work/host.toml"
step "the LUNs' files are made" moscsi-host create "$work/host.toml" lost other kernel
step "the host starts" host_start "$work/host.toml"
step "host-a logs in" login $a "$target"
expect_luns $a "$target" "0 1 7"
lost=$(disk_of $a "$target" 0) other=$(disk_of $a "$target" 1)
fill() {
    mkfs.ext4 -q -F "$lost"
    mkdir "$work/mount"
    mount "$lost" "$work/mount"
    head -c 4M /dev/urandom >"$work/mount/data"
    umount "$work/mount"
    mount -o ro "$lost" "$work/mount" # a write that has begun would be repeated for minutes
}
step "its file system is mounted and has data" fill
cleanup sh -c "umount -l $work/mount 2>/dev/null || true"
data=$(sha256sum <"$work/mount/data")
written=$(write_random "$other" 8)

away() { mkdir -p "$work/away" && mv "$@" "$work/away/"; }
back() { mv "$work"/away/*.img "$work/"; }
step "the host is killed" host_kill
away "$work/lost.img"
expect_fails "is the file system that holds it mounted?" moscsi-host check "$work/host.toml"
step "it starts without the file" host_start "$work/host.toml"
expect_contains "what the host says" "$(<"$work/host.log")" "LUN lost answers NOT READY; the others are served"
expect_fails "" test -e "$work/lost.img"
read_block() { sg_raw -r 512 "$lost" 28 00 00 00 00 00 00 00 01 00; }
read_block >/dev/null 2>&1 || true # a unit attention may come first
expect_fails "Not Ready" read_block
expect_eq "what the other LUN reads" "$(sum_of "$other" 8)" "$written"
umount -l "$work/mount"

step "the host is killed again" host_kill
back
step "it starts with the file" host_start "$work/host.toml"
again() { mount "$lost" "$work/mount" && sha256sum <"$work/mount/data" && umount "$work/mount"; }
wait_until 30 read_block
step "the file system is mounted" again
expect_eq "its data" "$(<"$work/step.log")" "$data"
step "host-a logs out" logout $a "$target"
step "the host stops" host_stop

away "$work/lost.img" "$work/kernel.img"
: >"$work/host.log"
step "it starts without two files, and nothing in the kernel" host_start "$work/host.toml"
for name in lost kernel; do
    expect_contains "what the host says" "$(<"$work/host.log")" "LUN $name stays out; the others are served"
    expect_fails "" test -e "$work/$name.img"
    expect_fails "served here before" moscsi-host create "$work/host.toml" $name
done
login $a "$target" >/dev/null
expect_luns $a "$target" "1"
expect_eq "what the other LUN reads" "$(sum_of "$(disk_of $a "$target" 1)" 8)" "$written"
step "host-a logs out" logout $a "$target"
step "the host stops" host_stop
