#!/bin/bash
# Two initiators on one target, LUNs made and deleted while both are logged in and do I/O: each sees its
# own data under its own numbers. A LUN's identity survives a restart and is nobody else's.
# limit: 420
. "$(dirname "$0")/../../scripts/lib/session.sh"
export MOSCSI_TARGETCLI_VERSION=2.1.fb42 # made through configfs: many creates at no cost

make() { # NUMBER INITIATOR
    op create-lun memory "$1" "$target" /two"$1" 4194304
    op map "$1" "$target" "$2"
}
remove() {
    op unmap "$1" "$target" "$2"
    op delete-lun memory "$1" "$target" /two"$1"
    # The initiator keeps its disk until it is told.
    disk=$(block_of "$2" "$target" "$1") || return 0
    echo 1 >"/sys/block/${disk##*/}/device/delete"
}
# What a LUN holds says whose it is: each block the LUN's own number, checked by whoever reads it.
job() { # NUMBER INITIATOR FIO-ARG...
    local disk number=$1
    disk=$(disk_of "$2" "$target" "$1")
    shift 2
    fio --name="lun$number" --filename="$disk" --direct=1 --ioengine=libaio --iodepth=4 --bs=16k --size=4M --rw=randwrite \
        --verify=pattern --verify_pattern="0x5a0000$(printf %02x "$number")" --verify_fatal=1 "$@"
}
# A LUN of their own for the whole time, written and verified in rounds.
keep_using() {
    local rounds=0
    until [[ -e $work/enough ]]; do
        job "$1" "$2" --do_verify=1 >"$work/fio.$1" 2>&1 || return
        echo $((++rounds)) >"$work/rounds.$1"
    done
}
identity() { # NUMBER INITIATOR: serial number, and the designators with it
    local disk serial
    disk=$(disk_of "$2" "$target" "$1")
    serial=$(sg_inq --page=0x80 "$disk" | sed -n 's/.*Unit serial number: *//p')
    sg_vpd --page=di "$disk" >"$work/di"
    expect_contains "VPD 0x83 of LUN $1" "$(<"$work/di")" "${serial:?}"
    echo "$1 $serial $(grep -o '0x6[0-9a-f]*' "$work/di" | head -n 1)"
}

step "Initialize" shell_start
op create-target "$target"
step "LUN 0 for host-a, LUN 1 for host-b" make 0 $a
make 1 $b
step "host-a logs in" login $a "$target"
step "host-b logs in" login $b "$target"
keep_using 0 $a {say_fd}>&- &
users=($!)
keep_using 1 $b {say_fd}>&- &
users+=($!)
cleanup sh -c "touch $work/enough; pkill -x fio || true"
for round in 1 2; do
    step "LUN 2 for host-a, LUN 3 for host-b (round $round)" make 2 $a
    make 3 $b
    rescan $a "$target" >/dev/null
    rescan $b "$target" >/dev/null
    expect_luns $a "$target" "0 2"
    expect_luns $b "$target" "1 3"
    step "both are written and verified" job 2 $a --do_verify=1
    job 3 $b --do_verify=1 >/dev/null
    step "host-b's reads its own, host-a's too" job 3 $b --verify_only
    job 2 $a --verify_only >/dev/null
    ((round == 2)) || { remove 2 $a && remove 3 $b; }
done
each() { "$1" 0 $a && "$1" 1 $b && "$1" 2 $a && "$1" 3 $b; }
step "VPD 0x80 and 0x83 agree" each identity
before=$(each identity)
expect_eq "serials and NAA identifiers that differ" \
    "$(for field in 2 3; do cut -d' ' -f$field <<<"$before" | grep . | sort -u | wc -l; done | paste -sd' ')" "4 4"
touch "$work/enough"
for n in 0 1; do
    wait_until 60 ended "${users[n]}"
    wait "${users[n]}" || fail "LUN $n: $(tail -n 5 "$work/fio.$n")"
done
say "           rounds on the LUNs that stayed: $(cat "$work"/rounds.* | paste -sd' ')"
step "host-a and host-b log out" logout $a "$target"
logout $b "$target" >/dev/null
step "all are deleted" each remove
op cleanup
shell_end
wait_until 10 ended "$shell_pid"
step "a new process makes two of them again" shell_start
make 2 $a
make 3 $b
step "both log in again" login $a "$target"
login $b "$target" >/dev/null
expect_eq "identities after the restart" "$(identity 2 $a && identity 3 $b)" "$(sed 1,2d <<<"$before")"
step "host-a and host-b log out" logout $a "$target"
logout $b "$target" >/dev/null
remove 2 $a
remove 3 $b
op delete-target "$target"
op cleanup
