#!/usr/bin/env python3
"""Checks that each layer includes only what its CMakeLists.txt names.

    check_layers.py LIST ROOT

LIST is what cmake/QORLayerList.cmake writes, ROOT the project's folder. A file below qor/ belongs to one target: a source
to the one that lists it, a header to the one that lists it or the source beside it, or else to the only target of the
nearest CMakeLists.txt above it. Then

- an include of another target's header needs that target among the libraries that the including one links itself;
- a header that other targets include may itself include only what its target links publicly;
- what a library links, it includes something of, or an object library that it links does: their objects go together;
- targets do not link in a circle.

Exit status 0 when all of it holds; otherwise each breach is a line on standard error.
"""
import os
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)


class Target:
    def __init__(self, name, kind, folder):
        self.name = name
        self.kind = kind  # as CMake calls it
        self.folder = folder
        self.sources = []
        self.links = {}  # library -> True when public


def read_list(lines):
    targets = {}
    for line in lines:
        words = line.split()
        if not words:
            continue
        if words[0] == "target":
            targets[words[1]] = Target(words[1], words[2], words[3])
        elif words[0] == "source":
            targets[words[1]].sources.append(words[2])
        else:
            targets[words[1]].links[words[2]] = words[3] == "public"
    for target in targets.values():
        target.links = {name: public for name, public in target.links.items() if name in targets}
    return targets


def source_files(root):
    for folder, _, names in os.walk(os.path.join(root, "qor")):
        for name in sorted(names):
            if name.endswith((".h", ".cpp")):
                yield os.path.join(folder, name)


def owners_of(files, targets, complaints):
    """Each file's target. A file of none or of several is a complaint."""
    listed = {source: target.name for target in targets.values() for source in target.sources}
    in_folder = {}
    for target in targets.values():
        in_folder.setdefault(target.folder, []).append(target.name)
    owners = {}
    for file in files:
        beside = file[:-2] + ".cpp" if file.endswith(".h") else file
        owner = listed.get(file) or listed.get(beside)
        if owner is None and file.endswith(".h"):
            folder = os.path.dirname(file)
            while folder not in in_folder and folder != os.path.dirname(folder):
                folder = os.path.dirname(folder)
            candidates = in_folder.get(folder, [])
            if len(candidates) == 1:
                owner = candidates[0]
            else:
                complaints.append(f"{file}: a header of no source, which of {', '.join(candidates) or 'none'} is it of? "
                                  f"Name it in that target's list of sources")
        if owner is None and file.endswith(".cpp"):
            complaints.append(f"{file}: no target is built from it")
        if owner is not None:
            owners[file] = owner
    return owners


def resolve(include, including, owners, roots):
    for folder in [os.path.dirname(including)] + roots:
        candidate = os.path.normpath(os.path.join(folder, include))
        if candidate in owners:
            return candidate
    return None


def includes_of(owners, roots):
    """(file, included file) for all includes between files of targets."""
    for file in sorted(owners):
        with open(file, encoding="utf-8") as stream:
            for include in INCLUDE.findall(stream.read()):
                found = resolve(include, file, owners, roots)
                if found is not None:
                    yield file, found


def offered_by(name, targets):
    """The targets whose headers come with one that is linked: a library without sources of its own offers its layers'."""
    target = targets[name]
    return {name} if target.sources else {name, *target.links}


def check_circles(targets, complaints):
    state = {}

    def visit(name, path):
        if state.get(name) == "done":
            return
        if name in path:
            complaints.append("targets link in a circle: " + " -> ".join(path[path.index(name):] + [name]))
            return
        for link in sorted(targets[name].links):
            visit(link, path + [name])
        state[name] = "done"

    for name in sorted(targets):
        visit(name, [])


def check(lines, root):
    complaints = []
    targets = read_list(lines)
    owners = owners_of(list(source_files(root)), targets, complaints)
    roots = [os.path.join(root, "qor", folder) for folder in ("libs", "plugins", "", "ctl")]
    includes = list(includes_of(owners, roots))
    shown = {included for file, included in includes if owners[file] != owners[included]}
    used = set()
    for file, included in includes:
        ours, theirs = owners[file], owners[included]
        if ours == theirs:
            continue
        by = [link for link in targets[ours].links if theirs in offered_by(link, targets)]
        used.update((ours, link) for link in by)
        where = f"{os.path.relpath(file, root)} ({ours}) includes {os.path.relpath(included, root)} ({theirs})"
        if not by:
            complaints.append(f"{where}, which {ours} does not link")
        elif file in shown and not any(targets[ours].links[link] for link in by):
            complaints.append(f"{where}, which {ours} links privately, and other targets include this header")
    for target in targets.values():
        if target.kind not in ("STATIC_LIBRARY", "OBJECT_LIBRARY"):
            continue  # programs, modules and libqor.so are what their layers are linked into
        for link in sorted(target.links):
            beside = any(targets[other].kind == "OBJECT_LIBRARY" and link in targets[other].links for other in target.links)
            if (target.name, link) not in used and not beside:
                complaints.append(f"{target.name} links {link} and includes nothing of it")
    check_circles(targets, complaints)
    return complaints


def main():
    with open(sys.argv[1], encoding="utf-8") as stream:
        complaints = check(stream, os.path.realpath(sys.argv[2]))
    for complaint in complaints:
        print(complaint, file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
