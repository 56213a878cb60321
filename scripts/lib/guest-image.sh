# shellcheck shell=bash
# Makes the guest's image: Debian 12 with the packages of [guest], as an ext4 disk, its kernel and
# its initrd. The key is a hash of this file and of the package list, so a change of either makes a
# new image. Sourced by scripts/vm, which sets vm_cache; mmdebstrap runs it for its hooks.

image_key() {
    { cat "${BASH_SOURCE[0]}"; packages_of guest; } | sha256sum | cut -c1-16
}

# The guest's first program. It lays what scripts/vm packed (second disk) over the image and hands
# over to the packed scripts/lib/guest-init, so that the image needn't be made anew with each change.
image_stub() {
    cat <<'STUB'
#!/bin/bash
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
mountpoint -q /proc || mount -t proc proc /proc
mountpoint -q /sys || mount -t sysfs sysfs /sys
mountpoint -q /dev || mount -t devtmpfs devtmpfs /dev
tar -C / --no-overwrite-dir --no-same-owner -xf /dev/vdb || echo "guest: the payload can't be unpacked" >/dev/console
exec /src/scripts/lib/guest-init
STUB
}

# Hooks; $1 is the new root. Only virtio disks and ext4 are in the initrd: it boots faster.
image_hook_extract() {
    mkdir -p "$1/etc/initramfs-tools/conf.d"
    printf 'MODULES=list\nCOMPRESS=lz4\n' >"$1/etc/initramfs-tools/conf.d/guest"
    printf 'virtio_pci\nvirtio_blk\next4\n' >"$1/etc/initramfs-tools/modules"
}

image_hook_customize() {
    local unit
    # Nothing of the system's own may restore, start or clear LIO: that is the product's job.
    for unit in rtslib-fb-targetctl.service target.service tgt.service tcmu-runner.service \
        iscsid.service iscsid.socket open-iscsi.service; do
        ln -sf /dev/null "$1/etc/systemd/system/$unit"
    done
    echo moscsi-guest >"$1/etc/hostname"
    printf '127.0.0.1 localhost moscsi-guest\n' >"$1/etc/hosts"
    echo 5f0c6a1e7b3d4c2f9a8e1d2c3b4a5968 >"$1/etc/machine-id"
    image_stub >"$1/sbin/guest-stub"
    chmod 755 "$1/sbin/guest-stub"
    rm -rf "$1"/usr/share/{doc,man,locale}/* "$1"/var/cache/apt/*
}

image_make() { # DIRECTORY
    local dir=$1 log=$1/build.log root=$1/root list self
    self=$(realpath "${BASH_SOURCE[0]}")
    list=$(packages_of guest | paste -sd,)
    echo "vm: installing Debian into a directory (about 90 s)"
    # `main` only: everything the guest needs is there.
    if ! mmdebstrap --variant=minbase --components=main --include="$list" \
        --extract-hook="bash '$self' hook_extract \"\$1\"" \
        --customize-hook="bash '$self' hook_customize \"\$1\"" \
        bookworm "$root" >"$log" 2>&1 </dev/null; then
        tail -n 15 "$log" >&2
        echo "vm: mmdebstrap failed; its whole log is $log" >&2
        return 1
    fi
    echo "vm: making the disk (about 10 s)"
    cp "$root"/boot/vmlinuz-* "$dir/vmlinuz"
    cp "$root"/boot/initrd.img-* "$dir/initrd"
    if ! mke2fs -q -t ext4 -d "$root" "$dir/disk.img" 3500M >>"$log" 2>&1; then
        echo "vm: mke2fs failed; see $log" >&2
        return 1
    fi
    rm -rf "$root"
}

# image_ensure: makes the image unless it is there; sets image_dir. Two callers at once make one.
image_ensure() {
    local start=$SECONDS
    image_dir=${vm_cache:?}/image-$(image_key)
    [[ -e $image_dir/complete ]] && return 0
    packages_install vm-host || return 1
    if ((EUID)); then
        echo "vm: making the guest's image needs root once (scripts/vm build); running it doesn't" >&2
        return 1
    fi
    mkdir -p "$vm_cache" || return 1
    exec {image_lock}>"$vm_cache/lock"
    flock -n "$image_lock" || { echo "vm: waiting for another run that makes the image" && flock "$image_lock"; }
    if [[ ! -e $image_dir/complete ]]; then
        echo "vm: making the guest's image in $image_dir (about two minutes, 2 GB, once)"
        rm -rf "$image_dir"
        mkdir -p "$image_dir" || return 1
        image_make "$image_dir" || return 1
        touch "$image_dir/complete"
        echo "vm: image made in $((SECONDS - start)) s"
    fi
    exec {image_lock}>&-
}

if [[ $0 == "${BASH_SOURCE[0]}" ]]; then
    set -e
    "image_$1" "$2"
fi
