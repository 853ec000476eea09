#!/usr/bin/env python3
"""Mutation testing of the two libraries: how many small faults does the test suite notice?

Takes a seeded random sample of single-site mutants over libCommon/src and libDataStore/src:
  comparison  a comparison operator negated (== !=, < >=, > <=)
  logic       && and || swapped
  bool        true and false swapped
  integer     an integer constant off by one
  string      one character of a string literal changed (a letter's case, else the character)
  call        a call statement deleted
Each mutant is applied to a private copy of the tree (never to the tree this script runs from),
the copy is rebuilt incrementally and ctest runs, stopping at the first failing test; the
catalogue tests, which pin every statement, message and schema text, run first. A mutant that
does not build is counted apart. Prints the score and every surviving mutant as a unified diff.

Usage: scripts/mutation.py [--seed S] [--count N] [--list] [--only 3,17] [--work DIR]
"""

import argparse
import difflib
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time
from dataclasses import dataclass

ROOTS = ("libCommon/src", "libDataStore/src")
EXTENSIONS = (".cpp", ".h")
OPERATORS = ("comparison", "logic", "bool", "integer", "string", "call")

NEGATED = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
KEYWORDS = {
    "return", "if", "while", "for", "switch", "sizeof", "delete", "new", "throw", "case",
    "static_assert", "decltype", "alignof", "catch", "do", "else", "co_return", "co_await",
}


@dataclass(frozen=True)
class Mutant:
    path: str  # relative to the tree
    start: int  # offsets of the replaced text in the file
    end: int
    new: str
    operator: str

    def apply(self, text):
        return text[: self.start] + self.new + text[self.end :]

    def line(self, text):
        return text.count("\n", 0, self.start) + 1

    def diff(self, text):
        return "".join(
            difflib.unified_diff(
                text.splitlines(True),
                self.apply(text).splitlines(True),
                "a/" + self.path,
                "b/" + self.path,
                n=2,
            )
        )


# ---------------------------------------------------------------------------------------------
# Lexing: which characters are code, and where the string literals are.


def _string_end(text, i):
    """Index just past the closing quote of the ordinary literal whose opening quote is at i."""
    quote = text[i]
    j = i + 1
    while j < len(text) and text[j] != quote:
        if text[j] == "\\":
            j += 1
        elif text[j] == "\n":
            break  # unterminated: stop at the line's end
        j += 1
    return j + 1


def scan(text):
    """Returns (masked, literals): the text with everything that is not code (comments,
    string and character literals, preprocessor lines) blanked out, offsets kept; and the
    (start, end, raw) content spans of the string literals."""
    masked = list(text)
    literals = []
    i, n = 0, len(text)
    line_start = True

    def blank(a, b):
        for k in range(a, min(b, n)):
            if masked[k] != "\n":
                masked[k] = " "

    while i < n:
        c = text[i]
        if line_start and c == "#":
            j = i
            while j < n and (text[j] != "\n" or text[j - 1] == "\\"):
                j += 1
            blank(i, j)
            i = j
            continue
        if c == "\n":
            line_start = True
            i += 1
            continue
        if not c.isspace():
            line_start = False
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            blank(i, j)
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            blank(i, j)
            i = j
        elif c == '"' and i > 0 and text[i - 1] == "R" and not _ident_char(text, i - 2):
            head = text.find("(", i)
            delimiter = text[i + 1 : head]
            close = text.find(")" + delimiter + '"', head)
            j = n if close < 0 else close + len(delimiter) + 2
            literals.append((head + 1, max(head + 1, close), True))
            blank(i, j)
            i = j
        elif c == '"':
            j = _string_end(text, i)
            literals.append((i + 1, j - 1, False))
            blank(i, j)
            i = j
        elif c == "'" and not (i > 0 and text[i - 1].isalnum()):
            j = _string_end(text, i)
            blank(i, j)
            i = j
        else:
            i += 1
    return "".join(masked), literals


def _ident_char(text, i):
    return 0 <= i < len(text) and (text[i].isalnum() or text[i] == "_")


# ---------------------------------------------------------------------------------------------
# Mutation sites. Each finder yields Mutants; a choice within a site (which character, +1 or -1)
# comes from a generator seeded by the site alone, so a mutant is the same in every sample.


def _site_rng(seed, path, start):
    return random.Random("%s:%s:%d" % (seed, path, start))


def comparison_sites(path, text, masked, seed):
    # Binary operators are spaced (clang-format); template brackets and shifts are not.
    for m in re.finditer(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)", masked):
        yield Mutant(path, m.start(1), m.end(1), NEGATED[m.group(1)], "comparison")


def logic_sites(path, text, masked, seed):
    for m in re.finditer(r"(?<=\s)(&&|\|\|)(?=\s)", masked):
        yield Mutant(path, m.start(1), m.end(1), "||" if m.group(1) == "&&" else "&&", "logic")


def bool_sites(path, text, masked, seed):
    for m in re.finditer(r"\b(true|false)\b", masked):
        yield Mutant(path, m.start(1), m.end(1), "false" if m.group(1) == "true" else "true", "bool")


def integer_sites(path, text, masked, seed):
    for m in re.finditer(r"(?<![\w.'])(\d+)(?=[uUlL]*(?![\w.']))", masked):
        value = int(m.group(1), 8 if len(m.group(1)) > 1 and m.group(1)[0] == "0" else 10)
        step = 1 if value == 0 else _site_rng(seed, path, m.start()).choice((1, -1))
        yield Mutant(path, m.start(1), m.end(1), str(value + step), "integer")


def _literal_positions(text, start, end, raw):
    """Offsets of the characters of a literal that stand for themselves (not escapes)."""
    positions = []
    i = start
    while i < end:
        if text[i] == "\\" and not raw:
            i += 2
            while i < end and text[i - 1] in "xX01234567" and text[i] in "0123456789abcdefABCDEF":
                i += 1
            continue
        positions.append(i)
        i += 1
    return positions


def string_sites(path, text, masked, seed):
    for start, end, raw in _scan_literals(text):
        positions = _literal_positions(text, start, end, raw)
        if not positions:
            continue
        rng = _site_rng(seed, path, start)
        letters = [p for p in positions if text[p].isalpha() and text[p].isascii()]
        if letters:
            p = rng.choice(letters)
            new = text[p].swapcase()
        else:
            p = rng.choice(positions)
            new = "_" if text[p] != "_" else "-"
        yield Mutant(path, p, p + 1, new, "string")


def _scan_literals(text):
    return scan(text)[1]


CALL_START = re.compile(
    r"^[ \t]*((?:[A-Za-z_]\w*\s*(?:::|\.|->)\s*)*([A-Za-z_]\w*))\s*(?:<[\w:, ]*>\s*)?\(", re.M
)


def _matching_paren(masked, open_at):
    depth = 0
    for j in range(open_at, len(masked)):
        if masked[j] == "(":
            depth += 1
        elif masked[j] == ")":
            depth -= 1
            if depth == 0:
                return j
    return -1


def call_sites(path, text, masked, seed):
    for m in CALL_START.finditer(masked):
        first = re.match(r"[A-Za-z_]\w*", m.group(1)).group(0)
        if first in KEYWORDS or m.group(2) in KEYWORDS:
            continue
        before = masked[: m.start(1)].rstrip()
        if before and before[-1] not in ";{}" and not before.endswith(("else", "default:")):
            continue  # the continuation of an expression, not a statement of its own
        close = _matching_paren(masked, m.end() - 1)
        if close < 0:
            continue
        after = re.compile(r"\s*;").match(masked, close + 1)
        if not after:
            continue
        begin = masked.rfind("\n", 0, m.start(1)) + 1
        end = after.end()
        rest = re.compile(r"[ \t]*(\n|$)").match(masked, end)
        if rest:  # the statement has its lines to itself: delete them whole
            end = rest.end()
        else:
            begin = m.start(1)
        yield Mutant(path, begin, end, "", "call")


FINDERS = {
    "comparison": comparison_sites,
    "logic": logic_sites,
    "bool": bool_sites,
    "integer": integer_sites,
    "string": string_sites,
    "call": call_sites,
}


def mutants_of(path, text, seed, operators=OPERATORS):
    masked, _ = scan(text)
    found = []
    for operator in operators:
        found.extend(FINDERS[operator](path, text, masked, seed))
    return sorted(found, key=lambda m: (m.start, m.operator))


def source_files(tree):
    files = []
    for root in ROOTS:
        for folder, _, names in os.walk(os.path.join(tree, root)):
            for name in names:
                if name.endswith(EXTENSIONS):
                    files.append(os.path.relpath(os.path.join(folder, name), tree))
    return sorted(files)


def sample(tree, seed, count, operators=OPERATORS):
    """All mutants of the sources, then `count` of them drawn with `seed`, in drawing order."""
    everything = []
    for path in source_files(tree):
        with open(os.path.join(tree, path), encoding="utf-8") as f:
            everything.extend(mutants_of(path, f.read(), seed, operators))
    rng = random.Random(seed)
    picked = rng.sample(range(len(everything)), min(count, len(everything)))
    return [everything[i] for i in picked], len(everything)


# ---------------------------------------------------------------------------------------------
# Running: a private copy of the tree, configured once, rebuilt per mutant.


def run(cmd, timeout=None, **kwargs):
    """Runs cmd in its own process group; on timeout kills the whole group. Returns
    (returncode or None on timeout, output)."""
    proc = subprocess.Popen(
        cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
        start_new_session=True, **kwargs
    )
    try:
        out, _ = proc.communicate(timeout=timeout)
        return proc.returncode, out
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        out, _ = proc.communicate()
        return None, out
    except BaseException:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.communicate()
        raise


def sync_copy(tree, copy):
    """Copies the tree's files (tracked and new, not ignored) into copy, rewriting only those
    that differ, so that unchanged files keep their times and the rebuild stays incremental."""
    listed = subprocess.run(
        ["git", "-C", tree, "ls-files", "-co", "--exclude-standard", "-z"],
        check=True, capture_output=True,
    ).stdout.decode().split("\0")
    for rel in filter(None, listed):
        src, dst = os.path.join(tree, rel), os.path.join(copy, rel)
        if not os.path.isfile(src):
            continue
        with open(src, "rb") as f:
            data = f.read()
        if os.path.isfile(dst):
            with open(dst, "rb") as f:
                if f.read() == data:
                    continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        shutil.copy2(src, dst)


def configure(copy, build):
    cmd = [
        "cmake", "-S", copy, "-B", build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
        "-DDATASTORE_BUILD_TESTS=ON",
        # A mutant in a shared library relinks that library, not every test against it.
        "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
    ]
    if shutil.which("ccache"):
        cmd.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
    code, out = run(cmd)
    if code != 0:
        sys.exit("mutation: configuring the copy failed\n" + out)


def build(build_dir, jobs, timeout=1800):
    return run(["cmake", "--build", build_dir, "-j", str(jobs)], timeout=timeout)


FAILED = re.compile(r"^\s*\d+ - (\S+) \((Failed|Timeout|SEGFAULT|Subprocess aborted|Exception|\w+)", re.M)


def run_tests(build_dir, jobs, timeout):
    """Catalogue tests first (the sharpest), then the rest; stops at the first failure.
    Returns None when every test passed, else what failed."""
    for selection in (["-R", "Catalogue"], ["-E", "Catalogue"]):
        cmd = ["ctest", "--test-dir", build_dir, "--stop-on-failure", "-j", str(jobs)] + selection
        started = time.time()
        code, out = run(cmd, timeout=timeout)
        if code is None:
            return "timeout after %ds" % (time.time() - started)
        if code != 0:
            failed = FAILED.findall(out)
            return ", ".join(name for name, _ in failed[:2]) or "ctest exit %d" % code
    return None


def parse_args(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    here = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser.add_argument("--seed", default="1", help="sample seed (default 1)")
    parser.add_argument("--count", type=int, default=100, help="mutants in the sample (100)")
    parser.add_argument("--list", action="store_true", help="print the sample, run nothing")
    parser.add_argument("--only", help="run only these sample numbers, e.g. 3,17")
    parser.add_argument("--operators", default=",".join(OPERATORS), help="comma-separated")
    parser.add_argument("--tree", default=here, help="the tree to test (default: this one)")
    parser.add_argument("--work", help="private copy, with its build/ (default TREE/build-mutation)")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--timeout", type=int, help="seconds per mutant's tests (3x baseline)")
    args = parser.parse_args(argv)
    args.operators = [o for o in args.operators.split(",") if o]
    unknown = set(args.operators) - set(OPERATORS)
    if unknown:
        parser.error("unknown operators: " + ", ".join(sorted(unknown)))
    args.work = os.path.abspath(args.work or os.path.join(args.tree, "build-mutation"))
    return args


def describe(mutant, text):
    old = text[mutant.start : mutant.end]
    if mutant.operator == "call":
        shown = " ".join(old.split())
        return "%s:%d call deleted: %s" % (mutant.path, mutant.line(text), shown[:70])
    return "%s:%d %s %r -> %r" % (mutant.path, mutant.line(text), mutant.operator, old, mutant.new)


def print_list(mutants, texts, total, seed):
    print("seed %s: %d of %d mutants" % (seed, len(mutants), total))
    for number, mutant in enumerate(mutants, 1):
        print("%3d %s" % (number, describe(mutant, texts[mutant.path])))


def test_mutant(mutant, copy, args, timeout):
    """Applies one mutant to the copy, builds and tests it, restores the file. Returns
    ('not built' | 'caught' | 'survived', detail)."""
    path = os.path.join(copy, mutant.path)
    with open(path, encoding="utf-8") as f:
        original = f.read()
    try:
        with open(path, "w", encoding="utf-8") as f:
            f.write(mutant.apply(original))
        code, out = build(os.path.join(args.work, "build"), args.jobs)
        if code != 0:
            errors = [l for l in out.splitlines() if "error" in l]
            return "not built", (errors[0] if errors else "build failed")[:120]
        failed = run_tests(os.path.join(args.work, "build"), args.jobs, timeout)
        return ("caught", failed) if failed else ("survived", "")
    finally:
        with open(path, "w", encoding="utf-8") as f:
            f.write(original)


def prepare(args):
    # The copy is laid out like a checkout with its build folder inside, so that ccache, whose
    # base_dir makes paths relative, finds what a developer's build already compiled.
    copy = args.work
    build_dir = os.path.join(args.work, "build")
    os.makedirs(copy, exist_ok=True)
    sync_copy(args.tree, copy)
    if not os.path.isfile(os.path.join(build_dir, "CMakeCache.txt")):
        configure(copy, build_dir)
    code, out = build(build_dir, args.jobs)
    if code != 0:
        sys.exit("mutation: the unmutated copy does not build\n" + out[-3000:])
    started = time.time()
    code, out = run(["ctest", "--test-dir", build_dir, "-j", str(args.jobs)])
    if code != 0:
        sys.exit("mutation: the unmutated copy fails its tests\n" + out[-3000:])
    baseline = time.time() - started
    print("baseline: built, every test passes in %.0fs" % baseline, flush=True)
    return copy, args.timeout or int(max(120, 3 * baseline))


def main(argv=None):
    args = parse_args(argv)
    mutants, total = sample(args.tree, args.seed, args.count, args.operators)
    texts = {}
    for mutant in mutants:
        with open(os.path.join(args.tree, mutant.path), encoding="utf-8") as f:
            texts[mutant.path] = f.read()
    if args.list:
        print_list(mutants, texts, total, args.seed)
        return 0
    chosen = range(1, len(mutants) + 1)
    if args.only:
        chosen = [int(x) for x in args.only.split(",")]
    copy, timeout = prepare(args)
    results = {}
    try:
        for number in chosen:
            mutant = mutants[number - 1]
            started = time.time()
            outcome, detail = test_mutant(mutant, copy, args, timeout)
            results[number] = outcome
            print("%3d %-9s %s  [%s] %.0fs" % (number, outcome, describe(mutant, texts[mutant.path]),
                                                 detail, time.time() - started), flush=True)
    except KeyboardInterrupt:
        print("interrupted: the score covers the mutants run so far")
    report(results, mutants, texts, args.seed)
    return 0


def report(results, mutants, texts, seed):
    built = [n for n, o in results.items() if o != "not built"]
    caught = [n for n in built if results[n] == "caught"]
    survivors = [n for n in built if results[n] == "survived"]
    score = 100.0 * len(caught) / len(built) if built else 0.0
    print("\nseed %s: %d mutants, %d not built, %d built, %d caught, %d survived: score %.1f%%"
          % (seed, len(results), len(results) - len(built), len(built), len(caught),
             len(survivors), score))
    for number in survivors:
        mutant = mutants[number - 1]
        print("\nsurvivor %d (%s)\n%s" % (number, mutant.operator, mutant.diff(texts[mutant.path])),
              end="")


if __name__ == "__main__":
    sys.exit(main())
