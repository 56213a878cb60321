#!/usr/bin/env python3
"""Runs the service script on a machine made of a directory, with a fake modprobe and mount.

usage: service_script_test.py SCRIPT [unittest arguments]
"""
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SCRIPT = None
ORDER = ["target_core_mod", "mount", "target_core_user", "target_core_file", "target_core_iblock",
         "iscsi_target_mod"]

# A module appears below sys/module; the target's tree with the first of target_core_mod and mount
# that comes last. Each says what dbroot held when it ran.
FAKES = {
    "modprobe": """[ "$2" = "$LACKS" ] && exit 1
mkdir "$MOSCSI_ROOT/sys/module/$2" || exit 1
echo "$2 $(cat "$C/target/dbroot" 2>/dev/null)" >>"$MOSCSI_ROOT/log" """,
    "mount": """[ "$LACKS" = configfs ] && exit 32
[ "$*" = "-t configfs configfs $C" ] && [ -d "$MOSCSI_ROOT/sys/module/target_core_mod" ] || exit 32
mkdir -p "$C/target/core/alua/lu_gps" && echo /var/target >"$C/target/dbroot"
echo "configfs /sys/kernel/config configfs rw 0 0" >>"$MOSCSI_ROOT/proc/mounts"
echo mount >>"$MOSCSI_ROOT/log" """,
    "id": "echo ${FAKE_UID:-0}",
}


class ServiceScriptTest(unittest.TestCase):
    def setUp(self):
        self.root = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.root)
        self.configfs = self.root / "sys/kernel/config"
        for directory in ("bin", "proc", "run/dbus", "sys/module", "sys/kernel/config"):
            (self.root / directory).mkdir(parents=True)
        (self.root / "log").touch()
        (self.root / "proc/mounts").write_text("tmpfs /run tmpfs rw 0 0\n")
        for name, body in FAKES.items():
            (self.root / "bin" / name).write_text("#!/bin/sh\n" + body)
            (self.root / "bin" / name).chmod(0o755)
        self.bus = socket.socket(socket.AF_UNIX)
        self.addCleanup(self.bus.close)
        self.bus.bind(str(self.root / "run/dbus/system_bus_socket"))

    def run_script(self, *args, **env):
        env = dict(PATH=f"{self.root}/bin:/usr/bin:/bin", MOSCSI_ROOT=str(self.root), C=str(self.configfs), **env)
        done = subprocess.run([SCRIPT, *args], env=env, capture_output=True, text=True, timeout=60)
        return done.returncode, done.stdout, done.stderr

    def tree(self):
        return sorted((str(path), path.read_text() if path.is_file() else "") for path in self.root.rglob("*"))

    def directories(self, *names):
        return [(self.root / name / kind).is_dir() for name in names for kind in ("pr", "alua")]

    def test_start_makes_everything_in_order_and_once(self):
        status, out, err = self.run_script("-start")
        self.assertEqual((status, err), (0, ""))
        steps = [line.split() for line in (self.root / "log").read_text().splitlines()]
        self.assertEqual([step[0] for step in steps], ORDER)
        self.assertEqual({step[1] for step in steps[2:]}, {"/etc/rtslib-fb-target"},
                         "dbroot was set after a module that may forbid it")
        self.assertEqual(self.directories("etc/target", "etc/rtslib-fb-target"), [True] * 4)
        self.assertEqual(len(out.splitlines()), 11)

        before = self.tree()
        self.assertEqual(self.run_script("-start"), (0, "", ""))
        self.assertEqual(self.tree(), before)

    def test_another_dbroot_stays_when_a_device_uses_it(self):
        self.run_script("-start")
        (self.configfs / "target/dbroot").write_text("/srv/target\n")
        (self.configfs / "target/core/fileio_0/disk").mkdir(parents=True)
        self.assertEqual(self.run_script("-start")[0], 0)
        self.assertEqual((self.configfs / "target/dbroot").read_text(), "/srv/target\n")
        self.assertEqual(self.directories("srv/target"), [True] * 2)

    def test_what_is_missing_is_named_in_one_line(self):
        kernel = os.uname().release
        for lacks, text in ((f"module {name}", f"{kernel}, has no module {name}") for name in
                            (ORDER[0], ORDER[2], ORDER[5])):
            with self.subTest(lacks):
                status, _, err = self.run_script("-start", LACKS=lacks.split()[1])
                self.assertEqual(status, 1)
                self.assertRegex(err, rf"^moscsi_server.sh: .*{text}: .*\n$")
                shutil.rmtree(self.root / "sys/module")
                (self.root / "sys/module").mkdir()
        (self.root / "proc/mounts").write_text("")
        shutil.rmtree(self.configfs / "target")
        status, _, err = self.run_script("-start", LACKS="configfs")
        self.assertEqual(status, 1)
        self.assertRegex(err, rf"^moscsi_server.sh: can't mount configfs on \S+: .*{kernel}.*\n$")

    def test_what_must_be_there_before_is_asked_for_first(self):
        before = self.tree()
        self.assertEqual(self.run_script("-start", FAKE_UID="1000"),
                         (1, "", "moscsi_server.sh: must be run as root\n"))
        self.assertEqual(self.tree(), before)
        (self.root / "run/dbus/system_bus_socket").unlink()
        status, out, err = self.run_script("-start")
        self.assertEqual((status, out), (1, ""))
        self.assertRegex(err, r"^moscsi_server.sh: no D-Bus system bus .* start dbus\n$")
        self.assertEqual((self.root / "log").read_text(), "")

    def test_a_directory_that_cannot_be_made_and_a_dbroot_that_is_refused(self):
        (self.root / "etc").write_text("")
        status, _, err = self.run_script("-start")
        self.assertEqual((status, err), (1, f"moscsi_server.sh: can't make the directory {self.root}/etc/target/pr\n"))
        (self.root / "etc").unlink()
        self.run_script("-start")
        (self.configfs / "target/dbroot").unlink()
        (self.configfs / "target/dbroot").mkdir()
        status, _, err = self.run_script("-start")
        self.assertEqual((status, err), (1, "moscsi_server.sh: the kernel refuses /etc/rtslib-fb-target as "
                                            f"{self.configfs}/target/dbroot\n"))

    def test_stop_changes_nothing_and_anything_else_is_refused(self):
        self.run_script("-start")
        before = self.tree()
        self.assertEqual(self.run_script("-stop"), (0, "", ""))
        for args in ((), ("start",), ("-start", "-stop"), ("",)):
            self.assertEqual(self.run_script(*args), (2, "", "usage: moscsi_server.sh -start | -stop\n"))
        self.assertEqual(self.tree(), before)


if __name__ == "__main__":
    SCRIPT = os.path.abspath(sys.argv.pop(1))
    unittest.main()
