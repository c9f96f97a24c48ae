#!/usr/bin/env python3
"""Which lines and branches of qor/ the tests took.

    report.py BUILD ROOT

BUILD is a build folder of the preset "coverage" whose tests have run. Prints a table by folder and writes what was not
taken to BUILD/not-taken.txt. The sources that whole.txt lists must have all branches taken, each both ways, and all
functions called, but for the exceptions that it names. Exit status 1 when one is missing, or an exception is none.

The way past all cases of a switch is not counted: compilers see to it that a switch over an enumeration names all values.
"""
import fnmatch
import glob
import json
import os
import subprocess
import sys
from collections import defaultdict


class Rules:
    """whole.txt: `whole PATTERN`, and `except FILE | PATTERN OF THE LINE | true, false or call | REASON`."""

    def __init__(self, lines):
        self.patterns = []
        self.exceptions = []
        for line in lines:
            line = line.strip()
            if line.startswith("whole "):
                self.patterns.append(line[len("whole "):].strip())
            elif line.startswith("except "):
                file, text, way, reason = (part.strip() for part in line[len("except "):].split(" | "))
                if not reason:
                    raise ValueError(f"an exception without a reason: {line}")
                self.exceptions.append((file, text, way))
            elif line and not line.startswith("#"):
                raise ValueError(f"what is this line of whole.txt? {line}")

    def covers(self, file):
        return any(fnmatch.fnmatch(file, pattern) for pattern in self.patterns)

    def exceptions_for(self, file, text, way):
        return [one for one in self.exceptions
                if one[0] == file and one[2] == way and fnmatch.fnmatchcase(text, one[1])]


def export(build):
    profiles = glob.glob(f"{build}/profiles/*.profraw")
    subprocess.run(["llvm-profdata-14", "merge", "-sparse", "-o", f"{build}/tests.profdata", *profiles], check=True)
    binaries = [name for name in glob.glob(f"{build}/bin/*") + glob.glob(f"{build}/lib/libqor.so.*") +
                glob.glob(f"{build}/lib/qor/plugins/*.so") if not os.path.islink(name)]
    objects = [argument for name in sorted(binaries)[1:] for argument in ("-object", name)]
    text = subprocess.run(["llvm-cov-14", "export", f"-instr-profile={build}/tests.profdata", sorted(binaries)[0], *objects],
                          check=True, stdout=subprocess.PIPE).stdout
    return json.loads(text)["data"][0]


def branches_of(file, source):
    """(line, column) -> times taken, times not; of all instances of a template together."""
    found = defaultdict(lambda: [0, 0])
    for line, column, _, _, taken, other, *_ in file["branches"]:
        if not source[line - 1].strip().startswith("switch ("):
            found[line, column][0] += taken
            found[line, column][1] += other
    return found


def functions_of(data, root):
    """file -> line -> calls of the function that begins there, in whatever instance."""
    found = defaultdict(lambda: defaultdict(int))
    for function in data["functions"]:
        name = os.path.relpath(function["filenames"][0], root)
        found[name][function["regions"][0][0]] += function["count"]
    return found


def missing_of(branches, functions, source):
    """(line, column, text of the line, way) of what was not taken."""
    missing = []
    for (line, column), (taken, other) in sorted(branches.items()):
        text = source[line - 1].strip()
        missing += [(line, column, text, way) for way, count in (("true", taken), ("false", other)) if count == 0]
    missing += [(line, 1, source[line - 1].strip(), "call") for line, count in sorted(functions.items()) if count == 0]
    return missing


def print_table(rows):
    print(f"{'folder':<44} {'lines':>15} {'branches':>17}")
    for folder, counts in sorted(rows.items()):
        lines, taken_lines, branches, taken_branches = counts
        percent = lambda part, whole: 100.0 * part / whole if whole else 100.0
        print(f"{folder:<44} {taken_lines:>6}/{lines:<6} {percent(taken_lines, lines):5.1f} "
              f"{taken_branches:>6}/{branches:<6} {percent(taken_branches, branches):5.1f}")


def main():
    build, root = sys.argv[1], os.path.realpath(sys.argv[2])
    with open(os.path.join(os.path.dirname(os.path.realpath(__file__)), "whole.txt"), encoding="utf-8") as stream:
        rules = Rules(stream)
    data = export(build)
    functions = functions_of(data, root)
    rows = defaultdict(lambda: [0, 0, 0, 0])
    complaints, unused = [], set(rules.exceptions)
    with open(f"{build}/not-taken.txt", "w", encoding="utf-8") as listing:
        for file in sorted(data["files"], key=lambda one: one["filename"]):
            name = os.path.relpath(file["filename"], root)
            if not name.startswith("qor/"):
                continue
            with open(file["filename"], encoding="utf-8") as stream:
                source = stream.read().splitlines()
            branches = branches_of(file, source)
            missing = missing_of(branches, functions[name], source)
            lines = file["summary"]["lines"]
            ways = 2 * len(branches)
            counts = (lines["count"], lines["covered"], ways, ways - sum(1 for *_, way in missing if way != "call"))
            for folder in (os.path.dirname(name), "qor, all"):
                rows[folder] = [old + new for old, new in zip(rows[folder], counts)]
            for line, column, text, way in missing:
                listing.write(f"{name}:{line}:{column}: {way}: {text}\n")
                if rules.covers(name):
                    excepted = rules.exceptions_for(name, text, way)
                    unused.difference_update(excepted)
                    if not excepted:
                        complaints.append(f"{name}:{line}:{column}: never {'called' if way == 'call' else way}: {text}")
    print_table(rows)
    complaints += [f"whole.txt: an exception that is none: {' | '.join(one)}" for one in sorted(unused)]
    for complaint in complaints:
        print(complaint, file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
