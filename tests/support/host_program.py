# What the tests of moscsi-host share: the host beside a plug-in whose kernel is a directory tree, with
# a bus, directories and a configuration of the test's own. usage of each: TEST MOSCSI_HOST FAKE_PLUGIN
import contextlib
import hashlib
import os
import sys
import unittest

from support.program_test import ProgramTest

HOST, PLUGIN = sys.argv[1:3]
TARGET = "iqn.2026-01.com.example:t"
A, B, C = (f"iqn.2026-01.com.example:{name}" for name in "abc")


# The digits that names and serials in the kernel are made of.
def digest(text):
    return hashlib.md5(text.encode()).hexdigest()


class HostTest(ProgramTest):
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


def main():
    if os.geteuid() != 0:
        print("skipped: must be run as root")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
