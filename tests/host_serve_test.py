#!/usr/bin/env python3
# The host's life, from outside: order of operations, take-down, signals, status, restart.
# Runs moscsi-host against a plug-in whose kernel is a directory tree.
# usage: host_serve_test.py MOSCSI_HOST FAKE_PLUGIN
import contextlib
import hashlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import unittest
from pathlib import Path

from support.program_test import DEADLINE, ProgramTest, wait_until

HOST, PLUGIN = sys.argv[1:3]
TARGET = "iqn.2026-01.com.example:t"
A, B, C = (f"iqn.2026-01.com.example:{name}" for name in "abc")


# The digits that names and serials in the kernel are made of.
def digest(text):
    return hashlib.md5(text.encode()).hexdigest()


class ServeTest(ProgramTest):
    def setUp(self):
        super().setUp()
        for name, text in (("moscsi_server.sh", ""), ("bin/targetcli", "echo x x 2.1.fb53"),
                           ("real", "")):
            self.write(name, f"#!/bin/sh\n{text}\n", 0o755)
        self.write("platform.toml", f'home = "{self.dir}"\n')
        self.bus = self.spawn("/usr/bin/dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address")
        self.log_file = self.dir / "log"
        self.limit = self.dir / "run/targetcli/limit"
        self.configfs = self.dir / "configfs"
        self.env = dict(os.environ, MOSCSI_RUN_DIR=self.dir / "run", MOSCSI_STATE_DIR=self.dir / "state", FAKE_LOG=self.log_file,
                        MOSCSI_CONFIGFS_ROOT=self.configfs,
                        MOSCSI_TARGETCLI_REAL=self.dir / "real",
                        DBUS_SYSTEM_BUS_ADDRESS=self.bus.stdout.readline().strip())
        text = f'[service]\nlog_level = -1\n[[target]]\nname = "{TARGET}"\n'
        # Automatic numbers come first in the file, explicit ones first in the kernel.
        for name in ("one", "two"):
            self.write(name, "x" * 1024)
        for name, number, kind in (("one", '"auto"', "file"), ("two", 0, "file"),
                                   ("three", 2, 'user"\nbacking = "memory')):
            text += (f'[[target.lun]]\nname = "{name}"\ntype = "{kind}"\nsize = 1024\n'
                     f'path = "{self.dir}/{name}"\nnumber = {number}\n')
        for name, seen in ((A, '"all"'), (B, '["two"]')):
            text += f'[[target.initiator]]\nname = "{name}"\nluns = {seen}\n'
        self.file = "f.toml"
        self.write(self.file, text)

    def host(self, *arguments, **env):
        return self.spawn(HOST, "--platform-file", f"{self.dir}/platform.toml", *arguments,
                          **{**self.env, **env})

    def start(self, *options, **env):
        return self.host("serve", "--library", PLUGIN, f"{self.dir}/{self.file}", *options, **env)

    def ready(self, *options, **env):
        return self.says("ready\n", self.start(*options, **env))

    def full_pipe(self):
        reader, writer = os.pipe()
        for end in (reader, writer):
            self.addCleanup(os.close, end)
        os.set_blocking(writer, False)
        with contextlib.suppress(BlockingIOError):
            while os.write(writer, b"x" * 65536):
                pass
        os.set_blocking(writer, True)  # the host shares what this sets
        return writer

    def says(self, text, process):
        while not (line := process.stdout.readline()).startswith(text):
            self.assertTrue(line, f"ended without: {text}")
        return process

    # What it prints until its end, on standard output and on standard error.
    def ends(self, process, code=1):
        status, out, err = self.finish(process)
        self.assertEqual(status, code, err)
        self.assertNotIn("ready\n", out)
        return out, err

    def status(self, *options):
        return "".join(self.finish(self.spawn(HOST, "status", *options, **self.env))[1:])

    # The operations since the last look, without the directory.
    def log(self):
        lines = self.log_file.read_text().replace(f"{self.dir}/", "").splitlines()
        os.truncate(self.log_file, 0)
        return lines

    def tree(self, pattern="**/*"):
        return sorted(str(path.relative_to(self.configfs)) for path in self.configfs.glob(pattern))

    def objects(self):
        return self.tree("core/*/*") + self.tree("iscsi/*")

    CREATED = ["Initialize", f"CreateTarget {TARGET}", "CreateLun two 0 lun", "CreateLun three 2 lun served",
               "CreateLun one auto lun", f"MapHost {A} one 255", f"MapHost {A} two 0",
               f"MapHost {A} three 2", f"MapHost {B} two 0"]
    DELETED = [f"UnMapHost {B} two 0", f"UnMapHost {A} three 2", f"UnMapHost {A} two 0",
               f"UnMapHost {A} one 255", "DeleteLun three 2", "DeleteLun two 0", "DeleteLun one 255",
               f"DeleteTarget {TARGET}", "Cleanup"]

    def test_serves_and_takes_down_in_reverse(self):
        for stop in (signal.SIGTERM, signal.SIGINT):
            process = self.ready(FAKE_AUTOMATIC=255)
            self.assertEqual(self.log(), self.CREATED)
            status = json.loads(self.status("--json"))
            luns = status["targets"][0]["luns"]
            self.assertEqual([status["phase"], *(lun["number"] for lun in luns)], ["ready", 255, 0, 2])
            self.assertEqual((luns[2]["object"], luns[2]["cfgstring"]),
                             (digest(f"MoScsiSrv-{TARGET}-{self.dir}/three")[:15], digest(f"{TARGET}{self.dir}/three")))
            self.assertRegex(self.status(), r"(?s)LUN 255 one +file +1 KiB .*fake source\n +answers +42\n")
            self.assertIn(f"another moscsi-host (process {process.pid})", self.ends(self.start())[1])
            process.send_signal(stop)
            self.assertEqual(self.ends(process, 0)[1], "")
            self.assertEqual(self.log(), self.DELETED)
            self.assertEqual(self.objects(), [])
            self.assertFalse((self.dir / "run/host.sock").exists())
            self.assertFalse(self.limit.exists())
        self.assertIn("no moscsi-host is running", self.status())

    def test_usage(self):
        for arguments, status, said in (((), 2, "subcommand is required"), (("serve",), 2, "FILE is required"),
                                        (("check", "f", "--frob"), 2, "--frob"), (("--version",), 0, r"^moscsi-host \d+\.\d"),
                                        (("--help",), 0, "(?s)--anew.*--discard-lost-memory.*--json")):
            code, out, err = self.finish(self.spawn(HOST, *arguments, **self.env))
            self.assertEqual(code, status)
            self.assertRegex(out + err, said)

    def test_faults_that_are_configured_show(self):
        self.file_luns()
        text = (self.dir / "f.toml").read_text().replace("files/three\"\n", "files/three\"\n"
                                                         "faults = { durable = false, rule = [{ kind = 'error', after = 9 }] }\n")
        self.write("f.toml", text)
        for name in ("one", "three"):
            self.write(f"files/{name}", "x" * 4096)
        faults = "with 1 fault rule, no durability"
        self.assertIn(faults, self.finish(self.host("check", f"{self.dir}/f.toml"))[1])
        self.says("ready\n", self.says(f"LUN three of {TARGET} is served {faults}", self.start()))
        one, two, three, four = (lun.get("data") for lun in json.loads(self.status("--json"))["targets"][0]["luns"])
        self.assertEqual((one, two, three["fault_rules"], three["durable"], four["fault_rules"]),
                         (None, {"state": "not served"}, 1, False, 0))

    def test_wants_the_targetcli_that_the_wrapper_would_run(self):
        for real in ("bin/targetcli", "none"):
            self.env["MOSCSI_TARGETCLI_REAL"] = self.dir / real
            self.assertIn(f"{real} is not the real targetcli program", self.ends(self.start())[1])

    def test_a_start_that_fails_ends_with_the_cause(self):
        for script, fail, last in (("echo process 7 holds the lock >&2; exit 1", "Initialize:1", "process 7 holds the lock"),
                                   ("echo x x 2.1.fb53", "Initialize:1", "targetcli answers by now.* start again"),
                                   ("echo x x 2.1.fb40", "Initialize:1", "Initialize failed as told"),
                                   ("echo process 7 holds; exit 1", "", "targetcli doesn't say its version.* start again")):
            self.write("bin/targetcli", f"#!/bin/sh\n{script}\n", 0o755)
            self.assertRegex(self.ends(self.start(FAKE_FAIL=fail))[1], rf"\nmoscsi-host: {last}\n\Z|\Amoscsi-host: {last}\n\Z")

    def test_every_failure_leaves_nothing_of_this_run(self):
        for name, value, line in (
                *(("FAKE_FAIL", step, "failed as told")
                  for step in ("CreateTarget:1", "CreateLun:1", "CreateLun:3", "MapHost:1", "MapHost:4")),
                ("FAKE_AUTOMATIC", 256, "got the number 256"),
                ("FAKE_PORTAL", "", "has no portal on the service port 3260")):
            with self.subTest(value):
                self.assertIn(line, "".join(self.ends(self.start(**{name: value}))))
                self.assertEqual(self.objects(), [])
                self.assertEqual(self.log()[-1], "Cleanup")

    def test_a_target_opens_last_also_when_a_host_was_killed_before(self):
        group = self.configfs / "iscsi" / TARGET / "tpgt_1"
        note = self.dir / "run/closed" / TARGET
        for step in ("CreateTarget", "CreateLun", "MapHost"):
            process = self.start(FAKE_WAIT=step)
            wait_until((self.dir / "log.begun").exists)
            self.assertEqual((group / "enable").read_text(), "0\n", step)
            process.kill()
            process.wait()
            (self.dir / "log.begun").unlink()
        ours = note.read_text()
        note.write_text("another boot\n")
        self.assertIn("has its portal group disabled", self.ends(self.start())[1])
        note.write_text(ours)
        process = self.ready("--discard-lost-memory")
        self.assertEqual((group / "enable").read_text().strip(), "1")
        self.assertFalse(note.exists())
        process.terminate()
        self.assertEqual(self.finish(process)[0], 0)

    # It may hold the configuration's lock. What serves goes on, and stays for the next start.
    def test_after_an_exception_no_operation_is_called(self):
        for call in ("CreateLun:2", "UnMapHost:2"):
            with self.subTest(call):
                operation = call.split(":")[0]
                process = self.start(FAKE_THROW=call)
                if operation == "CreateLun":
                    wait_until(lambda: "degraded" in self.status("--json"))
                    self.assertIn(f"degraded: {operation} ended with an exception ({call} threw", self.status())
                else:
                    self.says("ready\n", process)
                process.terminate()
                self.assertIn(f"{operation} ended with an exception ({call} threw as told)", self.ends(process)[1])
                calls = [line.split()[0] for line in self.log()]
                self.assertEqual((calls[-1], calls.count(operation)), (operation, 2))
                self.assertIn(f"iscsi/{TARGET}", self.objects())
                self.assertFalse((self.dir / "run/host.sock").exists())

    def test_tells_which_way_targetcli_s_commands_went(self):
        roads = self.write("run/targetcli/roads", "T slow version: an earlier host's\n")
        process = self.ready()
        with open(roads, "a") as notes:
            notes.write("T fast LUN create\nT slow ACL create: no such target\nT fast LUN create\nT lost half a line")
        self.assertRegex(self.status(), r"targetcli roads\n +fast +2\n +lost +0\n +slow +1\n")
        roads.write_text("T lost LUN delete: by a signal\n")
        process.terminate()
        self.assertIn("targetcli's commands: 2 carried out in configfs, 1 by it, 1 lost: "
                      "ACL create: no such target (1); LUN delete: by a signal (1)\n", self.finish(process)[1])

    def test_waits_for_a_command_that_an_earlier_host_left_running(self):
        running = self.write("run/targetcli/running", "")
        earlier = self.spawn("flock", "--shared", "--close", running,
                             "setpriv", "--pdeathsig", "KILL", "sleep", "1000")
        wait_until(lambda: subprocess.run(["flock", "--nonblock", running, "true"]).returncode)
        line = f"waiting for a targetcli that an earlier host started (process {earlier.pid})"
        process = self.says(line, self.start())
        process.terminate()
        self.assertIn("stopped before anything was served", self.ends(process)[0])
        self.assertEqual(self.log(), ["Initialize", "Cleanup"])
        process = self.says(line, self.start())
        earlier.kill()
        earlier.wait()
        self.says("ready\n", process)

    def test_a_killed_host_loses_the_memory_and_the_next_one_takes_down_only_what_it_made(self):
        others = [f"CreateTarget {TARGET}", "CreateLun two 0 lun", "CreateLun one auto lun"]
        for options, made in (((), self.CREATED[1:]), ((), ["CreateLun three 2 lun", *others]),
                              (("--discard-lost-memory",), ["CreateLun three 2 lun served", *others])):
            process = self.ready(*options, FAKE_AUTOMATIC=255)
            self.assertEqual(self.log()[1:], made)
            process.kill()
            process.wait()
        before = self.tree()
        self.ends(self.start(FAKE_FAIL="CreateLun:2"))
        self.assertEqual(self.tree(), before)

    # Three LUNs on files in a directory of their own, and one that isn't.
    def file_luns(self):
        (self.dir / "files").mkdir()
        text = f'[service]\nlog_level = -1\n[[target]]\nname = "{TARGET}"\n'
        for name, number, kind in (("one", '"auto"', "file"), ("two", '"auto"', 'user"\nbacking = "file'),
                                   ("three", 0, 'user"\nbacking = "file'), ("four", 3, 'user"\nbacking = "memory')):
            text += (f'[[target.lun]]\nname = "{name}"\ntype = "{kind}"\nnumber = {number}\nsize = 4096\n'
                     f'path = "{self.dir}/files/{name}"\n')
        for name, seen in ((A, '"all"'), (B, '["one"]')):
            text += f'[[target.initiator]]\nname = "{name}"\nluns = {seen}\n'
        self.write("f.toml", text)
        return text

    # Its exit status, what it says, and the files that there are.
    def create(self, *arguments):
        status, out, err = self.finish(self.host("create", f"{self.dir}/f.toml", *arguments))
        return status, out + err, sorted(path.name for path in (self.dir / "files").glob("*"))

    def test_create_makes_all_that_it_is_asked_for_or_nothing_and_each_once(self):
        text = self.file_luns()
        lun = text[text.index("[[target.lun]]"):text.index('[[target.lun]]\nname = "two"')]
        twice = text + f'[[target]]\nname = "{TARGET}2"\n' + lun.replace("files/one", "files/other")
        for changed, arguments, status, said, files in (
                (text.replace("files/", "files/none/"), ["one"], 1, "the directory .*files/none isn't there", []),
                (text, ["one", "five"], 1, 'has no LUN "five"', []),
                (text, ["one", "four"], 1, "LUN four has no file", []),
                (twice, ["one"], 1, f'LUN "one": name it as {TARGET}/one', []),
                (text.replace("size = 4096\n", "", 1), ["three", "one"], 1, "LUN one has no size", []),
                (text.replace("4096", str(1 << 43), 1), ["three", "one"], 1, 'provisioning = "sparse"', []),
                (twice, [f"{TARGET}/one", "three"], 0, "made LUN one.*4 KiB, full.*\n.*LUN three", ["one", "three"]),
                (text, ["two", "one"], 1, "one is there already", ["one", "three"]),
                ("", ["two", "one"], 1, "served here before: is the file system", ["three"]),
                (text.replace('"lun', '"dis', 1), ["two", "one"], 1, "served here before", ["three"]),
                (text.replace("= 4096", '= 4096\nprovisioning = "sparse"', 3), ["two", "one", "--anew"], 0,
                 "made LUN two.*sparse", ["one", "three", "two"])):
            with self.subTest(said):
                if not changed:
                    (self.dir / "files/one").unlink()
                self.write("f.toml", changed or text)
                result = self.create(*arguments)
                self.assertRegex(result[1], f"(?s){said}")
                self.assertEqual((result[0], result[2]), (status, files))
        blocks = [(self.dir / "files" / name).stat().st_blocks for name in ("one", "three")]
        self.assertEqual([blocks[0], blocks[1] > 0], [0, True])
        self.write("state/luns", "0 1\n")
        self.assertIn("state/luns:1: is no line of", self.create("one")[1])

    def test_a_lun_whose_file_is_missing_stays_out_and_the_others_are_served(self):
        self.file_luns()
        files = {name: self.dir / "files" / name for name in ("one", "two", "three")}

        def serve(*missing, killed=False):
            for name, file in files.items():
                file.unlink(missing_ok=True)
                if name not in missing:
                    file.write_bytes(bytes(4096))
            process = self.ready("--discard-lost-memory")
            self.assertEqual(sorted((self.dir / "files").glob("*")), sorted(files[n] for n in files if n not in missing))
            there = 0 if killed else len(self.tree("core/*/*"))
            process.send_signal(signal.SIGKILL if killed else signal.SIGTERM)
            errors = self.finish(process)[2]
            log = [line.replace("files/", "") for line in self.log()]
            made = [line for line in log if line.startswith(("CreateLun", f"MapHost {B}"))]
            self.assertEqual(sum(line.startswith("DeleteLun") for line in log), there)
            self.assertEqual(self.objects() == [], not killed)
            return made, errors

        three, four, map_one = "CreateLun three 0 lun served", "CreateLun four 3 lun served", f"MapHost {B} one 1"
        for missing, killed, expected, lines in (
                ([], False, [three, four, "CreateLun one auto lun", "CreateLun two auto lun served", map_one], 0),
                # The numbers that they had stay theirs: 1, and 0 by the file.
                (["one"], False, [three, four, "CreateLun two 2 lun served"], 2),
                (["three", "two"], False, [four, "CreateLun one 1 lun", map_one], 4),
                ([], True, [three, four, "CreateLun one auto lun", "CreateLun two auto lun served", map_one], 0),
                (["one", "two"], False, [three, four, "CreateLun two auto lun"], 4)):
            with self.subTest(missing):
                made, errors = serve(*missing, killed=killed)
                self.assertEqual(made, expected)
                self.assertEqual(errors.count("\n"), lines, errors)
                self.assertEqual(errors.count("is the file system that holds it mounted?"), lines / 2)
        self.assertEqual(self.finish(self.host("check", f"{self.dir}/f.toml"))[0], 1)
        self.assertIn("served here before", self.create("one")[1])

    def test_a_kernel_file_that_goes_while_the_host_starts_is_not_made_anew(self):
        process = self.start(FAKE_WAIT="CreateTarget")
        wait_until((self.dir / "log.begun").exists)
        (self.dir / "one").unlink()
        (self.dir / "log.go").touch()
        self.assertIn("one isn't the file any more", self.ends(process)[1])
        self.assertNotIn("CreateLun one auto lun", self.log())

    def test_says_who_else_has_a_file(self):
        lock = "import fcntl, signal, struct, sys; f = open(sys.argv[1], sys.argv[2]); " \
               "fcntl.fcntl(f, 37, struct.pack('hhqqi4x', fcntl.F_RDLCK, 0, 100, 1, 0)); print('x', flush=True); signal.pause()"
        for mode, verb, said in (("rb+", "check", "two is open for writing by"), ("rb", "serve", "two is in use by")):
            holder = self.spawn(sys.executable, "-c", lock, self.dir / "two", mode)
            self.assertEqual(holder.stdout.readline(), "x\n")
            process = self.start() if verb == "serve" else self.host(verb, f"{self.dir}/f.toml")
            self.assertRegex(self.ends(process)[1], rf"{said} process {holder.pid} \(python.*\)")
            holder.kill()
            holder.wait()
        self.ready()
        self.assertEqual(self.finish(self.host("check", f"{self.dir}/f.toml"))[0], 0)  # ours doesn't count

    def test_a_bus_that_accepts_and_says_nothing_is_not_waited_for(self):
        process = self.start(FAKE_WAIT="Initialize")
        wait_until((self.dir / "log.begun").exists)
        self.bus.send_signal(signal.SIGSTOP)
        (self.dir / "log.go").touch()
        self.says("wait for the user backstores' objects on D-Bus: failed", process)
        self.bus.send_signal(signal.SIGCONT)
        self.assertIn("says nothing", self.ends(process)[1])

    def test_others_work_in_our_target_stays(self):
        process = self.ready()
        (self.configfs / "iscsi" / TARGET / "tpgt_1/acls" / C).mkdir()
        process.terminate()
        self.assertIn(f"holds the initiator {C}", self.ends(process)[1])
        self.assertEqual(self.objects(), [f"iscsi/{TARGET}"])

    def test_signal_while_a_step_runs_stops_after_it(self):
        process = self.start(FAKE_WAIT="CreateTarget")
        wait_until((self.dir / "log.begun").exists)
        process.terminate()
        wait_until(self.limit.exists)
        process.terminate()
        wait_until(lambda: self.limit.read_text() == "3\n")
        (self.dir / "log.go").touch()
        self.ends(process)
        self.assertEqual(self.objects(), [])
        self.assertEqual(self.log(), ["Initialize", f"CreateTarget {TARGET}",
                                      f"DeleteTarget {TARGET}", "Cleanup"])

    def test_delete_that_never_ends_is_given_up(self):
        process = self.ready(FAKE_WAIT="DeleteLun")
        process.terminate()
        wait_until((self.dir / "log.begun").exists)
        self.assertIn("stopping", self.status())
        process.terminate()
        self.assertIn("a step of the stop doesn't end", self.ends(process)[1])
        self.assertFalse(self.limit.exists())

    # Closed descriptors, a mask of nothing, an ignored SIGHUP and a low limit, as a shell hands them on.
    def test_start_sets_right_what_was_inherited(self):
        def start(*commands):
            return self.spawn("/bin/sh", "-c", "; ".join((*commands, 'exec "$@"')), "sh", HOST, "--platform-file",
                              f"{self.dir}/platform.toml", "serve", "--library", PLUGIN, f"{self.dir}/f.toml", **self.env)
        process = start("trap '' HUP", "umask 000", "ulimit -Sn 60", "exec <&- >&- 2>&-")
        wait_until(lambda: '"phase":"ready"' in self.status("--json").replace(" ", ""))
        proc = Path(f"/proc/{process.pid}")
        self.assertEqual({os.readlink(proc / f"fd/{number}") for number in range(3)}, {"/dev/null"})
        for path in (self.dir / "run").rglob("*"):
            self.assertEqual(path.stat().st_mode & 0o022, 0, path)
        self.assertEqual((self.dir / "run").stat().st_mode & 0o777, 0o755)
        self.assertRegex((proc / "limits").read_text(), r"Max open files +(\d+) +\1 ")
        hangup = {name: int(value, 16) & 1 for name, value in re.findall(r"Sig(Ign|Blk):\s+(\w+)", (proc / "status").read_text())}
        self.assertEqual(hangup, {"Ign": 1, "Blk": 0})
        process.terminate()
        self.ends(process, 0)
        process = self.says("ready\n", start("ulimit -n 60"))
        process.send_signal(signal.SIGHUP)
        self.assertRegex(self.ends(process, 0)[1], "may open 60 files, and .* needs about 71")

    # What it prints fits in no pipe any more, and nobody reads: nothing waits for that. The name of
    # the file isn't UTF-8, what is told of it is.
    def test_nobody_reading_stops_nothing(self):
        self.file = os.fsdecode(b"\xff.toml")
        (self.dir / "f.toml").rename(self.dir / self.file)
        for wait, code in ((None, 0), ("DeleteLun", 1)):
            with self.subTest(wait):
                process = self.start(**({"FAKE_WAIT": wait} if wait else {}), output=self.full_pipe())
                wait_until(lambda: '"phase":"ready"' in self.status("--json").replace(" ", ""))
                self.assertIn(f"{self.dir}/\ufffd.toml", self.status())
                process.terminate()
                if wait:
                    wait_until((self.dir / "log.begun").exists)
                    process.terminate()
                self.assertEqual(process.wait(DEADLINE), code)

    def test_check_says_all_that_is_wrong_or_what_would_be_served(self):
        good = (self.dir / "f.toml").read_text()
        port = 'machine = "m"\n[clients.m]\nid = 1\niscsi_port = 3261\n'
        plan = f"target {TARGET}\n"
        for lun, storage, note in (('automatic "one"', "file", ""), ('0 "two"', "file", ""),
                                   ('2 "three"', "user on memory", "")):
            path = f"{self.dir}/" + lun.split('"')[1]
            plan += f"  LUN {lun}: {storage} {path}, 1 KiB{note}, serial lun-{digest(TARGET + path)}\n"
        plan += f"  initiator {A}: one, two, three\n  initiator {B}: two\n{self.dir}/f.toml is good"
        digits = "a" * 25  # what multipath looks at of a serial
        self.write("configfs/core/fileio_0/x/wwn/vpd_unit_serial", f"T10 VPD Unit Serial Number: {digits}\n")
        for text, platform, status, said in (
                (good, "", 0, r"iSCSI service port: 3260 \(the .*\)\n" + re.escape(plan)),
                (good, port, 0, "iSCSI service port: 3261\n" + re.escape(plan)),
                (good, "home =", 1, r"moscsi-host: .*platform.toml.*"),
                ("", "", 1, "moscsi-host: .*f.toml: names no target.*"),
                (good.replace("= 0", "= 256").replace("= 2\n", "= 300\n"), "", 1,
                 "moscsi-host: .*f.toml:16: .*\nmoscsi-host: .*f.toml:23: .*"),
                (good.replace("= 0", f'= 0\nserial_prefix = "{digits}"'), "", 1,
                 "moscsi-host: LUN two: its serial and that of backstore fileio/x agree .*")):
            with self.subTest(said):
                self.write("platform.toml", platform)
                result, out, err = self.finish(self.host("check", self.write("f.toml", text)))
                self.assertRegex(out + err, rf"\A{said}\n\Z")
                self.assertEqual(result, status)
        os.mkfifo(self.dir / "fifo")
        for file in (self.dir, self.dir / "none", self.dir / "fifo", "/dev/zero"):
            self.assertRegex(self.finish(self.host("check", file))[2], r"\Amoscsi-host: .*: can't be read .*\n\Z")


if os.geteuid() != 0:
    print("skipped: must be run as root")
    sys.exit(77)
unittest.main(argv=sys.argv[:1], verbosity=2)
