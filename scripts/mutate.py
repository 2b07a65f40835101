#!/usr/bin/env python3
"""Breaks the library in small ways, one at a time, and says which ones the tests see.

  scripts/mutate.py [--jobs N] [--list] [NAME...]

Each mutation of scripts/mutations.txt is applied to a copy of the sources under build/mutate, the
tests that it names are built and run there, and the copy is made whole again. A mutation counts as
caught when one of its tests fails, crashes or does not end in time. Ends with 0 if all are caught
but those that the file marks as not to be seen, and these are not.
"""

import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
TREE = ROOT / "build" / "mutate" / "tree"
BUILD = ROOT / "build" / "mutate" / "build"
LIST = ROOT / "scripts" / "mutations.txt"
TEST_SECONDS = 180


class Mutation:
    """One change of a source file: `old`, which stands there once, becomes `new`."""

    def __init__(self, name, file, tests):
        self.name, self.file, self.tests = name, file, tests
        self.old, self.new, self.unseen = [], [], ""

    def texts(self):
        return "\n".join(self.old), "\n".join(self.new)


def parse(path):
    """Reads the list; what its lines mean is told at its head."""
    mutations = []
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if line.startswith("= "):
            head = re.fullmatch(r"= (\S+) (\S+):((?: \S+)+)", line)
            if head is None:
                sys.exit(f"{path}:{number}: not '= NAME FILE: TEST...'")
            mutations.append(Mutation(head[1], head[2], head[3].split()))
        elif line[:2] in ("- ", "-"):
            mutations[-1].old.append(line[2:])
        elif line[:2] in ("+ ", "+"):
            mutations[-1].new.append(line[2:])
        elif line.startswith("? "):
            mutations[-1].unseen = line[2:]
        elif line and not line.startswith("#"):
            sys.exit(f"{path}:{number}: neither a head nor a line of a change: {line}")
    names = [mutation.name for mutation in mutations]
    for name in sorted({name for name in names if names.count(name) > 1}):
        sys.exit(f"{path}: two mutations are named {name}")
    return mutations


def copy_sources():
    """Brings the copy up to date; files that are equal keep their time, so that little is built."""
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True)
    wanted = {name for name in listed.stdout.decode().split("\0") if name}
    for file in [path for path in TREE.rglob("*") if path.is_file()]:
        if str(file.relative_to(TREE)) not in wanted:
            file.unlink()
    for name in wanted:
        source, target = ROOT / name, TREE / name
        if source.is_file() and (not target.is_file() or source.read_bytes() != target.read_bytes()):
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)


def quietly(command, seconds=None):
    """Runs a command; gives its output if it failed or did not end in time, else None."""
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=seconds, check=False)
    except subprocess.TimeoutExpired:
        return "no end in time"
    return None if done.returncode == 0 else done.stdout.decode(errors="replace") or "failed"


def build(tests, jobs):
    targets = [pathlib.Path(test).name for test in tests]
    return quietly(["cmake", "--build", str(BUILD), "-j", str(jobs), "--target", *targets])


def first_failure(tests):
    """Runs the tests until one fails; its name, or None."""
    for test in tests:
        command = [str(BUILD / test)] if "/" in test else [str(BUILD / "tests" / test), "--gtest_fail_fast"]
        if quietly(command, TEST_SECONDS) is not None:
            return test
    return None


def read_whole(tree, mutation):
    """The file that it changes. Ends the program unless the change fits."""
    path = tree / mutation.file
    whole = path.read_text() if path.is_file() else ""
    count = whole.count(mutation.texts()[0])
    if count != 1:
        sys.exit(f"{mutation.name}: {mutation.file} holds its old text {count} times")
    return whole


def apply(mutation):
    """Changes the file of the copy; returns its old text."""
    whole = read_whole(TREE, mutation)
    (TREE / mutation.file).write_text(whole.replace(*mutation.texts()))
    return whole


def try_out(mutation, jobs):
    """Gives the test that caught it, or None."""
    whole = apply(mutation)
    try:
        output = build(mutation.tests, jobs)
        if output is not None:
            sys.exit(f"{mutation.name} does not build:\n{output}")
        return first_failure(mutation.tests)
    finally:
        (TREE / mutation.file).write_text(whole)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("names", nargs="*", metavar="NAME", help="only these")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--list", action="store_true", help="only name them, and check that they fit the sources")
    arguments = parser.parse_args()

    mutations = parse(LIST)
    unknown = set(arguments.names) - {mutation.name for mutation in mutations}
    if unknown:
        sys.exit("no such mutation: " + ", ".join(sorted(unknown)))
    if arguments.names:
        mutations = [mutation for mutation in mutations if mutation.name in arguments.names]
    if arguments.list:
        for mutation in mutations:
            read_whole(ROOT, mutation)
            print(f"{mutation.name:32} {mutation.file}: {' '.join(mutation.tests)}")
        return 0

    copy_sources()
    failure = quietly(["cmake", "-S", str(TREE), "-B", str(BUILD), "-G", "Ninja",
                       "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                       "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -D_GLIBCXX_ASSERTIONS"])
    tests = sorted({test for mutation in mutations for test in mutation.tests})
    failure = failure or build(tests, arguments.jobs)
    if failure is not None:
        sys.exit(f"the sources as they are do not build:\n{failure}")
    broken = first_failure(tests)
    if broken is not None:
        sys.exit(f"{broken} fails without a mutation")

    caught, wrong = 0, 0
    for mutation in mutations:
        start = time.monotonic()
        seen_by = try_out(mutation, arguments.jobs)
        caught += seen_by is not None
        verdict = f"caught by {seen_by}" if seen_by else "SURVIVES"
        if mutation.unseen and seen_by is None:
            verdict = f"survives, as it says: {mutation.unseen}"
        elif mutation.unseen:
            verdict += ", though marked as not to be seen"
        wrong += (seen_by is None) != bool(mutation.unseen)
        print(f"{mutation.name:32} {time.monotonic() - start:4.0f} s  {verdict}", flush=True)
    print(f"{caught} of {len(mutations)} caught")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
