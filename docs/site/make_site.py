#!/usr/bin/env python3
"""Makes a site of the project's pages, which are plain Markdown wherever they lie.

    make_site.py ROOT FOLDER

The site is FOLDER/site, to be read from there or served by anything that serves files. A link that leads nowhere, a page
that is in no menu, or one in a menu that is not there are errors.
"""
import os
import re
import shutil
import subprocess
import sys
from html.parser import HTMLParser
from urllib.parse import unquote, urlsplit


class Page(HTMLParser):
    """What a page can be linked at, and what it links to."""

    def __init__(self, file):
        super().__init__()
        self.places, self.links = set(), []
        with open(file, encoding="utf-8") as stream:
            self.feed(stream.read())

    def handle_starttag(self, tag, attrs):
        attributes = dict(attrs)
        self.places.add(attributes.get("id"))
        if tag == "a" and attributes.get("href"):
            self.links.append(attributes["href"])


def dead_links(site):
    pages = {}
    for folder, _, names in os.walk(site):
        for name in names:
            if name.endswith(".html"):
                file = os.path.join(folder, name)
                pages[file] = Page(file)
    for file, page in sorted(pages.items()):
        for link in page.links:
            parts = urlsplit(link)
            if parts.scheme or parts.netloc or file.endswith(("404.html", "search.html")):
                continue
            target = os.path.normpath(os.path.join(os.path.dirname(file), unquote(parts.path))) if parts.path else file
            if not os.path.exists(target):
                yield f"{os.path.relpath(file, site)}: there is no {link}"
            elif parts.fragment and target in pages and unquote(parts.fragment) not in pages[target].places:
                yield f"{os.path.relpath(file, site)}: {link} leads to no place of that page"


def project_files(root):
    """Pages, and what they link to."""
    for folder in ("", "docs", "bench", "bench/filter", "fuzz", "examples/clients", "examples/operator", "examples/collector",
                   "examples/log-source"):
        for name in sorted(os.listdir(os.path.join(root, folder))):
            file = os.path.join(folder, name)
            if name.endswith(".md") or (folder.startswith("examples") and os.path.isfile(os.path.join(root, file))):
                yield file


def copy(source, target):
    """How an example is run (`sh installed`) is nothing to be shown."""
    if not source.endswith(".md"):
        shutil.copyfile(source, target)
        return
    with open(source, encoding="utf-8") as stream:
        text = stream.read()
    with open(target, "w", encoding="utf-8") as stream:
        stream.write(re.sub(r"^(\s*```+)(\w+) [\w ]+$", r"\1\2", text, flags=re.MULTILINE))


def main():
    root, folder = sys.argv[1:]
    pages = os.path.join(folder, "pages")
    shutil.rmtree(pages, ignore_errors=True)
    for name in project_files(root):
        os.makedirs(os.path.dirname(os.path.join(pages, name)), exist_ok=True)
        copy(os.path.join(root, name), os.path.join(pages, name))
    shutil.copyfile(os.path.join(root, "docs/site/mkdocs.yml"), os.path.join(folder, "mkdocs.yml"))
    done = subprocess.run(["mkdocs", "build", "--clean", "--strict", "--config-file", os.path.join(folder, "mkdocs.yml")],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    mistakes = [done.stdout] if done.returncode != 0 else list(dead_links(os.path.join(folder, "site")))
    if "not included in the \"nav\"" in done.stdout:
        mistakes.append(done.stdout)
    for mistake in mistakes:
        print(mistake, file=sys.stderr)
    if not mistakes:
        print(os.path.join(folder, "site", "index.html"))
    return 1 if mistakes else 0


if __name__ == "__main__":
    sys.exit(main())
