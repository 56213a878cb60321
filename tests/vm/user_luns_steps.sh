# shellcheck shell=bash disable=SC2154
# The life of user LUNs, for both ways of making them. Sourced by user_luns_*.sh, which set $by.
# shellcheck source=scripts/lib/session.sh
. "$(dirname "$0")/../../scripts/lib/session.sh"

served=$work/served.img
mib=32
bytes=$((mib << 20))

step "Initialize" shell_start
op create-target "$target"
step "a memory LUN, number 0" op create-lun memory 0 "$target" /memory $bytes
truncate -s $bytes "$served"
step "a LUN on a file, automatic number" op create-lun served auto "$target" "$served" $bytes
expect_eq "the number that was free" "${answer%% *}" 1
step "both again" op create-lun memory 0 "$target" /memory $bytes
op create-lun served 1 "$target" "$served" $bytes
step "map both" op map 0 "$target" $a
op map 1 "$target" $a
op map 1 "$target" $a

step "host-a logs in" login $a "$target"
expect_luns $a "$target" "0 1"
disks() { memory=$(disk_of $a "$target" 0) file=$(disk_of $a "$target" 1); }
again() {
    logout $a "$target"
    iscsiadm -m node -T "$target" -p $portal -I "$(iface_of $a)" --login
}
disks
for disk in "$memory" "$file"; do
    identity=$(sg_inq "$disk")
    expect_contains "INQUIRY of $disk" "$identity" "TRVX"
    expect_contains "INQUIRY of $disk" "$identity" "MoScsiSrv"
done
written_memory=$(write_random "$memory" $mib)
written_file=$(write_random "$file" $mib)
step "a new login" again
disks
expect_eq "what the memory LUN reads" "$(sum_of "$memory" $mib)" "$written_memory"
expect_eq "what the file LUN reads" "$(sum_of "$file" $mib)" "$written_file"
expect_eq "what the host's file holds" "$(sum_of "$served" $mib)" "$written_file"

verify() { # DISK ARG...: four jobs, each with a region of its own
    local disk=$1
    shift
    fio --name=verify --filename="$disk" --direct=1 --ioengine=libaio --iodepth=32 --numjobs=4 \
        --size=$((mib / 4))M --offset_increment=$((mib / 4))M --rw=randwrite --bsrange=512-1M --blockalign=512 \
        --verify=crc32c --verify_fatal=1 --randseed=7 --group_reporting "$@"
}
for disk in "$memory" "$file"; do
    step "fio writes and verifies $disk (512 B to 1 MiB, depth 32, 4 jobs)" verify "$disk" --do_verify=1
done
step "a new login" again
disks
for disk in "$memory" "$file"; do
    step "fio verifies $disk again" verify "$disk" --verify_only
done

# Writes 64 KiB blocks one after another for as long as the disk takes them, and notes each that was
# acknowledged.
head -c $bytes /dev/urandom >"$work/source"
keep_writing() {
    local block=0
    while dd if="$work/source" of="$file" bs=64k skip=$block seek=$block count=1 oflag=direct conv=notrunc 2>/dev/null; do
        block=$((block + 1))
        echo $block >"$work/acknowledged"
        ((block < bytes / 65536)) || break
    done
}
keep_writing &
writer=$!
some_written() { [[ -s $work/acknowledged ]] && (($(<"$work/acknowledged") >= 5)); }
wait_until 60 some_written
[[ $by == targetcli ]] || op unmap 1 "$target" $a # a link from the mapping keeps the LUN's directory busy
step "delete LUN 1 with host-a logged in and writing" op delete-lun served 1 "$target" "$served"
wait_until 90 ended $writer
acknowledged=$(<"$work/acknowledged")
cmp -n $((acknowledged * 65536)) "$work/source" "$served" || fail "an acknowledged write is lost"
say "           $acknowledged blocks of 64 KiB were acknowledged, and all are in the host's file"

[[ $by == targetcli ]] || op unmap 0 "$target" $a
step "delete LUN 0 with host-a logged in" op delete-lun memory 0 "$target" /memory
refused "lun not found" delete-lun memory 0 "$target" /memory
# Nothing answers a LUN that is gone: the session ends, with what the initiator still wanted.
step "host-a logs out" logout $a "$target"
op delete-target "$target"
