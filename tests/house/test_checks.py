#!/usr/bin/env python3
"""The checks of this folder find what they are there for: each is let loose on a small tree with one planted fault."""
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.append(str(Path(__file__).parents[2] / "scripts"))
import check_binaries
import check_layers
import check_sources
import check_switches
import reference_comments

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

    def test_exports_tell_missing_and_new_symbols(self):
        tree = self.tree({"list.txt": "kept\ngone\n"})
        real, check_binaries.exported_symbols = check_binaries.exported_symbols, lambda library: ["kept", "new"]
        self.addCleanup(setattr, check_binaries, "exported_symbols", real)
        found = check_binaries.check_exports("library", str(tree / "list.txt"))
        self.assertEqual([line for line in found if line[1:] in ("kept", "gone", "new")], ["-gone", "+new"])


    def test_comments_become_documentation(self):
        header = """\
// The heap of <a> host.
#pragma once

// Stands alone.

// Moves a block.
// from, to  where it is
//           and goes
// size      unlike these two; not an argument
// Returns `true` for a move.
bool move(void* from, void* to);
bool move_back(void* from, void* to);
struct PAIR {
    PAIR(const PAIR&);
    int first;  // of `two`
                // numbers
    // Both at once.
    int sum() { return first;
    }
    int difference();
};
"""
        shown = list(reference_comments.Header(header.splitlines()).shown())
        self.assertEqual(len(shown), header.count("\n"))
        self.assertEqual(shown[:4], ["/// The heap of \\<a\\> host.", "/// \\file", "", "// Stands alone."])
        self.assertEqual(shown[6:8], ["/// \\param from,to where it is", "///           and goes"])
        self.assertTrue(shown[8].endswith("size      unlike these two; not an argument"))
        self.assertEqual(shown[9], "/// \\return `true` for a move.")
        self.assertRegex(shown[11], r"^/\*\* Moves a block.*\\param from,to .*\*/ bool move_back\(")
        self.assertEqual(shown[13:16], ["", "    int first;  ///< of `two`", "                ///< numbers"])
        self.assertEqual(shown[16:19], ["/// Both at once.", *header.splitlines()[17:19]])
        self.assertEqual(shown[19], "/** Both at once. */     int difference();")

    def test_switches(self):
        records = "variable  MEM_A\nkey       mem_a\ntext      it; b\nfile      r.TAG.log\n\nkey mem_n\ndefault 7\ntext n\n"
        readme = "| variable | key | what it brings |\n|---|---|---|\n\n| number | key | default |\n|---|---|---|\n"
        tree = self.tree({"docs/switches.txt": records, "README.md": readme, "vbx/mem/a.cpp": 'f("MEM_A", "mem_a", "mem_b");',
                          "vbx/mem/mem_tbb_tracker/state/settings.h": "int MEM_DEFAULT_N = 7;\n"})
        found = list(check_switches.check_names(tree, list(check_switches.read_records(tree))))
        self.assertEqual([line.split(":")[0] for line in found], ["mem_b", "mem_n"])
        self.assertEqual(len(list(check_switches.check_readme(tree, list(check_switches.read_records(tree))))), 3)
        fixed = check_switches.with_tables(readme, list(check_switches.read_records(tree)))
        self.assertIn("| `MEM_A` | `mem_a` | it; b; `r.TAG.log` |\n", fixed)
        self.assertIn("| | `mem_n` | 7: n |\n", fixed)


if __name__ == "__main__":
    unittest.main()
