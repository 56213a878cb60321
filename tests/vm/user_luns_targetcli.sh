#!/bin/bash
# User LUNs made through targetcli: numbers, repeated creates, data of both kinds of backing, fio,
# deletion under I/O.
# limit: 600
by=targetcli
. "$(dirname "$0")/user_luns_steps.sh"

op create-target "$target"
step "a LUN of 8 MiB" op create-lun memory 3 "$target" /sized 8388608
refused "another size" create-lun memory 3 "$target" /sized 4194304
step "its deletion" op delete-lun memory 3 "$target" /sized
op delete-target "$target"
op cleanup
