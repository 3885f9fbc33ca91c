"""Compares the names in the version map, in the public headers and in the built library.

The headers' functions are read from the compiler's own list of prototypes (gcc -aux-info), their objects
from the preprocessed text. With --self-test, checks that a name missing or added in any of the three is found.
"""

import argparse
import pathlib
import re
import tempfile

import house

VERSION = "APBASE_1"


def names_in_map(text):
    """The names that the map exports; they are listed one by one, without patterns."""
    text = re.sub(r"/\*.*?\*/", "", text, flags=re.DOTALL)
    match = re.fullmatch(rf"\s*{VERSION}\s*\{{\s*global:(.*?)local:\s*\*;\s*\}};\s*", text, flags=re.DOTALL)
    if not match:
        house.fail(f"the map is not of the form {VERSION} {{ global: names... local: *; }};")
    names = match[1].replace(";", " ; ").split()
    if names[1::2] != [";"] * (len(names) // 2) or len(names) % 2:
        house.fail("the map has something else than a name before a semicolon")
    names = names[::2]
    for name in names:
        if not re.fullmatch(r"[A-Za-z_]\w*", name):
            house.fail(f"the map has a pattern instead of a name: {name}")
        if names.count(name) > 1:
            house.fail(f"the map names {name} twice")
    return set(names)


def names_in_headers(headers, include, system_includes, compiler):
    """Functions and objects with external linkage declared by `headers`, system headers left aside."""
    folder = str(pathlib.Path(headers[0]).parent)
    program = "".join(f'#include "{header}"\n' for header in headers)
    with tempfile.TemporaryDirectory() as scratch:
        source = pathlib.Path(scratch, "headers.c")
        prototypes = pathlib.Path(scratch, "prototypes")
        source.write_text(program)
        flags = ["-std=c11", "-D_DEFAULT_SOURCE", f"-I{include}", *(f"-isystem{folder}" for folder in system_includes)]
        house.run(
            [compiler, *flags, "-fsyntax-only", "-aux-info", prototypes, source],
            "the public headers do not compile together",
        )
        preprocessed = house.run([compiler, *flags, "-E", source], "the public headers cannot be preprocessed")
        listed = prototypes.read_text()

    names = set()
    for place, declaration in re.findall(r"^/\* (.*?):\d+:\w+ \*/ (.*)$", listed, flags=re.MULTILINE):
        if str(pathlib.Path(place).parent) != folder or not declaration.startswith("extern "):
            continue
        match = re.match(r"extern [\w\s*]*?\b(\w+) \((?!\*)", declaration)
        if not match:
            house.fail(f"no name found in the prototype: {declaration}")
        names.add(match[1])
    return names | objects_in(preprocessed, folder)


def objects_in(preprocessed, folder):
    """The names of `extern` declarations without a parameter list, in text that came from `folder`."""
    ours, kept = False, []
    for line in preprocessed.splitlines():
        marker = re.match(r'# \d+ "(.*?)"', line)
        if marker:
            ours = str(pathlib.Path(marker[1]).parent) == folder
        elif ours:
            kept.append(line)
    text = "\n".join(kept)
    names = set()
    for declaration in re.findall(r"\bextern\b([^;{]*);", text):
        declaration = re.sub(r"__attribute__\s*\(\(.*\)\)", "", declaration, flags=re.DOTALL)
        match = re.fullmatch(r"[\w\s*]*?\b(\w+)\s*(\[[^\]]*\]\s*)*", declaration)
        if match:
            names.add(match[1])
        elif "(" not in declaration:
            house.fail(f"no name found in the declaration: extern {declaration}")
    return names


def names_in_library(listing):
    """The defined dynamic symbols in the output of `nm -D --defined-only`, all of our version."""
    names = set()
    for line in listing.splitlines():
        kind, symbol = line.split()[-2:]
        if (kind, symbol) == ("A", VERSION):
            continue
        name, _, version = symbol.partition("@@")
        if version != VERSION:
            house.fail(f"the library exports {symbol}, which has not the version {VERSION}")
        names.add(name)
    return names


def differences(in_map, in_headers, in_library):
    """One line for each name that is not in all three."""
    places = {"the map": in_map, "a header": in_headers, "the library": in_library}
    lines = []
    for name in sorted(set().union(*places.values())):
        missing = [place for place, names in places.items() if name not in names]
        if missing:
            found = [place for place, names in places.items() if name in names]
            lines.append(f"{name} is in {' and '.join(found)}, but not in {' and '.join(missing)}")
    return lines


def self_test(three, tree, compiler):
    """Every single change to one of the three must be noticed."""
    for changed in range(3):
        some_name = sorted(three[changed])[0]
        for changed_names in (three[changed] - {some_name}, three[changed] | {"added"}):
            altered = list(three)
            altered[changed] = changed_names
            if len(differences(*altered)) != 1:
                house.fail("a changed list of names was not noticed")
    # The same from the sources of the lists: what the readers above must see.
    text = pathlib.Path(tree, "lib/apbase.map").read_text()
    if names_in_map(text.replace("local:", "added;\nlocal:")) - three[0] != {"added"}:
        house.fail("a name added to the map was not read")
    with tempfile.TemporaryDirectory() as folder:
        header = pathlib.Path(folder, "example.h")
        header.write_text(
            "#include <stdio.h>\n"
            "typedef int (*callback)(int);\n"
            "struct record { int (*method)(void); };\n"
            "static inline int hidden(void) { return 0; }\n"
            "int plain(int);\n"
            "extern const struct record *pointer_result(callback function, int (*other)(void));\n"
            "extern int object;\n"
            "extern const struct record table[2] __attribute__((aligned(8)));\n"
        )
        found = names_in_headers([header], folder, [], compiler)
        if found != {"plain", "pointer_result", "object", "table"}:
            house.fail(f"the names of an example header were read as {sorted(found)}")
    if names_in_library(f"00 A {VERSION}\n01 T name@@{VERSION}\n02 D object@@{VERSION}\n") != {"name", "object"}:
        house.fail("the names of an example library were misread")


parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--compiler", required=True)
parser.add_argument("--nm", required=True)
parser.add_argument("--library", dest="shared_object", required=True)
parser.add_argument("--system-include", nargs="*", default=[], help="folders of other libraries' headers")
parser.add_argument("--self-test", action="store_true")
arguments = parser.parse_args()

public_headers = sorted(pathlib.Path(arguments.tree, "lib").glob("*.h"))
compared = (
    names_in_map(pathlib.Path(arguments.tree, "lib/apbase.map").read_text()),
    names_in_headers(public_headers, arguments.tree, arguments.system_include, arguments.compiler),
    names_in_library(
        house.run([arguments.nm, "-D", "--defined-only", arguments.shared_object], "the library cannot be read")
    ),
)
if not all(compared):
    house.fail("one of the three lists of names is empty")
if arguments.self_test:
    self_test(compared, arguments.tree, arguments.compiler)
else:
    found = differences(*compared)
    if found:
        house.fail("; ".join(found))
    print(f"{len(compared[0])} names, the same in the map, the headers and the library")
