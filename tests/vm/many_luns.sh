#!/bin/bash
# Eight user LUNs (32 with --soak), made, used at once and deleted; none is taken for another.
# limit: 600
. "$(dirname "$0")/../../scripts/lib/session.sh"
export MOSCSI_TARGETCLI_VERSION=2.1.fb42 # made through configfs: many creates at no cost
count=8
[[ -z ${MOSCSI_SOAK-} ]] || count=32

step "Initialize" shell_start
op create-target "$target"
make_all() {
    local n
    for ((n = 0; n < count; n++)); do
        op create-lun memory auto "$target" /many$n 8388608
        expect_eq "its number" "${answer%% *}" $n
        op map $n "$target" $a
    done
}
step "$count LUNs are made and mapped" make_all
step "host-a logs in" login $a "$target"
expect_luns $a "$target" "$(seq -s' ' 0 $((count - 1)))"
use_all() {
    local n pids=()
    for ((n = 0; n < count; n++)); do
        disks[n]=$(disk_of $a "$target" $n)
        fio --name="lun$n" --filename="${disks[n]}" --direct=1 --ioengine=libaio --iodepth=8 --size=4M \
            --rw=randwrite --bs=64k --verify=crc32c --verify_pattern="0x$((n + 10))" --do_verify=1 >"$work/fio.$n" 2>&1 &
        pids+=($!)
    done
    for n in "${pids[@]}"; do wait "$n"; done
    # Each serial is its own LUN's.
    for ((n = 0; n < count; n++)); do sg_inq -p 0x80 "${disks[n]}" | grep 'Unit serial number:'; done | sort -u | wc -l >"$work/serials"
}
step "all are written and verified at once" use_all
expect_eq "different serials" "$(<"$work/serials")" $count
step "host-a logs out" logout $a "$target"
delete_all() {
    local n
    for ((n = 0; n < count; n++)); do
        op unmap $n "$target" $a
        op delete-lun memory $n "$target" /many$n
    done
}
step "all are deleted" delete_all
op delete-target "$target"
op cleanup
