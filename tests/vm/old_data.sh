#!/bin/bash
# Data that the kernel has given up doesn't land on what was written afterwards: held by the fault plan, and behind
# a write that is stuck in a suspended disk. The devices' time-out is 5 s here, set while no target exports them.
# limit: 400
. "$(dirname "$0")/../../scripts/lib/session.sh"
. "$(dirname "$0")/../../scripts/lib/disks.sh"

loop_of slow 24M
slow() {
    dmsetup create old_data --table "0 $((24 << 11)) linear $loop 0"
    cleanup dmsetup remove old_data
    cleanup dmsetup resume old_data
    mkfs.ext4 -q /dev/mapper/old_data
    mount_at "$work/slow" /dev/mapper/old_data
}
step "a disk that can be stopped" slow
hold="{ kind = \"hold\", on = \"write\", count = 1, while_file = \"$work/hold\" }"
host_file $a "$(lun held served 4MiB "number = 0, faults = { rule = [$hold] }")" \
    "$(lun_dir=$work/slow lun stuck served 4MiB "number = 1")" >"$work/host.toml"
step "the LUNs' files are made" moscsi-host create "$work/host.toml" held stuck
step "the host starts" host_start "$work/host.toml"

group=$configfs/target/iscsi/$target/tpgt_1
shorten() { # LUN: its device gives a command 5 s; the LUN is taken away for it, and put back
    local lun=$group/lun/lun_$1 mapped=$group/acls/$a/lun_$1 link device to
    link=$(find "$lun" -maxdepth 1 -type l)
    device=$(realpath "$link")
    to=$(find "$mapped" -maxdepth 1 -type l)
    rm "$to" && rmdir "$mapped" && rm "$link"
    echo 5 >"$device/attrib/cmd_time_out"
    ln -s "$device" "$link"
    mkdir "$mapped" && ln -s "$lun" "$to"
}
shorten_both() {
    host_kill
    shorten 0
    shorten 1
    host_start "$work/host.toml"
}
step "it starts again, with a short time-out of its devices" shorten_both
step "host-a logs in" login $a "$target"

# One block, straight from the initiator: nothing repeats it or looks it up in a cache.
for text in old late new; do printf '%-512s' $text >"$work/$text"; done
write() { sg_raw --timeout=60 --send=512 --infile="$work/$1" "$disk" 2a 00 00 00 00 03 00 00 01 00; }
block() { dd if="$1" iflag=direct bs=512 skip=3 count=1 status=none | xargs; }
write_fails() { expect_fails "" write "$1"; }
nothing_on_loan() { [[ $(moscsi-host status --json | jq '[.targets[0].luns[].data.on_loan] | add') == 0 ]]; }

disk=$(disk_of $a "$target" 0)
touch "$work/hold"
step "a held write is given up" write_fails old
step "the block is written anew" write new
rm "$work/hold"
step "nothing is under way any more" wait_until 20 nothing_on_loan
expect_eq "the block, as host-a reads it" "$(block "$disk")" new
expect_eq "the block in the file" "$(block "$work/held.img")" new

disk=$(disk_of $a "$target" 1)
dm "suspend --noflush --nolockfs" old_data
step "a write that is stuck in its disk is given up" write_fails old
step "so is one that waits for it" write_fails late
dm resume old_data
step "nothing is under way any more" wait_until 20 nothing_on_loan
expect_eq "the block, as host-a reads it" "$(block "$disk")" old
step "the block is written anew" write new
expect_eq "the block in the file" "$(block "$work/slow/stuck.img")" new
step "host-a logs out" forget $a "$target" $portal
step "the host stops" host_stop
