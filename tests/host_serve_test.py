#!/usr/bin/env python3
# The host's life, from outside: order of operations, take-down, signals, status, restart.
import json
import os
import re
import signal
import subprocess
from pathlib import Path

from support.host_program import A, B, C, HOST, HostTest, PLUGIN, TARGET, digest, main
from support.program_test import DEADLINE, wait_until


class ServeTest(HostTest):
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


main()
