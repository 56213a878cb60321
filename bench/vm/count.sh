#!/bin/bash
# Instructions that an I/O of 4 KiB costs the whole guest: initiator, target, handler. For a guest whose
# clock counts them (scripts/vm run --count-instructions). One line a row:
#   row FABRIC LUN READ|WRITE DEPTH INSTRUCTIONS IDLE_PERCENT
# MOSCSI_BENCH_ROWS: what to measure, as FABRIC/LUN/READ|WRITE/DEPTH with shell patterns; all without it.
# MOSCSI_BENCH_IOS: how many I/Os a row (10000).
. "$(dirname "$0")/../../scripts/lib/session.sh"
. "$(dirname "$0")/devices.sh"
rows=${MOSCSI_BENCH_ROWS:-*}
ios=${MOSCSI_BENCH_IOS:-10000}

# wanted FABRIC LUN: any row of it.
wanted() {
    local kind depth
    for kind in read write; do
        # shellcheck disable=SC2053 # a pattern is meant
        for depth in 1 32; do [[ $1/$2/$kind/$depth == $rows ]] && return; done
    done
    return 1
}

declare -A disks
lun_names=(memory served empty nullio ramdisk fileio tgt)
# have LUN TARGET NUMBER PORTAL: a logged-in target's LUN, and the same object through the loopback.
have() {
    ! wanted iscsi "$1" || disks[iscsi/$1]=$(disk_of "$a" "$2" "$3")
    [[ $1 != tgt ]] || return 0
    ! wanted loopback "$1" || disks[loopback/$1]=$(loopback "$(object_of "$2" "$3")")
}

fill_and_measure() {
    local key fabric lun kind depth
    for key in "${!disks[@]}"; do
        dd if=/dev/zero of="${disks[$key]}" bs=1M count=$lun_mib oflag=direct status=none
    done
    for fabric in iscsi loopback; do
        for kind in read write; do
            for depth in 1 32; do
                for lun in "${lun_names[@]}"; do
                    # shellcheck disable=SC2053 # a pattern is meant
                    [[ ! ${disks[$fabric/$lun]-} || $fabric/$lun/$kind/$depth != $rows ]] ||
                        measure "$fabric" "$lun" "$kind" "$depth"
                done
            done
        done
    done
    disks=()
}
# measure FABRIC LUN KIND DEPTH
measure() {
    local spent
    (cd "$work" && fio --name=row --filename="${disks[$1/$2]}" --direct=1 --ioengine=libaio --iodepth="$4" \
        --rw="rand$3" --bs=4k --size=${lun_mib}M --io_size=1T --number_ios="$ios" --norandommap \
        --exec_prerun='head -n 1 /proc/stat' --exec_postrun='head -n 1 /proc/stat' \
        --output-format=json --output="$work/fio.json" >"$work/fio.log" 2>&1)
    spent=$(jq -e --arg kind "$3" '.jobs[0] | select(.error == 0) | .[$kind] |
        select(.total_ios > 0) | .runtime * 1000000 / .total_ios | floor' "$work/fio.json")
    awk -v row="$1 $2 $3 $4 $spent" '
        { total = 0; for (i = 2; i <= 9; ++i) total += $i; idle = $5 + $6 }
        FNR == NR { total0 = total; idle0 = idle }
        END { printf "row %s %.1f\n", row, 100 * (idle - idle0) / (total - total0) }' \
        "$work/row.prerun.txt" "$work/row.postrun.txt" >&"$say_fd"
}

say "flags $(sed -n 's/^flags[^:]*: //p;T;q' /proc/cpuinfo)"
say "kernel $(uname -r)"
step "all programs are read" read_ahead
empty=''
if wanted iscsi empty || wanted loopback empty; then empty=yes; fi

step "the kernel's LUNs" kernel_luns
step "a login to them" quietly_login "$kernel_target" 127.0.0.1:3261
have nullio "$kernel_target" 0
have ramdisk "$kernel_target" 1
have fileio "$kernel_target" 2
if wanted iscsi tgt; then
    step "tgt's LUN" tgt_luns
    step "a login to it" quietly_login "$tgt_target" 127.0.0.1:3262
    have tgt "$tgt_target" 1
fi
step "the product's LUNs" product_luns
step "a login to them" quietly_login "$target" "$portal"
have memory "$target" 0
have served "$target" 1
fill_and_measure

if [[ $empty ]]; then
    for lun in 0 1; do unloopback "$(loopback_port "$(object_of "$target" $lun)")"; done
    step "a logout" logout "$a" "$target" "$portal"
    step "the host ends" host_stop
    step "the empty handler's LUN" empty_luns
    step "a login to it" quietly_login "$empty_target" 127.0.0.1:3261
    have empty "$empty_target" 0
    fill_and_measure
fi
