#!/bin/bash
# The host on the configfs path: an automatic number that is found again after a kill, a size that
# was changed meanwhile and is refused, and an orderly end.
# limit: 400
. "$(dirname "$0")/../../scripts/lib/session.sh"
export MOSCSI_TARGETCLI_VERSION=2.1.fb42

configuration() { # SIZE
    host_file $a "$(lun fixed memory 8MiB "number = 0")" "$(lun automatic served "$1")" >"$work/host.toml"
}
serve=(timeout 100 moscsi-host serve)
numbers() { moscsi-host status --json | python3 -c 'import json, sys
print(*(lun["number"] for target in json.load(sys.stdin)["targets"] for lun in target["luns"]))'; }

configuration 16MiB
step "the LUN's file is made" moscsi-host create "$work/host.toml" automatic
step "serve" host_start "$work/host.toml"
expect_contains "the way" "$(<"$work/host.log")" "user LUNs are made through configfs"
expect_eq "the numbers" "$(numbers)" "0 1"
step "host-a logs in" login $a "$target"
expect_luns $a "$target" "0 1"
written=$(write_random "$(disk_of $a "$target" 1)" 16)
step "host-a logs out" logout $a "$target"

host_kill
# A start blocks and unblocks what the last process left, so that isn't compared.
state() { configfs_snapshot $configfs/target | grep -v '/action/block_dev:'; }
made=$(state)
truncate -s 32M "$work/automatic.img"
configuration 32MiB
expect_fails "16777216" "${serve[@]}" "$work/host.toml"
expect_eq "configfs after the refusal" "$(state)" "$made"
say "           another size is refused, and nothing was changed"

truncate -s 16M "$work/automatic.img"
configuration 16MiB
step "serve again, with the first configuration" host_start "$work/host.toml" --discard-lost-memory
expect_eq "the numbers" "$(numbers)" "0 1"
step "host-a logs in again" login $a "$target"
expect_eq "what LUN 1 reads" "$(sum_of "$(disk_of $a "$target" 1)" 16)" "$written"
step "host-a logs out" logout $a "$target"
step "the host ends" host_stop
expect_fails "" test -e "$configfs/target/iscsi/$target"
