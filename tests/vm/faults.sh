#!/bin/bash
# Faults injected into one LUN: an initiator sees the right sense, nothing hangs, the LUN recovers when
# the fault ends; abort, LUN reset and (with --soak) the host's stop with transfers held. A LUN beside it never notices.
# limit: 420
. "$(dirname "$0")/../../scripts/lib/session.sh"
export MOSCSI_TARGETCLI_VERSION=2.1.fb42 # made through configfs: with fewer of targetcli's runs

rule() { echo "{ kind = \"$1\", while_file = \"$work/$1\"${2:+, $2} }"; }
rules="$(rule error), $(rule short "bytes = 100"), $(rule delay "delay_ms = 1500"), $(rule hold)"
host_file $a "$(lun faulty served 8MiB "number = 0, faults = { rule = [$rules] }")" \
    "$(lun sound memory 8MiB "number = 1")" >"$work/host.toml"
step "the LUN's file is made" moscsi-host create "$work/host.toml" faulty
step "the host starts" host_start "$work/host.toml"
step "host-a logs in" login $a "$target"
faulty=$(disk_of $a "$target" 0)
sound=$(disk_of $a "$target" 1)
device=$(realpath "$configfs/target/iscsi/$target"/tpgt_1/lun/lun_0/*/enable)
device=${device%/*}
data() { moscsi-host status --json | jq ".targets[0].luns[] | select(.name == \"$1\").data.$2"; }
held() { (($(data faulty on_loan) >= 4)); }

# One block, straight from the initiator: nothing repeats it or looks it up in a cache.
head -c 512 /dev/urandom >"$work/block"
raw_read() { sg_raw --timeout=60 --request=512 --outfile="$work/back" "$1" 28 00 00 00 00 03 00 00 01 00; }
raw_write() { sg_raw --timeout=60 --send=512 --infile="$work/block" "$1" 2a 00 00 00 00 03 00 00 01 00; }
serves() { # DISK: a block written is read
    raw_write "$1" && raw_read "$1" && cmp "$work/block" "$work/back"
}
step "both serve" serves "$faulty"
serves "$sound" >/dev/null 2>&1
for fault in error short delay; do
    before=$(data faulty faults)
    touch "$work/$fault"
    for transfer in raw_read raw_write; do
        status=0
        $transfer "$faulty" >"$work/answer" 2>&1 || status=$?
        if [[ $fault == delay ]]; then
            expect_eq "$transfer's status under $fault" $status 0
        else
            expect_eq "$transfer's status under $fault" $status 3
            expect_contains "$transfer under $fault" "$(<"$work/answer")" "Medium Error"
            expect_contains "$transfer under $fault" "$(<"$work/answer")" "Unrecovered read error"
        fi
    done
    serves "$sound" >/dev/null 2>&1
    rm "$work/$fault"
    expect_eq "transfers hit by $fault" $(($(data faulty faults) - before)) 2
    step "$fault: the right sense, and the LUN recovers" serves "$faulty"
done

# Held reads, which the initiator gives up: it sends ABORT TASK, whose answer waits for the commands.
hold() { # PLACE: four reads from there are held
    local n
    touch "$work/hold"
    for ((n = 0; n < 4; n++)); do
        dd if="$faulty" of=/dev/null bs=4k count=1 skip=$((n * 16 + $1)) iflag=direct status=none 2>"$work/dd.$n" &
        readers+=($!)
    done
    wait_until 20 held
}
# By a session of its own: a reset stops the initiator's for every LUN.
others_are_well() { iscsi-inq -i $a "iscsi://$portal/$target/1" && moscsi-host status && held; }
release() {
    rm "$work/hold"
    for reader in "${readers[@]}"; do wait_until 60 ended "$reader"; done
    readers=()
    wait_until 60 serves "$faulty"
    expect_eq "contexts on loan" "$(data faulty on_loan)" 0
}
aborts() { dmesg | grep -cE 'ABORT_TASK: Found referenced' || true; }
readers=()
before=$(aborts)
aborted() { (($(aborts) > before)); }
echo 3 >"/sys/block/${faulty##*/}/device/timeout"
step "four reads are held" hold 0
step "host-a aborts them" wait_until 40 aborted
step "the other LUN and status answer meanwhile" others_are_well
step "the LUN recovers" release

echo 120 >"/sys/block/${faulty##*/}/device/timeout"
step "four more are held" hold 100
resets_before=$(cat "$device/statistics/scsi_lu/resets")
sg_reset --no-esc --device "$faulty" >"$work/reset" 2>&1 &
reset=$!
reset_begun() { grep -q iscsi_exec_task_mgmt "/proc/$reset/wchan"; } # waits for the answer
step "LUN reset begins" wait_until 20 reset_begun
step "the other LUN and status answer meanwhile" others_are_well
release_and_reset() {
    release
    wait_until 60 ended $reset
    wait $reset
}
step "the LUN recovers, the reset succeeds" release_and_reset
expect_eq "LUN resets at the target" "$(<"$device/statistics/scsi_lu/resets")" $((resets_before + 1))

# The kernel waits 30 s for what is held, of the 48 s that the host has: too little beside other work.
[[ -z ${MOSCSI_SOAK-} ]] || step "four are held at the stop" hold 200
step "the host stops" host_stop TERM 150
for reader in "${readers[@]}"; do wait_until 60 ended "$reader"; done
step "host-a logs out" forget $a "$target" $portal
