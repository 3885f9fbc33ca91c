"""Checks the form of every C and C++ source with Debian 12's clang-format."""

import argparse
import pathlib
import re

import house

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
arguments = parser.parse_args()

tree = pathlib.Path(arguments.tree)
sources = sorted(
    path.relative_to(tree)
    for folder in ("lib", "boards", "standin", "tests", "examples", "bench")
    for path in (tree / folder).rglob("*")
    if path.suffix in (".c", ".cc", ".h")
)
if not any(path.parts[0] == "lib" for path in sources):
    house.fail("no sources found")
result = house.attempt(["clang-format-14", "--dry-run", "--Werror", *sources], cwd=tree)
if result.returncode != 0:
    print(result.stderr)
    badly = sorted(set(re.findall(r"^([^:\s]+):\d+:\d+: (?:error|warning)", result.stderr, flags=re.MULTILINE)))
    house.fail(f"clang-format-14 -i would change: {' '.join(badly)}")
print(f"{len(sources)} files")
