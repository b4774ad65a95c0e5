#!/usr/bin/env python3
"""man_pages_test.py ROOT PROGRAM...

Tells whether the pages of the manual (docs/man) say what is so: each program has a page with exactly the options of its
--help, each page is rendered by scdoc without an error, belongs to one Debian package, and refers to no page that there
is not. Also whether CHANGELOG.md tells of the version that debian/changelog names.

Exit status 77 where scdoc is missing and all else is well.
"""

import re
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

SKIPPED = 77
# It takes no arguments.
WITHOUT_OPTIONS = {"debug_dat_transmitter"}
OPTION = re.compile(r"(?<![\w-])(-\w|--[a-z][a-z-]*)(?![\w-])")
# What stands in the SEE ALSO of other people's pages is theirs.
OWN_NAMES = re.compile(r"\*((?:debug_dat_|support_|ticket|tarvomib)[\w.]*)\*\((\d)\)")


def is_declaration(line: str) -> bool:
    """Whether a line of a page begins the text about an option."""
    return line.startswith("*-")


def options_of_page(text: str) -> set[str]:
    """What the page's section OPTIONS tells of."""
    section = text.partition("\n# OPTIONS\n")[2].partition("\n# ")[0]
    return {option for line in section.splitlines() if is_declaration(line) for option in OPTION.findall(line)}


def options_of_help(text: str) -> set[str]:
    """What begins an indented line there, with its short form."""
    heads = re.findall(r"^ {2}(-[^ ]*)", text, re.MULTILINE)
    return {option for head in heads for option in OPTION.findall(head.replace(",", " "))}


def faults_of_options(page: Path, program: Path) -> Iterator[str]:
    """How the page and the program's --help differ."""
    text = page.read_text(encoding="utf-8")
    done = subprocess.run([program, "--help"], stdout=subprocess.PIPE, text=True, timeout=300, check=False)
    if done.returncode != 0 or not done.stdout:
        yield f"{program} --help ended with status {done.returncode}"
        return
    told, real = options_of_page(text), options_of_help(done.stdout)
    for option in sorted(real - told):
        yield f"{page}: says nothing of {option}"
    for option in sorted(told - real):
        yield f"{page}: tells of {option}, which {program.name} --help does not show"
    # Anywhere else: an example may have another program's option, if --help has the same example.
    known = real | told | set(OPTION.findall(done.stdout))
    for option in sorted({name for name in OPTION.findall(text) if name.startswith("--")} - known):
        yield f"{page}: mentions {option}, which {program.name} does not have"


def faults_of_programs(pages: list[Path], programs: list[Path]) -> Iterator[str]:
    """Programs without a page, and what is wrong with the options in those that there are."""
    by_name = {page.name.split(".")[0]: page for page in pages if page.suffixes[-2] in (".1", ".8")}
    for name in sorted(by_name.keys() - {program.name for program in programs} - WITHOUT_OPTIONS):
        yield f"{by_name[name]}: there is no such program"
    for program in programs:
        if program.name not in by_name:
            yield f"docs/man: has no page for {program.name}"
        else:
            yield from faults_of_options(by_name[program.name], program)


def faults_of_rendering(pages: list[Path]) -> Iterator[str]:
    """What scdoc does not take."""
    for page in pages:
        done = subprocess.run(["scdoc"], input=page.read_bytes(), capture_output=True, timeout=300, check=False)
        if done.returncode != 0 or not done.stdout or done.stderr:
            yield f"{page}: scdoc ended with status {done.returncode}: {done.stderr.decode().strip()}"


def faults_of_references(pages: list[Path]) -> Iterator[str]:
    """References to pages of ours that are missing."""
    names = {page.name.removesuffix(".scd") for page in pages}
    for page in pages:
        for name, section in OWN_NAMES.findall(page.read_text(encoding="utf-8")):
            if f"{name}.{section}" not in names:
                yield f"{page}: there is no page {name}({section})"


def faults_of_packages(root: Path, pages: list[Path]) -> Iterator[str]:
    """Pages that are in no package, or in more than one, and lines that lead to no page."""
    listed = [Path(line).name for lists in (root / "debian").glob("*.manpages")
              for line in lists.read_text(encoding="utf-8").split()]
    names = [page.name.removesuffix(".scd") for page in pages]
    yield from (f"debian/*.manpages: name {name} {listed.count(name)} times" for name in names
                if listed.count(name) != 1)
    yield from (f"debian/*.manpages: there is no docs/man/{name}.scd" for name in listed if name not in names)


def faults_of_versions(root: Path) -> Iterator[str]:
    """Whether the two lists of changes end with the same release."""
    package = re.match(r"\S+ \(([^)]+)\)", (root / "debian/changelog").read_text(encoding="utf-8"))
    release = re.search(r"^## (\d\S*)", (root / "CHANGELOG.md").read_text(encoding="utf-8"), re.MULTILINE)
    versions = [found.group(1) if found else "none" for found in (package, release)]
    if versions[0] != versions[1]:
        yield f"debian/changelog begins with version {versions[0]}, CHANGELOG.md with {versions[1]}"


def main() -> int:
    root, programs = Path(sys.argv[1]), [Path(name) for name in sys.argv[2:]]
    pages = sorted((root / "docs/man").glob("*.scd"))
    has_scdoc = shutil.which("scdoc") is not None
    faults = [*faults_of_programs(pages, programs), *faults_of_references(pages), *faults_of_packages(root, pages),
              *faults_of_versions(root), *(faults_of_rendering(pages) if has_scdoc else [])]
    if faults or not pages or not programs:
        print("\n".join(faults) or "nothing was given to compare")
        return 1
    if not has_scdoc:
        print("skipped: scdoc is missing, so it is not known whether the pages can be rendered")
        return SKIPPED
    print(f"{len(pages)} pages agree with {len(programs)} programs")
    return 0


if __name__ == "__main__":
    sys.exit(main())
