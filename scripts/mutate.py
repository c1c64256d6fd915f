#!/usr/bin/env python3
"""Mutation run: plants one small fault at a time in src/ and checks that the tests notice.

Faults are the ones that slip through reviews: a bound off by one, a comparison turned
round, a condition inverted, an offset or size changed by one, a message or format
string altered. Each mutant is built and the whole test suite runs against it; a mutant
is killed when a test fails (or hangs), survives when all pass, and is not counted when
it does not compile.

    scripts/mutate.py [--count N] [--seed S] [--jobs J] [--timeout SEC] [PATH...]

PATH narrows the files (default: every .cpp under src/ except the tools). The report
(score and every survivor) goes to build/mutate/report.txt and standard output.
"""
import argparse
import os
import random
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.join(ROOT, "build", "mutate")

# (name, pattern, replacement); the pattern is searched in code outside strings and comments
# unless its name starts with "text".
OPERATORS = [
    ("< to <=", re.compile(r"(?<![<\-])<(?![<=])(?=\s)"), "<="),
    ("<= to <", re.compile(r"<=(?!=)"), "<"),
    ("> to >=", re.compile(r"(?<![>\-])>(?![>=])(?=\s)"), ">="),
    (">= to >", re.compile(r">=(?!=)"), ">"),
    ("== to !=", re.compile(r"=="), "!="),
    ("!= to ==", re.compile(r"!="), "=="),
    ("&& to ||", re.compile(r"&&"), "||"),
    ("|| to &&", re.compile(r"\|\|"), "&&"),
    ("+ 1 to - 1", re.compile(r"\+ 1\b"), "- 1"),
    ("- 1 to + 1", re.compile(r"- 1\b"), "+ 1"),
    ("constant + 1", re.compile(r"(?<![\w.])([1-9][0-9]{0,3})(?![\w.'])"), None),
    ("true to false", re.compile(r"\breturn true;"), "return false;"),
    ("false to true", re.compile(r"\breturn false;"), "return true;"),
    ("text: drop a character", re.compile(r'"([^"\\]{3,})"'), None),
]

SKIP_LINE = re.compile(r"^\s*(#|//|\*|/\*)|static_assert|OBX_LOG_DBG")


def code_spans(line):
    """Index ranges of `line` that are code: outside string/char literals and // comments."""
    spans, start, i, quote = [], 0, 0, None
    while i < len(line):
        c = line[i]
        if quote:
            if c == "\\":
                i += 2
                continue
            if c == quote:
                quote, start = None, i + 1
        elif c in "\"'":
            spans.append((start, i))
            quote = c
        elif line.startswith("//", i):
            spans.append((start, i))
            return spans
        i += 1
    if not quote:
        spans.append((start, len(line)))
    return spans


def candidates(path):
    found = []
    with open(path, encoding="utf-8") as source:
        lines = source.read().split("\n")
    for number, line in enumerate(lines):
        if SKIP_LINE.search(line):
            continue
        spans = code_spans(line)
        for name, pattern, replacement in OPERATORS:
            for match in pattern.finditer(line):
                in_code = any(a <= match.start() and match.end() <= b for a, b in spans)
                if name.startswith("text") == in_code:
                    continue
                if replacement is None and name == "constant + 1":
                    new = str(int(match.group(1)) + 1)
                elif replacement is None:
                    inner = match.group(1)
                    new = '"' + inner[:-1] + '"'
                else:
                    new = replacement
                mutated = line[: match.start()] + new + line[match.end():]
                found.append((path, number, name, line, mutated))
    return found


def run(command, timeout=None):
    return subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=timeout, text=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=60)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--timeout", type=int, default=300)
    parser.add_argument("paths", nargs="*")
    args = parser.parse_args()

    files = []
    for base in args.paths or ["src"]:
        full = os.path.join(ROOT, base)
        if os.path.isfile(full):
            files.append(full)
            continue
        for folder, _, names in os.walk(full):
            files += [os.path.join(folder, n) for n in names if n.endswith(".cpp") and "/src/tools" not in folder]
    pool = [c for f in sorted(files) for c in candidates(f)]
    random.Random(args.seed).shuffle(pool)

    os.makedirs(BUILD, exist_ok=True)
    configure = ["cmake", "-S", ".", "-B", BUILD, "-DCMAKE_BUILD_TYPE=Release", "-DOBX_BUILD_BENCH=OFF"]
    if subprocess.run(["which", "ccache"], stdout=subprocess.DEVNULL).returncode == 0:
        configure.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
    build = ["cmake", "--build", BUILD, "-j", str(args.jobs)]
    test = ["ctest", "--test-dir", BUILD, "-j", str(args.jobs), "--stop-on-failure", "--timeout", "60"]
    if run(configure).returncode or run(build).returncode or run(test).returncode:
        sys.exit("mutate: the unmutated tree does not build and pass; fix that first")

    killed, survived, stillborn = 0, [], 0
    started = time.time()
    for path, number, name, original, mutated in pool:
        if killed + len(survived) >= args.count:
            break
        with open(path, encoding="utf-8") as source:
            text = source.read()
        lines = text.split("\n")
        lines[number] = mutated
        try:
            with open(path, "w", encoding="utf-8") as out:
                out.write("\n".join(lines))
            where = "%s:%d" % (os.path.relpath(path, ROOT), number + 1)
            if run(build).returncode:
                stillborn += 1
                continue
            try:
                passed = run(test, timeout=args.timeout).returncode == 0
            except subprocess.TimeoutExpired:
                passed = False
            if passed:
                survived.append("%s  %s\n    - %s\n    + %s" % (where, name, original.strip(), mutated.strip()))
            else:
                killed += 1
            print("mutate: %-40s %-22s %s" % (where, name, "survived" if passed else "killed"), flush=True)
        finally:
            with open(path, "w", encoding="utf-8") as out:
                out.write(text)
    run(build)

    counted = killed + len(survived)
    score = 100.0 * killed / counted if counted else 0.0
    report = ["mutants: %d counted (%d did not compile), %d killed, %d survived: score %.1f%% in %.0f s"
              % (counted, stillborn, killed, len(survived), score, time.time() - started)]
    report += ["survivor: " + s for s in survived]
    with open(os.path.join(BUILD, "report.txt"), "w", encoding="utf-8") as out:
        out.write("\n".join(report) + "\n")
    print("\n".join(report))


if __name__ == "__main__":
    main()
