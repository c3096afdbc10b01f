#!/usr/bin/env python3
"""Prints the coverage by folder as a table, and writes the lines that did not run to a file.
usage: coverage_report.py SOURCE_FOLDER BUILD_FOLDER

Reads BUILD/coverage.json (llvm-cov's sums) and BUILD/coverage.lcov (line by line); writes BUILD/uncovered.txt. A
template or a kernel is compiled several times: a line counts as run if one of its copies ran."""
import collections
import json
import os
import sys


def percent(covered, count):
    return f"{100 * covered / count:6.1f} %" if count else "      - "


def folder_of(name, source):
    """core for src/core/..., hosting for hosting/..."""
    parts = os.path.relpath(os.path.abspath(name), source).split("/")
    return parts[1] if parts[0] == "src" else parts[0]


def table(files, source):
    rows = collections.defaultdict(lambda: [0, 0, 0, 0])
    for file in files:
        lines, branches = file["summary"]["lines"], file["summary"]["branches"]
        for row in rows[folder_of(file["filename"], source)], rows["all"]:
            for i, part in enumerate((lines["covered"], lines["count"], branches["covered"], branches["count"])):
                row[i] += part
    yield f"{'folder':<12} {'lines':>7} {'run':>8}   {'branches':>8} {'taken':>8}"
    for folder, row in sorted(rows.items(), key=lambda item: (item[0] == "all", item[0])):
        yield f"{folder:<12} {row[1]:>7} {percent(row[0], row[1])}   {row[3]:>8} {percent(row[2], row[3])}"


def uncovered(lcov, source):
    for line in lcov:
        if line.startswith("SF:"):
            name = line[3:].strip()
            with open(name, encoding="utf-8") as file:
                text = file.read().splitlines()
        elif line.startswith("DA:"):
            number, count = line[3:].strip().split(",")[:2]
            if count == "0":
                yield f"{os.path.relpath(name, source)}:{number}: {text[int(number) - 1].strip()}"


def main():
    source, build = sys.argv[1:]
    with open(os.path.join(build, "coverage.json"), encoding="utf-8") as file:
        files = json.load(file)["data"][0]["files"]
    print("\n".join(table(files, source)))
    with open(os.path.join(build, "coverage.lcov"), encoding="utf-8") as file:
        missed = list(uncovered(file, source))
    path = os.path.join(build, "uncovered.txt")
    with open(path, "w", encoding="utf-8") as file:
        file.write("".join(line + "\n" for line in missed))
    print(f"{len(missed)} lines did not run: {path}")


if __name__ == "__main__":
    main()
