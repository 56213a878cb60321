#!/bin/bash
# File and block LUNs by the plug-in's own operations, each done twice, beside a foreign target and a
# foreign device: automatic numbers, two initiators that see only their own, reservations, deletion.
# limit: 600
. "$(dirname "$0")/../../scripts/lib/session.sh"

tpg=$configfs/target/iscsi/$target/tpgt_1

step "a foreign target is there" foreign_target
before=$(foreign_state)
truncate -s 16M "$work/disk.img"
loop=$(losetup --find --show "$work/disk.img")
cleanup losetup -d "$loop"

step "Initialize" shell_start
for round in first second; do
    step "the target ($round time)" op create-target "$target"
    step "LUN 0, a file that isn't there yet ($round time)" op create-lun file 0 "$target" "$work/zero.img" 16777216
    step "LUN 2, a block device ($round time)" op create-lun block 2 "$target" "$loop" 0
    step "LUN of an automatic number ($round time)" op create-lun file auto "$target" "$work/auto.img" 16777216
    expect_eq "the number that was free" "${answer%% *}" 1
    for map in "0 $a" "2 $b"; do
        read -r number who <<<"$map"
        step "map $number to ${who##*:} ($round time)" op map "$number" "$target" "$who"
    done
done
expect_eq "the new file's size" "$(stat -c %s "$work/zero.img")" 16777216
step "LUN 5, made when both are mapped" op create-lun file 5 "$target" "$work/five.img" 16777216
step "map 5 to host-b" op map 5 "$target" $b

step "host-a logs in" login $a "$target"
step "host-b logs in" login $b "$target"
expect_luns $a "$target" "0"
expect_luns $b "$target" "2 5"
file=$(disk_of $a "$target" 0)
block=$(disk_of $b "$target" 2)
for disk in "$file" "$block"; do
    sum=$(write_random "$disk" 4)
    expect_eq "what $disk reads" "$(sum_of "$disk" 4)" "$sum"
    sums+=("$sum")
done
expect_eq "what the file holds" "$(sum_of "$work/zero.img" 4)" "${sums[0]}"
expect_eq "what the device holds" "$(sum_of "$work/disk.img" 4)" "${sums[1]}"

registered() { sg_persist --in --read-keys "$1" | grep -c 0xabc || true; }
for disk in "$file" "$block"; do
    step "PERSISTENT RESERVE OUT on $disk" sg_persist --out --register --param-sark=0xabc "$disk"
    expect_eq "keys registered" "$(registered "$disk")" 1
    step "the same with APTPL" sg_persist --out --register --param-rk=0xabc --param-sark=0xabcd --param-aptpl "$disk"
    sg_persist --out --register --param-rk=0xabcd --param-sark=0 "$disk" >/dev/null
    expect_eq "keys left" "$(registered "$disk")" 0
done

refused "does not exist in this TPG" map 7 "$target" $a
refused "stat error" create-lun block 8 "$target" "$work/nothing" 0
refused "not regular file" create-lun file 8 "$target" "$work" 0
refused "size not set" create-lun file 8 "$target" "$work/unsized.img" 0
expect_fails "" test -e "$work/unsized.img"

step "unmap 5 with host-b logged in" op unmap 5 "$target" $b
step "unmap 5 again" op unmap 5 "$target" $b
expect_fails "" test -e "$tpg/acls/$b/lun_5"
for round in first second; do
    step "delete LUN 5 ($round time)" op delete-lun file 5 "$target" "$work/five.img"
done
expect_eq "LUNs in configfs" "$(basename -a "$tpg"/lun/lun_* | sort | paste -sd' ')" "lun_0 lun_1 lun_2"
step "host-a and host-b log out" logout $a "$target"
logout $b "$target" >/dev/null
for round in first second; do
    step "delete the block LUN ($round time)" op delete-lun block 2 "$target" "$loop"
done
step "delete the file LUNs" op delete-lun file 0 "$target" "$work/zero.img"
op delete-lun file 1 "$target" "$work/auto.img"
for round in first second; do
    step "delete the target ($round time)" op delete-target "$target"
done
step "Cleanup" op cleanup
expect_eq "the backing file outlives the LUN" "$(sum_of "$work/zero.img" 4)" "${sums[0]}"
expect_eq "the foreign target and device" "$(foreign_state)" "$before"
expect_eq "devices left" "$(find $configfs/target/core -mindepth 2 -maxdepth 2 -not -path '*/alua/*' | wc -l)" \
    "$(find $configfs/target/core/fileio_900 -mindepth 1 -maxdepth 1 | wc -l)"
