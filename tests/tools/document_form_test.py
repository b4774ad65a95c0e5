#!/usr/bin/env python3
"""document_form_test.py ROOT

Tells whether all documents (*.md) can be read and compared as text: a line has at most 120 characters, unless it is a
table's; a cell of a table has at most two sentences. A semicolon ends a sentence, too.
"""

import re
import sys
from collections.abc import Iterator
from pathlib import Path

MAX_LINE_LENGTH = 120
MAX_SENTENCES_IN_A_CELL = 2
FOLDERS_OF_OTHERS = {".git", "build", "out"}


def sentences(cell: str) -> int:
    """How many sentences the cell has: one, and one more for each end with something behind it."""
    prose = re.sub(r"`[^`]*`", "code", cell)
    return 1 + len(re.findall(r"[.!?;][)\"*]* +\S", prose.strip()))


def faults_of(document: Path) -> Iterator[str]:
    """The places that break the form, each with its line number."""
    in_code = False
    for number, line in enumerate(document.read_text(encoding="utf-8").splitlines(), start=1):
        if line.lstrip().startswith("```"):
            in_code = not in_code
        if line.startswith("|") and not in_code:
            for cell in re.split(r"(?<!\\)\|", line):
                if sentences(cell) > MAX_SENTENCES_IN_A_CELL:
                    yield f"{document}:{number}: a cell of {sentences(cell)} sentences: {cell.strip()}"
        elif len(line) > MAX_LINE_LENGTH:
            yield f"{document}:{number}: {len(line)} characters: {line}"


def main() -> int:
    root = Path(sys.argv[1])
    documents = [
        path for path in sorted(root.rglob("*.md")) if not FOLDERS_OF_OTHERS & set(path.relative_to(root).parts)
    ]
    faults = [fault for document in documents for fault in faults_of(document)]
    print("\n".join(faults) or f"{len(documents)} documents can be read as text")
    return 1 if faults or not documents else 0


if __name__ == "__main__":
    sys.exit(main())
