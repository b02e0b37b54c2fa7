"""Programs of the system with inputs that are the same each time, each about two seconds of work by default."""
import shutil

PYTHON = """\
import json, sys
class NODE:
    def __init__(self, name, children):
        self.name, self.children = name, children
def tree(depth, name):
    return NODE(name, [tree(depth - 1, f"{name}.{i}") for i in range(4)] if depth else [])
def weight(node):
    return len(node.name) + sum(weight(child) for child in node.children)
total = 0
for step in range(int(sys.argv[1])):
    words = [f"word{(i * 7919 + step) % 5003}" for i in range(20000)]
    counts = {}
    for word in words:
        counts[word] = counts.get(word, 0) + 1
    index = {word: [i, str(i), {"count": count}] for i, (word, count) in enumerate(sorted(counts.items()))}
    total += len(json.loads(json.dumps(index))) + weight(tree(6, "t"))
print(total)
"""
SQL = """\
PRAGMA temp_store = MEMORY;
CREATE TABLE item(id INTEGER PRIMARY KEY, name TEXT, price REAL, kind INTEGER);
WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < {rows})
INSERT INTO item SELECT i, 'item ' || (i * 7919 % 1000003), i * 0.25, i % 97 FROM n;
CREATE INDEX by_name ON item(name);
CREATE INDEX by_kind ON item(kind, price);
SELECT kind, count(*), sum(price), group_concat(substr(name, 6, 2)) FROM item GROUP BY kind ORDER BY 3 DESC LIMIT 5;
SELECT count(*) FROM item a JOIN item b ON b.name = 'item ' || a.id WHERE a.kind = 5;
SELECT count(DISTINCT lower(name) || kind) FROM item;
"""
XML = """\
<item id='{i}' kind='k{kind}'><name>item {name}</name><price currency='EUR'>{i}</price><!-- {i} -->
<note>some <b>bold</b> text &amp; more</note></item>
"""
CPP_HEAD = """\
#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>
template <int N> struct BOX {
    std::map<int, std::vector<std::string>> words;
    std::unordered_map<std::string, BOX*> by_name;
    int id[N + 1];
};
"""
CPP_USE = """\
int use{i}(const std::string& text) {{
    BOX<{i}> box;
    auto& words = box.words[{i}];
    words.push_back(text);
    box.by_name[text] = &box;
    std::sort(words.begin(), words.end(), [](auto& a, auto& b) {{ return a.size() < b.size(); }});
    return static_cast<int>(box.words.size()) + box.id[{i}];
}}
"""


def python3(program, folder, scale):
    script = folder / "objects.py"
    script.write_text(PYTHON)
    return [program, str(script), str(max(1, int(28 * scale)))]


def sqlite3(program, folder, scale):
    script = folder / "items.sql"
    script.write_text(SQL.format(rows=max(100, int(400000 * scale))))
    return [program, ":memory:", f".read {script}"]


def xmllint(program, folder, scale):
    """Four documents, one after the other: the memory of each comes back before the next."""
    document = folder / "items.xml"
    items = (XML.format(i=i, kind=i % 97, name=i * 7919 % 1000003) for i in range(max(10, int(100000 * scale))))
    document.write_text(f"<?xml version='1.0'?>\n<catalogue>\n{''.join(items)}</catalogue>\n")
    return [program, "--xpath", "count(//item[@kind='k5'])", *[str(document)] * 4]


def clang(program, folder, scale):
    """The driver compiles in its own process."""
    source = folder / "boxes.cpp"
    source.write_text(CPP_HEAD + "".join(CPP_USE.format(i=i) for i in range(int(5 * scale))))
    return [program, "-std=c++17", *(["-O1", "-S", "-o", "-"] if scale >= 1 else ["-fsyntax-only"]), str(source)]


def real_programs(folder, scale):
    """(name, command or None when it isn't installed) of each."""
    for make in (python3, sqlite3, xmllint, clang):
        # Not by the PATH of the caller: what stands in front there may be a script that starts the program.
        program = shutil.which(make.__name__, path="/usr/bin:/bin:/usr/local/bin")
        yield make.__name__, program and make(program, folder, scale)
