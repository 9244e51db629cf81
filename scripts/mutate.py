#!/usr/bin/env python3
"""Mutation run: single-line faults put into the product, each run against the test suite.

    sudo scripts/mutate.py [--per-group N] [--seed S] [--list] [--only ID ...] [--group G ...]

Each mutant changes one line of porting_layer/ or platform/host/ (relational flips, && <-> ||,
negated conditions, deleted calls, constants +-1, swapped status codes, one-character string
changes). The tree is copied to a scratch directory (KORA_MUTATE_DIR, default
/tmp/kora-mutate) and built there once; every mutant is then built incrementally and the whole
suite runs until its first failure. A mutant that does not build is stillborn and not counted.

Survivors whose fault no test can observe are listed in scripts/mutate-equivalent.txt with the
reason; the score is killed / (built - equivalent), per group. Exit status 0 when every group
reaches --goal (default 95%).
"""
import argparse
import os
import random
import re
import shutil
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
GROUPS = {  # group -> globs, relative to the root
    "store": ["porting_layer/src/ssl_store*.cpp"],
    "object layer": ["porting_layer/src/ssl_util/*.cpp"],
    "host key service": ["platform/host/host_km*.cpp"],
    "host services": ["platform/host/host_[!k]*.cpp", "porting_layer/src/log/*.cpp"],
}
GOAL_GROUPS = ("store", "object layer", "host key service")
EQUIVALENT_FILE = ROOT / "scripts" / "mutate-equivalent.txt"

RELATIONAL = [(" < ", " <= "), (" <= ", " < "), (" > ", " >= "), (" >= ", " > "),
              (" == ", " != "), (" != ", " == ")]
LOGICAL = [(" && ", " || "), (" || ", " && ")]
RETURNS = [("return 0;", "return -1;"), ("return -1;", "return 0;"), ("return -2;", "return -1;"),
           ("return true;", "return false;"), ("return false;", "return true;"),
           ("return KORA_OK;", "return KORA_ERROR;"), ("return KORA_ERROR;", "return KORA_OK;"),
           ("return KORA_ERR_INVALID_PARAM;", "return KORA_ERROR;"),
           ("return KORA_ERR_NO_MEMORY;", "return KORA_ERROR;"),
           ("return KORA_ERR_NOT_SUPPORTED;", "return KORA_ERROR;")]
CALL_STATEMENT = re.compile(r"^\s*(?:\(void\)\s*)?[A-Za-z_][\w:.\->\[\]]*\s*\(.*\);\s*$")
IF_CONDITION = re.compile(r"^(\s*(?:\}\s*else\s+)?if\s*)\((.*)\)(\s*\{?\s*)$")
INTEGER = re.compile(r"(?<![\w.'\"])(\d+)(?![\w.'\"])")
STRING = re.compile(r'"((?:[^"\\]|\\.)*)"')
SKIP_LINE = re.compile(r"^\s*(//|#|\*|/\*)|static_assert|NOLINT|^\s*$")


class Mutant:
    def __init__(self, group, path, line_no, original, mutated, operator):
        self.group, self.path, self.line_no = group, path, line_no
        self.original, self.mutated, self.operator = original, mutated, operator
        self.id = ""

    def key(self):
        """What identifies a mutant across edits elsewhere in the file."""
        return f"{self.path} | {self.original.strip()} | {self.mutated.strip()}"


def balanced(text):
    depth = 0
    for ch in STRING.sub('""', text):
        depth += {"(": 1, ")": -1}.get(ch, 0)
        if depth < 0:
            return False
    return depth == 0


def code_part(line):
    """The line with string literals and a trailing comment blanked, for operators on code."""
    code = STRING.sub(lambda m: '"' + "_" * len(m.group(1)) + '"', line)
    comment = code.find("//")
    return code if comment < 0 else code[:comment] + " " * (len(code) - comment)


def replace_in_code(line, old, new):
    """Every position where `old` occurs outside string literals gives one mutated line."""
    code = code_part(line)
    start = code.find(old)
    while start >= 0:
        yield line[:start] + new + line[start + len(old):]
        start = code.find(old, start + 1)


def mutants_of_line(line):
    if SKIP_LINE.search(line):
        return
    for operator, pairs in (("relational", RELATIONAL), ("logical", LOGICAL), ("status", RETURNS)):
        for old, new in pairs:
            for mutated in replace_in_code(line, old, new):
                yield operator, mutated
    match = IF_CONDITION.match(line)
    if match and balanced(match.group(2)):
        yield "negate", f"{match.group(1)}(!({match.group(2)})){match.group(3)}"
    if CALL_STATEMENT.match(line) and balanced(line) and not line.strip().startswith("return"):
        indent = line[:len(line) - len(line.lstrip())]
        yield "delete call", indent + ";"
    code = code_part(line)
    for match in INTEGER.finditer(code):
        value = int(match.group(1))
        for changed in (value + 1, value - 1):
            if changed >= 0:
                yield "constant", line[:match.start()] + str(changed) + line[match.end():]
    for match in STRING.finditer(line[:len(code.rstrip())]):
        text = match.group(1)
        letters = [i for i, ch in enumerate(text) if ch.isalpha()]
        if letters and "\\" not in text:
            i = letters[len(letters) // 2]
            changed = text[:i] + ("x" if text[i] != "x" else "y") + text[i + 1:]
            yield "string", line[:match.start(1)] + changed + line[match.end(1):]


def generate():
    mutants = []
    for group, globs in GROUPS.items():
        for pattern in globs:
            for path in sorted(ROOT.glob(pattern)):
                rel = str(path.relative_to(ROOT))
                in_block_comment = False
                for no, line in enumerate(path.read_text().splitlines(), 1):
                    if "/*" in line and "*/" not in line:
                        in_block_comment = True
                    if in_block_comment:
                        in_block_comment = "*/" not in line
                        continue
                    for operator, mutated in mutants_of_line(line):
                        mutants.append(Mutant(group, rel, no, line, mutated, operator))
    return mutants


def load_equivalents():
    reasons = {}
    if EQUIVALENT_FILE.exists():
        for raw in EQUIVALENT_FILE.read_text().splitlines():
            if raw.strip() and not raw.startswith("#"):
                key, _, reason = raw.rpartition(" | ")
                reasons[key.strip()] = reason.strip()
    return reasons


def run(cmd, cwd, timeout=None, env=None):
    try:
        return subprocess.run(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              timeout=timeout, env=env).returncode
    except subprocess.TimeoutExpired:
        return "timeout"


def prepare(work, jobs):
    src, build = work / "src", work / "build"
    files = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True,
                           capture_output=True).stdout.decode().split("\0")
    for rel in filter(None, files):
        target = src / rel
        target.parent.mkdir(parents=True, exist_ok=True)
        if not target.exists() or target.read_bytes() != (ROOT / rel).read_bytes():
            shutil.copy2(ROOT / rel, target)
    env = dict(os.environ, KORA_BUILD_DIR=str(build), KORA_JOBS=str(jobs))
    if run([str(src / "scripts" / "build.sh")], src, env=env) != 0:
        sys.exit("mutate: the unmutated tree does not build")
    if run(["ctest", "--test-dir", str(build), f"-j{jobs}"], src) != 0:
        sys.exit("mutate: the unmutated tree fails its own suite")
    return src, build


def try_mutant(mutant, src, build, jobs, test_timeout):
    path = src / mutant.path
    original = path.read_text()
    lines = original.splitlines(keepends=True)
    ending = "\n" if lines[mutant.line_no - 1].endswith("\n") else ""
    lines[mutant.line_no - 1] = mutant.mutated + ending
    path.write_text("".join(lines))
    try:
        if run(["cmake", "--build", str(build), f"-j{jobs}"], src) != 0:
            return "stillborn"
        # Twice the processors: many cases wait on a peer or a child rather than compute.
        status = run(["ctest", "--test-dir", str(build), f"-j{2 * jobs}", "--stop-on-failure",
                      "--timeout", str(test_timeout)], src, timeout=test_timeout * 20)
        return "survived" if status == 0 else "killed"
    finally:
        path.write_text(original)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--per-group", type=int, default=40,
                        help="mutants drawn per group with a goal, half that for the others (0: all)")
    parser.add_argument("--seed", type=int, default=14)
    parser.add_argument("--group", action="append", help="only these groups")
    parser.add_argument("--only", action="append", help="only these mutant ids (e.g. s12)")
    parser.add_argument("--list", action="store_true", help="print the mutants and stop")
    parser.add_argument("--goal", type=float, default=95.0)
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--test-timeout", type=int, default=30)
    args = parser.parse_args()

    chosen, everything = [], generate()
    for group in GROUPS:
        if args.group and group not in args.group:
            continue
        pool = [m for m in everything if m.group == group]
        wanted = args.per_group if group in GOAL_GROUPS else args.per_group // 2
        drawn = pool if args.per_group == 0 or wanted >= len(pool) else \
            random.Random(f"{args.seed}:{group}").sample(pool, wanted)
        drawn.sort(key=lambda m: (m.path, m.line_no, m.mutated))
        for number, mutant in enumerate(drawn, 1):
            mutant.id = f"{group[0]}{group.split()[-1][0]}{number}"
            chosen.append(mutant)
        print(f"# {group}: {len(drawn)} of {len(pool)} mutants")
    if args.only:
        chosen = [m for m in chosen if m.id in args.only]
    if args.list:
        for m in chosen:
            print(f"{m.id:6} {m.path}:{m.line_no} [{m.operator}] {m.mutated.strip()}")
        return 0

    equivalents = load_equivalents()
    work = Path(os.environ.get("KORA_MUTATE_DIR", "/tmp/kora-mutate"))
    src, build = prepare(work, args.jobs)
    results = {}
    started = time.time()
    for m in chosen:
        outcome = try_mutant(m, src, build, args.jobs, args.test_timeout)
        if outcome == "survived" and m.key() in equivalents:
            outcome = "equivalent"
        results[m.id] = outcome
        print(f"{m.id:6} {outcome:10} {m.path}:{m.line_no} [{m.operator}] {m.mutated.strip()}",
              flush=True)
    run(["cmake", "--build", str(build), f"-j{args.jobs}"], src)  # leave the scratch build clean

    print(f"\n# {len(chosen)} mutants in {time.time() - started:.0f} s\n")
    print("| group | mutants | stillborn | equivalent | killed | survived | score |")
    print("|---|---|---|---|---|---|---|")
    met = True
    for group in GROUPS:
        outcomes = [results[m.id] for m in chosen if m.group == group]
        if not outcomes:
            continue
        count = {k: outcomes.count(k) for k in ("stillborn", "equivalent", "killed", "survived")}
        live = count["killed"] + count["survived"]
        score = 100.0 * count["killed"] / live if live else 100.0
        met &= group not in GOAL_GROUPS or score >= args.goal
        print(f"| {group} | {len(outcomes)} | {count['stillborn']} | {count['equivalent']} | "
              f"{count['killed']} | {count['survived']} | {score:.1f}% |")
    for m in chosen:
        if results[m.id] in ("survived", "equivalent"):
            reason = equivalents.get(m.key(), "NOT KILLED")
            print(f"{results[m.id]:10} {m.id}: {m.key()} -- {reason}")
    return 0 if met else 1


if __name__ == "__main__":
    sys.exit(main())
