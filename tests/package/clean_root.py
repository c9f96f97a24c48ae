#!/usr/bin/env python3
"""Makes a folder the root of a small Debian system, of what is installed here: no network is asked.

    clean_root.py ROOT PACKAGE.deb...

Holds the essential packages and those that the given ones need, which are left to be installed. Packages are unpacked
from this machine's own files and then configured there by dpkg, so that their scripts do what they do anywhere.
Needs root.
"""
import os
import re
import subprocess
import sys
from pathlib import Path

DPKG = Path("var/lib/dpkg")


def output(*command, **more):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, **more).stdout


def installed():
    """Name to stanza of the packages of this machine's own architecture, or of any."""
    stanzas = {}
    for text in Path("/", DPKG, "status").read_text(errors="replace").split("\n\n"):
        fields = dict(re.findall(r"^([\w-]+): (.*)$", text, re.MULTILINE))
        if fields.get("Status", "").endswith(" ok installed"):
            stanzas.setdefault(fields["Package"], (fields, text))
    return stanzas


def names(relation):
    """The alternatives of each part of a relation, without versions and architectures."""
    for part in filter(None, (part.strip() for part in relation.split(","))):
        yield [re.split(r"[\s:(\[]", name.strip())[0] for name in part.split("|")]


def closure(stanzas, wanted):
    providers = {}
    for name, (fields, _) in stanzas.items():
        for alternatives in names(fields.get("Provides", "")):
            providers.setdefault(alternatives[0], name)
    found, waiting = set(), list(wanted)
    while waiting:
        alternatives = waiting.pop()
        here = next((n for n in alternatives if n in stanzas), None) or next(
            (providers[n] for n in alternatives if n in providers), None)
        if here is None:
            sys.exit(f"clean_root.py: none of {', '.join(alternatives)} is installed here")
        if here not in found:
            found.add(here)
            fields = stanzas[here][0]
            waiting += names(fields.get("Pre-Depends", "") + "," + fields.get("Depends", ""))
    return found


def copy_files(root, stanzas, packages):
    # With the architecture, where a package of another one may be installed beside it.
    named = [f"{name}:{stanzas[name][0]['Architecture']}" if stanzas[name][0].get("Multi-Arch") == "same" else name
             for name in packages]
    files = {line[1:] for line in output("dpkg", "-L", *named).splitlines() if line.startswith("/")}
    files |= {"usr/bin/awk", "etc/alternatives/awk", "etc/ld.so.conf"}  # which scripts need before they are made
    merged = [name for name in ("bin", "sbin", "lib", "lib32", "lib64", "libx32") if os.path.islink("/" + name)]
    for name in merged:  # no package brings these links
        target = os.readlink("/" + name)
        (root / target).mkdir(parents=True, exist_ok=True)
        (root / name).symlink_to(target)
    there = sorted(file for file in files - {"", ".", *merged} if os.path.lexists("/" + file))
    archive = subprocess.Popen(["tar", "-C", "/", "--no-recursion", "-c", "-T", "-"],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    unpack = subprocess.Popen(["tar", "-C", root, "-x", "--keep-directory-symlink"], stdin=archive.stdout)
    archive.stdin.write("\n".join(there).encode())
    archive.stdin.close()
    # 1 is what it says of folders such as /tmp, which others use meanwhile; what packages bring does not change.
    if archive.wait() > 1 or unpack.wait():
        sys.exit("clean_root.py: files could not be copied")


def copy_state(root, stanzas, packages):
    info = root / DPKG / "info"
    info.mkdir(parents=True, exist_ok=True)
    for name in packages:
        multiarch = f"{name}:{stanzas[name][0]['Architecture']}"
        for file in Path("/", DPKG, "info").glob(f"{name}[.:]*"):
            if file.name.rsplit(".", 1)[0] in (name, multiarch):
                (info / file.name).write_bytes(file.read_bytes())
                (info / file.name).chmod(file.stat().st_mode)
    status = "\n\n".join(stanzas[name][1] for name in sorted(packages))
    (root / DPKG / "status").write_text(status.replace(" ok installed", " ok unpacked") + "\n")
    (root / DPKG / "info/format").write_text("1\n")


def main():
    os.umask(0o022)
    root, debs = Path(sys.argv[1]), sys.argv[2:]
    root.mkdir(mode=0o755)
    stanzas = installed()
    own = {output("dpkg-deb", "-f", deb, "Package").strip() for deb in debs}
    wanted = [[name] for name, (fields, _) in stanzas.items() if fields.get("Essential") == "yes"]
    for deb in debs:
        wanted += [part for part in names(output("dpkg-deb", "-f", deb, "Depends")) if not own & set(part)]
    packages = closure(stanzas, wanted)
    copy_files(root, stanzas, packages)
    copy_state(root, stanzas, packages)
    for folder in ("dev", "proc", "sys", "run", "tmp", "root", "var/log", "var/cache/ldconfig", "var/lib/dpkg/updates"):
        (root / folder).mkdir(parents=True, exist_ok=True)
    (root / "tmp").chmod(0o1777)
    for name in ("passwd", "group"):
        (root / "etc" / name).write_bytes(Path("/usr/share/base-passwd", name + ".master").read_bytes())


if __name__ == "__main__":
    main()
