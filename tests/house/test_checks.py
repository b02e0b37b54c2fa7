#!/usr/bin/env python3
"""The checks of this folder find what they are there for: each is let loose on a small tree with one planted fault."""
import sys
import tempfile
import unittest
from pathlib import Path

import check_layers
import check_sources

README = "order:\n```\nvbx/platform/os   below\nvbx/mem/base      middle\nvbx/mem           top\n```\n"
CLEAN = {
    "vbx/README.md": README,
    "include/vbx/mem.h": "#include <vbx/part.h>\n",
    "include/vbx/part.h": "",
    "vbx/platform/os/clock.h": "#include <ctime>\n",
    "vbx/mem/base/lock.h": '#include "vbx/platform/os/clock.h"\n',
    "vbx/mem/start.cpp": '#include "vbx/mem/base/lock.h"\n#include <vbx/mem.h>\n',
}


class Checks(unittest.TestCase):
    def tree(self, changes):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        for path, text in {**CLEAN, **changes}.items():
            file = Path(folder.name) / path
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_text(text)
        return Path(folder.name)

    def test_layers(self):
        self.assertEqual(check_layers.check(self.tree({})), [])
        faults = [
            ({"vbx/platform/os/clock.h": '#include "vbx/mem/base/lock.h"\n'}, "stands above it"),
            ({"vbx/mem/base/lock.h": '#  include "../start.h"\n', "vbx/mem/start.h": ""}, "stands above it"),
            ({"include/vbx/part.h": '#include "vbx/mem/base/lock.h"\n'}, "stands above it"),
            ({"vbx/mem/base/lock.h": '#include "rank.h"\n', "vbx/mem/base/rank.h": '#include "lock.h"\n'}, "circle"),
            ({"vbx/mem/extra/new.cpp": ""}, "not listed"),
            ({"vbx/platform/extra/new.cpp": ""}, "not listed"),
        ]
        for changes, message in faults:
            with self.subTest(changes):
                found = check_layers.check(self.tree(changes))
                self.assertTrue(any(message in line for line in found), found)

    def test_sources(self):
        folder = "/" + "home" + "/someone"
        tree = self.tree({"vbx/long.cpp": "\n" * (check_sources.LONGEST_FILE + 1), "docs/paths.md": f"see {folder}/notes\n",
                          "build/generated.cpp": f"// {folder}\n" * 1000})
        self.assertEqual([line.split(":")[0] for line in check_sources.check_size(tree)], ["vbx/long.cpp"])
        self.assertEqual([line.split(":")[0] for line in check_sources.check_paths(tree)], ["docs/paths.md"])


if __name__ == "__main__":
    unittest.main()
