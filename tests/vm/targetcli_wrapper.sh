#!/bin/bash
# The wrapper in front of the real targetcli: the version passes the gate, six first runs at once
# share one set of preferences and leave the user's alone, a failed user create tells the same object
# from another one, and one that hangs in the kernel is left behind.
# boot: first
# (once a TCMU process has run since boot, enabling a device waits for one)
. "$(dirname "$0")/../../scripts/lib/session.sh"

PATH=$home_dir/bin:$PATH
export MOSCSI_RUN_DIR=$work/run

# reported CMD...: what CMD, which fails, says in its first line on standard error.
reported() {
    local status=0
    "$@" 2>"$work/err" >/dev/null || status=$?
    ((status != 0)) || fail "'$*' succeeded, and must not"
    head -n 1 "$work/err"
}
six_at_once() {
    local run pids=()
    for run in 1 2 3 4 5 6; do
        targetcli /iscsi ls >"$work/ls.$run" 2>&1 &
        pids+=($!)
    done
    for run in "${pids[@]}"; do wait "$run"; done
}
user_preferences() { [[ ! -e /root/.targetcli ]] || grep -r "" /root/.targetcli; }

step "-start" "$service" -start
before=$(user_preferences)
# shellcheck disable=SC2016
step "the version" sh -c '[ "$(targetcli --version 2>&1  | cut -d" " -f3)" = 2.1.fb53 ]'

step "six first runs at once" six_at_once
expect_eq "what they leave" "$(basename -a "$MOSCSI_RUN_DIR"/targetcli/* | cut -d. -f1)" \
    $'lock\npreferences\nroads\nrunning'

user=$configfs/target/core/user_900
cleanup rmdir "$user/wrapper" "$user"
mkdir -p "$user/wrapper"
echo -n dev_size=1048576 >"$user/wrapper/control"
echo -n dev_config=MoScsiSrvTcmu/c0ffee >"$user/wrapper/control"
create=(targetcli /backstores/user:moscsisrvtcmu create cfgstring=c0ffee name=wrapper)
step "an object that is there" timeout 20 sh -c "echo -n 1 >$user/wrapper/enable"
expect_contains "the same object" "$(reported "${create[@]}" size=1048576 wwn=1)" exists
expect_contains "one of another size" "$(reported "${create[@]}" size=2097152 wwn=1)" "another size (1048576 bytes)"

# A file system that is frozen keeps whoever writes to it in the kernel.
frozen() {
    truncate -s 8M "$work/image"
    mkfs.ext4 -q "$work/image"
    mkdir "$work/frozen"
    mount -o loop "$work/image" "$work/frozen"
    cleanup umount "$work/frozen"
    fsfreeze --freeze "$work/frozen"
    cleanup fsfreeze --unfreeze "$work/frozen"
}
cat >"$work/stuck" <<'FAKE'
#!/bin/sh
[ "$1" != touch ] || exec touch "$2"
exec /usr/bin/targetcli "$@"
FAKE
chmod +x "$work/stuck"
export MOSCSI_TARGETCLI_REAL=$work/stuck
targetcli get global >/dev/null
step "a frozen file system" frozen
line=$(MOSCSI_TARGETCLI_TIMEOUT=1 reported targetcli touch "$work/frozen/file")
expect_contains "one that hangs in the kernel" "$line" "(state D, in percpu_rwsem_wait) and is left behind"
unset MOSCSI_TARGETCLI_REAL

expect_eq "the user's preferences" "$(user_preferences)" "$before"
