#!/bin/bash
# The host is killed (kill -9) at random moments under fio and started again with the same file: it finds
# its device, applies without an error, and I/O goes on. 5 times, 20 with --soak. Then the bus is restarted.
# limit: 1800
. "$(dirname "$0")/../../scripts/lib/session.sh"

kills=${MOSCSI_SOAK:+20}
kills=${kills:-5}
seed=${MOSCSI_SEED:-$((RANDOM << 15 | RANDOM))}
RANDOM=$seed
say "           seed $seed (MOSCSI_SEED repeats it)"
host_file $a "$(lun served served 32MiB "number = 0")" >"$work/host.toml"

step "the LUN's file is made" moscsi-host create "$work/host.toml" served
step "the host starts" host_start "$work/host.toml"
step "host-a logs in" login $a "$target"
disk=$(disk_of $a "$target" 0)
statistics=/sys/block/${disk##*/}
device=$(echo $configfs/target/core/user_*/*/)
# The device itself: one that was made again would have another inode.
identity() { stat -c %i "$device" && sg_inq -p 0x83 "$disk"; }
before=$(identity)

# Rounds of writing and verifying, one after the other, until $work/enough is there.
keep_verifying() {
    until [[ -e $work/enough ]]; do
        fio --name=crash --filename="$disk" --direct=1 --ioengine=libaio --iodepth=16 --size=32M --rw=randwrite \
            --bsrange=4k-64k --blockalign=4k --verify=crc32c --verify_fatal=1 --do_verify=1 >"$work/fio.log" 2>&1 || return
        echo verified >>"$work/rounds"
    done
}
keep_verifying {say_fd}>&- &
fio=$!
cleanup sh -c "kill $fio 2>/dev/null; pkill -x fio || true"
completed() { awk '{ print $1 + $5 }' "$statistics/stat"; }
# goes_on N: N more commands have completed, and fio hasn't failed.
goes_on() {
    local until=$(($(completed) + $1))
    wait_until 120 reached $until
    ! ended $fio || fail "fio ended: $(tail -n 5 "$work/fio.log")"
}
reached() { (($(completed) >= $1)) || ended $fio; }

hit=0
for ((n = 1; n <= kills; n++)); do
    goes_on $((RANDOM % 1000 + 1))
    read -r reads writes <"$statistics/inflight"
    host_kill
    hit=$((hit + (reads + writes > 0)))
    step "kill $n, $reads reads and $writes writes in flight; it starts again" host_start "$work/host.toml"
    expect_lacks "what the host says" "$(<"$work/host.log")" "failed"
    expect_eq "the device" "$(identity)" "$before"
done
((hit * 2 > kills)) || fail "only $hit of $kills kills hit commands in flight"
step "I/O goes on" goes_on 100
touch "$work/enough"
step "fio ends its last round" wait_until 240 ended $fio
wait $fio || fail "fio: $(tail -n 5 "$work/fio.log")"
say "           $(wc -l <"$work/rounds") rounds written and verified; $hit of $kills kills hit commands in flight"
step "host-a logs out" logout $a "$target"
# targetcli asks the bus for the LUN's handler before it removes anything.
bus_restarted() {
    dbus_stop
    dbus_start
    wait_until 20 grep "D-Bus is back" "$work/host.log"
}
step "dbus-daemon is restarted" bus_restarted
step "the host stops" host_stop
