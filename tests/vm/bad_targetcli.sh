#!/bin/bash
# A targetcli that hangs, dies, floods, says nothing or isn't there: the operation ends in its error,
# the next one works, and the host answers its status meanwhile.
. "$(dirname "$0")/../../scripts/lib/session.sh"

cat >"$work/real" <<FAKE
#!/bin/bash
[[ \$1 == --version || \$1 == ls || \$1 == get ]] || case \$(<$work/mode) in
hang) sleep 1000 ;;
stubborn) trap '' TERM INT; while :; do sleep 1; done ;;
die) kill -KILL \$\$ ;;
silent) exit 1 ;;
flood) head -c 3M /dev/zero | tr '\\0' x >&2; exit 1 ;;
esac
exec /usr/bin/targetcli "\$@"
FAKE
chmod +x "$work/real"
export MOSCSI_TARGETCLI_REAL=$work/real
limit=/run/moscsi/targetcli/limit # the host's, for its stop
cleanup rm -f $limit
mode() {
    echo "$1" >"$work/mode"
    case $1 in hang | stubborn) echo 5 >$limit ;; *) rm -f $limit ;; esac
}
mode none

step "Initialize" shell_start
targetcli get global >/dev/null # makes the preferences, for which 5 s can be too little
missing() { mv "$work/real" "$work/away"; }
for case in "hang|5 s" "stubborn|5 s" "die|signal 9" "silent|status 1" "flood|xxxx" "missing|not"; do
    mode "${case%|*}"
    [[ ${case%|*} != missing ]] || missing
    step "a targetcli that is or does '${case%|*}'" refused "${case#*|}" create-target "$target"
    expect_fails "" test -e "$configfs/target/iscsi/$target"
    [[ ! -e $work/away ]] || mv "$work/away" "$work/real"
    mode none
done
step "and then the operation works" op create-target "$target"
op delete-target "$target"
op cleanup
shell_end

truncate -s 8M "$work/lun.img"
host_file $a "$(lun lun file 8MiB)" >"$work/host.toml"
mode hang
rm $limit
MOSCSI_TARGETCLI_TIMEOUT=60 moscsi-host serve "$work/host.toml" >"$work/host.log" 2>&1 {say_fd}>&- &
host_pid=$!
cleanup host_end
applying() { moscsi-host status | grep -q applying; }
wait_until 60 applying
# Where the host wants closed targets, targetcli is first asked to keep that in mind.
hanging() { pgrep -f "$work/real.* (set|create) " && applying; }
step "status answers while a targetcli hangs" wait_until 30 hanging
kill -TERM "$host_pid"
step "and the host can be stopped" wait_until 60 ended "$host_pid"
expect_fails "" wait "$host_pid"
host_pid=''
expect_contains "what it said" "$(<"$work/host.log")" "targetcli"
expect_fails "" test -e "$configfs/target/iscsi/$target"
