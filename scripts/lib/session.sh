# shellcheck shell=bash
# shellcheck disable=SC2034 # some variables are for the scenarios
# The scenarios' vocabulary. A scenario sources it first, then reads as a list of steps; every
# expectation that doesn't hold ends it with one line that says so, and its clean-up always runs.
# Exit status: 0 passed, 77 skipped (a prerequisite is missing), anything else failed.
set -euo pipefail

scenario=$(basename "$0" .sh)
# The scenario's own directory, saved when it fails (paths of LUNs are lower case). In the guest on its
# disk, as users' LUNs are: /tmp is memory there, without O_DIRECT and without a disk's way of failing.
work=${MOSCSI_GUEST:+/var}/tmp/$scenario.$$
mkdir "$work"
target=iqn.2026-01.com.example:${scenario//_/-}
a=iqn.2026-01.com.example:host-a
b=iqn.2026-01.com.example:host-b
foreign=iqn.2003-01.org.example:foreign # somebody else's
home_dir=/usr/local/libexec/moscsi
artifacts=$([[ ${MOSCSI_GUEST-} ]] && echo /artifacts || echo build/vm/artifacts)
service=$home_dir/moscsi_server.sh
configfs=/sys/kernel/config
portal=127.0.0.1:3260
exec {say_fd}>&1
say() { echo "$*" >&"$say_fd"; }

# --- Course of a scenario ----------------------------------------------------------------------

running='' cleanups=() failed_command='an exit'
set -E
trap 'failed_command="$BASH_COMMAND, line $LINENO"' ERR
fail() {
    say "  FAILED: $* (line ${BASH_LINENO[-2]})"
    running='' failed_command=''
    exit 1
}

# requires CMD...: without it there is nothing to show here.
requires() {
    "$@" >/dev/null 2>&1 || { say "  skipped: requires $*"; exit 77; }
}

# cleanup CMD...: runs at the end, however that comes; the last one registered runs first.
cleanup() { cleanups+=("$(printf '%q ' "$@")"); }

finish() {
    local status=$? i failed
    trap '' INT TERM
    set +e
    if ((status != 0 && status != 77)) && [[ -n $failed_command ]]; then
        say "  FAILED: ${running:+$running: }status $status of $failed_command"
        [[ -z $running ]] || tail -n 25 "$work/step.log" >&"$say_fd"
    fi
    for ((i = ${#cleanups[@]} - 1; i >= 0; i--)); do
        # In a subshell, so that an expectation that fails in it can't stop the others.
        (set -e; eval "${cleanups[i]}") >"$work/cleanup.log" 2>&1
        failed=$?
        ((failed)) || continue
        say "  FAILED: clean-up: ${cleanups[i]}"
        tail -n 10 "$work/cleanup.log" >&"$say_fd"
        ((status == 0 || status == 77)) && status=1
    done
    if ((status != 0 && status != 77)); then
        mkdir -p "$artifacts/$scenario" && cp -r "$work/." "$artifacts/$scenario/"
    fi
    rm -rf "$work"
    exit "$status"
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# step TEXT CMD...: one line with what was done and how long it took; CMD's output is kept for the
# case that it fails, and in $work/step.log until the next step.
step() {
    local start=$EPOCHREALTIME end
    running=$1
    shift
    "$@" >"$work/step.log" 2>&1
    end=$EPOCHREALTIME
    say "$(awk "BEGIN { printf \"%7.1f s\", $end - $start }")  $running"
    running=''
}

# --- Expectations: what it is, what was found, what it must be -----------------------------------

expect_eq() {
    [[ $2 == "$3" ]] && return
    if [[ $2$3 == *$'\n'* ]]; then diff <(echo "$3") <(echo "$2") | head -n 20 >&"$say_fd" || true; fi
    fail "$1: found '${2:0:200}', expected '${3:0:200}'"
}
expect_contains() { [[ $2 == *"$3"* ]] || fail "$1: '$3' isn't in '${2:0:2000}'"; }
# Empty text lacks everything, and so proves nothing.
expect_lacks() { [[ -n $2 && $2 != *"$3"* ]] || fail "$1: '$3' is in '${2:0:2000}', or that is empty"; }

# expect_fails TEXT CMD...: CMD fails by itself (not by a signal, not for want of CMD), and what it
# prints contains TEXT ("" for anything).
expect_fails() {
    local text=$1 out status=0
    shift
    out=$("$@" 2>&1) || status=$?
    ((status != 0)) || fail "'$*' succeeded, and must not: ${out:0:500}"
    ((status < 124)) || fail "'$*' ended with status $status: ${out:0:500}"
    expect_contains "'$*'" "$out" "$text"
}

# wait_until SECONDS CMD...: until CMD succeeds; it failing for so long is the scenario's failure.
wait_until() {
    local deadline=$((SECONDS + $1)) limit=$1
    shift
    until ("$@") >"$work/wait.log" 2>&1; do
        ((SECONDS < deadline)) || fail "not within $limit s: $* ($(tail -n 1 "$work/wait.log"))"
        sleep 0.2
    done
}
gone() { [[ ! -e $1 ]]; }
ended() { ! kill -0 "$1" 2>/dev/null; }

# --- Outside the guest -------------------------------------------------------------------------

# outside LINE: kept by scripts/vm (--outside-log), whatever becomes of the guest.
# shellcheck disable=SC2016
outside() { flock /run/outside.lock sh -c 'echo "$1" >/dev/virtio-ports/outside' sh "$*"; }
# vm_power_cut STATUS: the guest is gone at once, nothing is synced; scripts/vm returns STATUS.
vm_power_cut() {
    echo "cut $1" >/dev/virtio-ports/power
    sleep 60
    fail "the power wasn't cut"
}

# --- The product -------------------------------------------------------------------------------

# lun NAME KIND SIZE [KEYS]: one LUN for host_file, on $lun_dir/NAME.img. KIND: file, served (a user LUN on a
# file) or memory (a user LUN in the host's memory). KEYS: what else it has, as TOML.
lun_dir=$work
lun() {
    local type=$2
    case $2 in
    served) type='user", backing = "file' ;;
    memory) type='user", backing = "memory' ;;
    esac
    echo "name = \"$1\", type = \"$type\", path = \"$lun_dir/$1.img\", size = \"$3\"${4:+, $4}"
}
# host_file "INITIATOR..." LUN...: a configuration of the host with $target, where each initiator has all LUNs.
host_file() {
    local initiators=$1
    shift
    printf '[[target]]\nname = "%s"\n' "$target"
    # shellcheck disable=SC2086 # words are meant
    echo "initiator = [$(printf '{ name = "%s", luns = "all" }, ' $initiators)]"
    printf 'lun = [\n%s]\n' "$(printf '    { %s },\n' "$@")"
}

host_pid=''
# host_begin CONFIG [ARG...]: its output is $work/host.log.
host_begin() {
    moscsi-host serve "$@" >>"$work/host.log" 2>&1 {say_fd}>&- &
    host_pid=$!
    cleanup host_end
}
# host_start CONFIG [ARG...]: until it says "ready".
host_start() {
    host_begin "$@"
    wait_until "${HOST_START_LIMIT:-300}" host_ready_or_ended
    if ended "$host_pid"; then
        tail -n 15 "$work/host.log" >&"$say_fd"
        fail "moscsi-host ended before it was ready"
    fi
}
host_ready_or_ended() { grep -q '^ready' "$work/host.log" || ended "$host_pid"; }
# host_stop [SIGNAL [SECONDS]]: asks it to end; it must, in time, with status 0.
host_stop() {
    local status=0
    kill "-${1:-TERM}" "$host_pid"
    wait_until "${2:-120}" ended "$host_pid"
    wait "$host_pid" || status=$?
    host_pid=''
    expect_eq "moscsi-host's status" "$status" 0
}
host_kill() {
    kill -KILL "$host_pid"
    wait "$host_pid" 2>/dev/null || true
    mv "$work/host.log" "$work/host-killed-$host_pid.log"
    host_pid=''
}
host_end() {
    [[ -n $host_pid ]] && ! ended "$host_pid" || return 0
    kill -TERM "$host_pid"
    timeout 60 tail --pid="$host_pid" -f /dev/null || kill -KILL "$host_pid"
}

# --- Initiators --------------------------------------------------------------------------------
# Each name has an interface record of its own, so that one machine is several initiators.

iface_of() { echo "if_${1//[^a-z0-9]/_}"; }
initiator_start() {
    modprobe -a iscsi_tcp sd_mod sg
    mkdir -p /run/lock/iscsi
    grep -q '^InitiatorName=' /etc/iscsi/initiatorname.iscsi 2>/dev/null ||
        echo 'InitiatorName=iqn.1993-08.org.debian:01:guest' >/etc/iscsi/initiatorname.iscsi
    pgrep -x iscsid >/dev/null || iscsid {say_fd}>&-
}
# login IQN TARGET [PORTAL]
login() {
    local iface where=${3:-$portal}
    iface=$(iface_of "$1")
    initiator_start
    iscsiadm -m iface -I "$iface" >/dev/null 2>&1 || {
        iscsiadm -m iface -I "$iface" -o new
        iscsiadm -m iface -I "$iface" -o update -n iface.initiatorname -v "$1"
    }
    iscsiadm -m node -T "$2" -p "$where" -I "$iface" -o new
    cleanup forget "$1" "$2" "$where"
    iscsiadm -m node -T "$2" -p "$where" -I "$iface" --login
}
logout() { iscsiadm -m node -T "$2" -p "${3:-$portal}" -I "$(iface_of "$1")" --logout; }
# forget IQN TARGET PORTAL: no session, no record.
forget() {
    local iface
    iface=$(iface_of "$1")
    if session_of "$1" "$2" >/dev/null; then logout "$@"; fi
    iscsiadm -m node -T "$2" -p "$3" -I "$iface" -o delete >/dev/null 2>&1 || true
    iscsiadm -m iface -I "$iface" -o delete >/dev/null 2>&1 || true
}
# session_of IQN TARGET: the session's directory in sysfs.
session_of() {
    local dir
    for dir in /sys/class/iscsi_session/session*; do
        [[ -e $dir/targetname && $(<"$dir/targetname") == "$2" && $(<"$dir/initiatorname") == "$1" ]] &&
            echo "$dir" && return
    done
    return 1
}
rescan() { iscsiadm -m session -r "$(session_of "$1" "$2" | grep -o '[0-9]*$')" --rescan; }
# luns_of IQN TARGET: the numbers of the LUNs that are seen, on one line.
luns_of() {
    local device
    for device in "$(session_of "$1" "$2")"/device/target*/*:*:*:*; do
        [[ -e $device ]] && echo "${device##*:}"
    done | sort -n | paste -sd' '
}
# expect_luns IQN TARGET "N N ...": these and no others, once the scan that a login starts is through.
expect_luns() {
    wait_until 30 sees "$@"
}
sees() {
    local found
    found=$(luns_of "$1" "$2")
    echo "found: $found"
    [[ $found == "$3" ]]
}
# disk_of IQN TARGET LUN: waits for its disk and prints it (/dev/sdX).
disk_of() {
    wait_until 20 block_of "$@"
    block_of "$@"
}
block_of() {
    local path
    path=$(echo "$(session_of "$1" "$2")"/device/target*/*:*:*:"$3"/block/*)
    [[ -b /dev/${path##*/} ]] && echo "/dev/${path##*/}"
}

# write_random DISK MIB: random data, past the page cache; prints its SHA-256.
write_random() {
    head -c "$(($2 << 20))" /dev/urandom >"$work/random"
    dd if="$work/random" of="$1" bs=1M oflag=direct conv=fsync,notrunc status=none
    sha256sum <"$work/random" | cut -d' ' -f1
    rm -f "$work/random"
}
# sum_of PLACE MIB: SHA-256 of its first MiBs, of a disk past the page cache.
sum_of() {
    local flag=iflag=fullblock
    [[ -b $1 ]] && flag=iflag=direct,fullblock
    dd if="$1" bs=1M count="$2" "$flag" status=none | sha256sum | cut -d' ' -f1
}

# --- Configfs, and what others have there --------------------------------------------------------

# configfs_snapshot PATH: every name, link and content below it, for a comparison by the byte.
# Statistics count what passes, so only their names are taken.
configfs_snapshot() {
    {
        find "$1" -printf '%p %y %l\n'
        grep -arnH --exclude-dir='*statistics' '' "$1" 2>/dev/null || true # some can't be read
    } | tr '\0' '~' | LC_ALL=C sort
}
# foreign_target: until the scenario ends, $foreign is there with one file LUN, made with nothing but configfs.
foreign_target() {
    local core=$configfs/target/core/fileio_900/foreign tpg=$configfs/target/iscsi/$foreign/tpgt_1
    modprobe -a target_core_mod target_core_file iscsi_target_mod
    mountpoint -q "$configfs" || mount -t configfs configfs "$configfs"
    cleanup foreign_remove
    truncate -s 8M /var/tmp/foreign.img
    mkdir -p "$core"
    echo "fd_dev_name=/var/tmp/foreign.img,fd_dev_size=8388608" >"$core/control"
    echo foreign-serial-1 >"$core/wwn/vpd_unit_serial"
    echo 1 >"$core/enable"
    mkdir -p "$configfs/target/iscsi" "$tpg/lun/lun_0" "$tpg/np/127.0.0.1:3999"
    ln -s "$core" "$tpg/lun/lun_0/link"
    echo 1 >"$tpg/enable"
}
foreign_state() { configfs_snapshot $configfs/target/iscsi/$foreign && configfs_snapshot $configfs/target/core/fileio_900; }
foreign_remove() {
    local its=$configfs/target/iscsi/$foreign
    rm "$its/tpgt_1/lun/lun_0/link"
    rmdir "$its"/tpgt_1/np/* "$its/tpgt_1/lun/lun_0" "$its/tpgt_1" "$its" \
        "$configfs/target/core/fileio_900/foreign" "$configfs/target/core/fileio_900"
    rm /var/tmp/foreign.img
}

dbus_stop() {
    local pid
    pid=$(</run/dbus/pid)
    kill "$pid"
    wait_until 10 ended "$pid"
    rm -f /run/dbus/pid
}
dbus_start() { dbus-daemon --system --fork {say_fd}>&-; }

# --- One operation at a time -------------------------------------------------------------------

# shell_start: the ten operations, from then on with `op` (see host/examples/platform_shell.cpp).
shell_start() {
    PATH=$home_dir/bin:$PATH
    coproc shell { exec /usr/local/libexec/moscsi-test/platform_shell 2>>"$work/shell.log" {say_fd}>&-; }
    # shellcheck disable=SC2154 # bash sets it for the coprocess
    shell_pid=$shell_PID
    disown "$shell_pid" # so that its end by shell_end is nobody's news
    cleanup shell_end
    op init
}
shell_end() { ended "$shell_pid" || kill -KILL "$shell_pid"; }
# op WORD...: one operation that must succeed; what it answers after "ok" is in $answer.
op() {
    answer_of "$@"
    [[ $answer == ok* ]] || fail "$*: $answer"
    answer=${answer#ok}
    answer=${answer# }
}
# refused TEXT WORD...: one operation that must fail, and say TEXT.
refused() {
    local text=$1
    shift
    answer_of "$@"
    [[ $answer == error* ]] || fail "$*: succeeded, and must not"
    expect_contains "$*" "$answer" "$text"
}
answer_of() {
    echo "$*" >&"${shell[1]}"
    read -r -t "${OP_LIMIT:-120}" answer <&"${shell[0]}" || fail "$*: no answer"
}
