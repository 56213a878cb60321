# What the tests of programs share: a directory of the test's own, and processes seen from outside.
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

DEADLINE = 60  # seconds after which whatever is waited for counts as never coming


def wait_until(condition):
    end = time.monotonic() + DEADLINE
    while not condition():
        assert time.monotonic() < end, "waited in vain"
        time.sleep(0.01)


class ProgramTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.dir = Path(directory.name)

    def write(self, name, text, mode=0o644):
        file = self.dir / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)
        file.chmod(mode)
        return file

    # `output` takes what would otherwise be kept of both streams.
    def spawn(self, *args, output=subprocess.PIPE, **env):
        process = subprocess.Popen(args, env={name: str(value) for name, value in env.items()},
                                   stdin=subprocess.DEVNULL, stdout=output, stderr=output, text=True)
        for clean in (*(stream.close for stream in (process.stderr, process.stdout) if stream),
                      process.wait, process.kill):
            self.addCleanup(clean)
        return process

    # Its status, standard output and standard error.
    def finish(self, process):
        out, err = process.communicate(timeout=DEADLINE)
        return process.returncode, out, err
