#!/usr/bin/env python3
"""Whether the documents name what programs rely on: error codes, exit statuses, pages, headers of the SDK.

    check_reference.py ROOT
"""
import os
import re
import sys

from run_examples import PAGES


def read(root, name):
    with open(os.path.join(root, name), encoding="utf-8") as stream:
        return stream.read()


def sources(root, folder):
    for path, _, names in os.walk(os.path.join(root, folder)):
        for name in sorted(names):
            if name.endswith((".cpp", ".h")):
                yield os.path.relpath(os.path.join(path, name), root)


def codes_of_problems(root):
    """What `code` of a problem document may be: the statuses' own, and what is told more exactly."""
    own = re.findall(r'Status\{\d+, "[^"]*", "(\w+)"\}', read(root, "qor/agent/api/AgentProblem.cpp"))
    told = [code for name in sources(root, "qor/agent") for value in re.findall(r"\.code = ([^,}]*)", read(root, name))
            for code in re.findall(r'"(\w+)"', value)]
    return sorted(set(own + told) - {"error"})


def exit_statuses(root):
    enumeration = re.search(r"enum class CtlExit : int \{(.*?)\};", read(root, "qor/ctl/process/CtlError.h"), re.DOTALL)
    return re.findall(r"= (\d+),", enumeration.group(1))


def main():
    root = sys.argv[1]
    missing = []
    http = read(root, "docs/http.md")
    codes = codes_of_problems(root)
    missing += [f"docs/http.md does not tell of the code {code}" for code in codes if f"`{code}`" not in http]
    sentence = re.search(r"^Exit status: (.*)$", read(root, "README.md"), re.MULTILINE)
    told = re.findall(r"\b(\d+)\b", sentence.group(1)) if sentence else []
    statuses = exit_statuses(root)
    missing += [f"README.md does not tell of the exit status {status}" for status in statuses if status not in told]
    front = read(root, "README.md")
    pages = [page for page in PAGES if page.startswith("docs/")]
    missing += [f"README.md has no link to {page}" for page in pages if f"({page}" not in front]
    missing += [f"{name} is no page of run_examples.py" for name in sorted(os.listdir(os.path.join(root, "docs")))
                if name.endswith(".md") and f"docs/{name}" not in PAGES]
    installed = re.findall(r"^  (\S+\.h)\)?$", read(root, "packaging/sdk-headers.cmake"), re.MULTILINE)
    guide = re.findall(r"^\| `(\S+\.h)` \|", read(root, "docs/plugins.md"), re.MULTILINE)
    missing += [f"docs/plugins.md and the SDK differ in the header {header}" for header in sorted(set(installed) ^ set(guide))]
    if len(codes) < 20 or len(statuses) < 5:
        missing.append("codes and statuses are not found where they were")
    print(f"{len(codes)} codes, {len(statuses)} exit statuses, {len(pages)} pages")
    for one in missing:
        print(one, file=sys.stderr)
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
