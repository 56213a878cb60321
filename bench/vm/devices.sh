# shellcheck shell=bash
# shellcheck disable=SC2154 # variables of session.sh
# The LUNs that the benchmarks compare, and the two ways to them. Sourced behind scripts/lib/session.sh,
# in the guest. Each LUN is $lun_mib MiB; what needs a file has it in $data_dir.
#
#   memory, served           the product's, by moscsi-host
#   nullio, ramdisk, fileio  the kernel's, straight through configfs
#   empty                    a user backstore whose handler answers without data (bench/empty_handler.cpp)
#   tgt                      Debian's tgt

lun_mib=32
data_dir=$work
core=$configfs/target/core
kernel_target=iqn.2026-01.com.example:bench-kernel
empty_target=iqn.2026-01.com.example:bench-empty
tgt_target=iqn.2026-01.com.example:bench-tgt

# What is read from the guest's disk for the first time waits for it, and such a wait costs the counting
# clock seconds; so everything is read before.
read_ahead() {
    cat /usr/local/lib/moscsi/* /usr/local/bin/* /usr/local/libexec/moscsi*/* /usr/sbin/tgt* \
        /sbin/iscsi* /usr/bin/fio /usr/bin/jq /usr/bin/dd >/dev/null 2>&1 || true
    for program in fio jq tgtd iscsiadm moscsi-host; do ldd "$(command -v $program)"; done |
        awk '/=>/ { print $3 }' | sort -u | xargs cat >/dev/null
    modprobe -a target_core_mod target_core_file target_core_user iscsi_target_mod tcm_loop iscsi_tcp sd_mod
    mountpoint -q "$configfs" || mount -t configfs configfs "$configfs"
}

# object HBA/NAME SETTINGS: a storage object in configfs, enabled.
object() {
    mkdir -p "$core/$1"
    cleanup rmdir "$core/$1" "$core/${1%/*}" --ignore-fail-on-non-empty
    echo "$2" >"$core/$1/control"
    echo "${1##*/}" >"$core/$1/wwn/vpd_unit_serial"
    echo 1 >"$core/$1/enable"
}
# target IQN HBA/NAME...: a target with these objects as LUN 0, 1, ..., for host-a.
target() {
    local tpg=$configfs/target/iscsi/$1/tpgt_1 number=0 each
    mkdir -p "$configfs/target/iscsi" "$tpg/np/0.0.0.0:3261" "$tpg/acls/$a"
    cleanup untarget "$1"
    echo 0 >"$tpg/attrib/authentication"
    shift
    for each in "$@"; do
        mkdir "$tpg/lun/lun_$number" "$tpg/acls/$a/lun_$number"
        ln -s "$core/$each" "$tpg/lun/lun_$number/link"
        ln -s "$tpg/lun/lun_$number" "$tpg/acls/$a/lun_$number/link"
        number=$((number + 1))
    done
    echo 1 >"$tpg/enable"
}
untarget() {
    local its=$configfs/target/iscsi/$1 tpg=$configfs/target/iscsi/$1/tpgt_1
    echo 0 >"$tpg/enable"
    rm -f "$tpg"/acls/*/lun_*/link
    rmdir "$tpg"/acls/*/lun_* "$tpg"/acls/*
    rm -f "$tpg"/lun/lun_*/link
    rmdir "$tpg"/lun/lun_* "$tpg"/np/* "$tpg" "$its"
}

# loopback HBA/NAME: a disk for it on this machine, without a network; prints it.
loopback() {
    local port before after
    port=$(loopback_port "$1")/tpgt_1
    before=$(ls -d /sys/class/scsi_disk/* 2>/dev/null || true)
    mkdir -p "$configfs/target/loopback" "$port/lun/lun_0"
    cleanup unloopback "${port%/tpgt_1}"
    echo naa.50014059f0000001 >"$port/nexus"
    ln -s "$core/$1" "$port/lun/lun_0/link"
    wait_until 20 loopback_disk "$before"
    after=$(loopback_disk "$before")
    echo "/dev/${after##*/}"
}
loopback_port() { echo "$configfs/target/loopback/naa.5001405$(sha256sum <<<"$1" | cut -c1-9)"; }
loopback_disk() {
    local new
    new=$(comm -13 <(sort <<<"$1") <(printf '%s\n' /sys/class/scsi_disk/* | sort))
    new=$(echo "$new"/device/block/*)
    [[ -b /dev/${new##*/} ]] && echo "$new"
}
unloopback() {
    [[ -e $1 ]] || return 0
    rm -f "$1/tpgt_1/lun/lun_0/link"
    rmdir "$1/tpgt_1/lun/lun_0" "$1/tpgt_1" "$1"
}

# The groups of LUNs; each is made in one go.
kernel_luns() {
    local bytes=$((lun_mib << 20))
    object rd_mcp_900/nullio "rd_pages=$((bytes / 4096)),rd_nullio=1"
    object rd_mcp_900/ramdisk "rd_pages=$((bytes / 4096))"
    truncate -s "$bytes" "$data_dir/fileio.img"
    object fileio_900/fileio "fd_dev_name=$data_dir/fileio.img,fd_dev_size=$bytes"
    target "$kernel_target" rd_mcp_900/nullio rd_mcp_900/ramdisk fileio_900/fileio
}
tgt_luns() {
    truncate -s "${lun_mib}M" "$data_dir/tgt.img"
    mkdir -p /run/tgtd
    tgtd -f --iscsi portal=0.0.0.0:3262 >"$work/tgtd.log" 2>&1 {say_fd}>&- &
    tgt_pid=$!
    disown "$tgt_pid"
    cleanup kill -KILL "$tgt_pid"
    wait_until 60 tgtadm --lld iscsi --op new --mode target --tid 1 -T "$tgt_target"
    # A written block is on the file before the answer, as with the others.
    tgtadm --lld iscsi --op new --mode logicalunit --tid 1 --lun 1 --bsoflags sync -b "$data_dir/tgt.img"
    tgtadm --lld iscsi --op bind --mode target --tid 1 -I ALL
}
product_luns() {
    # The devices are made straight through configfs: the same ones as by targetcli, sooner.
    export MOSCSI_TARGETCLI_VERSION=2.1.fb42
    # shellcheck disable=SC2034 # for host_file and lun
    target=iqn.2026-01.com.example:bench lun_dir=$data_dir
    host_file "$a" "$(lun memory memory "${lun_mib}MiB" "number = 0")" \
        "$(lun served served "${lun_mib}MiB" "number = 1")" >"$work/host.toml"
    [[ -e $lun_dir/served.img ]] || moscsi-host create "$work/host.toml" served
    host_start "$work/host.toml"
}
empty_luns() {
    /usr/local/libexec/moscsi-test/empty_handler >"$work/empty.log" 2>&1 {say_fd}>&- &
    empty_pid=$!
    disown "$empty_pid"
    cleanup kill -TERM "$empty_pid"
    wait_until 60 grep -q ready "$work/empty.log"
    object user_900/empty "dev_config=empty/bench,dev_size=$((lun_mib << 20)),hw_block_size=512"
    target "$empty_target" user_900/empty
}

# object_of TARGET LUN: the storage object below configfs' core.
object_of() {
    local link
    link=$(readlink -f "$configfs/target/iscsi/$1/tpgt_1/lun/lun_$2"/*/udev_path)
    link=${link%/udev_path}
    echo "${link#"$core"/}"
}
# quietly_login TARGET PORTAL: as login, without the pings of an idle session.
quietly_login() {
    login "$a" "$1" "$2"
    iscsiadm -m node -T "$1" -p "$2" -I "$(iface_of "$a")" -o update -n 'node.conn[0].timeo.noop_out_interval' -v 0
    logout "$a" "$1" "$2"
    iscsiadm -m node -T "$1" -p "$2" -I "$(iface_of "$a")" --login
}
