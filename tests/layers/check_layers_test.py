#!/usr/bin/env python3
"""The check of layers on small made-up trees: each breach is found, and nothing else is."""
import os
import tempfile
import unittest

import check_layers

LOWER = {"qor/libs/low/Low.h": "", "qor/libs/low/Low.cpp": '#include "low/Low.h"\n'}
UPPER = {"qor/upper/Up.h": "", "qor/upper/Up.cpp": '#include "upper/Up.h"\n#include "low/Low.h"\n'}


class Tree:
    """A project of the given files, and the list that CMake would write of it."""

    def __init__(self, root, files):
        self.root = root
        for name, text in files.items():
            path = os.path.join(self.root, name)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "w", encoding="utf-8") as stream:
                stream.write(text)
        self.lines = []

    def target(self, name, folder, sources, kind="STATIC_LIBRARY", **links):
        self.lines.append(f"target {name} {kind} {self.root}/{folder}")
        self.lines += [f"source {name} {self.root}/{folder}/{source}" for source in sources]
        self.lines += [f"links {name} {library} {reach}" for library, reach in links.items()]
        return self

    def complaints(self):
        return [text.replace(self.root + "/", "") for text in check_layers.check(self.lines, self.root)]


class LayerTest(unittest.TestCase):
    def tree(self, files):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        return Tree(os.path.realpath(folder.name), files)

    def test_what_is_linked_may_be_included(self):
        tree = self.tree({**LOWER, **UPPER})
        tree.target("low", "qor/libs/low", ["Low.cpp"]).target("upper", "qor/upper", ["Up.cpp"], low="private")
        self.assertEqual(tree.complaints(), [])

    def test_what_is_not_linked_may_not(self):
        tree = self.tree({**LOWER, **UPPER})
        tree.target("low", "qor/libs/low", ["Low.cpp"]).target("upper", "qor/upper", ["Up.cpp"])
        self.assertEqual(tree.complaints(),
                         ["qor/upper/Up.cpp (upper) includes qor/libs/low/Low.h (low), which upper does not link"])

    def test_what_comes_only_through_another_library_may_not(self):
        tree = self.tree({**LOWER, **UPPER, "qor/top/Top.cpp": '#include "upper/Up.h"\n#include "low/Low.h"\n'})
        tree.target("low", "qor/libs/low", ["Low.cpp"]).target("upper", "qor/upper", ["Up.cpp"], low="public")
        tree.target("top", "qor/top", ["Top.cpp"], upper="private")
        self.assertEqual(tree.complaints(),
                         ["qor/top/Top.cpp (top) includes qor/libs/low/Low.h (low), which top does not link"])

    def test_a_library_without_sources_offers_what_it_is_made_of(self):
        tree = self.tree({**LOWER, **UPPER})
        tree.target("low", "qor/libs/low", ["Low.cpp"]).target("all", "qor/libs", [], "SHARED_LIBRARY", low="private")
        tree.target("upper", "qor/upper", ["Up.cpp"], all="private")
        self.assertEqual(tree.complaints(), [])

    def test_a_header_that_others_include_needs_its_own_includes_linked_publicly(self):
        files = {**LOWER, "qor/upper/Up.h": '#include "low/Low.h"\n', "qor/upper/Up.cpp": '#include "upper/Up.h"\n',
                 "qor/top/Top.cpp": '#include "upper/Up.h"\n'}
        tree = self.tree(files)
        tree.target("low", "qor/libs/low", ["Low.cpp"]).target("upper", "qor/upper", ["Up.cpp"], low="private")
        tree.target("top", "qor/top", ["Top.cpp"], upper="private")
        self.assertEqual(tree.complaints(), ["qor/upper/Up.h (upper) includes qor/libs/low/Low.h (low), which upper links "
                                             "privately, and other targets include this header"])

    def test_a_link_that_serves_nothing_is_named(self):
        tree = self.tree({**LOWER, "qor/upper/Up.cpp": ""})
        tree.target("low", "qor/libs/low", ["Low.cpp"]).target("upper", "qor/upper", ["Up.cpp"], low="public")
        self.assertEqual(tree.complaints(), ["upper links low and includes nothing of it"])

    def test_objects_that_a_linked_library_needs_may_be_linked_beside_it(self):
        tree = self.tree({**LOWER, **UPPER, "qor/top/Top.cpp": '#include "upper/Up.h"\n'})
        tree.target("low", "qor/libs/low", ["Low.cpp"], "OBJECT_LIBRARY")
        tree.target("upper", "qor/upper", ["Up.cpp"], "OBJECT_LIBRARY", low="public")
        tree.target("top", "qor/top", ["Top.cpp"], upper="private", low="private")
        self.assertEqual(tree.complaints(), [])

    def test_a_circle_is_named(self):
        tree = self.tree({**LOWER, **UPPER, "qor/libs/low/Low.cpp": '#include "upper/Up.h"\n'})
        tree.target("low", "qor/libs/low", ["Low.cpp"], upper="private")
        tree.target("upper", "qor/upper", ["Up.cpp"], low="private")
        self.assertEqual(tree.complaints(), ["targets link in a circle: low -> upper -> low"])

    def test_a_header_between_two_targets_has_to_be_listed(self):
        files = {"qor/both/One.cpp": "", "qor/both/Two.cpp": "", "qor/both/Shared.h": ""}
        tree = self.tree(files).target("one", "qor/both", ["One.cpp"]).target("two", "qor/both", ["Two.cpp"])
        self.assertEqual(len(tree.complaints()), 1)
        listed = self.tree(files).target("one", "qor/both", ["One.cpp", "Shared.h"]).target("two", "qor/both", ["Two.cpp"])
        self.assertEqual(listed.complaints(), [])

    def test_a_source_that_nothing_is_built_from_is_named(self):
        tree = self.tree({**LOWER, "qor/libs/low/Lost.cpp": ""}).target("low", "qor/libs/low", ["Low.cpp"])
        self.assertEqual(tree.complaints(), ["qor/libs/low/Lost.cpp: no target is built from it"])


if __name__ == "__main__":
    unittest.main()
