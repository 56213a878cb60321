#!/usr/bin/env python3
"""Runs the targetcli wrapper in front of a fake targetcli.

usage: targetcli_wrapper_test.py WRAPPER [unittest arguments]
"""
import contextlib
import fcntl
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

WRAPPER = None
DEADLINE = 60  # seconds after which whatever is waited for counts as never coming

# Behaves as targetcli where the wrapper depends on it: makes preferences when they are missing, in
# a way that breaks concurrent first runs and with its log beside them, rewrites them in every run,
# and keeps them at home unless TARGETCLI_HOME says otherwise. `$1` picks what it does then; FAKE_SCRIPT replaces all of it.
FAKE = r"""#!/bin/bash
[ -z "$FAKE_SCRIPT" ] || eval "$FAKE_SCRIPT"
prefs=${TARGETCLI_HOME:-$HOME/.targetcli}/prefs.bin
if [ ! -e "$prefs" ]; then
    : >"$prefs"
    printf '%s=%s\n' auto_add_mapped_luns true auto_use_daemon true logfile "${prefs%/*}/log.txt" other kept \
        >"$prefs.new"
    cat "$prefs.new" >"$prefs"
fi
[ -s "$prefs" ] || { echo 'not in list' >&2; exit 1; }
echo "$*" >>"$FAKE_LOG"
echo log >>"$(sed -n 's/^logfile=//p' "$prefs")" || exit 1
case "$1 $2" in
'set global')
    shift 2
    for setting; do
        [ "$setting" != "$FAKE_REFUSED" ] || { echo "can't set $setting"; exit 1; }
        [ "$setting" = "$FAKE_IGNORED" ] || sed -i "s|^${setting%%=*}=.*|$setting|" "$prefs"
    done ;;
'get global') cat "$prefs" ;;
*) cat "$prefs"; echo "$TARGETCLI_HOME"; echo touched >>"$prefs" ;;
esac
"""

PREFS = "auto_add_mapped_luns=false\nauto_use_daemon=false\nlogfile=/dev/null\nother=kept\n"


def wait_until(condition):
    end = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("waited in vain")
        time.sleep(0.01)


def is_running(pid):
    with contextlib.suppress(OSError):
        return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    return False


def loops(pid):
    """How often a process has waited for something."""
    return int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)", Path(f"/proc/{pid}/status").read_text(), re.M)[1])


class WrapperTest(unittest.TestCase):
    def setUp(self):
        self.dir = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.dir)
        self.bin = self.dir / "bin"
        self.home = self.dir / "home"
        self.state = self.dir / "run" / "targetcli"
        self.log = self.dir / "log"
        self.bin.mkdir()
        (self.home / ".targetcli").mkdir(parents=True)
        (self.home / ".targetcli/prefs.bin").write_text("the user's own\n")
        self.log.touch()
        self.install_fake()

    def install_fake(self, script=FAKE):
        fake = self.bin / "targetcli"
        fake.write_text(script)
        fake.chmod(0o755)

    def start(self, *args, program=None, **env):
        path = f"{Path(WRAPPER).parent}:{self.bin}:/usr/bin:/bin"
        variables = dict(PATH=path, HOME=str(self.home), FAKE_LOG=str(self.log), LC_ALL="de_DE.UTF-8",
                         MOSCSI_RUN_DIR=str(self.dir / "run"), D=str(self.dir))
        variables.update({name: str(value) for name, value in env.items() if value is not None})
        process = subprocess.Popen(program or [WRAPPER, *args], env=variables, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        return process

    def finish(self, process):
        out, err = process.communicate(timeout=DEADLINE)
        return process.returncode, out, err

    def run_wrapper(self, *args, **env):
        return self.finish(self.start(*args, **env))

    def run_fake_script(self, script, *args, **env):
        """Runs `script` as the real one, with preferences made before."""
        self.run_wrapper("anything")
        return self.run_wrapper(*(args or ("do",)), FAKE_SCRIPT=script, **env)

    def start_fake_script(self, script, **env):
        self.run_wrapper("anything")
        return self.start("do", FAKE_SCRIPT=script, **env)

    def assert_nothing_left(self):
        """Only the set of preferences and the lock stay behind."""
        self.assertRegex(" ".join(sorted(os.listdir(self.state))), r"^lock preferences\.\S+$")


class Version(WrapperTest):
    def gate(self, script, **env):
        """The version as the plug-in asks for it."""
        status, out, _ = self.finish(self.start(
            program=["sh", "-c", "targetcli --version 2>&1  | cut -d' ' -f3"], FAKE_SCRIPT=script, **env))
        self.assertEqual(status, 0)
        return out

    def test_answers_in_the_older_form_that_compares_as_the_numbers_do(self):
        for version, answer, gate in (
                ("2.1.53", "2.1.fb53", "new"), ("2.1.fb49", "2.1.fb49", "new"),
                ("2.1.fb43", "2.1.fb43", "new"), ("2.1.42", "2.1.fb42", "middle"),
                ("2.1.fb40", "2.1.fb40", "old"), ("2.1.fb9", "2.1.fb09", "old"), ("2.1.5", "2.1.fb05", "old"),
                ("2.1.100", "2.1.fb99-2.1.100", "new"), ("2.1.53.dev2", "2.1.fb53.dev2", "new"),
                ("2.2.5", "2.2.fb05", "new"), ("2.10.3", "2.10.fb03", "new"), ("3.0.1", "3.0.fb01", "new"),
                ("3.1", "3.1.fb00", "new"), ("10.0.1", "2.1.fb99-10.0.1", "new"), ("2.0.99", "2.0.fb99", "old")):
            with self.subTest(version):
                self.assertEqual(self.gate(f"echo /usr/bin/targetcli version {version}; exit"), answer + "\n")
                self.assertEqual("old" if answer < "2.1.fb41" else "new" if answer >= "2.1.fb43" else "middle",
                                 gate)

    def test_is_found_on_either_stream_beside_a_warning(self):
        version, warning = "echo /usr/bin/targetcli version 2.1.53", "echo Warning: Could not load preferences"
        for script in (f"{warning} >&2; {version}", f"{warning}; {version} >&2", f"{version}; {warning}"):
            self.assertEqual(self.gate(script + "; exit"), "2.1.fb53\n")

    def test_nothing_at_all_is_printed_without_an_answer(self):
        wait = dict(MOSCSI_TARGETCLI_TIMEOUT=1)
        for script, env in (("exit 1", {}), ("echo targetcli version 2.1.53; exit 1", {}), ("exit 0", {}),
                            ("echo version of a kind; exit 0", {}), ("kill -9 $$", {}), ("sleep 1000", wait),
                            ("", dict(PATH="/usr/bin:/bin")), ("", dict(MOSCSI_TARGETCLI_REAL="/none")),
                            ("", dict(MOSCSI_TARGETCLI_TIMEOUT="soon")), ("", dict(MOSCSI_RUN_DIR="/dev/null"))):
            with self.subTest(script=script, env=env):
                status, out, err = self.run_wrapper("--version", FAKE_SCRIPT=script, **env)
                self.assertEqual((out, err), ("", ""))
                self.assertGreater(status, 0)

    def test_makes_no_preferences_and_leaves_nothing(self):
        self.gate("echo targetcli version 2.1.53; : >$TARGETCLI_HOME/prefs.bin; exit")
        self.assertEqual(os.listdir(self.state), [])

    def test_another_version_can_be_asked_for_while_the_real_one_answers(self):
        asked = dict(MOSCSI_TARGETCLI_VERSION="2.1.fb41")
        self.assertEqual(self.gate("echo targetcli version 2.1.53; exit", **asked), "2.1.fb41\n")
        for script in ("exit 1", "exit 0"):
            self.assertEqual(self.gate(script, **asked), "")
        self.assertEqual(self.gate("echo targetcli version 2.1.53; exit", MOSCSI_TARGETCLI_VERSION="old"), "")


class Relay(WrapperTest):
    def test_arguments_reach_the_real_one_unchanged(self):
        args = ["/iscsi/iqn.x", "a b", "", "$(id)", "*", "'\"\\", "-x", "ü\n;"]
        self.assertEqual(self.run_fake_script("printf '<%s>' \"$@\"; exit", *args),
                         (0, "".join(f"<{arg}>" for arg in args), ""))

    def test_both_streams_come_whole_at_any_size(self):
        script = "seq 400000; seq 400001 800000 >&2; seq 3; exit 5"
        whole = "\n".join(str(i) for i in range(1, 800001)) + "\n"
        cut = whole.index("400001")
        self.assertEqual(self.run_fake_script(script), (5, whole[:cut] + "1\n2\n3\n", whole[cut:]))

    def test_a_reader_that_closes_after_a_line_does_no_harm(self):
        process = self.start_fake_script("echo first >&2; seq 400000 >&2 && touch $D/whole; exit 7")
        self.assertEqual(process.stderr.readline(), "first\n")
        process.stderr.close()
        self.assertEqual(process.wait(DEADLINE), 7)
        self.assertTrue((self.dir / "whole").exists())

    def test_a_reader_that_never_reads_is_not_waited_for_beyond_the_limit(self):
        # The first doesn't get rid of its output, the second does and ends.
        for output, status in (("seq 400000", 124), ("head -c 150000 /dev/zero", 7)):
            process = self.start_fake_script(f"echo $$ >$D/pid; {output}; exit 7", MOSCSI_TARGETCLI_TIMEOUT=1)
            self.assertEqual(process.wait(DEADLINE), status)
            self.assertFalse(is_running(int((self.dir / "pid").read_text())))

    def test_what_outlives_the_real_one_does_not_hold_the_wrapper(self):
        script = "sleep 1000 & echo $! >$D/a; setsid sh -c 'echo $$ >$D/b; exec sleep 1000' &" \
                 "until [ -s $D/b ]; do sleep 0.01; done; echo done; exit 0"
        self.assertEqual(self.run_fake_script(script), (0, "done\n", ""))
        wait_until(lambda: not is_running(int((self.dir / "a").read_text())))
        os.kill(int((self.dir / "b").read_text()), signal.SIGKILL)

    def test_every_failure_has_a_line_on_standard_error(self):
        for script, status, line in (
                ("echo one; echo ' the cause '; echo; exit 1", 1, "the cause"),
                ("printf 'no line end'; exit 255", 255, "no line end"),
                ("exit 3", 3, "targetcli failed with status 3 and said nothing"),
                ("echo out; echo err >&2; exit 1", 1, "err"),
                ("echo out; kill -9 $$", 137, r"targetcli, process \d+, was ended by signal 9 \(Killed\)"),
                ("echo out; exit 0", 0, None), ("echo warning >&2; exit 0", 0, "warning")):
            with self.subTest(script):
                result, _, err = self.run_fake_script(script)
                self.assertEqual(result, status)
                self.assertRegex(err, rf"^{line}\n$" if line else "^$")

    def test_a_caller_that_closed_streams_or_ignores_the_end_of_children_does_no_harm(self):
        self.run_wrapper("anything")
        caller = ["sh", "-c", "exec env --ignore-signal=CHLD targetcli do <&- >&-"]
        for script, status in (("[ -e /proc/$$/fd/0 ] && echo x || exit 9; exit 0", 0), ("exit 3", 3)):
            self.assertEqual(self.finish(self.start(program=caller, FAKE_SCRIPT=script))[0], status)

    def test_the_real_one_gets_clean_surroundings(self):
        extra = os.open("/dev/null", os.O_RDONLY)
        self.addCleanup(os.close, extra)
        self.run_wrapper("anything")
        # The shell changes masks around its own children (and some clear theirs at the start, so it
        # is bash), therefore the last look is without one.
        script = "ls /proc/$$/fd; echo $LC_ALL $PYTHONWARNINGS; read _ _ _ _ group _ </proc/$$/stat; " \
                 "[ $group = $$ ] && exec grep -E 'Sig(Blk|Ign)' /proc/self/status; exit 9"
        env = dict(os.environ, PATH=f"{self.bin}:/usr/bin:/bin", MOSCSI_RUN_DIR=str(self.dir / "run"),
                   FAKE_SCRIPT=script, LC_ALL="de_DE.UTF-8", PYTHONWARNINGS="always")
        blocked = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT, signal.SIGUSR1})
        self.addCleanup(signal.pthread_sigmask, signal.SIG_SETMASK, blocked)
        result = subprocess.run([WRAPPER, "do"], env=env, pass_fds=[extra], capture_output=True, text=True,
                                timeout=DEADLINE)
        fds, _, rest = result.stdout.partition("C ignore\n")
        # 10 and above are the shell's own, for the fake's script.
        self.assertEqual([fd for fd in fds.split() if int(fd) < 10], ["0", "1", "2"])
        blocked, ignored = (int(mask, 16) for mask in rest.split()[1::2])
        self.assertEqual((blocked, ignored & 1 << signal.SIGPIPE - 1), (0, 0))
        self.assertEqual(result.returncode, 0, "not the leader of a process group")


class Limits(WrapperTest):
    HANG = "trap '' TERM INT; sleep 1000 & echo $! >$D/child; echo $$ >$D/pid; wait; wait; exit 0"

    def pids(self):
        wait_until(lambda: (self.dir / "pid").exists() and (self.dir / "pid").read_text())
        return [int((self.dir / name).read_text()) for name in ("pid", "child")]

    def test_one_that_hangs_is_ended_with_all_that_it_started(self):
        process = self.start_fake_script(self.HANG, MOSCSI_TARGETCLI_TIMEOUT=1)
        pid, child = self.pids()
        self.assertEqual(self.finish(process), (
            124, "", f"targetcli, process {pid}, did not end within 1 s; it was ended\n"))
        self.assertFalse(is_running(pid))
        wait_until(lambda: not is_running(child))
        self.assert_nothing_left()

    def test_the_limit_can_be_shortened_while_it_runs(self):
        process = self.start_fake_script(self.HANG)
        pid, _ = self.pids()
        (self.state / "limit").write_text("1\n")
        status, _, err = self.finish(process)
        self.assertEqual((status, err), (124, f"targetcli, process {pid}, did not end within 1 s; it was ended\n"))

    def test_a_signal_ends_both_unless_the_caller_keeps_it_to_itself(self):
        process = self.start_fake_script(self.HANG)
        pid, _ = self.pids()
        process.send_signal(signal.SIGTERM)
        status, _, err = self.finish(process)
        self.assertEqual(status, 128 + signal.SIGTERM)
        self.assertRegex(err, r"^targetcli was interrupted by signal 15 \(Terminated\); it was ended\n$")
        self.assertFalse(is_running(pid))

        signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT})
        self.addCleanup(signal.pthread_sigmask, signal.SIG_UNBLOCK, {signal.SIGINT})
        os.mkfifo(self.dir / "go")
        process = self.start_fake_script("read _ <$D/go; exit 0")
        with open(self.dir / "go", "w") as go:  # opens when the real one runs
            process.send_signal(signal.SIGINT)
            seen = loops(process.pid)
            wait_until(lambda: process.poll() is not None or loops(process.pid) > seen + 2)
            go.write("\n")
        self.assertEqual(self.finish(process), (0, "", ""))

    def test_the_real_one_dies_with_a_killed_wrapper_and_the_next_run_cleans_up(self):
        process = self.start_fake_script(self.HANG)
        pid, child = self.pids()
        process.kill()
        self.finish(process)
        wait_until(lambda: not is_running(pid))
        os.kill(child, signal.SIGKILL)
        self.run_wrapper("anything")
        self.assert_nothing_left()

    def lock_holder(self):
        """A process named `holder` that holds the lock until its standard input ends."""
        script = self.dir / "holder"
        script.write_text(f"#!{sys.executable}\nimport fcntl, sys\nf = open('{self.dir}/lock', 'w')\n"
                          "fcntl.flock(f, fcntl.LOCK_EX)\nprint('held', flush=True)\nsys.stdin.read()\n")
        script.chmod(0o755)
        holder = subprocess.Popen([script], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(holder.stdout.close)
        self.addCleanup(holder.wait, DEADLINE)
        self.addCleanup(holder.stdin.close)
        holder.stdout.readline()
        return holder

    LOCKED = "flock $D/lock true; echo got it; exit 0"

    def test_a_held_lock_is_named_with_its_holder(self):
        holder = self.lock_holder()
        status, out, err = self.run_fake_script(self.LOCKED, MOSCSI_TARGETCLI_LOCK_WAIT=1)
        self.assertEqual((status, out), (124, ""))
        self.assertEqual(err, f"targetcli waited 1 s for its lock, which process {holder.pid} (holder) holds: "
                              "end that one, then try again\n")
        # Also when the whole limit is what ends it.
        _, _, err = self.run_fake_script(self.LOCKED, MOSCSI_TARGETCLI_TIMEOUT=1)
        self.assertIn(f"process {holder.pid} (holder)", err)

    def test_each_holder_of_a_queue_may_take_the_time(self):
        queue = "for i in 1 2 3 4 5; do flock $D/lock sleep 1 & done; "
        self.assertEqual(self.run_fake_script(queue + self.LOCKED, MOSCSI_TARGETCLI_LOCK_WAIT=3), (0, "got it\n", ""))

    def test_a_lock_that_becomes_free_is_taken(self):
        holder = self.lock_holder()
        process = self.start_fake_script(self.LOCKED)
        wait_until(lambda: "->" in Path("/proc/locks").read_text())
        holder.stdin.close()
        self.assertEqual(self.finish(process), (0, "got it\n", ""))


class Preferences(WrapperTest):
    def test_six_at_once_get_a_copy_each_of_one_set(self):
        for made_before in (False, True):
            with self.subTest(made_before=made_before):
                self.log.write_text("")
                processes = [self.start("ls", str(i)) for i in range(6)]
                results = [self.finish(process) for process in processes]
                homes = {out.removeprefix(PREFS) for _, out, _ in results}
                self.assertEqual([(status, out[:len(PREFS)], err) for status, out, err in results],
                                 [(0, PREFS, "")] * 6)
                self.assertEqual(len(homes), 6, "runs shared a directory")
                self.assertEqual(self.log.read_text().count("set global"), 0 if made_before else 1)
                self.assertEqual((self.home / ".targetcli/prefs.bin").read_text(), "the user's own\n")
                self.assertEqual(os.listdir(self.home), [".targetcli"])
                self.assert_nothing_left()

    def test_a_failure_leaves_nothing_and_says_so_in_a_line(self):
        for env, reason in ((dict(FAKE_REFUSED="auto_use_daemon=false"), "can't set auto_use_daemon=false"),
                            (dict(FAKE_IGNORED="auto_add_mapped_luns=false"), "`get global` doesn't show it"),
                            (dict(FAKE_SCRIPT="exit 9"), "status 9"),
                            (dict(FAKE_SCRIPT="sleep 1000", MOSCSI_TARGETCLI_TIMEOUT=1), "did not end within 1 s")):
            with self.subTest(reason):
                status, out, err = self.run_wrapper("ls", **env)
                self.assertGreater(status, 0)
                self.assertEqual(out, "")
                self.assertRegex(err, rf"^targetcli's preferences can't be made: .*{reason}.*\n$")
                self.assertEqual(os.listdir(self.state), ["lock"])
        self.assertEqual(self.run_wrapper("ls")[0], 0)

    def test_one_that_waits_for_another_to_make_them_names_it_at_the_limit(self):
        self.run_wrapper("ls", FAKE_SCRIPT="exit 1")
        with open(self.state / "lock") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            status, _, err = self.run_wrapper("ls", MOSCSI_TARGETCLI_TIMEOUT=1)
        self.assertEqual(status, 124)
        self.assertRegex(err, rf"process {os.getpid()} \(\S+\) is making them.*\n$")

    def test_another_release_of_targetcli_makes_its_own(self):
        self.run_wrapper("ls")
        self.install_fake(FAKE.replace("other kept", "other newer"))
        self.assertIn("other=newer", self.run_wrapper("ls")[1])


class UserBackstore(WrapperTest):
    CREATE = ("/backstores/user:moscsisrvtcmu", "create", "cfgstring=c0ffee", "name=vol", "size=8192", "wwn=1")
    FAILED = "UserBackedStorageObject creation failed.\n"

    def kernel_object(self, config="MoScsiSrvTcmu/c0ffee", size="8192", enable="1", path="core/user_3/vol"):
        root = self.dir / "configfs"
        shutil.rmtree(root, ignore_errors=True)
        (root / path).mkdir(parents=True)
        (root / path / "enable").write_text(enable + "\n")
        (root / path / "info").write_text(
            "Status: DEACTIVATED  Max Queue Depth: 0  SectorSize: 512  HwMaxSectors: 128\n"
            f"        Config: {config} Size: {size} PageSize: 1\n")

    def create(self, script=None, args=CREATE):
        script = script or f"echo trying; echo '{self.FAILED.strip()}' >&2; exit 1"
        return self.run_fake_script(script, *args, MOSCSI_CONFIGFS_ROOT=self.dir / "configfs")

    def test_a_failure_says_exists_only_of_the_same_object(self):
        for same in (dict(), dict(config="moscsisrvtcmu/c0ffee")):
            self.kernel_object(**same)
            self.assertEqual(self.create(), (
                1, "trying\n", "a user backstore of this name, configuration and size already exists\n" + self.FAILED))
            self.assertIn(" exists\n", self.create("exit 1")[2])
        for other, line in ((dict(size="81920"), "another size (81920 bytes)"), (dict(size="819"), "another size"),
                            (dict(config="MoScsiSrvTcmu/C0ffee"), "another configuration (MoScsiSrvTcmu/C0ffee)"),
                            (dict(config="moscsisrvtcmuX/c0ffee"), "another conf"),
                            (dict(config="moscsi/c0ffee"), "another conf"), (dict(config="c0ffee"), "another"),
                            (dict(config="x/exists"), "differs"), (dict(enable="0"), "never enabled")):
            with self.subTest(other):
                self.kernel_object(**other)
                for script in (None, "echo already exists; exit 1", "echo it exists >&2; exit 1"):
                    first = self.create(script)[2].splitlines()[0]
                    self.assertIn(line, first)
                    self.assertIsNone(re.search("[eE]xists", first))

    def test_one_that_is_not_there_fails_with_what_targetcli_said(self):
        for path in ("core/user_3/vol2", "core/fileio_3/vol"):
            self.kernel_object(path=path)
            self.assertEqual(self.create(), (1, "trying\n", self.FAILED))
            self.assertEqual(self.create("echo it Exists >&2; exit 1")[2],
                             "the user backstore was not made, and none is there\nit Exists\n")

    def test_only_failed_user_creates_with_a_plain_size_are_explained(self):
        self.kernel_object()
        self.assertEqual(self.create("echo fine >&2; exit 0"), (0, "", "fine\n"))
        path, verb, config, name, size, wwn = self.CREATE
        for args in ((path, "delete", name), ("/backstores/fileio", verb, config, name, size),
                     (path, "info"), ("ls",)):
            self.assertEqual(self.create(args=args)[2], self.FAILED)
        self.assertIn("another size", self.create(args=(path, verb, config, name, "size=8192K"))[2])
        self.assertIn("exists", self.create(args=(path + "/", verb, wwn, size, name, config))[2])

    def test_a_limit_is_reported_first(self):
        self.kernel_object()
        self.run_wrapper("anything")
        _, _, err = self.run_wrapper(*self.CREATE, FAKE_SCRIPT="sleep 1000", MOSCSI_TARGETCLI_TIMEOUT=1)
        self.assertRegex(err, r"^targetcli, process \d+, did not end within 1 s; it was ended\n$")


class Finding(WrapperTest):
    def test_the_next_one_on_the_path_is_the_real_one(self):
        for name in ("first", "link", "real"):
            (self.dir / name).mkdir()
            program = self.dir / name / "targetcli"
            if name == "link":
                program.symlink_to(WRAPPER)
            else:
                program.write_text(f"#!/bin/sh\necho {name} >>$FAKE_LOG\n")
                program.chmod(0o755)
        for path, configured in (("first:link:real", None), ("link:first:link:real", None), ("first:real", None),
                                 ("link:first", self.dir / "real/targetcli")):
            path = ":".join(str(self.dir / name) for name in path.split(":"))
            self.run_wrapper("--version", PATH=path + ":/usr/bin:/bin", MOSCSI_TARGETCLI_REAL=configured)
        self.assertEqual(self.log.read_text().split(), ["real", "first", "first", "real"])

    def test_without_a_real_one_a_line_says_what_to_do(self):
        nothing = f"{Path(WRAPPER).parent}:/usr/bin:/bin"
        self.assertEqual(self.run_wrapper("ls", PATH=nothing), (
            127, "", "targetcli is not installed: install the package targetcli-fb\n"))
        for real in (WRAPPER, "/none", "/tmp"):
            status, _, err = self.run_wrapper("ls", MOSCSI_TARGETCLI_REAL=real)
            self.assertEqual((status, err), (127, f"MOSCSI_TARGETCLI_REAL={real} is not the real targetcli program\n"))

    def test_what_cannot_work_is_refused_in_a_line(self):
        for name in ("MOSCSI_TARGETCLI_TIMEOUT", "MOSCSI_TARGETCLI_LOCK_WAIT"):
            for value in ("0", "-1", "soon", "5s", "99999999999"):
                self.assertEqual(self.run_wrapper("ls", **{name: value}), (
                    2, "", f"{name}={value} is not a number of seconds from 1 to 86400\n"))
        self.install_fake("#!/no/interpreter\n")
        status, _, err = self.run_wrapper("ls")
        self.assertEqual(status, 126)
        self.assertRegex(err, r"^targetcli's preferences .*/targetcli can't be started: No such file.*\n$")
        status, _, err = self.run_wrapper("ls", MOSCSI_RUN_DIR="/dev/null")
        self.assertRegex(err, r"^targetcli needs a directory of its own in /dev/null/targetcli: .*\n$")


if __name__ == "__main__":
    WRAPPER = os.path.abspath(sys.argv.pop(1))
    unittest.main()
