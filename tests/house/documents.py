"""Every document is in the index docs/README.md, and every link of a document leads to a file of the tree."""

import argparse
import pathlib
import re

import house

LINK = re.compile(r"\]\((?!https?:)([^)#]+)")

parser = argparse.ArgumentParser()
parser.add_argument("--tree", required=True)
tree = pathlib.Path(parser.parse_args().tree).resolve()
index = tree / "docs/README.md"


def linked(document):
    return {link: (document.parent / link).resolve() for link in LINK.findall(document.read_text())}


documents = [*tree.glob("*.md"), *tree.glob("docs/**/*.md"), *tree.glob("*/README.md")]
for document in documents:
    for link, path in linked(document).items():
        if not path.exists():
            house.fail(f"{document.relative_to(tree)} links to {link}, which does not exist")
indexed = set(linked(index).values())
for document in {*tree.glob("*.md"), *tree.glob("docs/*.md")} - {index}:
    if document not in indexed:
        house.fail(f"{document.relative_to(tree)} is not in docs/README.md")
