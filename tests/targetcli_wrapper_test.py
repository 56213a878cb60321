#!/usr/bin/env python3
# Runs the targetcli wrapper in front of a fake targetcli.
# usage: targetcli_wrapper_test.py WRAPPER [unittest arguments]
import fcntl
import os
import re
import shutil
import signal
import subprocess
import sys
import unittest
from pathlib import Path

from support.program_test import DEADLINE, ProgramTest, wait_until

WRAPPER = os.path.abspath(sys.argv.pop(1))

# Behaves as targetcli where the wrapper depends on it: makes preferences when they are missing, in
# a way that breaks concurrent first runs and with its log beside them, rewrites them in every run,
# and keeps them at home unless TARGETCLI_HOME says otherwise. FAKE_SCRIPT replaces all of it.
FAKE = r"""#!/bin/bash
[ -z "$FAKE_SCRIPT" ] || eval "$FAKE_SCRIPT"
prefs=${TARGETCLI_HOME:-$HOME/.targetcli}/prefs.bin
if [ ! -e "$prefs" ]; then
    : >"$prefs"
    printf '%s=%s\n' auto_add_mapped_luns true auto_use_daemon true logfile "${prefs%/*}/log.txt" other kept \
        auto_enable_tpgt true \
        >"$prefs.new"
    cat "$prefs.new" >"$prefs"
fi
[ -s "$prefs" ] || { echo 'not in list' >&2; exit 1; }
echo "$*" >>"$D/log"
echo log >>"$(sed -n 's/^logfile=//p' "$prefs")" || exit 1
case "$1 $2" in
'set global')
    shift 2
    for setting; do
        [ "$setting" = "$FAKE_IGNORED" ] || sed -i "s|^${setting%%=*}=.*|$setting|" "$prefs"
    done ;;
'get global') cat "$prefs" ;;
*) cat "$prefs"; echo "$TARGETCLI_HOME"; echo touched >>"$prefs" ;;
esac
"""

PREFS = "auto_add_mapped_luns=false\nauto_use_daemon=false\nlogfile=/dev/null\nother=kept\n"


def is_running(pid):
    state = subprocess.run(["ps", "-o", "s=", "-p", str(pid)], capture_output=True, text=True).stdout.strip()
    return state not in ("", "Z")


class WrapperTest(ProgramTest):
    def setUp(self):
        super().setUp()
        self.state = self.dir / "run/targetcli"
        self.own_preferences = self.write("home/.targetcli/prefs.bin", "the user's own\n")
        self.install_fake()

    def install_fake(self, script=FAKE, directory="bin"):
        self.write(f"{directory}/targetcli", script, 0o755)

    def start(self, *args, program=(WRAPPER,), **env):
        return self.spawn(*program, *args, **{
            "PATH": f"{Path(WRAPPER).parent}:{self.dir}/bin:/usr/bin:/bin", "HOME": self.dir / "home",
            "MOSCSI_RUN_DIR": self.dir / "run", "D": self.dir, **env})

    def run_wrapper(self, *args, **env):
        return self.finish(self.start(*args, **env))

    # Expects this status and just this line on standard error. Returns: standard output.
    def expect(self, process, status, line):
        result, out, err = self.finish(process)
        self.assertEqual(result, status)
        self.assertRegex(err, rf"^{line}\n$" if line else "^$")
        return out

    # Starts a script as the real one, with preferences made before.
    def start_do(self, script, *args, **env):
        if not self.state.exists():
            self.run_wrapper("ls")
        return self.start(*args, FAKE_SCRIPT=script, **env)

    def do(self, script, *args, **env):
        return self.finish(self.start_do(script, *args, **env))

    # Only the set of preferences, the lock and the note of the road stay behind.
    def assert_nothing_left(self):
        self.assertRegex(" ".join(sorted(os.listdir(self.state))), r"^lock preferences\.\S+ roads running$")
        self.assertIn(" slow other: a line of no known form\n", (self.state / "roads").read_text())


class Version(WrapperTest):
    # The version as the plug-in asks for it.
    def gate(self, script, **env):
        asking = "sh", "-c", "targetcli --version 2>&1  | cut -d' ' -f3"
        return self.finish(self.start(program=asking, FAKE_SCRIPT=script, **env))[1]

    def test_answers_in_the_older_form_that_compares_as_numbers_do_and_makes_no_preferences(self):
        for script, answer in (
                ("echo /usr/bin/targetcli version 2.1.53", "2.1.fb53"), ("echo version 2.1.fb43", "2.1.fb43"),
                ("echo version 2.1.5", "2.1.fb05"), ("echo version 2.1.100", "2.1.fb99-2.1.100"),
                ("echo Warning: not loaded >&2; echo version 2.1.53.dev2", "2.1.fb53.dev2"),
                ("echo a warning; echo version 3.1 >&2", "3.1.fb00"),
                ("echo version 10.0.1", "2.1.fb99-10.0.1"), ("echo version 2.0.99", "2.0.fb99")):
            with self.subTest(script):
                self.assertEqual(self.gate(script + "; : >$TARGETCLI_HOME/prefs.bin; exit"), answer + "\n")
        self.assertEqual(os.listdir(self.state), ["roads"])

    def test_nothing_at_all_is_printed_without_an_answer(self):
        answer = "echo targetcli version 2.1.53; exit"
        for script, env in ((answer + " 1", {}), ("exit 0", {}), ("echo version of a kind; exit 0", {}),
                            ("exit 0", dict(MOSCSI_TARGETCLI_VERSION="2.1.fb41")),
                            (answer, dict(MOSCSI_TARGETCLI_VERSION="old")), ("", dict(MOSCSI_TARGETCLI_REAL="/none")),
                            ("", dict(MOSCSI_TARGETCLI_TIMEOUT="soon")), ("", dict(MOSCSI_RUN_DIR="/dev/null"))):
            with self.subTest(script=script, env=env):
                status, out, err = self.run_wrapper("--version", FAKE_SCRIPT=script, **env)
                self.assertEqual((out, err), ("", ""))
                self.assertGreater(status, 0)
        self.assertEqual(self.gate(answer, MOSCSI_TARGETCLI_VERSION="2.1.fb41"), "2.1.fb41\n")


class Relay(WrapperTest):
    def test_arguments_and_both_streams_pass_unchanged_at_any_size(self):
        args = ["/iscsi/iqn.x", "a b", "", "$(id)", "*", "'\"\\", "-x", "ü\n;"]
        lines = "".join(f"{i}\n" for i in range(1, 400001))
        self.assertEqual(self.do("seq 400000; seq 400000 >&2; printf '<%s>' \"$@\"; exit 5", *args),
                         (5, lines + "".join(f"<{arg}>" for arg in args), lines))

    def test_a_reader_that_closes_after_a_line_does_no_harm(self):
        process = self.start_do("echo first >&2; seq 400000 >&2 && touch $D/whole; exit 7")
        self.assertEqual(process.stderr.readline(), "first\n")
        process.stderr.close()
        self.assertEqual(process.wait(DEADLINE), 7)
        self.assertTrue((self.dir / "whole").exists())

    def test_a_reader_that_never_reads_is_not_waited_for_beyond_the_limit(self):
        # Neither gets rid of its output; the second ends. A stop never lengthens the limit.
        pieces = "dd if=/dev/zero status=none bs=5000 count="
        runs = [(self.start_do(f"{pieces}{count}; exit 7", MOSCSI_TARGETCLI_TIMEOUT=1), status, line)
                for count, status, line in ((80, 124, "did not end within 1 s"), (25, 7, ""))]
        self.write("run/targetcli/limit", "100\n")
        for process, status, line in runs:
            self.assertEqual(process.wait(DEADLINE), status)
            self.assertIn(line, process.stderr.read())

    def test_what_outlives_the_real_one_does_not_hold_the_wrapper(self):
        script = "sleep 1000 & echo $! >$D/a; setsid sh -c 'echo $$ >$D/b; exec sleep 1000' &" \
                 "until [ -s $D/b ]; do sleep 0.01; done; echo done; exit 0"
        self.assertEqual(self.do(script), (0, "done\n", ""))
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
                self.expect(self.start_do(script), status, line)

    def test_the_real_one_gets_clean_surroundings_from_a_caller_that_has_none(self):
        # The shell changes masks around its own children, so the last look is without one.
        script = "ls /proc/$$/fd; echo $LC_ALL $PYTHONWARNINGS; exec grep -E 'Sig(Blk|Ign)' /proc/self/status"
        blocked = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT, signal.SIGUSR1})
        self.addCleanup(signal.pthread_sigmask, signal.SIG_SETMASK, blocked)
        caller = ["bash", "-c", "exec env --ignore-signal=CHLD targetcli do <&- 5</dev/null"]
        status, out, _ = self.finish(self.start(program=caller, FAKE_SCRIPT=f"[ $1 != do ] || {{ {script}; }}",
                                                LC_ALL="de_DE.UTF-8", PYTHONWARNINGS="always"))
        fds, _, rest = out.partition("C ignore\n")
        # 10 and above are the shell's own, for the fake's script.
        self.assertEqual([fd for fd in fds.split() if int(fd) < 10], ["0", "1", "2"])
        blocked, ignored = (int(mask, 16) for mask in rest.split()[1::2])
        self.assertEqual((status, blocked, ignored & 1 << signal.SIGPIPE - 1), (0, 0, 0))


class Limits(WrapperTest):
    HANG = "trap '' TERM INT; sleep 1000 & echo $! >$D/child; echo $$ >$D/pid; wait; wait; exit 0"

    def pid(self, name="pid"):
        file = self.dir / name
        wait_until(lambda: file.exists() and file.read_text().endswith("\n"))
        pid = int(file.read_text())
        file.unlink()
        return pid

    def test_a_signal_or_a_limit_that_is_shortened_ends_one_that_hangs_with_all_that_it_started(self):
        self.addCleanup(signal.pthread_sigmask, signal.SIG_UNBLOCK, {signal.SIGINT})
        for blocked, status, line in (
                ((), 130, r"targetcli was interrupted by signal 2 \(Interrupt\); it was ended"),
                ({signal.SIGINT}, 124, r"targetcli, process \d+, did not end within 0 s; it was ended")):
            signal.pthread_sigmask(signal.SIG_BLOCK, blocked)
            process = self.start_do(self.HANG)
            pid, child = self.pid(), self.pid("child")
            process.send_signal(signal.SIGINT)
            if blocked:  # the caller keeps the signal to itself
                self.write("run/targetcli/limit", "0\n")
            self.expect(process, status, line)
            self.assertFalse(is_running(pid))
            wait_until(lambda: not is_running(child))

    def test_the_real_one_dies_with_a_killed_wrapper_and_the_next_run_cleans_up(self):
        process = self.start_do(self.HANG)
        pid = self.pid()
        with open(self.state / "running") as running:  # what the next host looks at
            self.assertRaises(BlockingIOError, fcntl.flock, running, fcntl.LOCK_EX | fcntl.LOCK_NB)
            process.kill()
            self.finish(process)
            fcntl.flock(running, fcntl.LOCK_EX | fcntl.LOCK_NB)
        wait_until(lambda: not is_running(pid))
        os.kill(self.pid("child"), signal.SIGKILL)
        self.run_wrapper("ls")  # removes what the killed one left
        self.assert_nothing_left()

    def test_a_held_lock_is_named_with_its_holder(self):
        with open(self.dir / "lock", "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            # Also when the whole limit is what ends it.
            for process in [self.start_do("flock $D/lock true; exit 0", **{f"MOSCSI_TARGETCLI_{limit}": 1})
                            for limit in ("LOCK_WAIT", "TIMEOUT")]:
                line = rf"targetcli waited \d s for its lock, which process {os.getpid()} \(.+\) holds: " \
                       "end that one, then try again"
                self.assertEqual(self.expect(process, 124, line), "")

    def test_each_holder_of_a_queue_may_take_the_time(self):
        queue = "for i in 1 2 3 4; do flock $D/lock sleep 0.8 & done; wait; exit 0"
        self.assertEqual(self.do(queue, MOSCSI_TARGETCLI_LOCK_WAIT=2), (0, "", ""))


class Preferences(WrapperTest):
    def test_six_at_once_get_a_copy_each_of_one_set(self):
        for made_before in (False, True):
            log = self.write("log", "")
            processes = [self.start("ls", str(i)) for i in range(6)]
            results = [self.finish(process) for process in processes]
            self.assertEqual([(status, out[:len(PREFS)], err) for status, out, err in results], [(0, PREFS, "")] * 6)
            self.assertEqual(len({out for _, out, _ in results}), 6, "runs shared a directory")
            self.assertEqual(log.read_text().count("set global"), 0 if made_before else 1)
            self.assertEqual(self.own_preferences.read_text(), "the user's own\n")
            self.assert_nothing_left()

    def test_a_failure_leaves_nothing_and_says_so_in_a_line(self):
        for env, reason in ((dict(FAKE_IGNORED="auto_add_mapped_luns=false"), "`get global` doesn't show it"),
                            (dict(FAKE_SCRIPT="echo refused; exit 9"), "refused")):
            status, out, err = self.run_wrapper("ls", **env)
            self.assertEqual((status > 0, out, sorted(os.listdir(self.state))), (True, "", ["lock", "roads", "running"]))
            self.assertRegex(err, rf"^targetcli's preferences can't be made: .*{reason}\n$")

    def test_one_that_waits_for_another_to_make_them_names_it_at_the_limit(self):
        self.write("run/targetcli/limit", "0\n")
        with open(self.state / "lock", "w") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.expect(self.start("ls"), 124, rf".*process {os.getpid()} \(\S+\) is making them.*")

    def test_who_wants_closed_targets_and_another_release_of_targetcli_have_sets_of_their_own(self):
        self.assertIn("auto_enable_tpgt=true", self.run_wrapper("ls")[1])
        self.assertIn("auto_enable_tpgt=false", self.run_wrapper("ls", MOSCSI_TARGETCLI_CLOSED=1)[1])
        self.assertIn("auto_enable_tpgt=true", self.run_wrapper("ls")[1])
        self.install_fake(FAKE.replace("other kept", "other newer"))
        self.assertIn("other=newer", self.run_wrapper("ls")[1])


class UserBackstore(WrapperTest):
    # Runs a command that fails and says this while the kernel has this object. Returns: its standard error.
    def failed(self, said, args, config="MoScsiSrvTcmu/c0ffee", size="8192", enable="1", place="user_3/vol"):
        shutil.rmtree(self.dir / "core", ignore_errors=True)
        self.write(f"core/{place}/enable", enable + "\n")
        self.write(f"core/{place}/info", "Status: DEACTIVATED  Max Queue Depth: 0  SectorSize: 512\n"
                                         f"        Config: {config} Size: {size} PageSize: 1\n")
        status, out, err = self.do(f"echo trying; echo {said} >&2; exit 1", *args, MOSCSI_CONFIGFS_ROOT=self.dir)
        self.assertEqual((status, out), (1, "trying\n"))
        return err

    def test_a_failed_create_says_exists_only_of_the_same_object(self):
        path, verb, *rest = create = (
            "/backstores/user:moscsisrvtcmu", "create", "cfgstring=c0ffee", "name=vol", "size=8192", "wwn=1")
        same = "a user backstore of this name, configuration and size already exists\n"
        for kernel, args, line in (
                ({}, create, same), (dict(config="moscsisrvtcmu/c0ffee"), (path + "/", verb, *rest[::-1]), same),
                (dict(place="user_3/vol2"), create, ""), ({}, (path, "delete", "name=vol"), ""), ({}, (path,), ""),
                ({}, ("/backstores/fileio", verb, *rest), "")):
            self.assertEqual(self.failed("failed.", args, **kernel), line + "failed.\n")
        for kernel, line in ((dict(size="81920"), "another size (81920 bytes)"), (dict(size="819"), "another size"),
                             (dict(config="MoScsiSrvTcmu/C0ffee"), "another configuration (MoScsiSrvTcmu/C0ffee)"),
                             (dict(config="c0ffee"), "another conf"), (dict(config="x/exists"), "differs"),
                             (dict(size="8192K", args=(*create, "size=8192K")), "another size"),
                             (dict(enable="0"), "never enabled"), (dict(place="user_3/vol2"), "none is"),
                             (dict(place="fileio_3/vol"), "none is")):
            with self.subTest(kernel):
                first = self.failed("it Exists", **{"args": create, **kernel}).splitlines()[0]
                self.assertIn(line, first)
                self.assertIsNone(re.search("[eE]xists", first))
        self.assertEqual(self.do("echo fine >&2; exit 0", *create), (0, "", "fine\n"))


class Finding(WrapperTest):
    def test_the_next_one_on_the_path_is_the_real_one(self):
        for name in ("first", "real"):
            self.install_fake(f"#!/bin/sh\necho version 1.0.{name}; echo {name} >>$D/log\n", name)
        self.write("link/x", "").with_name("targetcli").symlink_to(WRAPPER)
        for path, env in (("first:link:real", {}), ("link:first:link:real", {}), ("first:real", {}),
                          ("link:first", dict(MOSCSI_TARGETCLI_REAL=self.dir / "real/targetcli"))):
            self.run_wrapper("--version", PATH=re.sub("^|:", rf"\g<0>{self.dir}/", path), **env)
        self.assertEqual((self.dir / "log").read_text().split(), ["real", "first", "first", "real"])

    def test_what_cannot_work_is_refused_in_a_line(self):
        self.install_fake("#!/no/interpreter\n")
        for name, value, status, line in (
                ("PATH", str(Path(WRAPPER).parent), 127,  # /usr/bin may have the real one
                 "targetcli is not installed: install the package targetcli-fb"),
                *(("MOSCSI_TARGETCLI_REAL", path, 127, rf"\w+={path} is not the real targetcli program")
                  for path in (WRAPPER, "/none", "/tmp")),
                *((f"MOSCSI_TARGETCLI_{limit}", value, 2, rf"\w+={value} is not a number of seconds from 1 to 86400")
                  for limit in ("LOCK_WAIT", "TIMEOUT") for value in ("0", "5s", "86401")),
                ("HOME", "/", 126, ".*/bin/targetcli can't be started: No such file.*"),
                ("MOSCSI_RUN_DIR", "/dev/null", 1, "targetcli needs a directory of its own in /dev/null/.*")):
            self.expect(self.start("ls", **{name: value}), status, line)


unittest.main()
