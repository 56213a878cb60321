#!/bin/bash
# What scripts/demo shows, on a machine whose kernel has LIO and where the product is installed.
# shellcheck source=scripts/lib/session.sh
. "$(dirname "$0")/session.sh"
root=$(cd "$(dirname "$0")/../.." && pwd)

begin=$SECONDS
target=iqn.2026-01.com.example:demo # of host/demo.toml
images=/srv/moscsi-demo
export MOSCSI_STATE_DIR=$work/state # a demo leaves no record
mib=64 # of each LUN, as host/demo.toml says

requires test "$EUID" = 0
requires command -v targetcli
requires command -v iscsiadm

# Whatever a demo must not change: the target's configuration, loop devices, the initiator's side.
machine_state() {
    configfs_snapshot $configfs/target
    losetup -a
    iscsiadm -m session 2>/dev/null || echo "no session"
    find /etc/iscsi -path '*/nodes/*' -o -path '*/ifaces/*' | sort
}

echo "demo begins" 2>/dev/null >/dev/kmsg || true
kernel_complaints() {
    dmesg | sed '1,/demo begins/d' | grep -E 'BUG: |WARNING: |Oops|blocked for more than|general protection' || true
}

say "-- The target's side"
step "moscsi_server.sh -start prepares the kernel" "$service" -start
if [[ -e /dev/virtio-ports/control ]]; then # of a virtual machine only: it may hold what it likes
    step "a foreign target is there already" foreign_target
fi
initiator_start
before=$(machine_state)

mkdir -p $images
cleanup rm -rf $images
truncate -s ${mib}M $images/demo-disk.img
loop=$(losetup --find --show $images/demo-disk.img)
detach() { [[ -z $(losetup -j $images/demo-disk.img) ]] || losetup -d "$loop"; }
cleanup detach
sed "s|/dev/loop0|$loop|" "$root/host/demo.toml" >"$work/demo.toml"
step "moscsi-host create: the files of two LUNs" moscsi-host create "$work/demo.toml" file served
sed 's/^/           /' "$work/step.log" >&"$say_fd"
step "moscsi-host check: the plan" moscsi-host check "$work/demo.toml"
sed 's/^/           /' "$work/step.log" >&"$say_fd"
step "moscsi-host serve: until it says ready" host_start "$work/demo.toml"
sed 's/^/           /' "$work/host.log" >&"$say_fd"

# What the target's own side holds of LUN $1.
backing_of() {
    local fd
    case $1 in
    0) echo $images/demo.img ;;
    1) echo "$loop" ;;
    2)
        for fd in "/proc/$host_pid/fd"/*; do
            [[ $(readlink "$fd") != *memfd:moscsi:memory* ]] || echo "$fd"
        done
        ;;
    3) echo $images/served.img ;;
    esac
}

say "-- The initiator's side"
step "host-a logs in" login $a $target
step "host-b logs in" login $b $target
expect_luns $a $target "0 1 2 3"
expect_luns $b $target "0"
declare -A disk written
for lun in 0 1 2 3; do disk[$lun]=$(disk_of $a $target $lun); done
lsscsi -s | sed 's/^/           /' >&"$say_fd"
lsblk -d -o NAME,SIZE,VENDOR,MODEL,SERIAL "${disk[@]}" | sed 's/^/           /' >&"$say_fd"
for lun in 2 3; do
    sg_inq "${disk[$lun]}" >"$work/inquiry"
    expect_contains "the vendor of LUN $lun" "$(<"$work/inquiry")" "TRVX"
    expect_contains "the product of LUN $lun" "$(<"$work/inquiry")" "MoScsiSrv"
done
grep -E 'identification|revision|serial' "$work/inquiry" | sed 's/^/          /' >&"$say_fd"

file_system() { # DISK: a file system with a file of random data, and the file's sum from a new mount
    mkfs.ext4 -q -F "$1"
    mkdir -p "$work/mount"
    mount "$1" "$work/mount"
    head -c 8M /dev/urandom >"$work/mount/random"
    sha256sum <"$work/mount/random" >"$work/sum"
    umount "$work/mount"
    mount -o ro "$1" "$work/mount"
    sha256sum <"$work/mount/random" | diff - "$work/sum"
    umount "$work/mount"
}
for lun in 0 1 2 3; do
    step "LUN $lun: a file system, $mib MiB of random data in its place" file_system "${disk[$lun]}"
    written[$lun]=$(write_random "${disk[$lun]}" $mib)
done
step "host-a logs out" logout $a $target
step "host-a logs in again" login $a $target
for lun in 0 1 2 3; do
    disk[$lun]=$(disk_of $a $target $lun)
    step "LUN $lun: read with O_DIRECT" sum_of "${disk[$lun]}" $mib
    expect_eq "LUN $lun after the new login" "$(<"$work/step.log")" "${written[$lun]}"
    expect_eq "LUN $lun on the target's side" "$(sum_of "$(backing_of $lun)" $mib)" "${written[$lun]}"
done
say "           each LUN reads what was written, and its backing holds the same $mib MiB (SHA-256)"
step "moscsi-host status (counters that are not zero)" moscsi-host status
grep -v ' 0$' "$work/step.log" | sed 's/^/           /' >&"$say_fd"

say "-- The end"
step "both initiators log out" forget $a $target $portal
forget $b $target $portal >/dev/null
step "moscsi-host ends" host_stop
detach
expect_eq "the machine afterwards" "$(machine_state)" "$before"
expect_eq "what the kernel complained of" "$(kernel_complaints)" ""
reservations=$(find /etc/target/pr /etc/rtslib-fb-target/pr -type f 2>/dev/null | paste -sd' ')
say "           configfs, loop devices, sessions and records are as they were after -start${reservations:+; reservation files left: $reservations}"
say "demo: four LUNs (file, block, memory, file served by the host) were written and read by open-iscsi and compared on both sides, in $((SECONDS - begin)) s"
