"""Arrows between modules go one way: each includes only headers of those listed before it in CMakeLists.txt."""

import argparse
import pathlib
import re

import house

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("modules", nargs="+")
arguments = parser.parse_args()

lib = pathlib.Path(arguments.tree, "lib")
for kind in (".h", ".cc"):
    found = {path.stem for path in lib.glob(f"*{kind}")}
    if found != set(arguments.modules):
        unlisted, absent = found - set(arguments.modules), set(arguments.modules) - found
        house.fail(f"APBASE_MODULES and lib/*{kind} differ: unlisted {sorted(unlisted)}, absent {sorted(absent)}")


def included(path, seen):
    """The modules whose headers `path` includes, directly or through others."""
    for name in re.findall(r'^#include "(.*)"', path.read_text(), flags=re.MULTILINE):
        header = (path.parent / name).resolve()
        if header not in seen:
            seen.add(header)
            included(header, seen)
    return {header.stem for header in seen if header.parent == lib.resolve()}


for index, module in enumerate(arguments.modules):
    for kind in (".h", ".cc"):
        for other in included(lib / f"{module}{kind}", set()):
            if arguments.modules.index(other) > index:
                house.fail(f"lib/{module}{kind} uses {other}, which comes after it in APBASE_MODULES")
