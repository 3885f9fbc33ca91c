"""Every row of docs/compatibility.md has its mark in the code and its test, and every mark has its row."""

import argparse
import pathlib
import re

import house

ROW = re.compile(r"^\| (?P<name>[^|]+?) \| (?P<cells>.+) \|$", flags=re.MULTILINE)
# `seconds, not milliseconds: compatibility, whole seconds` ends its line, or its comment.
MARK = re.compile(r"compatibility, (?P<name>.+?)(?: \*/)?$", flags=re.MULTILINE)
TEST = re.compile(r"^TEST(?:_F|_P)?\((\w+), (\w+)\)", flags=re.MULTILINE)

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
arguments = parser.parse_args()
tree = pathlib.Path(arguments.tree)


def rows(text):
    """By their names: the file that each row names, and its test."""
    found = {}
    for row in ROW.finditer(text):
        name, cells = row["name"], row["cells"].split(" | ")
        if name == "Name" or name.startswith("---"):
            continue
        if len(cells) != 4:
            house.fail(f"the row '{name}' has {len(cells) + 1} cells, not 5")
        if name in found:
            house.fail(f"two rows have the name '{name}'")
        found[name] = re.search(r"`([^`]+)`", cells[1])[1], re.fullmatch(r"`(.+)`", cells[3])[1]
    return found


def marks():
    """The files that point to each row."""
    found = {}
    for folder in ("lib", "boards"):
        for path in tree.glob(f"{folder}/**/*.*"):
            for mark in MARK.finditer(path.read_text()):
                found.setdefault(mark["name"], set()).add(str(path.relative_to(tree)))
    return found


def tests():
    sources = tree.glob("tests/**/*_test.cc")
    return {f"{suite}.{name}" for path in sources for suite, name in TEST.findall(path.read_text())}


table = rows((tree / "docs/compatibility.md").read_text())
marked = marks()
existing = tests()
for name in sorted(marked.keys() - table.keys()):
    house.fail(f"{', '.join(sorted(marked[name]))}: the mark 'compatibility, {name}' has no row")
for name, (path, test) in table.items():
    if path not in marked.get(name, ()):
        house.fail(f"{path} has no mark 'compatibility, {name}'")
    if test not in existing:
        house.fail(f"the test of '{name}' does not exist: {test}")
if not table:
    house.fail("the table is empty")
