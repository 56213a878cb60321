#!/bin/bash
# The same through configfs, which the plug-in chooses for an older targetcli; a create that fails at
# one step, and what has to be removed before the next one; Initialize and Cleanup out of turn.
# limit: 600
export MOSCSI_TARGETCLI_VERSION=2.1.fb42
by=configfs
. "$(dirname "$0")/user_luns_steps.sh"

op create-target "$target"
blocked=/sys/module/target_core_user/parameters/block_netlink
cleanup sh -c "echo 0 >$blocked"
echo 1 >$blocked # enabling a device fails from now on
refused "/enable failed" create-lun memory 0 "$target" /half 8388608
echo 0 >$blocked
refused "tcmu backstore is in use" create-lun memory 0 "$target" /half 8388608
half=$(dirname "$(compgen -G "$configfs/target/core/user_*/*/enable")")
step "its directories are removed" rmdir "$half" "$(dirname "$half")"
step "then it can be made" op create-lun memory 0 "$target" /half 8388608
step "a second Initialize" op init
op map 0 "$target" $a
step "host-a logs in" login $a "$target"
written=$(write_random "$(disk_of $a "$target" 0)" 4)
expect_eq "what LUN 0 reads" "$(sum_of "$(disk_of $a "$target" 0)" 4)" "$written"
step "host-a logs out" logout $a "$target"
step "Cleanup with the LUN still there" op cleanup
shell_end
wait_until 10 ended "$shell_pid"
expect_eq "Cleanup without Initialize" "$(echo cleanup | /usr/local/libexec/moscsi-test/platform_shell 2>/dev/null)" ok
step "a new process" shell_start
op unmap 0 "$target" $a
step "deletes the LUN" op delete-lun memory 0 "$target" /half
op delete-target "$target"
op cleanup
