#!/usr/bin/env python3
"""man_pages_test.py ROOT PROGRAM...

Tells whether the pages of the manual (docs/man) say what is so: each program has a page with exactly the options of its
--help, each page is rendered by scdoc without an error, belongs to one Debian package, and refers to no page that there
is not. Also whether CHANGELOG.md tells of the version that debian/changelog names.

The page of a program with subcommands tells of each in its section COMMANDS, under the subcommand's words ("## users
add"), with exactly the options of that subcommand's --help. Those that all have (-h, --help) stand under OPTIONS alone.

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
OF_EVERY_COMMAND = {"-h", "--help"}
OPTION = re.compile(r"(?<![\w-])(-\w|--[a-z][a-z-]*)(?![\w-])")
# What stands in the SEE ALSO of other people's pages is theirs.
OWN_NAMES = re.compile(r"\*((?:debug_dat_|support_|supportctl|ticket|tarvomib)[\w.]*)\*\((\d)\)")


def is_declaration(line: str) -> bool:
    """Whether a line of a page begins the text about an option."""
    return line.startswith("*-")


def section_of(text: str, title: str) -> str:
    """What stands under this title, up to the next one of its rank; nothing where there is no such title."""
    rank = title.partition(" ")[0]
    begin = re.search(rf"^{re.escape(title)}$", text, re.MULTILINE)
    return re.split(rf"^{'#' if rank == '#' else '##?'} ", text[begin.end():], flags=re.MULTILINE)[0] if begin else ""


def options_of_section(section: str) -> set[str]:
    """What it tells of."""
    return {option for line in section.splitlines() if is_declaration(line) for option in OPTION.findall(line)}


def options_of_help(text: str) -> set[str]:
    """What begins an indented line there, with its short form."""
    heads = re.findall(r"^ {2}(-[^ ]*)", text, re.MULTILINE)
    return {option for head in heads for option in OPTION.findall(head.replace(",", " "))}


def subcommands_of_help(text: str) -> list[str]:
    """The names in its list of subcommands."""
    listed = re.search(r"^Subcommands:\n((?: +\S.*\n)+)", text, re.MULTILINE)
    return re.findall(r"^ {2}(\w\S*)", listed.group(1), re.MULTILINE) if listed else []


def helps_of(program: Path, command: str = "") -> dict[str, str]:
    """The text of the program's --help under "", and those of its subcommands under their words."""
    done = subprocess.run([program, *command.split(), "--help"], stdout=subprocess.PIPE, text=True, timeout=300,
                          check=False)
    if done.returncode != 0 or not done.stdout:
        raise ChildProcessError(f"{program} {command} --help ended with status {done.returncode}")
    helps = {command: done.stdout}
    for name in subcommands_of_help(done.stdout):
        helps |= helps_of(program, f"{command} {name}".strip())
    return helps


def faults_of_commands(page: Path, text: str, helps: dict[str, str]) -> Iterator[str]:
    """Subcommands that the page does not tell of, and others that it does."""
    told = set(re.findall(r"^## (.*)$", section_of(text, "# COMMANDS"), re.MULTILINE))
    real = set(helps) - {""}
    # One that does nothing without a further word needs no place of its own.
    groups = {command for command in real if re.search(r"^Usage: .* SUBCOMMAND$", helps[command], re.MULTILINE)}
    for command in sorted(real - groups - told):
        yield f"{page}: has no section for the command {command}"
    for command in sorted(told - real):
        yield f"{page}: tells of the command {command}, which --help does not show"


def faults_of_options(page: Path, program: Path) -> Iterator[str]:
    """How the page and the program's --help differ."""
    text = page.read_text(encoding="utf-8")
    try:
        helps = helps_of(program)
    except ChildProcessError as error:
        yield str(error)
        return
    yield from faults_of_commands(page, text, helps)
    known = set()
    for command, help_text in helps.items():
        told = options_of_section(section_of(text, f"## {command}" if command else "# OPTIONS"))
        real = options_of_help(help_text) - (OF_EVERY_COMMAND if command else set())
        name = f"{program.name} {command}".strip()
        for option in sorted(real - told):
            yield f"{page}: says nothing of {option} of {name}"
        for option in sorted(told - real):
            yield f"{page}: tells of {option}, which {name} --help does not show"
        # Anywhere else: an example may have another program's option, if --help has the same example.
        known |= real | told | set(OPTION.findall(help_text))
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
