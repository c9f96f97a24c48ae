#!/usr/bin/env python3
"""./run in a folder of its own, with programs that are built: what it shows, leaves behind and says of what is wrong.

    run_once_test.py PROGRAMS ROOT

PROGRAMS is the folder of qorctl and qor-agent, ROOT the project's.
"""
import os
import re
import subprocess
import sys
import tempfile
import unittest

PROGRAMS = ROOT = ""


class Run(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="qor-run-")
        self.addCleanup(folder.cleanup)
        self.folder = os.path.realpath(folder.name)
        os.makedirs(self.path("build/release"))
        for name in ("run", "packaging", "CMakePresets.json"):
            os.symlink(os.path.join(ROOT, name), self.path(name))
        # As if cmake had been here: what tests run on is not built anew while they do. Nothing is installed either.
        os.symlink(PROGRAMS, self.path("build/release/bin"))
        self.write("build/release/build.ninja", "")
        os.makedirs(self.path("bin"))
        self.write("bin/cmake", f'#!/bin/sh\necho "$@" >>"{self.path("built-with")}"\n', 0o755)
        self.write("bin/dpkg-query", "#!/bin/sh\necho 'install ok installed'\n", 0o755)
        self.environment = dict(os.environ, PATH=self.path("bin") + ":" + os.environ["PATH"], LC_ALL="C.UTF-8")
        self.addCleanup(self.run_it, "--stop")

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def write(self, name, text, mode=0o644):
        with open(self.path(name), "w", encoding="utf-8") as stream:
            stream.write(text)
        os.chmod(self.path(name), mode)

    def read(self, name):
        with open(self.path(name), encoding="utf-8") as stream:
            return stream.read()

    def run_it(self, *options, cwd=None):
        return subprocess.run([self.path("run"), *options], cwd=cwd or self.folder, env=self.environment, text=True,
                              stdin=subprocess.DEVNULL, capture_output=True, check=False)

    def qorctl(self, *words):
        return subprocess.run([os.path.join(PROGRAMS, "qorctl"), *words], cwd=self.folder, text=True, capture_output=True, check=False)

    def sections(self, done):
        """What stands below each heading."""
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        parts = re.split(r"^\n(\S.*)\n", done.stdout, flags=re.MULTILINE)
        return dict(zip(parts[1::2], parts[2::2]))

    def test_it_shows_what_this_machine_has_and_leaves_nothing_running(self):
        shown = self.sections(self.run_it("--once"))
        self.assertEqual(self.read("built-with"), "--build --preset release --target qor-agent qorctl QORPager\n")
        found = shown["What was found on this machine since the last run"].splitlines()
        collectors = dict(line.split(maxsplit=1) for line in found)
        self.assertEqual(collectors["machine"], "records: 1")
        with open("/proc/sys/kernel/hostname", encoding="utf-8") as stream:
            self.assertIn(stream.read().strip(), shown["This machine (vEnvironment)"])
        seen = next(text for name, text in shown.items() if name.startswith("The same for a client"))
        cells = [line.split() for line in shown["The ten latest package operations (vOpLog)"].splitlines()]
        self.assertEqual([line.split() for line in seen.splitlines()[2:5]], cells[2:5])
        other = next(text for name, text in shown.items() if name.startswith("... and for one"))
        self.assertEqual(other.splitlines()[-1], "0 of 0 rows")
        self.assertFalse(os.path.exists(self.path("run-data/agent.pid")))
        self.assertEqual(self.qorctl("views", "--socket", "run-data/agent.sock").returncode, 3)

    def test_a_second_run_adds_only_what_is_new(self):
        self.sections(self.run_it("--once"))
        count = ["select", "vOpLog", "--standalone", "--database", "run-data/agent.db", "-f", "count(id)", "-o", "tsv", "--no-header",
                 "--where", "op <> 'apt'"]
        before = int(self.qorctl(*count).stdout)
        shown = self.sections(self.run_it("--once"))
        # Packages may come to this machine meanwhile; what was there is not told again.
        self.assertLess(int(self.qorctl(*count).stdout) - before, max(before, 100))
        self.assertEqual(self.read("built-with").count("\n"), 2)
        self.assertIn("machine", shown["What was found on this machine since the last run"])

    def test_what_it_says_to_try_works(self):
        shown = self.sections(self.run_it("--keep", cwd="/"))
        self.assertTrue(any(name.endswith("To stop it: ./run --stop") for name in shown), shown)
        lines = shown["What to try next"].splitlines()
        self.assertEqual(lines[0], f"  cd {self.folder}")
        for line in (line for line in lines if line.startswith("  build/release/bin/")):
            done = subprocess.run(["bash", "-c", line], cwd=self.folder, capture_output=True, text=True, check=False)
            self.assertEqual(done.returncode, 0, line + "\n" + done.stderr)
        self.assertEqual(self.run_it("--stop").stdout, "The agent is stopped.\n")
        self.assertEqual(self.run_it("--stop").stdout, "There is no agent running in this folder.\n")

    def test_what_it_cannot_do_it_says(self):
        unknown = self.run_it("--twice")
        self.assertEqual((unknown.returncode, unknown.stdout, unknown.stderr), (2, "", "./run: unknown option --twice; see ./run --help\n"))
        self.assertEqual(self.run_it("--help").returncode, 0)
        os.makedirs(self.path("run-data"))
        lock = subprocess.Popen(["flock", self.path("run-data/lock"), "cat"], stdin=subprocess.PIPE)
        try:
            while subprocess.run(["flock", "-n", self.path("run-data/lock"), "true"], check=False).returncode == 0:
                pass
            second = self.run_it("--once")
        finally:
            lock.communicate()
        self.assertEqual(second.returncode, 1)
        self.assertTrue(second.stderr.endswith("./run: another ./run is at work in this folder\n"), second.stderr)
        self.write("bin/cmake", "#!/bin/sh\nexit 1\n", 0o755)
        failed = self.run_it("--once")
        self.assertEqual(failed.returncode, 1)
        self.assertTrue(failed.stderr.endswith("./run: the build failed\n"), failed.stderr)


if __name__ == "__main__":
    PROGRAMS, ROOT = (os.path.realpath(argument) for argument in sys.argv[1:3])
    unittest.main(argv=sys.argv[:1])
