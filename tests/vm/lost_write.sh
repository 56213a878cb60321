#!/bin/bash
# What was acknowledged is on the disk, though writes to the disk fail now and then. Linux tells a lost write once, to
# whoever syncs the open file first. So syncs are made to meet: the first half of the file lies where writes take long,
# the second where they fail while errors are on, and each write returns late from the kernel.
# limit: 400
. "$(dirname "$0")/../../scripts/lib/session.sh"
. "$(dirname "$0")/../../scripts/lib/disks.sh"
modprobe -a dm_flakey dm_delay
loop_of flaky 48M
sectors=$((48 << 11)) # in sectors
flaky() {
    dmsetup create lost_write --table "0 $sectors linear $loop 0"
    cleanup dmsetup remove lost_write
    cleanup dmsetup resume lost_write
    # Without flushes, which would fail as writes do and tell everybody.
    mkfs.ext4 -q -b 4096 -O ^has_journal /dev/mapper/lost_write
    mount_at "$work/flaky" -o barrier=0 /dev/mapper/lost_write
}
step "a file system whose disk can fail" flaky
host_file $a "$(lun_dir=$work/flaky lun lun served 16MiB "number = 0, engine = \"threads\"")" >"$work/host.toml"
step "the LUN's file is made" moscsi-host create "$work/host.toml" lun
image=$work/flaky/lun.img
dd if=/dev/zero of="$image" bs=1M count=16 conv=notrunc,fsync status=none # no block is new afterwards
filefrag -v "$image" >"$work/extents"
middle=$(awk '{ gsub(/[.:]/, " ") } $1 ~ /^[0-9]+$/ && $2 <= 2048 && 2048 <= $3 { print ($4 + 2048 - $2) * 8 }' "$work/extents")
errors() { # SECONDS up, SECONDS down, for ever
    dm_table lost_write "0 $middle delay $loop 0 0 $loop 0 150" \
        "$middle $((sectors - middle)) flakey $loop $middle $1 $2 1 error_writes"
}
step "the host starts" host_start "$work/host.toml"
step "host-a logs in" login $a "$target"
disk=$(disk_of $a "$target" 0)
strace -qq -f -p "$host_pid" -o /dev/null -e trace=pwritev2 -e inject=pwritev2:delay_exit=30000 {say_fd}>&- &
tracer=$!
traced() { grep -q "TracerPid:.$tracer" "/proc/$host_pid/status"; }
wait_until 20 traced
errors 2 3

keep_writing() { # FIRST LAST STEP: a block of its own each time, until there is a file "stop"
    local block
    for ((block = $1; block < $2; block += $3)); do
        [[ ! -e $work/stop ]] || return 0
        printf '%-4096s' "block $block" >"$work/block.$1"
        if dd if="$work/block.$1" of="$disk" bs=4k seek=$block count=1 oflag=direct conv=notrunc 2>"$work/dd.$1"; then
            echo $block >>"$work/acknowledged"
        else
            echo $block >>"$work/refused"
        fi
    done
}
touch "$work/acknowledged" "$work/refused"
keep_writing 0 2048 1 & writers=($!)
for first in 2048 2049; do keep_writing $first 4096 2 & writers+=($!); done
enough() { (($(wc -l <"$work/refused") >= 60 && $(wc -l <"$work/acknowledged") >= 60)); }
step "blocks are written while errors come and go" wait_until 120 enough
touch "$work/stop"
wait "${writers[@]}"
kill "$tracer"
dm_table lost_write "0 $sectors linear $loop 0"
expect_contains "the status" "$(moscsi-host status | tr -s ' ')" "engine threads"
expect_contains "the status" "$(moscsi-host status)" "failures EIO"
expect_contains "the log" "$(<"$work/host.log")" "a write failed in $image: Input/output error"
step "host-a logs out" forget $a "$target" $portal
step "the host stops" host_stop
for block in $(<"$work/acknowledged"); do
    printf '%-4096s' "block $block" | cmp -s - <(dd if="$image" bs=4k skip="$block" count=1 iflag=direct status=none) || echo "$block"
done >"$work/lost"
say "           $(wc -l <"$work/acknowledged") blocks acknowledged, $(wc -l <"$work/refused") refused"
expect_eq "blocks that were acknowledged and are lost" "$(xargs <"$work/lost")" ""
