#!/bin/bash
# The guest's power is cut while blocks are written. Each acknowledgement is logged outside, and so is what the
# second boot finds: every acknowledged block of a LUN on the host's file is there, of a kernel file LUN every
# one acknowledged with FUA or by SYNCHRONIZE CACHE. A LUN with the host's durability off must lose some, or
# this proves nothing. What the guest issued to its disk stays: a disk's own cache is not covered.
# boot: host
# limit: 900
# shellcheck disable=SC2317 # functions are called by name
. "$(dirname "$0")/../../scripts/lib/session.sh"
names=(durable weak fua flush)
each=30 # acknowledged blocks before the cut
case ${1-} in
'') # on this machine: both boots, and the judgement
    boot() { "$VM" run --no-build --timeout 400 --reuse-disk "$work/disk" --outside-log "$work/outside" "$0" "$1" || status=$?; }
    boot write
    expect_eq "the first boot's status, when its power is cut" "${status-0}" 42
    status=0
    boot look
    expect_eq "the second boot's status" "$status" 0
    lines() { sed -n "s/^$1 $2 //p" "$work/outside" | sort; }
    for name in "${names[@]}"; do
        acknowledged=$(lines acknowledged "$name")
        lost=$(comm -23 <(echo "$acknowledged") <(lines found "$name") | wc -l)
        count=$(wc -w <<<"$acknowledged")
        say "           $name: $count blocks acknowledged, $lost lost"
        ((count >= each)) || fail "too few for a judgement"
        if [[ $name == weak ]]; then ((lost)) || fail "the cut is not seen to lose anything"; else expect_eq "lost of $name" "$lost" 0; fi
    done
    exit
    ;;
look)
    mount /dev/disk/by-id/virtio-data /mnt
    python3 - "${names[@]}" >"$work/found" <<'END'
import sys
for name in sys.argv[1:]:
    with open(f"/mnt/{'kernel' if name in ('fua', 'flush') else name}.img", "rb") as image:
        for block in range(4096):
            if image.read(4096) == f"{name} {block} ".ljust(4096).encode():
                print("found", name, block)
END
    cat "$work/found" >/dev/virtio-ports/outside
    umount /mnt
    exit
    ;;
esac

mkfs.ext4 -q /dev/disk/by-id/virtio-data
mount /dev/disk/by-id/virtio-data /mnt
echo 0 >/proc/sys/vm/dirty_writeback_centisecs # what nobody syncs stays in memory, and is lost for certain
# Not sparse, so that no other file's sync takes its blocks along.
dd if=/dev/zero of=/mnt/weak.img bs=1M count=16 conv=fsync status=none
lun_dir=/mnt
host_file $a "$(lun durable served 16MiB "number = 0")" \
    "$(lun weak served 16MiB "number = 1, faults = { durable = false }")" \
    "$(lun kernel file 16MiB "number = 2")" >"$work/host.toml"
step "the other LUNs' files are made" moscsi-host create "$work/host.toml" durable kernel
step "the host starts" host_start "$work/host.toml"
step "host-a logs in" login $a "$target"
for n in 0 1 2; do disks[n]=$(disk_of $a "$target" $n); done

direct() { dd if="$1" of="$2" bs=4k seek="$3" count=1 oflag=direct conv=notrunc; }
flush() { dd if="$1" of="$2" bs=4k seek="$3" count=1 oflag=direct conv=notrunc,fsync; }
fua() { sg_dd if="$1" of="$2" bs=512 bpt=8 seek=$(($3 * 8)) count=8 oflag=sgio,fua; }
# keep_writing NAME DISK HOW FIRST STEP: a block of its own each time, logged once it is acknowledged.
keep_writing() {
    local block text
    for ((block = $4; block < 4096; block += $5)); do
        printf -v text '%-4096s' "$1 $block "
        printf %s "$text" >"$work/$1.$4"
        "$3" "$work/$1.$4" "$2" $block >"$work/$1.$4.log" 2>&1 || return
        outside "acknowledged $1 $block"
        echo $block >>"$work/acknowledged.$1"
    done
}
for writer in "durable 0 direct 0" "durable 0 direct 1" "durable 0 direct 2" "durable 0 direct 3" "weak 1 direct 0" \
    "weak 1 direct 1" "fua 2 fua 0" "flush 2 flush 1"; do
    read -r name number how first <<<"$writer"
    keep_writing "$name" "${disks[number]}" "$how" "$first" 4 &
done
all_written() { for name in "${names[@]}"; do (($(wc -l <"$work/acknowledged.$name") >= each)) || return; done; }
step "blocks are written" wait_until 200 all_written
vm_power_cut 42
