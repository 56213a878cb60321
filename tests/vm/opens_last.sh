#!/bin/bash
# An initiator that tries to log in from the first second on sees all LUNs at its first login, although the host
# is killed while it maps them and started again: a new target's portal group opens last.
. "$(dirname "$0")/../../scripts/lib/session.sh"

luns=()
for n in {0..7}; do luns+=("$(lun "m$n" memory 1MiB "number = $n")"); done
host_file $a "${luns[@]}" >"$work/host.toml"
enabled=$configfs/target/iscsi/$target/tpgt_1/enable

keep_trying() {
    until login $a "$target"; do
        iscsiadm -m node -T "$target" -p $portal -o delete
        sleep 0.1
    done
}
initiator_start
keep_trying >"$work/login.log" 2>&1 {say_fd}>&- &
trying=$!
cleanup forget $a "$target" $portal
cleanup sh -c "kill $trying 2>/dev/null || true"

maps() { grep "^map LUN m$1," "$work/host.log" || ended "$host_pid"; }
step "the host starts" host_begin "$work/host.toml"
step "it maps" wait_until 120 maps 3
step "it is killed" host_kill
expect_eq "the portal group" "$(<"$enabled")" 0
logged_in() { [[ $(<"$(session_of $a "$target")/state") == LOGGED_IN ]]; } # a waiting one is FREE
expect_fails "" logged_in
step "it starts again" host_start "$work/host.toml" --discard-lost-memory
expect_eq "the portal group" "$(<"$enabled")" 1
step "the login goes through" wait_until 60 logged_in
step "it sees all LUNs, without a rescan" expect_luns $a "$target" "0 1 2 3 4 5 6 7"
wait $trying || true
roads() { moscsi-host status --json | jq -c '.counters[] | select(.source == "targetcli roads").values | [.slow, .lost]'; }
expect_eq "commands that needed the real targetcli, and lost ones" "$(roads)" "[0,0]"
step "host-a logs out" logout $a "$target"
step "the host stops" host_stop
expect_contains "its last steps" "$(<"$work/host.log")" "(17 of 17, about 0 s left)"
