#!/bin/bash
# Every opcode with random bytes behind it, and commands of many buffer entries: each ends in a status,
# and the LUN serves, and can be deleted, afterwards.
# limit: 420
. "$(dirname "$0")/../../scripts/lib/session.sh"
export MOSCSI_TARGETCLI_VERSION=2.1.fb42 # made through configfs: with fewer of targetcli's runs
requires command -v sg_raw

rounds=${MOSCSI_SOAK:+16}
rounds=${rounds:-2}
# The short form is the same each time; --soak is another each time.
seed=${MOSCSI_SEED:-${MOSCSI_SOAK:+$((RANDOM << 15 | RANDOM))}}
seed=${seed:-650423136}
RANDOM=$seed
say "           seed $seed (MOSCSI_SEED repeats it)"
mib=32
hold() { echo "{ kind = \"hold\", on = \"$1\", while_file = \"$work/hold_$1\" }"; }
host_file $a \
    "$(lun user served ${mib}MiB "number = 0, faults = { rule = [$(hold read), $(hold write)] }")" >"$work/host.toml"
step "the LUN's file is made" moscsi-host create "$work/host.toml" user
step "the host starts" host_start "$work/host.toml"
step "host-a logs in" login $a "$target"
disk=$(disk_of $a "$target" 0)
counter() { moscsi-host status --json | jq "[.counters[].values[\"$1\"] // 0] | add"; }

# The length follows from the opcode's group; for the groups that have none any length will do. 0x7F
# states its own in byte 7.
commands() {
    local opcode round length direction i byte cdb lengths=(6 10 10 0 16 12 0 0)
    for ((round = 0; round < rounds; round++)); do
        for ((opcode = 0; opcode < 256; opcode++)); do
            length=${lengths[opcode >> 5]}
            ((length)) || length=$((6 + RANDOM % 6 * 2))
            ((opcode != 0x7f)) || length=16
            printf -v cdb %02x $opcode
            for ((i = 1; i < length; i++)); do
                printf -v byte ' %02x' $((opcode == 0x7f && i == 7 ? 8 : RANDOM & 255))
                cdb+=$byte
            done
            direction=('' "--request=$((RANDOM % 9000 + 1))" "--send=$((RANDOM % 9000 + 1)) --infile=/dev/urandom")
            echo "${direction[RANDOM % 3]} $disk $cdb"
        done
    done
}
commands >"$work/commands"
# sg_raw's status tells what came: 15 and above 32 mean that no SCSI status did (time is up, transport);
# 99 that it is one of which sg_raw knows no more: the kernel's answer to a PERSISTENT RESERVE OUT.
# shellcheck disable=SC2016
throw_all() {
    xargs -P 4 -L 1 sh -c 'sg_raw --cmdset=1 --timeout=25 "$@" >/dev/null 2>&1; echo "$? $*"' sg_raw <"$work/commands" >"$work/answers"
}
step "$((rounds * 256)) commands, 4 at a time" throw_all
expect_eq "commands with a status" "$(grep -cE '^(0|2|3|5|6|8|9|11|2[0-9]) |^99 (.* )?/dev/sd[a-z]* 5f' "$work/answers")" $((rounds * 256))
for opcode in 60 7d c0 ff; do # 9: invalid operation code
    expect_eq "opcode 0x$opcode" "$(sed -n "s|^\([0-9]*\) .*$disk $opcode .*|\1|p" "$work/answers" | sort -u)" 9
done
expect_eq "commands the device still holds" "$(counter 'ring: in flight')" 0
sg_persist --out --clear --param-rk=0 "$disk" >/dev/null 2>&1 || true
sum=$(write_random "$disk" $mib)
expect_eq "what the LUN reads afterwards" "$(sum_of "$disk" $mib)" "$sum"

# Reads and writes by turns are held, then the writes go: the ring's data area has a hole after each
# read, and a long command's buffer lies in pieces.
fragment() {
    local n
    echo none >"/sys/block/${disk##*/}/queue/scheduler" # in this order
    echo 62 >"/sys/block/${disk##*/}/device/queue_depth"
    {
        printf 'fio version 2 iolog\n%s add\n%s open\n' "$disk" "$disk"
        for ((n = 0; n < 31; n++)); do
            echo "$disk read $((n * 65536)) 4096"
            echo "$disk write $((n * 65536 + 32768)) 4096"
        done
        echo "$disk close"
    } >"$work/iolog"
    touch "$work/hold_read" "$work/hold_write"
    fio --name=fragment --read_iolog="$work/iolog" --direct=1 --ioengine=libaio --iodepth=62 >"$work/fio.log" 2>&1 &
    fio=$!
    wait_until 30 on_loan 62
    rm "$work/hold_write"
    wait_until 30 on_loan 31
}
on_loan() { (($(moscsi-host status --json | jq '.targets[0].luns[0].data.on_loan') == $1)); }
long_ones() {
    head -c 1M /dev/urandom >"$work/long"
    dd if="$work/long" of="$disk" bs=1M seek=20 oflag=direct conv=notrunc
    dd if="$disk" of="$work/back" bs=1M count=1 skip=20 iflag=direct &
    wait_until 30 more_on_loan
    rm "$work/hold_read"
    wait $!
    wait "$fio"
    cmp "$work/long" "$work/back"
}
more_on_loan() { ! on_loan 31; }
step "the data area lies in pieces" fragment
step "1 MiB is written and read there" long_ones
for what in 'more than 16 entries' bounced; do
    counted=$(counter "gate: $what")
    say "           gate: $what: $counted"
    ((counted >= 2)) || fail "no command both ways was '$what'"
done
step "host-a logs out" logout $a "$target"
step "the host stops" host_stop
