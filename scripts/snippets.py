#!/usr/bin/env python3
"""Compiles the C++ of the documents: every block of README.md, CONTRIBUTING.md and docs/*.md that is marked as cpp.

usage: snippets.py [--show] [PAGE...]    (--show prints the translation units instead)

A block that includes something is a program or a file of its own, and is compiled as it stands. The others of a
chapter (a heading of the second level) are one function, in their order, each in a scope within that of the block
before it. In front of them stands scripts/snippet_prelude.h, with the names that the pages use and do not define.

A block that is not to be compiled needs a line before it that says why: <!-- not compiled: ... -->
CXX chooses the compiler (g++).
"""

import os
import pathlib
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

ROOT = pathlib.Path(__file__).resolve().parent.parent
PRELUDE = ROOT / "scripts/snippet_prelude.h"
# What a snippet defines, the reader uses.
FLAGS = ["-std=c++17", "-Wall", "-Wextra", "-Werror", "-Wno-unused-variable", "-Wno-unused-but-set-variable",
         "-fsyntax-only", f"-I{ROOT}/include", f"-I{ROOT}/src", "-x", "c++", "-"]


class Block:
    """A fenced block: `line` is the number of its first line of code, `why_not` the reason of its mark."""

    def __init__(self, page, line, chapter, why_not):
        self.page, self.line, self.chapter, self.why_not = page, line, chapter, why_not
        self.lines = []

    def code(self):
        return f'#line {self.line} "{self.page}"\n' + "\n".join(self.lines) + "\n"

    def stands_alone(self):
        return any(re.match(r"\s*#\s*include\b", line) for line in self.lines)


def blocks_of(page):
    chapter, mark, block, found = "", None, None, []
    for number, line in enumerate((ROOT / page).read_text().splitlines(), 1):
        text = line.strip()
        if block is not None:
            if text == "```":
                found.append(block)
                block = None
            else:
                block.lines.append(line)
        elif text in ("```cpp", "```c++", "```cc", "```cxx"):
            block = Block(page, number + 1, chapter, mark)
        elif line.startswith("## "):
            chapter = line[3:]
        if text:
            said = re.fullmatch(r"<!-- not compiled: (.+) -->", text)
            mark = said.group(1) if said else None
    if block is not None:
        sys.exit(f"{page}:{block.line}: the block has no end")
    return found


def units_of(page):
    """(name, source) of each translation unit of a page."""
    units, chapters = [], {}
    for block in blocks_of(page):
        if block.why_not is not None:
            continue
        if block.stands_alone():
            units.append((f"{page}:{block.line}", block.code()))
        else:
            chapters.setdefault(block.chapter, []).append(block)
    functions = ""
    for index, blocks in enumerate(chapters.values()):
        body = "".join("{\n" + block.code() for block in blocks) + "}\n" * len(blocks)
        functions += f"void Chapter{index}();\nvoid Chapter{index}() {{\n{body}}}\n"
    if functions:
        units.append((page, f'#include "{PRELUDE}"\n{functions}'))
    return units


def compile_unit(unit):
    compiler = shlex.split(os.environ.get("CXX", "g++"))
    return subprocess.run([*compiler, *FLAGS], input=unit[1], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, cwd=ROOT, check=False)


def main(arguments):
    show = "--show" in arguments
    pages = [a for a in arguments if a != "--show"]
    pages = pages or ["README.md", "CONTRIBUTING.md", *sorted(f"docs/{p.name}" for p in ROOT.glob("docs/*.md"))]
    units = [unit for page in pages for unit in units_of(page)]
    if show:
        print("".join(f"// ==== {name}\n{source}" for name, source in units), end="")
        return 0
    if not units:
        sys.exit("no snippets")
    failed = 0
    with ThreadPoolExecutor(int(os.environ.get("JOBS", "2"))) as pool:
        for (name, _), result in zip(units, pool.map(compile_unit, units)):
            if result.returncode != 0:
                failed += 1
                print(f"{name}: does not compile\n{result.stdout}")
    print(f"{len(units) - failed} of {len(units)} units of snippets compile")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
