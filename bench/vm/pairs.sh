#!/bin/bash
# I/Os of 4 KiB a second of each LUN, each time beside the kernel's fileio LUN, in turn, so that whatever
# else the machine does hits both. Files lie on the guest's data disk. For the ordinary guest
# (scripts/vm run --reuse-disk FILE). One line a pair:
#   pair LUN READ|WRITE DEPTH IOPS IOPS_OF_FILEIO
# MOSCSI_BENCH_ROUNDS: pairs a row (5). MOSCSI_BENCH_SECONDS: of each measurement (3).
. "$(dirname "$0")/../../scripts/lib/session.sh"
. "$(dirname "$0")/devices.sh"
rounds=${MOSCSI_BENCH_ROUNDS:-5}
seconds=${MOSCSI_BENCH_SECONDS:-3}

requires test -b /dev/disk/by-id/virtio-data
data_dir=/mnt/bench
disk_mounted() {
    mkdir -p $data_dir
    mkfs.ext4 -q -F /dev/disk/by-id/virtio-data
    mount /dev/disk/by-id/virtio-data $data_dir
    cleanup umount $data_dir
}
# iops DISK READ|WRITE DEPTH
iops() {
    fio --name=pair --filename="$1" --direct=1 --ioengine=libaio --iodepth="$3" --rw="rand$2" --bs=4k \
        --size=${lun_mib}M --time_based --runtime="$seconds" --norandommap --output-format=json >"$work/fio.json"
    jq -e --arg kind "$2" '.jobs[0] | select(.error == 0) | .[$kind].iops | floor | select(. > 0)' "$work/fio.json"
}

say "kernel $(uname -r)"
step "a file system on the data disk" disk_mounted
step "all programs are read" read_ahead
step "the kernel's LUNs" kernel_luns
step "tgt's LUN" tgt_luns
step "the product's LUNs" product_luns
step "a login to the kernel's" quietly_login "$kernel_target" 127.0.0.1:3261
step "a login to tgt's" quietly_login "$tgt_target" 127.0.0.1:3262
step "a login to the product's" quietly_login "$target" "$portal"
declare -A disks
disks[ramdisk]=$(disk_of "$a" "$kernel_target" 1)
disks[fileio]=$(disk_of "$a" "$kernel_target" 2)
disks[tgt]=$(disk_of "$a" "$tgt_target" 1)
disks[memory]=$(disk_of "$a" "$target" 0)
disks[served]=$(disk_of "$a" "$target" 1)
fill() {
    local lun
    for lun in "${!disks[@]}"; do dd if=/dev/zero of="${disks[$lun]}" bs=1M count=$lun_mib oflag=direct status=none; done
}
step "all are written once" fill

for ((round = 0; round < rounds; round++)); do
    for kind in read write; do
        for depth in 1 32; do
            for lun in memory served ramdisk tgt; do
                order=("$lun" fileio)
                ((round % 2)) && order=(fileio "$lun")
                for each in "${order[@]}"; do
                    found=$(iops "${disks[$each]}" $kind $depth)
                    declare "of_$each=$found"
                done
                ours=of_$lun
                # shellcheck disable=SC2154 # declared above, by name
                say "pair $lun $kind $depth ${!ours} $of_fileio"
            done
        done
    done
done
step "the host ends" host_stop
