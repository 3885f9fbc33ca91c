"""Compiles the sources of the library against the headers of musl, the C library of small devices.

Of the compiler's C++ headers, those that need no C++ run-time library are used with them.
"""

import argparse
import os

import house

CXX_HEADERS = ["bit", "bits", "concepts", "ext", "initializer_list", "type_traits"]

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--compiler", required=True, help="GCC's, for C++")
parser.add_argument("--system-include", nargs="*", default=[], help="folders of other libraries' headers")
parser.add_argument("--scratch", required=True)
arguments = parser.parse_args()

machine = house.run([arguments.compiler, "-dumpmachine"], "the compiler does not name its machine").strip()
version = house.run([arguments.compiler, "-dumpversion"], "the compiler does not name its version").strip()
own = house.run([arguments.compiler, "-print-file-name=include"], "the compiler does not name its headers").strip()
musl = f"/usr/include/{machine.split('-')[0]}-linux-musl"
if not os.path.isdir(musl):
    house.fail(f"{musl} is missing (scripts/test installs everything)")


def links(name, folder, names):
    """A folder with links to what `folder` has of `names`."""
    path = house.fresh_folder(os.path.join(arguments.scratch, name))
    for each in names:
        if os.path.exists(os.path.join(folder, each)):
            os.symlink(os.path.join(folder, each), os.path.join(path, each))
    return path


# Folders with headers of this machine's C library in them are left out.
folders = [
    links("c++", f"/usr/include/c++/{version}", CXX_HEADERS),
    f"/usr/include/{machine}/c++/{version}",
    musl,
    own,
    links("kernel", "/usr/include", ["linux", "asm-generic", "mtd"]),
    links("asm", f"/usr/include/{machine}", ["asm"]),
    links("others", "/usr/include", ["jansson.h", "libmnl", "libnftnl", "mbedtls", "psa"]),
    links("others_of_the_machine", f"/usr/include/{machine}", ["jansson_config.h", "jansson.h"]),
    *arguments.system_include,
]
for folder in ("lib", "boards"):
    for name in sorted(os.listdir(os.path.join(arguments.tree, folder))):
        if name.endswith(".cc"):
            house.run(
                [
                    arguments.compiler,
                    *("-std=c++20", "-fno-exceptions", "-fno-rtti", "-fsyntax-only", "-D_FILE_OFFSET_BITS=64"),
                    *("-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wundef", "-Werror"),
                    *("-nostdinc", "-nostdinc++", "-D__GLIBC_PREREQ(major,minor)=0"),
                    *(f"-isystem{each}" for each in folders),
                    os.path.join(arguments.tree, folder, name),
                ],
                f"{folder}/{name} does not compile against musl",
            )
