#!/usr/bin/env python3
"""task_lines.py [--check]: counts the lines of the six tasks of docs/comparison.md in each library.

A line counts unless it is blank, a comment, an include, an import, or closes what stands above it ("}", "});").
For the process it is the lines between "begin" and "end". Prints the table; --check compares it with that
of the document. Our tasks and prometheus-cpp's are compiled files, the others stand in the document.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCUMENT = ROOT / "docs/comparison.md"
TASKS = {
    "process": "once per process",
    "counted_handler": "a counted request handler",
    "timed_scope": "a timed scope",
    "queue_gauge": "the length of a queue",
    "size_histogram": "a histogram of sizes",
    "worker_pool": "workers with bound handles",
    "prefork": "a prefork server",
}
SKIPPED = re.compile(r"\s*(//.*|#.*|import .*|private:|public:|[{}();]*)$")


def count(code):
    return sum(1 for line in code.splitlines() if not SKIPPED.match(line))


def of_folder(folder):
    counts = {}
    for task in TASKS:
        if task == "process":
            main = (ROOT / folder / "main.cc").read_text()
            code = re.search(r"// begin.*?\n(.*?)\n *// end", main, re.S).group(1)
        else:
            code = (ROOT / folder / f"{task}.cc").read_text()
        counts[task] = count(code)
    return counts


def of_document(language):
    blocks = re.findall(rf"```{language}\n// (\w+)\n(.*?)```", DOCUMENT.read_text(), re.S)
    return {task: count(code) for task, code in blocks}


def table():
    columns = [of_folder("examples/tasks"), of_folder("bench/tasks"), of_document("cpp"), of_document("java")]
    rows = ["| Lines | Here | prometheus-cpp | opentelemetry-cpp | Micrometer |", "|---|---|---|---|---|"]
    for task, title in TASKS.items():
        cells = " | ".join(str(column.get(task, "none")) for column in columns)
        rows.append(f"| {title} (`{task}`) | {cells} |")
    return "\n".join(rows) + "\n"


def main():
    if "--check" not in sys.argv[1:]:
        print(table(), end="")
    elif table() not in DOCUMENT.read_text():
        sys.exit(f"{DOCUMENT.name} has not this table:\n{table()}")


main()
