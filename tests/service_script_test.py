#!/usr/bin/env python3
# Runs the service script on a machine made of a directory, with a fake modprobe and mount.
# usage: service_script_test.py SCRIPT [unittest arguments]
import os
import socket
import sys
import unittest

from support.program_test import ProgramTest

SCRIPT = os.path.abspath(sys.argv.pop(1))
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


class ServiceScriptTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.dbroot = self.dir / "sys/kernel/config/target/dbroot"
        for directory in ("run/dbus", "sys/module", "sys/kernel/config"):
            (self.dir / directory).mkdir(parents=True)
        self.write("proc/mounts", "tmpfs /run tmpfs rw 0 0\n")
        for name, body in FAKES.items():
            self.write(f"bin/{name}", "#!/bin/sh\n" + body, 0o755)
        self.bus = self.dir / "run/dbus/system_bus_socket"
        with socket.socket(socket.AF_UNIX) as bus:
            bus.bind(str(self.bus))

    def run_script(self, *args, **env):
        return self.finish(self.spawn(SCRIPT, *args, PATH=f"{self.dir}/bin:/usr/bin:/bin",
                                      MOSCSI_ROOT=self.dir, C=f"{self.dir}/sys/kernel/config", **env))

    def tree(self):
        return sorted((str(path), path.read_text() if path.is_file() else "") for path in self.dir.rglob("*"))

    def test_start_makes_everything_in_order_and_stop_changes_nothing(self):
        status, out, err = self.run_script("-start")
        self.assertEqual((status, out[:5], err), (0, "made ", ""))
        log = (self.dir / "log").read_text().splitlines()
        # dbroot is set before a module that may forbid it
        self.assertEqual([line.strip() for line in log],
                         ORDER[:2] + [f"{module} /etc/rtslib-fb-target" for module in ORDER[2:]])
        before = self.tree()
        usage = "usage: moscsi_server.sh -start | -stop\n"
        for args, answer in ((["-stop"], (0, "", "")), (["-start"], (0, "", "")), (["--help"], (0, usage, "")),
                             (["start"], (2, "", usage)), (["-start", "-stop"], (2, "", usage))):
            self.assertEqual(self.run_script(*args), answer)
        self.assertEqual(self.tree(), before)
        # Another dbroot stays when a device uses it.
        self.dbroot.write_text("/srv/target\n")
        (self.dbroot.parent / "core/fileio_0/disk").mkdir(parents=True)
        self.assertEqual(self.run_script("-start")[0], 0)
        self.assertEqual(self.dbroot.read_text(), "/srv/target\n")
        for name in ("etc/target", "etc/rtslib-fb-target", "srv/target"):
            self.assertEqual(sorted(os.listdir(self.dir / name)), ["alua", "pr"])

    def test_what_is_missing_is_named_in_one_line(self):
        def fails(line, **env):
            status, _, err = self.run_script("-start", **env)
            self.assertEqual(status, 1)
            self.assertRegex(err, rf"^moscsi_server.sh: {line}\n$")

        fails("must be run as root", FAKE_UID="1000")
        self.bus.rename(self.dir / "bus")
        fails("no D-Bus system bus .* start dbus")
        (self.dir / "bus").rename(self.bus)
        (self.dir / "etc").write_text("")
        fails(f"can't make the directory {self.dir}/etc/target/pr")
        (self.dir / "etc").unlink()
        kernel = os.uname().release
        fails(rf"can't mount configfs on \S+: .*{kernel}.*", LACKS="configfs")
        fails(f".*{kernel}, has no module {ORDER[5]}: .*", LACKS=ORDER[5])
        self.dbroot.unlink()
        fails(f"target_core_mod is loaded, but there is no {self.dbroot}")
        self.dbroot.mkdir()
        fails(f"the kernel refuses /etc/rtslib-fb-target as {self.dbroot}")


unittest.main()
