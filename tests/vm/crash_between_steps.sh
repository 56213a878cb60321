#!/bin/bash
# The host is killed after every other targetcli command of its start in turn (with --soak after each, and after
# those of its stop), and while the kernel waits for its answer about a device that is being enabled or removed, on
# both ways of making one. The next start frees what waits and ends in the configured state; where it can't, on the configfs path after
# enabling, it names the commands that clear the way.
# limit: 1200
. "$(dirname "$0")/../../scripts/lib/session.sh"

host_file $a "$(lun served served 8MiB)" >"$work/host.toml"
step "the LUN's file is made" moscsi-host create "$work/host.toml" served

# The real targetcli, and then the host's end if it was the command whose turn it is.
cat >"$work/targetcli" <<END
#!/bin/sh
/usr/bin/targetcli "\$@"
status=\$?
case \$1 in /*)
    echo "\$*" >>$work/commands
    [ "\$(wc -l <$work/commands)" != "\$(cat $work/turn)" ] || kill -KILL "\$(cat /run/moscsi/host.lock)" ;;
esac
exit \$status
END
chmod +x "$work/targetcli"
export MOSCSI_TARGETCLI_REAL=$work/targetcli
# turn N: the host dies by its N-th command from now on.
turn() { : >"$work/commands" && echo "$1" >"$work/turn"; }
ready() { grep -q '^ready' "$work/host.log"; }
gather() { wait "$host_pid" 2>/dev/null || true; mv "$work/host.log" "$work/host-$((++kept)).log"; host_pid=''; }

kept=0 stride=2
[[ -z ${MOSCSI_SOAK-} ]] || stride=1
for ((n = 1; ; n += stride)); do
    turn $n
    host_begin "$work/host.toml"
    wait_until 200 host_ready_or_ended 2>/dev/null # bash tells that it was killed
    if ready; then break; fi
    expect_lacks "what the killed host says" "$(<"$work/host.log")" failed
    expect_eq "commands until it was killed" "$(wc -l <"$work/commands")" $n
    say "           killed after $(tail -n 1 "$work/commands")"
    gather
done
((n == 7)) || fail "it was ready before a kill after command $n, and 6 were meant"
say "           ready after $kept kills"
if [[ ${MOSCSI_SOAK-} ]]; then
    for n in 1 2 3; do
        turn $n
        kill -TERM "$host_pid"
        wait_until 120 ended "$host_pid" 2>/dev/null
        say "           killed after $(tail -n 1 "$work/commands")"
        gather
        turn 0
        step "it starts again" host_start "$work/host.toml"
    done
fi
turn 0

in_kernel() { grep -ls tcmu_ /proc/[0-9]*/stack; }
master() { grep -lx moscsi-master /proc/"$host_pid"/task/*/comm; }
# silence: the thread that answers the kernel stands still.
frozen=$work/cgroup/silent
mkdir "$work/cgroup"
mount -t cgroup2 cgroup2 "$work/cgroup"
cleanup sh -c "rmdir $frozen || true; umount $work/cgroup"
mkdir "$frozen"
echo threaded >"$frozen/cgroup.type"
silence() {
    local thread
    wait_until 100 master
    thread=$(dirname "$(master)")
    echo 1 >"$frozen/cgroup.freeze"
    echo "${thread##*/}" >"$frozen/cgroup.threads"
    wait_until 30 grep -q 'frozen 1' "$frozen/cgroup.events"
}
# killed_silent WHAT: dies while the kernel waits for it; what waits there outlives it.
killed_silent() {
    wait_until 100 in_kernel
    host_kill
    in_kernel >/dev/null || fail "nothing waits in the kernel any more"
    say "           killed while the kernel waits to $1"
}
freed() { [[ -z $(in_kernel) ]]; }
remove() { # the device, under a host that then dies
    silence
    kill -TERM "$host_pid"
    killed_silent "$1"
}
enable() {
    host_begin "$work/host.toml"
    silence
    wait_until 10 freed # of what waited for the host before
    killed_silent "$1"
}

remove "remove a device of targetcli's"
enable "enable a device of targetcli's"
step "it starts" host_start "$work/host.toml"
wait_until 10 freed
step "it stops" host_stop
export MOSCSI_TARGETCLI_VERSION=2.1.fb42
enable "enable a device of configfs's"
status=0
out=$(timeout 100 moscsi-host serve "$work/host.toml" 2>&1) || status=$?
expect_eq "the status of a start over a half-made LUN" "$status" 1
expect_contains "what it says" "$out" "is half-made"
commands=$(sed -n 's/.*remove what is there with: //p' <<<"$out")
step "the commands that it names: ${commands//$configfs/...}" sh -ec "$commands"
step "it starts" host_start "$work/host.toml"
remove "remove a device of configfs's"
step "it starts" host_start "$work/host.toml"
wait_until 10 freed
step "it stops" host_stop
