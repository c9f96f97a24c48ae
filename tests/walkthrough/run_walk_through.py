#!/usr/bin/env python3
"""Walks CONTRIBUTING.md's walk-throughs: applies their patches to a copy of the project, builds it, and looks.

    run_walk_through.py ROOT FOLDER

The page's ```diff blocks are patches of the project, its ```sh walk and ```console walk blocks what is done with the
patched copy, all in their order. The copy stays in FOLDER, and files that are as they were keep their times, so that the
next walk builds only what changed. The lines around a patch have to be there as they are: who changes those changes the
patch too.
"""
import filecmp
import os
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", "docs"))
from run_examples import blocks_of, console_steps, matches  # noqa: E402


def project_files(root):
    listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=root,
                            stdout=subprocess.PIPE, check=True, text=True).stdout
    return [name for name in listed.split("\0") if name and os.path.isfile(os.path.join(root, name))]


def copy_files(names, source, target):
    for name in names:
        os.makedirs(os.path.dirname(os.path.join(target, name)), exist_ok=True)
        shutil.copy2(os.path.join(source, name), os.path.join(target, name))


def files_below(folder):
    for path, folders, names in os.walk(folder):
        if path == folder and "build" in folders:
            folders.remove("build")
        yield from (os.path.relpath(os.path.join(path, name), folder) for name in names)


def bring_up_to_date(copy, wanted):
    """Makes `copy` as `wanted` is, but for its build folder, and leaves alone what is the same."""
    for name in set(files_below(copy)) - set(files_below(wanted)):
        os.remove(os.path.join(copy, name))
    for name in files_below(wanted):
        theirs, ours = os.path.join(wanted, name), os.path.join(copy, name)
        if not os.path.exists(ours) or not filecmp.cmp(theirs, ours, shallow=False):
            os.makedirs(os.path.dirname(ours), exist_ok=True)
            shutil.copy(theirs, ours)


def run(command, folder):
    done = subprocess.run(["bash", "-euo", "pipefail", "-c", command], cwd=folder, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    print(f"$ {command}\n{done.stdout}", flush=True)
    return done


def apply_patches(blocks, folder):
    for block in blocks:
        done = subprocess.run(["patch", "-p1", "--fuzz=0", "--no-backup-if-mismatch"], cwd=folder, input=block.text + "\n",
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            sys.exit(f"{block.where}: the patch does not fit\n{done.stdout}")


def walk(blocks, copy):
    for block in blocks:
        if block.kind == "sh walk" and run(block.text, copy).returncode != 0:
            sys.exit(f"{block.where}: failed")
        for command, expected in console_steps(block) if block.kind == "console walk" else []:
            printed = [line.rstrip() for line in run(command, copy).stdout.splitlines()]
            if not matches(expected, printed):
                sys.exit(f"{block.where}: expected\n" + "\n".join(expected))


def main():
    root, folder = map(os.path.realpath, sys.argv[1:3])
    with open(os.path.join(root, "CONTRIBUTING.md"), encoding="utf-8") as stream:
        blocks = blocks_of("CONTRIBUTING.md", stream.read())
    patches = [block for block in blocks if block.kind == "diff"]
    steps = [block for block in blocks if block.kind.endswith(" walk")]
    if not patches or not steps:
        sys.exit("CONTRIBUTING.md has no walk-through")
    with tempfile.TemporaryDirectory() as wanted:
        copy_files(project_files(root), root, wanted)
        apply_patches(patches, wanted)
        os.makedirs(folder, exist_ok=True)
        bring_up_to_date(folder, wanted)
    walk(steps, folder)


if __name__ == "__main__":
    main()
