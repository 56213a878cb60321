#!/bin/bash
# User LUNs for two initiators: served, adopted after kill -9, taken down. One line a number of LUNs:
#   config ROAD LUNS READY_S RUNS ADOPTED_S RUNS STOP_S RUNS
# where RUNS counts the runs of the real targetcli, and ROAD is "targetcli" when it carries out every
# command, "fast" when the wrapper does where it can. configure.sh LUNS...
. "$(dirname "$0")/../../scripts/lib/session.sh"
# Each LUN wants its ring in the guest's memory, and the disks of one initiator.
lun_size=8MiB
export HOST_START_LIMIT=7200

# Every run of the real one is a Python that says so at its start.
runs_file=/run/targetcli-runs
count_runs() {
    cat >/usr/lib/python3/dist-packages/moscsi-bench.pth <<'PTH'
import sys, os; any(a.endswith("/targetcli") for a in sys.orig_argv) and os.write(os.open("/run/targetcli-runs", os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644), b".")
PTH
    cleanup rm /usr/lib/python3/dist-packages/moscsi-bench.pth
}
begin() {
    : >$runs_file
    since=$EPOCHREALTIME
}
seconds() { awk "BEGIN { printf \"%.1f\", $EPOCHREALTIME - $since }"; }
runs() { stat -c %s $runs_file; }

answers() { timeout 60 dd if="$1" of=/dev/null bs=4096 count=1 iflag=direct status=none; }

# round ROAD LUNS
round() {
    local luns=() n last ready adopted
    for ((n = 0; n < $2; n++)); do luns+=("$(lun "l$n" memory $lun_size "number = $n")"); done
    host_file "$a $b" "${luns[@]}" >"$work/host.toml"
    begin
    host_start "$work/host.toml"
    ready="$(seconds) $(runs)"
    login "$a" "$target"
    expect_luns "$a" "$target" "$(seq -s' ' 0 $(($2 - 1)))"
    last=$(disk_of "$a" "$target" $(($2 - 1)))
    answers "$last"
    host_kill
    begin
    host_begin "$work/host.toml" --discard-lost-memory
    wait_until 7200 answers "$last"
    adopted="$(seconds) $(runs)"
    wait_until 7200 host_ready_or_ended
    forget "$a" "$target" "$portal"
    begin
    host_stop TERM 3600
    say "config $1 $2 $ready $adopted $(seconds) $(runs)"
    rm -f "$work"/host-killed-*
}

say "kernel $(uname -r)"
count_runs
begin
targetcli --version >/dev/null
expect_eq "runs of the real targetcli, after one" "$(runs)" 1
for number in "$@"; do
    if grep -q MOSCSI_TARGETCLI_FAST_ROAD $home_dir/bin/targetcli; then round fast "$number"; fi
    MOSCSI_TARGETCLI_FAST_ROAD=0 round targetcli "$number"
done
