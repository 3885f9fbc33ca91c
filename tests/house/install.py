"""Installs the build into a scratch prefix, moves that to its final place, and checks what is there.

Nothing installed may know where it was put, so the other tests use the moved copy.
"""

import argparse
import os
import pathlib
import re

import house

parser = argparse.ArgumentParser()
parser.add_argument("--cmake", required=True)
parser.add_argument("--build", required=True)
parser.add_argument("--prefix", required=True)
parser.add_argument("--libdir", required=True)
parser.add_argument("--headers", nargs="+", required=True)
parser.add_argument("--readelf", required=True)
parser.add_argument("--bus-headers", nargs="*", default=[], help="of the stand-in of the message bus, if it is used")
parser.add_argument("--bus-folder", help="where the installed library looks for the message bus, if it has to be told")
arguments = parser.parse_args()

first = pathlib.Path(arguments.prefix + ".first")
house.fresh_folder(first)
house.run([arguments.cmake, "--install", arguments.build, "--prefix", first], "cmake --install fails")
prefix = pathlib.Path(house.fresh_folder(arguments.prefix))
os.rename(first, prefix)

libdir = pathlib.Path(arguments.libdir)
expected = {pathlib.Path("include/apbase", header) for header in arguments.headers}
expected |= {
    libdir / name
    for name in (
        "libapbase.so",
        "libapbase.so.1",
        "pkgconfig/apbase.pc",
        "pkgconfig/apbase-bus.pc",
        "cmake/apbase/apbase-config.cmake",
        "cmake/apbase/apbase-config-version.cmake",
        "cmake/apbase/apbase-targets.cmake",
    )
}
binaries = {libdir / "libapbase.so"}
if arguments.bus_headers:
    bus = libdir / "apbase"
    binaries |= {bus / name for name in ("libubox.so", "libubus.so", "ubusd", "ubus")}
    expected |= binaries | {bus / "include" / header for header in arguments.bus_headers}
installed = {path.relative_to(prefix) for path in prefix.rglob("*") if not path.is_dir()}
missing = expected - installed
if missing:
    house.fail(f"not installed: {', '.join(sorted(map(str, missing)))}")
for path in sorted(installed - expected):
    # The library's full version, and CMake's file for the build type.
    if not path.match("libapbase.so.1.*") and not path.match("cmake/apbase/apbase-targets-*.cmake"):
        house.fail(f"installed, but by whose wish? {path}")
for path in installed:
    if path.suffix in (".pc", ".cmake", ".h"):
        text = (prefix / path).read_text()
        for place in (arguments.build, str(first), str(prefix)):
            if place in text:
                house.fail(f"{path} names the folder {place}, so the installed copy cannot be moved")
for path in binaries:
    expected_folder = arguments.bus_folder if path.parent == libdir else "$ORIGIN"
    dynamic = house.run([arguments.readelf, "-W", "--dynamic", prefix / path], f"{path} cannot be read")
    folders = re.findall(r"\((?:RPATH|RUNPATH)\).*\[(.*)\]", dynamic)
    if folders != ([expected_folder] if expected_folder else []):
        house.fail(f"{path} looks for libraries in {folders}, not in {expected_folder}")
