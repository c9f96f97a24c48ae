#!/usr/bin/env python3
"""Runs the examples of the documents.

    run_examples.py PROGRAMS ROOT [--show] [PAGE...]

PROGRAMS is the folder of qorctl and qor-agent, ROOT the project's. Every example stands in a fenced block whose language
says what it is:

    sh              commands; they succeed
    console         commands behind `$ ` and what they print; a line `...` stands for any lines
    json            a request, which is answered without an error; a record, which is stored; or the answer of the request
                    in front of it
    sh postgresql, console postgresql   likewise, with a PostgreSQL server in place of the installed one
    sh sdk, console sdk   likewise, with the SDK and its examples installed
    sh installed    commands that need an installed system or its plug-in; not run here (those that install packages, use, upgrade and
                    remove them are run by the packages' test)
    sh project      the project's own scripts; their options and presets have to exist
    sh form, json form   with a part left out; not run
    sh walk, console walk, diff     the walk-throughs of CONTRIBUTING.md; tests/walkthrough runs them
    text            pictures and samples of output that differs from machine to machine
    cpp, cmake      code; other tests compile it

Each page meets a folder and an agent of its own, with the database that "A database to try things with" makes. Paths of an
installed agent are put below that folder. --show prints what console examples print now, in place of comparing it.
"""
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter

PAGES = ["README.md", "CHANGELOG.md", "CONTRIBUTING.md", "docs/architecture.md", "docs/collectors.md", "docs/http.md", "docs/install.md", "docs/odbc-drivers.md", "docs/operations.md", "docs/plugins.md",
         "docs/postgresql.md", "docs/qorctl.md", "docs/recipes.md", "docs/records.md", "docs/requests.md", "docs/rows.md", "docs/scale.md", "docs/security.md", "docs/views.md", "bench/README.md",
         "bench/filter/README.md", "examples/collector/README.md", "examples/log-source/README.md", "examples/operator/README.md", "fuzz/README.md"]
KINDS = {"sh", "console", "json", "sh postgresql", "console postgresql", "sh sdk", "console sdk", "sh installed", "sh project", "sh form", "json form", "text", "cpp", "cmake",
         "sh walk", "console walk", "diff"}
SAMPLE = ["--environments", "50", "--operations", "1000", "--events", "500", "--backups", "100", "--seed", "1"]
SECONDS = 300  # for one example; sanitizers are slow


class Failure(Exception):
    pass


class Block:
    def __init__(self, page, line, kind):
        self.where = f"{page}:{line}"
        self.kind = kind
        self.lines = []

    @property
    def text(self):
        return "\n".join(self.lines)


def blocks_of(page, text):
    """The page's fenced blocks. An example that is only indented is an error: nobody would run it."""
    found, current, fence, blank = [], None, "", True
    for number, line in enumerate(text.splitlines(), 1):
        opening = re.match(r"\s*(```+)\s*(.*?)\s*$", line)
        if current is None and opening:
            fence, kind = opening.groups()
            current = Block(page, number, kind)
            if kind not in KINDS:
                raise Failure(f"{current.where}: what is a block of {kind or 'no language'}? See run_examples.py")
        elif current is not None and line.strip() == fence:
            found.append(current)
            current = None
        elif current is not None:
            current.lines.append(line)
        elif blank and re.match(r"    \S", line):
            raise Failure(f"{page}:{number}: an example belongs into a fenced block with a language")
        blank = current is None and not line.strip()
    if current is not None:
        raise Failure(f"{current.where}: the block does not end")
    return found


def console_steps(block):
    """(command, expected lines) of a console block."""
    steps = []
    for line in block.lines:
        if line.startswith("$ "):
            steps.append([line[2:], []])
        elif steps and not steps[-1][1] and steps[-1][0].endswith("\\"):
            steps[-1][0] += "\n" + line
        elif steps:
            steps[-1][1].append(line.rstrip())
        else:
            raise Failure(f"{block.where}: a console example begins with `$ `")
    return steps


def matches(expected, printed):
    """Whether the lines are those expected, where `...` is any number of lines."""
    if not expected:
        return not printed
    if expected[0] == "...":
        return any(matches(expected[1:], printed[skipped:]) for skipped in range(len(printed) + 1))
    return bool(printed) and expected[0] == printed[0] and matches(expected[1:], printed[1:])


class PostgresServer:
    """A server of the page's own, on a socket in a folder of its own. It ends with this process, however that ends."""

    PROGRAMS = "/usr/lib/postgresql/15/bin"

    def __init__(self):
        self.folder = tempfile.mkdtemp(prefix="qor-docs-")
        self._drop = []
        if os.geteuid() == 0:
            shutil.chown(self.folder, "postgres", "postgres")
            self._drop = ["--reuid=postgres", "--regid=postgres", "--clear-groups"]
        data = os.path.join(self.folder, "data")
        self._run(["initdb", "-D", data, "-U", "postgres", "--auth=trust", "--no-sync", "--encoding=UTF8", "--locale=C.UTF-8"])
        self._process = subprocess.Popen(["setpriv", "--pdeathsig=QUIT"] + self._drop + ["--", f"{self.PROGRAMS}/postgres", "-D", data, "-k",
                                          self.folder, "-c", "listen_addresses=", "-c", "fsync=off"], cwd="/", stdout=subprocess.DEVNULL,
                                         stderr=subprocess.DEVNULL)
        for _ in range(SECONDS * 10):
            if subprocess.run(["pg_isready", "-q", "-h", self.folder], check=False).returncode == 0:
                return
            time.sleep(0.1)
        raise Failure("the PostgreSQL server does not start")

    def _run(self, command):
        subprocess.run(["setpriv"] + self._drop + ["--", f"{self.PROGRAMS}/{command[0]}"] + command[1:], cwd="/", check=True,
                       capture_output=True, timeout=SECONDS)

    def close(self):
        self._process.send_signal(signal.SIGQUIT)
        self._process.wait(timeout=SECONDS)
        shutil.rmtree(self.folder)


class Machine:
    """A folder with an agent and a sample database, in which a page's examples run."""

    def __init__(self, programs, records):
        self._folder = tempfile.TemporaryDirectory(prefix="qor-docs-")
        self.folder = os.path.realpath(self._folder.name)
        for name in ("bin", "run", "state", "backups", "work/run-data"):
            os.makedirs(self.path(name))
        self.programs = programs
        self.socket = self.path("run/agent.sock")
        self.database = "Driver=SQLite3;Database=" + self.path("state/agent.db")
        os.symlink(os.path.join(programs, "qor-agent"), self.path("bin/qor-agent"))
        self._write("bin/qorctl", "#!/bin/sh\n"
                    'case " $* " in *" --socket "* | *" --standalone "* | " filter "* | " copy "* | " database "* | " plugin "*) ;; '
                    f"*) set -- \"$@\" --socket '{self.socket}' ;; esac\n"
                    f"exec '{programs}/qorctl' \"$@\"\n")
        os.chmod(self.path("bin/qorctl"), 0o755)
        # Whose user a command runs as is the server's business; here it lets everybody in.
        self._write("bin/sudo", "#!/bin/sh\nwhile [ \"$1\" = -u ]; do shift 2; done\nexec \"$@\"\n")
        os.chmod(self.path("bin/sudo"), 0o755)
        self.postgres = None
        self._write("work/records.ndjson", records)
        self.environment = dict(os.environ, PATH=self.path("bin") + ":" + os.environ["PATH"], COLUMNS="120", LC_ALL="C.UTF-8")
        subprocess.run([f"{programs}/qorctl", "sample", "--standalone", "--database", self.database] + SAMPLE, check=True,
                       capture_output=True, timeout=SECONDS)
        for copy in ("work/agent.db", "work/run-data/agent.db"):
            shutil.copy(self.path("state/agent.db"), self.path(copy))
        subprocess.run(["sqlite3", self.path("work/other.db"), "CREATE TABLE t (a int, b int); CREATE VIEW v AS SELECT a, b FROM t;"],
                       check=True)
        self._agent = subprocess.Popen([f"{programs}/qor-agent", "--database", self.database, "--socket", self.socket,
                                        "--log-file", self.path("agent.log")], stdout=subprocess.PIPE)
        if b"listening" not in self._agent.stdout.readline():
            raise Failure("the agent does not start: " + self._read("agent.log"))

    def need_postgres(self):
        if self.postgres is None:
            self.postgres = PostgresServer()
            self.environment.update(PGHOST=self.postgres.folder, PGUSER="postgres")

    def need_sdk(self):
        if not os.path.exists(self.path("sdk")):
            subprocess.run(["cmake", "--install", os.path.dirname(self.programs), "--prefix", self.path("sdk")], check=True,
                           capture_output=True, timeout=SECONDS)
            self.environment["CMAKE_PREFIX_PATH"] = self.path("sdk")

    def close(self):
        if self.postgres is not None:
            self.postgres.close()
        self._agent.terminate()
        status = self._agent.wait(timeout=SECONDS)
        log = self._read("agent.log")
        self._folder.cleanup()
        if status != 0:
            raise Failure(f"the agent ended with status {status}\n{log}")

    def path(self, name):
        return os.path.join(self.folder, name)

    def run(self, command, **more):
        """(status, lines printed) of a shell command; whatever it left in the background is ended."""
        for installed, here in (("/run/qor", "run"), ("/var/lib/qor", "state"), ("/var/backups", "backups"),
                                ("/usr/share/doc/libqor-dev", "sdk/share/doc/libqor-dev")):
            command = command.replace(installed, self.path(here))
        if self.postgres is not None:
            command = command.replace("/var/run/postgresql", self.postgres.folder)
        process = subprocess.Popen(["bash", "-c", "set -euo pipefail\n" + command], cwd=self.path("work"), env=self.environment,
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, start_new_session=True, **more)
        try:
            if re.search(r"[^&]&$", command, re.MULTILINE):
                output = self._of_shell_alone(process)
            else:
                output = process.communicate(timeout=SECONDS)[0]
        finally:
            self._end_group(process)
        return process.returncode, [line.rstrip() for line in output.splitlines()]

    def ask(self, request):
        done = subprocess.run([f"{self.programs}/qorctl", "request", "--socket", self.socket, "-"], input=request, text=True,
                              capture_output=True, timeout=SECONDS)
        if done.returncode != 0:
            raise Failure((done.stdout + done.stderr).strip())
        return json.loads(done.stdout)

    def store(self, record):
        done = subprocess.run([f"{self.programs}/qorctl", "import", "--socket", self.socket, "-"], input=record + "\n", text=True,
                              capture_output=True, timeout=SECONDS)
        if done.returncode != 0:
            raise Failure((done.stdout + done.stderr).strip())

    def _of_shell_alone(self, process):
        """What was put into the background keeps the pipe open, so it is ended when the shell has."""
        process.wait(timeout=SECONDS)
        self._end_group(process)
        return process.stdout.read()

    @staticmethod
    def _end_group(process):
        try:
            os.killpg(process.pid, signal.SIGTERM)
            for _ in range(1000):
                os.killpg(process.pid, 0)
                time.sleep(0.01)
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def _read(self, name):
        with open(self.path(name), encoding="utf-8", errors="replace") as stream:
            return stream.read()

    def _write(self, name, text):
        with open(self.path(name), "w", encoding="utf-8") as stream:
            stream.write(text)


class Examples:
    def __init__(self, programs, root, show):
        self.programs = os.path.realpath(programs)
        self.root = os.path.realpath(root)
        self.show = show
        self.counts = Counter()
        self.failures = []
        self.answer = None

    def page(self, page):
        blocks = blocks_of(page, self._text(page))
        machine = None
        for block in blocks:
            self.counts[block.kind] += 1
            kind, _, needed = block.kind.partition(" ")
            runs = kind in ("sh", "console", "json") and needed in ("", "postgresql", "sdk")
            if runs and machine is None:
                machine = Machine(self.programs, self._records())
            try:
                if needed == "postgresql":
                    machine.need_postgres()
                elif needed == "sdk":
                    machine.need_sdk()
                self._run(block, machine)
            except (Failure, ValueError, subprocess.SubprocessError) as failure:
                self.failures.append(f"{block.where}: {failure}")
        if machine is not None:
            machine.close()

    def _run(self, block, machine):
        if block.kind in ("sh", "sh postgresql", "sh sdk"):
            self._commands(block, machine)
        elif block.kind in ("console", "console postgresql", "console sdk"):
            self._console(block, machine)
        elif block.kind == "json":
            self._json(block, machine)
        elif block.kind == "sh project":
            self._scripts(block)

    @staticmethod
    def _commands(block, machine):
        status, printed = machine.run(block.text)
        if status != 0:
            raise Failure(f"status {status}\n" + "\n".join(printed))

    def _console(self, block, machine):
        for command, expected in console_steps(block):
            _, printed = machine.run(command)
            if self.show:
                print(f"{block.where}\n$ {command}\n" + "\n".join(printed) + "\n")
            elif not matches(expected, printed):
                raise Failure(f"$ {command}\nprints\n" + "\n".join(printed) + "\nwhere is expected\n" + "\n".join(expected))

    def _json(self, block, machine):
        value = json.loads(block.text)
        if "operator" in value:
            self.answer = machine.ask(block.text)
            if self.show:
                print(f"{block.where}\n{json.dumps(self.answer)}\n")
            if "error" in self.answer:
                raise Failure(f"answered with {self.answer['error']}")
        elif "kind" in value:
            machine.store(json.dumps(value))
        elif value != self.answer and not self.show:
            raise Failure(f"the request before it is answered\n{json.dumps(self.answer)}")

    def _scripts(self, block):
        help_of = {name: subprocess.run([f"./{name}", "--help"], cwd=self.root, text=True, capture_output=True, check=True).stdout
                   for name in ("test", "run")}
        with open(os.path.join(self.root, "CMakePresets.json"), encoding="utf-8") as stream:
            presets = {preset["name"] for preset in json.load(stream)["configurePresets"]}
        for script, option in re.findall(r"\./(test|run) (--[a-z]+)", block.text):
            if option not in help_of[script]:
                raise Failure(f"./{script} has no option {option}")
        for preset in re.findall(r"--preset (\S+)", block.text):
            if preset not in presets:
                raise Failure(f"there is no preset {preset}")

    def _records(self):
        """The records of docs/records.md, one a line."""
        blocks = blocks_of("docs/records.md", self._text("docs/records.md"))
        return "".join(block.text + "\n" for block in blocks if block.kind == "json")

    def _text(self, page):
        with open(os.path.join(self.root, page), encoding="utf-8") as stream:
            return stream.read()


def main():
    show = "--show" in sys.argv
    arguments = [argument for argument in sys.argv[1:] if argument != "--show"]
    examples = Examples(arguments[0], arguments[1], show)
    for page in arguments[2:] or PAGES:
        examples.page(page)
    print(", ".join(f"{count} {kind}" for kind, count in sorted(examples.counts.items())))
    for failure in examples.failures:
        print(failure, file=sys.stderr)
    return 1 if examples.failures else 0


if __name__ == "__main__":
    sys.exit(main())
