#!/usr/bin/env python3
"""The host's life, from outside: order of operations, take-down, signals, status, restart.

Runs moscsi-host against a plug-in whose kernel is a directory tree.
usage: host_serve_test.py MOSCSI_HOST FAKE_PLUGIN
"""
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HOST, PLUGIN = sys.argv[1:3]
TARGET = "iqn.2026-01.com.example:t"
A, B = "iqn.2026-01.com.example:a", "iqn.2026-01.com.example:b"
DEADLINE = 60


def wait_for(condition, what):
    end = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"timed out waiting for {what}")
        time.sleep(0.01)


class Bus(threading.Thread):
    """Something that accepts connections, and ends each at once."""

    def __init__(self, path):
        super().__init__(daemon=True)
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(path)
        self.listener.listen()

    def run(self):
        while True:
            try:
                self.listener.accept()[0].close()
            except OSError:
                return


class ServeTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="host_serve")
        self.addCleanup(subprocess.run, ["rm", "-rf", self.dir], check=True)
        home = self.path("home")
        os.makedirs(home + "/bin")
        for name, text in (("moscsi_server.sh", "exit 0"), ("bin/targetcli", "echo x x 2.1.fb53"),
                           ("real", "exit 0")):
            with open(f"{home}/{name}", "w", encoding="ascii") as file:
                file.write(f"#!/bin/sh\n{text}\n")
            os.chmod(f"{home}/{name}", 0o755)
        with open(self.path("platform.toml"), "w", encoding="ascii") as file:
            file.write(f'home = "{home}"\n')
        self.bus = Bus(self.path("bus"))
        self.bus.start()
        self.addCleanup(self.bus.listener.close)
        for name in ("one", "two", "three"):
            with open(self.path(name), "wb") as file:
                file.truncate(1024)
        self.env = dict(os.environ, MOSCSI_RUN_DIR=self.path("run"),
                        MOSCSI_CONFIGFS_ROOT=self.path("configfs"), FAKE_LOG=self.path("log"),
                        MOSCSI_TARGETCLI_REAL=home + "/real",
                        DBUS_SYSTEM_BUS_ADDRESS="unix:path=" + self.path("bus"))
        # Automatic numbers come first in the file, explicit ones first in the kernel.
        self.configure(("one", None), ("two", 0), ("three", 2))

    def path(self, name):
        return os.path.join(self.dir, name)

    def configure(self, *luns):
        text = f'[[target]]\nname = "{TARGET}"\n'
        for name, number in luns:
            text += f'[[target.lun]]\nname = "{name}"\ntype = "file"\npath = "{self.path(name)}"\n'
            text += "" if number is None else f"number = {number}\n"
        text += f'[[target.initiator]]\nname = "{A}"\nluns = "all"\n'
        text += f'[[target.initiator]]\nname = "{B}"\nluns = ["two"]\n'
        with open(self.path("f.toml"), "w", encoding="ascii") as file:
            file.write(text)

    def start(self, **env):
        process = subprocess.Popen(
            [HOST, "--platform-file", self.path("platform.toml"), "serve", "--library", PLUGIN,
             self.path("f.toml")], env=dict(self.env, **env), stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True)
        for clean in (process.stderr.close, process.stdout.close, process.wait, process.kill):
            self.addCleanup(clean)
        return process

    def ready(self, process):
        lines = []
        for line in process.stdout:
            lines.append(line)
            if line == "ready\n":
                return lines
        self.fail(f"not ready: {lines} {process.stderr.read()}")

    def end(self, process):
        out, err = process.communicate(timeout=DEADLINE)
        return process.returncode, out, err

    def log(self):
        """The operations since the last look, without the directory."""
        with open(self.path("log"), encoding="ascii") as file:
            lines = file.read().replace(self.dir + "/", "").splitlines()
        os.truncate(self.path("log"), 0)
        return lines

    @staticmethod
    def read(name):
        with open(name, encoding="ascii") as file:
            return file.read()

    def tree(self):
        found = []
        for place, directories, files in os.walk(self.path("configfs")):
            found += [os.path.join(place, name) for name in directories + files]
        return sorted(name.replace(self.path("configfs"), "") for name in found)

    def objects(self):
        return [name for name in self.tree() if name.count("/") == 3 and name.startswith("/core/")
                or name.count("/") == 2 and name.startswith("/iscsi/")]

    CREATED = ["Initialize", f"CreateTarget {TARGET}", "CreateLun two 0 lun", "CreateLun three 2 lun",
               "CreateLun one auto lun", f"MapHost {A} 1", f"MapHost {A} 0", f"MapHost {A} 2",
               f"MapHost {B} 0"]
    DELETED = [f"UnMapHost {B} 0", f"UnMapHost {A} 2", f"UnMapHost {A} 0", f"UnMapHost {A} 1",
               "DeleteLun three 2", "DeleteLun two 0", "DeleteLun one 1", f"DeleteTarget {TARGET}",
               "Cleanup"]

    def test_serves_and_takes_down_in_reverse(self):
        for stop in (signal.SIGTERM, signal.SIGINT):
            process = self.start()
            self.ready(process)
            self.assertEqual(self.log(), self.CREATED)
            status = subprocess.run([HOST, "status", "--json"], env=self.env, check=True,
                                    stdout=subprocess.PIPE, text=True).stdout
            status = json.loads(status)
            self.assertEqual(status["phase"], "ready")
            self.assertEqual({lun["name"]: lun["number"] for lun in status["targets"][0]["luns"]},
                             {"one": 1, "two": 0, "three": 2})
            table = subprocess.run([HOST, "status"], env=self.env, check=True, timeout=DEADLINE,
                                   stdout=subprocess.PIPE, text=True).stdout
            self.assertRegex(table, r"LUN +1 one +file +1 KiB .*/one\n")
            self.assertRegex(table, r"fake source\n +answers +42\n")
            second = self.end(self.start())
            self.assertEqual(second[0], 1)
            self.assertIn(f"another moscsi-host (process {process.pid})", second[2])
            process.send_signal(stop)
            self.assertEqual(self.end(process)[0::2], (0, ""))
            self.assertEqual(self.log(), self.DELETED)
            self.assertEqual(self.objects(), [])
            self.assertFalse(os.path.exists(self.path("run/host.sock")))
            self.assertFalse(os.path.exists(self.path("run/targetcli/limit")))
        asked = subprocess.run([HOST, "status"], env=self.env, stderr=subprocess.PIPE, text=True,
                               check=False)
        self.assertEqual(asked.returncode, 1)
        self.assertIn("no moscsi-host is running", asked.stderr)

    def test_every_failing_operation_leaves_nothing_of_this_run(self):
        for operation, calls in (("CreateTarget", 1), ("CreateLun", 3), ("MapHost", 4)):
            for number in range(1, calls + 1):
                with self.subTest(operation=operation, number=number):
                    code, out, err = self.end(self.start(FAKE_FAIL=f"{operation}:{number}"))
                    self.assertEqual(code, 1, err)
                    self.assertIn("failed as told", out)
                    self.assertNotIn("ready\n", out)
                    self.assertEqual(self.objects(), [])
                    self.assertEqual(self.log()[-1], "Cleanup")

    def test_second_comparison_that_fails_takes_down(self):
        code, out, err = self.end(self.start(FAKE_PORTAL=""))
        self.assertEqual(code, 1)
        self.assertIn("has no portal on the service port 3260", err)
        self.assertNotIn("ready\n", out)
        self.assertEqual(self.log(), self.CREATED + self.DELETED)
        self.assertEqual(self.objects(), [])

    def test_conflict_stops_with_nothing_changed(self):
        process = self.start()
        self.ready(process)
        process.kill()
        process.wait()
        self.configure(("one", None), ("two", 2), ("three", 0))
        before = self.tree()
        self.log()
        code, out, err = self.end(self.start())
        self.assertEqual(code, 1)
        self.assertIn("LUN two is number 0", err)
        self.assertIn("nothing was changed", err)
        self.assertNotIn("ready\n", out)
        self.assertEqual(self.log(), ["Initialize", "Cleanup"])
        self.assertEqual(self.tree(), before)

    def test_killed_host_goes_on_at_its_next_start(self):
        process = self.start()
        self.ready(process)
        process.kill()
        process.wait()
        before = self.tree()
        self.log()
        # A failing run takes down only what it made: nothing.
        self.assertEqual(self.end(self.start(FAKE_FAIL="MapHost:2"))[0], 1)
        self.assertEqual(self.tree(), before)
        self.log()
        process = self.start()
        self.ready(process)
        self.assertEqual(self.log(), self.CREATED)
        self.assertEqual(self.tree(), before)
        process.terminate()
        self.assertEqual(self.end(process)[0], 0)
        self.assertEqual(self.objects(), [])

    def test_others_work_in_our_target_stays(self):
        process = self.start()
        self.ready(process)
        os.makedirs(self.path(f"configfs/iscsi/{TARGET}/tpgt_1/acls/iqn.2026-01.com.example:c"))
        process.terminate()
        code, _, err = self.end(process)
        self.assertEqual(code, 1)
        self.assertIn("holds the initiator iqn.2026-01.com.example:c", err)
        self.assertEqual(self.objects(), [f"/iscsi/{TARGET}"])

    def test_signal_while_a_step_runs_stops_after_it(self):
        process = self.start(FAKE_WAIT="CreateTarget")
        wait_for(lambda: os.path.exists(self.path("log.begun")), "the first step")
        process.terminate()
        limit = self.path("run/targetcli/limit")
        wait_for(lambda: os.path.exists(limit), "targetcli's time limit")
        process.terminate()
        wait_for(lambda: self.read(limit) == "3\n", "the hurry")
        open(self.path("log.go"), "w", encoding="ascii").close()
        code, out, _ = self.end(process)
        self.assertEqual(code, 1)
        self.assertNotIn("ready\n", out)
        self.assertEqual(self.objects(), [])
        self.assertEqual(self.log(), ["Initialize", f"CreateTarget {TARGET}",
                                      f"DeleteTarget {TARGET}", "Cleanup"])

    def test_delete_that_never_ends_is_given_up(self):
        process = self.start(FAKE_WAIT="DeleteLun")
        self.ready(process)
        process.terminate()
        wait_for(lambda: os.path.exists(self.path("log.begun")), "the delete")
        self.assertIn("stopping", subprocess.run([HOST, "status"], env=self.env, text=True,
                                                 stdout=subprocess.PIPE, check=True).stdout)
        process.terminate()
        code, _, err = self.end(process)
        self.assertEqual(code, 1)
        self.assertIn("a step of the stop doesn't end", err)
        self.assertFalse(os.path.exists(self.path("run/targetcli/limit")))

    def test_missing_prerequisites_are_one_line(self):
        os.rename(self.path("bus"), self.path("nobus"))
        cases = [({}, "no D-Bus system bus answers")]
        # The host looks in the system's directories whatever PATH says.
        if not shutil.which("targetcli", path="/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"):
            cases.append(({"MOSCSI_TARGETCLI_REAL": "", "PATH": "/nowhere"}, "install the package targetcli-fb"))
        for env, words in cases:
            code, out, err = self.end(self.start(**env))
            self.assertEqual((code, out), (1, ""))
            self.assertIn(words, err)
            self.assertEqual(err.count("\n"), 1)
        self.assertFalse(os.path.exists(self.path("log")))

    def test_user_luns_without_their_objects_on_the_bus_stop_before_anything_is_made(self):
        with open(self.path("f.toml"), "a", encoding="ascii") as file:
            file.write('[[target.lun]]\nname = "u"\ntype = "user"\nbacking = "file"\nsize = 512\n'
                       f'path = "{self.path("made")}"\n')
        code, out, err = self.end(self.start())
        self.assertEqual(code, 1)
        self.assertRegex(out, "objects on D-Bus: failed")
        self.assertRegex(err, r"^moscsi-host: the D-Bus system bus doesn't answer .*\n$")
        self.assertEqual(self.log(), ["Initialize", "Cleanup"])
        self.assertFalse(os.path.exists(self.path("made")))

    def test_library_that_is_no_plugin(self):
        for library, words in (("/nonexistent.so", "can't load the plug-in"),
                               ("libc.so.6", "lacks GetMOScsiPlatformObj")):
            process = subprocess.run(
                [HOST, "--platform-file", self.path("platform.toml"), "serve", "--library", library,
                 self.path("f.toml")], env=self.env, stderr=subprocess.PIPE, text=True,
                check=False)
            self.assertEqual(process.returncode, 1)
            self.assertIn(words, process.stderr)


if os.geteuid() != 0:
    print("skipped: must be run as root")
    sys.exit(77)
unittest.main(argv=sys.argv[:1], verbosity=2)
