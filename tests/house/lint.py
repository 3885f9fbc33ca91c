"""Runs Debian 12's clang-tidy, as .clang-tidy sets it up, over one source; no finding is accepted."""

import argparse
import re

import house

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
parser.add_argument("--system-include", nargs="*", default=[], help="folders of other libraries' headers")
parser.add_argument("--source", required=True)
arguments = parser.parse_args()

if arguments.source.endswith(".c"):
    language = ["-std=c11", "-D_DEFAULT_SOURCE"]
elif "/standin/" in arguments.source:
    language = ["-std=c++20"]
else:
    language = ["-std=c++20", "-fno-exceptions", "-fno-rtti"]
versions = [f'-D{name}_VERSION="1.0.0"' for name in ("APBASE", "STANDIN")]
includes = [f"-I{arguments.tree}", *(f"-isystem{folder}" for folder in arguments.system_include)]
result = house.attempt(
    ["clang-tidy-14", "--quiet", arguments.source, "--", *language, "-O2", *versions, *includes],
    cwd=arguments.tree,
)
findings = re.findall(r"^(\S+:\d+:\d+): (?:error|warning): (.*)$", result.stdout, flags=re.MULTILINE)
if result.returncode != 0 or findings:
    print(result.stdout, result.stderr)
    place, text = findings[0] if findings else (arguments.source, "clang-tidy fails")
    house.fail(f"{len(findings)} findings, the first: {place}: {text}")
