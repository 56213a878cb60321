#!/usr/bin/env python3
"""Carries command lines out by the real targetcli and by the wrapper's own road, and compares.

Two passes over one list of steps, from the same state: the first with the fast road switched off,
the second with it. After every step of both passes: status, both streams, and the kernel target's
whole tree, of which only the names of links and the statistics are left out. A step that should be
fast fails also when the second pass took the slow road, and the other way round.

The real targetcli is forked from a process that has its modules, which is several times faster than
a fresh Python; --cold starts it each time. usage: fast_road.py [--cold] WRAPPER WORK_DIR
"""
import fcntl
import os
import re
import runpy
import shutil
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path("/sys/kernel/config/target")
REAL = "/usr/bin/targetcli"
CLIENT = r"""#!/bin/bash
mkfifo "WORK/$$"
printf '%s\0' $$ "$TARGETCLI_HOME" "$@" >WORK/requests
read -r status <"WORK/$$"
exit "$status"
"""

# fast, slow COMMAND LINE; refused (fast, and a line of ours where the real one gives no reason); closed (fast, and
# a new target's portal group stays closed); held (somebody has targetcli's lock); quick (fast in both passes, to come
# to a state; not compared); sh COMMAND; set COMMAND (to come to a state; not compared).
STEPS = r"""
fast --version
slow /iscsi/{T}/tpg1/luns ls
fast /iscsi create {T}
fast /iscsi create {T}
held /iscsi create {T}
fast /iscsi/{T}/tpg1/luns ls
closed /iscsi create {T}2
closed /iscsi create {T}2
slow /iscsi create {T}2
closed /iscsi delete {T}2

fast /backstores/fileio create file_or_dev={W}/f name=f wwn=0123-f
fast /backstores/fileio create file_or_dev={W}/f name=f wwn=0123-f
slow /backstores/fileio create file_or_dev={W}/f name=f wwn=0123-g
slow /backstores/fileio create file_or_dev={W}/hard name=g wwn=0123-f
slow /backstores/fileio create file_or_dev={W}/missing name=g wwn=0123-f
slow /backstores/fileio create name=h file_or_dev={W}/missing wwn=0123-g
fast /backstores/fileio create file_or_dev={W}/g name=g wwn=0123-g
sh   truncate -s 8M {W}/f
slow /backstores/fileio create file_or_dev={W}/f name=f wwn=0123-f
sh   truncate -s 4M {W}/f
fast /iscsi/{T}/tpg1/luns create storage_object=/backstores/fileio/f lun=3
fast /iscsi/{T}/tpg1/luns create storage_object=/backstores/fileio/f lun=3
slow /iscsi/{T}/tpg1/luns create storage_object=/backstores/fileio/f lun=4
slow /iscsi/{T}/tpg1/luns create storage_object=/backstores/fileio/g lun=3
fast /iscsi/{T}/tpg1/luns create storage_object=/backstores/fileio/g
fast /iscsi/{T}/tpg1/luns ls

fast /iscsi/{T}/tpg1/acls create add_mapped_luns=false wwn={A}
fast /iscsi/{T}/tpg1/acls create add_mapped_luns=false wwn={A}
fast /iscsi/{T}/tpg1/acls/{A} create tpg_lun_or_backstore=3 mapped_lun=3
fast /iscsi/{T}/tpg1/acls/{A} create tpg_lun_or_backstore=3 mapped_lun=3
slow /iscsi/{T}/tpg1/acls/{A} create tpg_lun_or_backstore=7 mapped_lun=7
sh   echo 1 >{G}/acls/{A}/lun_3/write_protect
slow /iscsi/{T}/tpg1/acls/{A} create tpg_lun_or_backstore=3 mapped_lun=3
fast /iscsi/{T}/tpg1/acls/{A} delete mapped_lun=3
slow /iscsi/{T}/tpg1/acls/{A} delete mapped_lun=3
sh   mkdir {G}/acls/{A}/lun_9; ln -s {G}/lun/lun_3 {G}/acls/{A}/lun_9/x
slow /iscsi/{T}/tpg1/acls/{A} create tpg_lun_or_backstore=3 mapped_lun=3
fast /iscsi/{T}/tpg1/luns delete lun=3
slow /iscsi/{T}/tpg1/luns delete lun=3
fast /backstores/fileio delete name=f
slow /backstores/fileio delete name=g

fast /backstores/block create dev={L} name=b wwn=b-1
fast /backstores/block create dev={L} name=b wwn=b-1
slow /backstores/block create dev={R} name=r wwn=r-1
fast /iscsi/{T}/tpg1/luns create storage_object=/backstores/block/b lun=255
fast /iscsi/{T}/tpg1/luns create storage_object=/backstores/block/r
slow /iscsi/{T}/tpg1/acls/{A} create tpg_lun_or_backstore=0 mapped_lun=0
sh   mkdir {G}/lun/lun_77
slow /iscsi/{T}/tpg1/luns ls
sh   rmdir {G}/lun/lun_77

fast /backstores/user:{H} create cfgstring=c0ffee name=u size=1048576 wwn=u-1
fast /backstores/user:{H} create cfgstring=c0ffee name=u size=1048576 wwn=u-1
slow /backstores/user:{H} create cfgstring=c0ffee name=u size=2097152 wwn=u-1
refused /backstores/user:{H} create cfgstring=c0ffee name=v size=1048576 wwn=v-1
fast /iscsi/{T}/tpg1/luns create storage_object=/backstores/user:{H}/u lun=10
fast /iscsi/{T}/tpg1/luns create storage_object=/backstores/user:{H}/u lun=10
fast /iscsi/{T}/tpg1/acls/{A} create tpg_lun_or_backstore=10 mapped_lun=10
fast /iscsi/{T}/tpg1/luns ls
sh   printf '{APTPL}' >/etc/rtslib-fb-target/pr/aptpl_v-1
slow /backstores/user:{H} create cfgstring=cafe name=v size=1048576 wwn=v-1
sh   cat {C}/user_*/v/pr/res_aptpl_active
fast /backstores/user:{H} delete name=v
sh   rm /etc/rtslib-fb-target/pr/aptpl_v-1
slow /backstores/user:{H} delete name=u

quick /iscsi/{T}/tpg1/acls create add_mapped_luns=false wwn={B}
sh   echo team >{G}/acls/{B}/tag
slow /iscsi/{T}/tpg1/acls/{B} create tpg_lun_or_backstore=255 mapped_lun=255
sh   rmdir {G}/acls/{B}/lun_255; rmdir {G}/acls/{B}
sh   mkdir {C}/fileio_900
slow /backstores/fileio create file_or_dev={W}/f name=f wwn=0123-f
sh   rmdir {C}/fileio_900
quick /iscsi/{T}/tpg1/acls/{A} create tpg_lun_or_backstore=255 mapped_lun=255
fast /iscsi delete {T}
fast /backstores/block delete name=b
sh   rmdir {C}/iblock_*/r {C}/iblock_*; rmdir {C}/fileio_*/f {C}/fileio_*

sh   mkdir -p {I}/{T}2/tpgt_1/np/127.0.0.1:3260
slow /iscsi create {T}
sh   cd {I}; rmdir {T}2/tpgt_1/np/* {T}2/tpgt_1 {T}2 {T}/tpgt_1/np/* {T}/tpgt_1 {T}
fast /iscsi create {T}
quick /iscsi/{T}/tpg1/acls create add_mapped_luns=false wwn={A}
set  {MANY}
fast /backstores/fileio create file_or_dev={W}/f name=f wwn=0123-f
fast /iscsi/{T}/tpg1/luns create storage_object=/backstores/fileio/f
fast /iscsi/{T}/tpg1/acls/{A} create tpg_lun_or_backstore=1 mapped_lun=1
fast /iscsi/{T}/tpg1/luns ls
sh   echo so far
fast /iscsi/{T}/tpg1/acls/{A} delete mapped_lun=1
fast /iscsi/{T}/tpg1/luns delete lun=1
fast /backstores/fileio delete name=f
fast /iscsi delete {T}
sh   rmdir {C}/fileio_1??/m* {C}/fileio_1??
"""

NAMES = {
    "T": "iqn.2026-01.com.example:fast-road", "A": "iqn.2026-01.com.example:host-a",
    "B": "iqn.2026-01.com.example:host-b", "H": "moscsisrvtcmu", "I": ROOT / "iscsi", "C": ROOT / "core",
}
NAMES["G"] = ROOT / "iscsi" / NAMES["T"] / "tpgt_1"
# One registration that outlives a power cut, as the kernel writes it.
NAMES["APTPL"] = "".join(f"{line}\\n" for line in (
    "PR_REG_START: 0", "initiator_fabric=iSCSI", f"initiator_node={NAMES['A']}", "initiator_sid=0x00",
    "sa_res_key=291", "res_holder=0", "res_type=00", "res_scope=00", "res_all_tg_pt=1", "mapped_lun=10",
    "target_fabric=iSCSI", f"target_node={NAMES['T']}", "tpgt=1", "port_rtpi=1", "target_lun=10", "PR_REG_END: 0"))

# 64 LUNs on files, with the numbers 0 and 101 to 163.
NAMES["MANY"] = """for i in {{100..163}}; do
    object=%(C)s/fileio_$i/m$i lun=%(G)s/lun/lun_$((i > 100 ? i : 0)) file={W}/m$i
    truncate -s 1M $file && mkdir -p $object $lun && echo fd_dev_name=$file,fd_dev_size=1048576 >$object/control &&
        echo -n $file >$object/udev_path && echo 1 >$object/enable && echo m-$i >$object/wwn/vpd_unit_serial &&
        ln -s $object $lun/x || exit; done""" % NAMES


class Machine:
    def __init__(self, wrapper, work, cold):
        self.wrapper, self.work, self.cold, self.client = wrapper, Path(work), cold, Path(work) / "client"
        self.client.write_text(CLIENT.replace("WORK", work))
        self.client.chmod(0o755)
        os.mkfifo(self.work / "requests")
        self.requests = os.open(self.work / "requests", os.O_RDWR | os.O_NONBLOCK)
        self.roads = Path(os.environ["MOSCSI_RUN_DIR"]) / "targetcli/roads"

    def targetcli(self, line, fast, kind=""):
        """Returns: (status, standard output, standard error), road, seconds."""
        env = dict(os.environ, MOSCSI_TARGETCLI_FAST_ROAD=str(int(fast)))
        if not fast and not self.cold:
            env["MOSCSI_TARGETCLI_REAL"] = str(self.client)
        if kind == "held":
            env["MOSCSI_TARGETCLI_LOCK_WAIT"] = "1"
        if kind == "closed":
            env["MOSCSI_TARGETCLI_CLOSED"] = "1"
        noted = len(self.roads.read_text().splitlines()) if self.roads.exists() else 0
        begin = time.monotonic()
        with open("/run/targetcli.lock", "w") as lock, open(self.work / "out", "w+") as out, \
                open(self.work / "err", "w+") as err:
            if kind == "held":
                fcntl.flock(lock, fcntl.LOCK_EX)
            process = subprocess.Popen([self.wrapper, *line.split()], stdout=out, stderr=err, env=env)
            while process.poll() is None:
                self.serve()
            seconds = time.monotonic() - begin
            out.seek(0), err.seek(0)
            result = process.returncode, out.read(), err.read()
        road = " ".join(note.partition(" ")[2] for note in self.roads.read_text().splitlines()[noted:])
        return result, road or "not noted", seconds

    def serve(self):
        """Becomes the real targetcli for a client that asks, in a fork with the client's streams."""
        try:
            client, home, *arguments = os.read(self.requests, 65536).decode().split("\0")[:-1]
        except BlockingIOError:
            time.sleep(0.002)
            return
        child = os.fork()
        if child == 0:
            os.setpgid(0, os.getpgid(int(client)))
            for fd in (1, 2):
                os.dup2(os.open(f"/proc/{client}/fd/{fd}", os.O_WRONLY), fd)
            os.environ["TARGETCLI_HOME"], sys.argv = home, [REAL, *arguments]
            try:
                runpy.run_path(REAL, run_name="__main__")
                status = 0
            except SystemExit as end:
                status = end.code or 0
            sys.stdout.flush()
            os._exit(status & 255)
        status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
        while os.path.exists(f"/proc/{client}"):  # it may have been killed at a limit
            try:
                with open(os.open(self.work / client, os.O_WRONLY | os.O_NONBLOCK), "w") as reply:
                    reply.write(f"{status & 255}\n")
                return
            except OSError:
                time.sleep(0.002)

    def shell(self, line):
        result = subprocess.run(["bash", "-c", line], capture_output=True, text=True)
        return result.returncode, result.stdout, result.stderr


def tree():
    """Every name, content and link below ROOT, except names of links, and statistics."""
    lines = []
    for directory, below, files in os.walk(ROOT):
        below[:] = [name for name in below if not name.endswith("statistics")]
        for name in below + files:
            path = Path(directory, name)
            if path.is_symlink():
                lines.append(f"{directory} -> {path.resolve()}")
                continue
            try:
                content = "/" if path.is_dir() else path.read_text(errors="replace")
            except OSError as error:
                content = error.strerror
            lines.append(f"{path} {path.stat().st_mode:o} {content!r}")
    # The kernel counts HBAs since it was booted; only their order can be the same.
    counts = sorted(set(map(int, re.findall(r"HBA Index: (\d+)", str(lines)))))
    return sorted(re.sub(r"(?<=HBA Index: )\d+", lambda count: f"#{counts.index(int(count[0]))}", line)
                  for line in lines)


def steps(names):
    for line in STEPS.strip().splitlines():
        kind, _, command = line.partition(" ")
        if kind:
            yield kind, command.strip().format(**names)


def run(machine, names, fast):
    results = []
    for kind, command in steps(names):
        if kind in ("sh", "set"):
            result, road, seconds = machine.shell(command), "sh", 0
        elif kind == "quick":
            result, road, seconds = machine.targetcli(command, True)
        else:
            result, road, seconds = machine.targetcli(command, fast, kind)
        # Reading a tree takes longer than most commands. What a slow one left shows in the next one's, and with
        # many objects the next sh reads it.
        few = kind not in ("slow", "quick", "set") and len(os.listdir(ROOT / "core")) < 64
        print(f"{'second' if fast else 'first':7}{seconds:5.2f} s {kind:6}{command[:150]}", flush=True)
        results.append((kind, command, result, tree() if kind == "sh" or few else [], road, seconds))
    return results


def differences(slow, fast):
    (kind, command, wanted, before, _, _), (_, _, found, after, road, _) = slow, fast
    if kind == "refused":
        wanted, found = wanted[:2], found[:2] if found[2].startswith("the kernel refused ") else found
    if wanted != found:
        yield f"{wanted} became {found}"
    yield from (f"only by the real one: {line}" for line in before if line not in set(after))
    yield from (f"only by the fast road: {line}" for line in after if line not in set(before))
    if kind in ("fast", "slow", "refused", "closed") and road.split()[0] != ("slow" if kind == "slow" else "fast"):
        yield f"the road was: {road}"


def main():
    cold = "--cold" in sys.argv
    wrapper, work = sys.argv[-2:]
    if not cold:
        import targetcli, rtslib_fb, configshell_fb  # noqa: F401 (for the forks)
    for name, size in dict(f="4M", g="4M", loop="4M", read_only="4M").items():
        subprocess.run(["truncate", "-s", size, f"{work}/{name}"], check=True)
    os.link(f"{work}/f", f"{work}/hard")
    attach = ["losetup", "--find", "--show"]
    loops = [subprocess.check_output(attach + more, text=True).strip()
             for more in ([f"{work}/loop"], ["--read-only", f"{work}/read_only"])]
    names = dict(NAMES, W=work, L=loops[0], R=loops[1])
    names["MANY"] = names["MANY"].format(W=work)
    machine = Machine(wrapper, work, cold)
    begin, failed = tree(), False
    passes = []
    for fast in (False, True):
        passes.append(run(machine, names, fast))
        if tree() != begin:
            print("left behind:", *sorted(set(tree()) ^ set(begin)), sep="\n  ")
            failed = True
    for slow, fast in zip(*passes):
        found = list(differences(slow, fast))
        failed = failed or bool(found)
        took = f"{slow[5]:5.2f} s {fast[5]:5.2f} s" if slow[5] else ""
        print(f"{'DIFFERS' if found else 'same':8}{slow[0]:6}{took:17}{slow[1]}  {slow[2][0]} {fast[4]}",
              *(f"        {line}" for line in found[:8]), sep="\n")
    subprocess.run(["losetup", "-d", *loops])
    times = [sum(step[5] for step in steps if step[0] == "fast") for steps in passes]
    count = sum(step[0] == "fast" for step in passes[0])
    print(f"{count} command lines that should be fast: {times[0]:.1f} s by the real one, {times[1]:.1f} s by ours")
    shutil.rmtree(machine.work / "requests", ignore_errors=True)
    return failed


sys.exit(main())
