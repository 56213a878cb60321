#!/bin/bash
# A fresh guest has nothing of what the target needs; the service script's "-start" alone makes it
# (no targetcli ran), a second one changes nothing, and "-stop" leaves it.
# boot: first
. "$(dirname "$0")/../../scripts/lib/session.sh"

modules=(target_core_mod iscsi_target_mod target_core_user target_core_file target_core_iblock)
loaded() { for name in "${modules[@]}"; do [[ ! -e /sys/module/$name ]] || echo "$name"; done; }
state() {
    ls -d /etc/target/* /etc/rtslib-fb-target/*
    loaded
    configfs_snapshot $configfs/target
}

expect_eq "LIO modules of a fresh guest" "$(loaded)" ""
expect_fails "" mountpoint $configfs
expect_fails "" test -e /etc/target
expect_fails "" test -e /etc/rtslib-fb-target/pr
expect_fails "" test -e /root/.targetcli
requires test -x $service

step "targetcli is put out of reach" mv /usr/bin/targetcli /usr/bin/targetcli.away
cleanup mv /usr/bin/targetcli.away /usr/bin/targetcli
step "-start on a bare machine" $service -start
expect_eq "modules after -start" "$(loaded)" "$(printf '%s\n' "${modules[@]}")"
expect_eq "dbroot" "$(<$configfs/target/dbroot)" /etc/rtslib-fb-target
for directory in /etc/target/{pr,alua} /etc/rtslib-fb-target/{pr,alua}; do
    expect_eq "$directory" "$(stat -c %F "$directory")" directory
done

step "a foreign target appears" foreign_target
before=$(state)
step "-start again" $service -start
expect_eq "what is there after a second -start" "$(state)" "$before"
step "-stop" $service -stop
expect_eq "what is there after -stop" "$(state)" "$before"
