#!/usr/bin/env python3
# The host and its LUNs' files, from outside: made once, missing, written by others.
import signal
import sys

from support.host_program import B, HostTest, TARGET, main
from support.program_test import wait_until


class FilesTest(HostTest):
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


main()
