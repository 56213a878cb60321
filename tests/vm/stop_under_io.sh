#!/bin/bash
# A host that was killed is started again with a changed file, which is refused as a whole; with its own
# file its memory LUN answers NOT READY, never zeros; an initiator that is added to the file gets in. SIGTERM under
# fio then ends it within its time, with nothing of its own left and a foreign target as it was.
# limit: 900
. "$(dirname "$0")/../../scripts/lib/session.sh"
# Through configfs, where a stop takes fewer of targetcli's runs: they can be slow beside fio. --soak: targetcli.
[[ ${MOSCSI_SOAK-} ]] || export MOSCSI_TARGETCLI_VERSION=2.1.fb42

luns=("$(lun served served 16MiB "number = 0")" "$(lun memory memory 16MiB "number = 1")")
host_file $a "${luns[@]}" >"$work/host.toml"

step "a foreign target is there" foreign_target
foreign_before=$(foreign_state)
step "the LUN's file is made" moscsi-host create "$work/host.toml" served
step "the host starts" host_start "$work/host.toml"
step "host-a logs in" login $a "$target"
disk=$(disk_of $a "$target" 0) memory_disk=$(disk_of $a "$target" 1)
echo 5 >"$(session_of $a "$target")/recovery_tmo" # nobody waits longer for a target that is gone
write_random "$memory_disk" 16 >/dev/null
step "the host is killed" host_kill
# Whether a device is blocked, and the sessions' counters, are no configuration.
state() { configfs_snapshot $configfs/target | grep -v -e '/action/block_dev' -e '/acls/[^/]*/info'; }
before=$(state)

# refuses WHAT TOML TEXT...: a start with that file says each TEXT and changes nothing.
refuses() {
    local what=$1 out status=0 text
    echo "$2" >"$work/changed.toml"
    out=$(timeout 100 moscsi-host serve "$work/changed.toml" 2>&1) || status=$?
    expect_eq "the status with $what" "$status" 1
    for text in "${@:3}"; do expect_contains "what serve says of $what" "$out" "$text"; done
    expect_eq "configfs after $what" "$(state)" "$before"
    say "           $what: refused, nothing changed"
}
refuses "another size and another initiator" "$(host_file $b "${luns[0]}" "${luns[1]/16MiB/8MiB}")" \
    "should have 8388608" "admits the initiator $a"
refuses "numbers swapped" "$(host_file $a "${luns[0]/= 0/= 1}" "${luns[1]/= 1/= 0}")" \
    "LUN served is number 0 in target $target, and the file says 1" "LUN memory is number 1"
refuses "a LUN gone" "$(host_file $a "${luns[0]}")" "holds LUN 1, user/"

# Every write takes its time: many are in flight, and the machine has time for the rest.
luns[0]+=', faults = { rule = [{ kind = "delay", on = "write", delay_ms = 200 }] }'
# Not the memory LUN for host-b: one that lost its data answers no INQUIRY of a newcomer either.
host_file "$a $b" "${luns[@]}" | sed 's/\(host-b", luns = \)"all"/\1["served"]/' >"$work/host.toml"
step "the host starts with one initiator more" host_start "$work/host.toml"
expect_contains "what the host says" "$(<"$work/host.log")" "it answers NOT READY; --discard-lost-memory serves it empty"
read_block() { sg_raw -r 512 "$memory_disk" 28 00 00 00 00 00 00 00 01 00; }
read_block >/dev/null 2>&1 || true # a unit attention may come first
expect_fails "Not Ready" read_block
step "host-b logs in" login $b "$target"
expect_luns $b "$target" "0"
if [[ ${MOSCSI_SOAK-} ]]; then
    step "the host is killed" host_kill
    step "the host starts with --discard-lost-memory" host_start "$work/host.toml" --discard-lost-memory
    expect_eq "what the memory LUN reads" "$(sum_of "$memory_disk" 16)" "$(head -c 16M /dev/zero | sha256sum | cut -d' ' -f1)"
fi

fio --name=stop --filename="$disk" --direct=1 --ioengine=libaio --iodepth=16 --size=16M --rw=randwrite \
    --bs=4k --time_based --runtime=600 >"$work/fio.log" 2>&1 {say_fd}>&- &
fio=$!
cleanup sh -c "kill $fio 2>/dev/null; pkill -x fio || true"
writing() { (($(awk '{ print $2 }' "/sys/block/${disk##*/}/inflight") > 8)); }
wait_until 60 writing
objects=$((1 + 2 + 2 + 3)) # target, LUNs, initiators, mappings
step "SIGTERM under fio" host_stop TERM $((30 + 3 * objects))
expect_fails "" test -e "$configfs/target/iscsi/$target"
expect_eq "devices left" "$(find $configfs/target/core -mindepth 2 -maxdepth 2 -type d -not -path '*/alua/*')" \
    "$configfs/target/core/fileio_900/foreign"
expect_eq "the foreign target and device" "$(foreign_state)" "$foreign_before"
both_log_out() { logout $a "$target" && logout $b "$target"; }
step "fio ends" wait_until 60 ended $fio
step "both log out" both_log_out
