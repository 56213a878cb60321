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
ORDER = ["target_core_mod", "mount", "target_core_user", "target_core_file", "target_core_iblock", "iscsi_target_mod"]

# A module appears below sys/module; the target's tree with the mount, which wants target_core_mod.
# Each says what dbroot held when it ran.
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
        self.dbroot = self.root / "sys/kernel/config/target/dbroot"
        for directory in ("bin", "proc", "run/dbus", "sys/module", "sys/kernel/config"):
            (self.root / directory).mkdir(parents=True)
        (self.root / "proc/mounts").write_text("tmpfs /run tmpfs rw 0 0\n")
        for name, body in FAKES.items():
            (self.root / "bin" / name).write_text("#!/bin/sh\n" + body)
            (self.root / "bin" / name).chmod(0o755)
        self.bus = self.root / "run/dbus/system_bus_socket"
        with socket.socket(socket.AF_UNIX) as bus:
            bus.bind(str(self.bus))

    def run_script(self, *args, **env):
        env = dict(PATH=f"{self.root}/bin:/usr/bin:/bin", MOSCSI_ROOT=str(self.root),
                   C=f"{self.root}/sys/kernel/config", **env)
        done = subprocess.run([SCRIPT, *args], env=env, capture_output=True, text=True, timeout=60)
        return done.returncode, done.stdout, done.stderr

    def tree(self):
        return sorted((str(path), path.read_text() if path.is_file() else "") for path in self.root.rglob("*"))

    def assert_directories(self, *names):
        self.assertTrue(all((self.root / name / kind).is_dir() for name in names for kind in ("pr", "alua")))

    def assert_fails(self, line, **env):
        status, _, err = self.run_script("-start", **env)
        self.assertEqual(status, 1)
        self.assertRegex(err, rf"^moscsi_server.sh: {line}\n$")

    def test_start_makes_everything_in_order_and_once_and_stop_changes_nothing(self):
        status, out, err = self.run_script("-start")
        self.assertEqual((status, err), (0, ""))
        steps = [line.split() for line in (self.root / "log").read_text().splitlines()]
        self.assertEqual([step[0] for step in steps], ORDER)
        self.assertEqual({step[1] for step in steps[2:]}, {"/etc/rtslib-fb-target"},
                         "dbroot was set after a module that may forbid it")
        self.assert_directories("etc/target", "etc/rtslib-fb-target")
        self.assertEqual(len(out.splitlines()), 11)

        before = self.tree()
        for again in ("-start", "-stop"):
            self.assertEqual(self.run_script(again), (0, "", ""))
        for args in ((), ("start",), ("-start", "-stop")):
            self.assertEqual(self.run_script(*args), (2, "", "usage: moscsi_server.sh -start | -stop\n"))
        self.assertEqual(self.tree(), before)

    def test_another_dbroot_stays_when_a_device_uses_it(self):
        self.run_script("-start")
        self.dbroot.write_text("/srv/target\n")
        (self.dbroot.parent / "core/fileio_0/disk").mkdir(parents=True)
        self.assertEqual(self.run_script("-start")[0], 0)
        self.assertEqual(self.dbroot.read_text(), "/srv/target\n")
        self.assert_directories("srv/target")

    def test_what_is_missing_is_named_in_one_line(self):
        before = self.tree()
        self.assert_fails("must be run as root", FAKE_UID="1000")
        self.bus.rename(self.root / "bus")
        self.assert_fails("no D-Bus system bus .* start dbus")
        (self.root / "bus").rename(self.bus)
        self.assertEqual(self.tree(), before)
        (self.root / "etc").write_text("")
        self.assert_fails(f"can't make the directory {self.root}/etc/target/pr")
        (self.root / "etc").unlink()
        kernel = os.uname().release
        self.assert_fails(f".*{kernel}, has no module {ORDER[0]}: .*", LACKS=ORDER[0])
        self.assert_fails(rf"can't mount configfs on \S+: .*{kernel}.*", LACKS="configfs")
        self.assert_fails(f".*{kernel}, has no module {ORDER[5]}: .*", LACKS=ORDER[5])
        self.dbroot.unlink()
        self.dbroot.mkdir()
        self.assert_fails(f"the kernel refuses /etc/rtslib-fb-target as {self.dbroot}")


if __name__ == "__main__":
    SCRIPT = os.path.abspath(sys.argv.pop(1))
    unittest.main()
