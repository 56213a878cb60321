#!/bin/bash
# The wrapper in front of the real targetcli: the version passes the gate, six first runs at once
# share one set of preferences and leave the user's alone, a LUN isn't shown to an initiator that it
# wasn't mapped to, a failed user create tells the same object from another one, who holds the lock
# is named, and one that hangs in the kernel is left behind.
. "$(dirname "$0")/lib.sh"

PATH=$home_dir/bin:$PATH
target=iqn.2003-01.org.example:wrapper
initiator=iqn.2003-01.org.example:reader
tpg=$configfs/target/iscsi/$target/tpgt_1
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
saved=$(ls -l /etc/rtslib-fb-target)
# shellcheck disable=SC2016
step "the version" sh -c '[ "$(targetcli --version 2>&1  | cut -d" " -f3)" = 2.1.fb53 ]'
expect_eq "preferences after --version" "$(ls "$MOSCSI_RUN_DIR/targetcli")" ""

step "six first runs at once" six_at_once
expect_eq "what they leave" "$(basename -a "$MOSCSI_RUN_DIR"/targetcli/* | cut -d. -f1)" \
    $'lock\npreferences'
step "six more" six_at_once

make_target() {
    targetcli /iscsi create $target
    targetcli "/iscsi/$target/tpg1/acls" create add_mapped_luns=false wwn=$initiator
    targetcli /backstores/fileio create "file_or_dev=$work/lun" name=wrapper size=8M
    targetcli "/iscsi/$target/tpg1/luns" create storage_object=/backstores/fileio/wrapper
}
remove_target() {
    targetcli /iscsi delete $target
    targetcli /backstores/fileio delete name=wrapper
}
cleanup remove_target
step "a target with an initiator, then a LUN" make_target
expect_contains "the LUN" "$(ls -d "$tpg"/lun/lun_*)" lun_0
expect_eq "what the initiator is shown" "$(find "$tpg/acls/$initiator" -name 'lun_*')" ""

user=$configfs/target/core/user_900
cleanup rmdir "$user/wrapper" "$user"
mkdir -p "$user/wrapper"
echo -n dev_size=1048576 >"$user/wrapper/control"
echo -n dev_config=MoScsiSrvTcmu/c0ffee >"$user/wrapper/control"
create=(targetcli /backstores/user:moscsisrvtcmu create cfgstring=c0ffee name=wrapper)
expect_contains "a half-made object" "$(reported "${create[@]}" size=1048576 wwn=1)" "never enabled"
step "an object that is there" timeout 20 sh -c "echo -n 1 >$user/wrapper/enable"
expect_contains "the same object" "$(reported "${create[@]}" size=1048576 wwn=1)" exists
expect_contains "one of another size" "$(reported "${create[@]}" size=2097152 wwn=1)" "another size (1048576 bytes)"

expect_eq "the saved configuration" "$(ls -l /etc/rtslib-fb-target)" "$saved"

# Its own exit saves the configuration, with the preferences it has.
mkfifo "$work/keyboard"
cleanup rm -f /etc/rtslib-fb-target/saveconfig.json
/usr/bin/env TARGETCLI_HOME="$work" /usr/bin/targetcli <"$work/keyboard" >/dev/null 2>&1 {say_fd}>&- &
interactive=$!
exec {keyboard}>"$work/keyboard"
wait_until 60 grep -q "FLOCK .* $interactive " /proc/locks
step "a session that somebody left open" true
expect_contains "who holds the lock" "$(MOSCSI_TARGETCLI_LOCK_WAIT=2 reported targetcli ls)" \
    "which process $interactive (targetcli) holds"
exec {keyboard}>&-
wait "$interactive"

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
