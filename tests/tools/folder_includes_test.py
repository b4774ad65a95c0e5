#!/usr/bin/env python3
"""folder_includes_test.py ROOT BUILD_FOLDER

Tells whether each folder includes only what the table "Who may call what" in docs/architecture.md lets it. What was
included is what the compiler noted when it made the objects in the build folder.
"""

import re
import subprocess
import sys
from collections import defaultdict
from pathlib import Path
from typing import Optional

Includes = dict[str, set[str]]


def allowed_by(document: str) -> Includes:
    """The table: for each folder the folders whose headers it may include."""
    section = document.split("## Who may call what", 1)[1].split("\n## ", 1)[0]
    rows = re.findall(r"^\| (`[^|]*)\|([^|]*)\|", section, re.MULTILINE)
    return {folder.strip().strip("`"): set(re.findall(r"`([^`]*)`", names)) for folder, names in rows}


def with_what_these_may(allowed: Includes, folder: str) -> set[str]:
    """The folder, those that it may include, and those that these may."""
    reached = {folder}
    while True:
        more = set().union(*(allowed[name] for name in reached)) - reached
        if not more:
            return reached
        reached |= more


def folder_of(path: Path, allowed: Includes) -> Optional[str]:
    """The innermost folder of the table that holds the file; nothing for a file of the system or the tests."""
    if "generated" in path.parts:
        return "proto/"
    folders = [name for name in allowed if path.is_relative_to(name)]
    return max(folders, key=len) if folders else None


def included_files(root: Path, build: Path) -> dict[Path, set[Path]]:
    """For each compiled source the files of this repository that went into it."""
    lines = subprocess.run(["ninja", "-C", build, "-t", "deps"], check=True, capture_output=True, text=True).stdout
    result: dict[Path, set[Path]] = {}
    for block in lines.split("\n\n"):
        if not block.splitlines() or not block.splitlines()[0].endswith("(VALID)"):
            continue  # of a source that is gone
        paths = [(build / line.strip()).resolve() for line in block.splitlines()[1:]]
        ours = [path.relative_to(root) for path in paths if path.is_relative_to(root)]
        if ours:
            result[ours[0]] = set(ours[1:])  # the source itself comes first
    return result


def main() -> int:
    root, build = (Path(argument).resolve() for argument in sys.argv[1:])
    allowed = allowed_by((root / "docs/architecture.md").read_text(encoding="utf-8"))
    wrong = []
    compiled: dict[str, int] = defaultdict(int)
    for source, headers in sorted(included_files(root, build).items()):
        folder = folder_of(source, allowed)
        if folder is None:
            continue
        compiled[folder] += 1
        within = with_what_these_may(allowed, folder)
        for header in sorted(headers):
            other = folder_of(header, allowed)
            if other not in within:
                wrong.append(f"{source} includes {header}, which docs/architecture.md does not let {folder} include")
    for folder in allowed:
        if not compiled[folder] and any((root / folder).glob("*.cpp")):
            wrong.append(f"nothing of {folder} was compiled in {build}; build everything first")
    print("\n".join(wrong) or f"{sum(compiled.values())} sources include what they may")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
