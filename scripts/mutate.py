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
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
GROUPS = {  # group -> (mutant id prefix, globs relative to the root)
    "store": ("s", ["porting_layer/src/ssl_store*.cpp"]),
    "object layer": ("o", ["porting_layer/src/ssl_util/*.cpp"]),
    "host key service": ("k", ["platform/host/host_km*.cpp"]),
    "host services": ("h", ["platform/host/host_[!k]*.cpp", "porting_layer/src/log/*.cpp"]),
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
    for group, (_, globs) in GROUPS.items():
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
    """The command's status, or "timeout" once it and everything it started are killed."""
    child = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                             env=env, start_new_session=True)
    try:
        return child.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(child.pid, signal.SIGKILL)
        child.wait()
        return "timeout"


def copy_tree(src):
    """The scratch source: the committed and staged files of the working tree, nothing else."""
    files = set(filter(None, subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True,
                                            capture_output=True).stdout.decode().split("\0")))
    for rel in files:
        target = src / rel
        target.parent.mkdir(parents=True, exist_ok=True)
        if not target.exists() or target.read_bytes() != (ROOT / rel).read_bytes():
            shutil.copy(ROOT / rel, target)  # a fresh mtime, so the build sees the change
    for stale in [p for p in src.rglob("*") if p.is_file()]:
        if str(stale.relative_to(src)) not in files:
            stale.unlink()


def list_tests(build):
    shown = subprocess.run(["ctest", "--test-dir", str(build), "--show-only=json-v1"],
                           check=True, capture_output=True).stdout
    return [(t["name"], Path(t["command"][0]).name) for t in json.loads(shown)["tests"]]


def line_coverage(src, cov, tests):
    """(file, line) -> numbers of the cases that run it, from a --coverage build, case by case."""
    covered = {}
    for number, (name, _) in enumerate(tests, 1):
        for stale in cov.rglob("*.gcda"):
            stale.unlink()
        run(["ctest", "--test-dir", str(cov), "-I", f"0,0,0,{number}"], src, timeout=300)
        data = [str(p) for p in cov.rglob("*.gcda")
                if "/porting_layer/" in str(p) or "/platform/" in str(p)]
        if not data:
            continue
        report = subprocess.run(["gcov", "--json-format", "--stdout", *data], cwd=cov,
                                capture_output=True, text=True).stdout
        for document in filter(None, report.splitlines()):
            for entry in json.loads(document)["files"]:
                rel = os.path.relpath(entry["file"], src)
                for line in entry["lines"]:
                    if line["count"] > 0:
                        covered.setdefault((rel, line["line_number"]), set()).add(number)
    return covered


def prepare(work, jobs):
    src, build, cov = work / "src", work / "build", work / "coverage"
    copy_tree(src)
    env = dict(os.environ, KORA_BUILD_DIR=str(build), KORA_JOBS=str(jobs))
    if run([str(src / "scripts" / "build.sh")], src, env=env) != 0:
        sys.exit("mutate: the unmutated tree does not build")
    if run(["ctest", "--test-dir", str(build), f"-j{jobs}"], src) != 0:
        sys.exit("mutate: the unmutated tree fails its own suite")
    env.update(KORA_BUILD_DIR=str(cov), CCACHE_DISABLE="1")
    flags = [f"-DCMAKE_{kind}_FLAGS=--coverage" for kind in ("C", "CXX", "EXE_LINKER")]
    if run([str(src / "scripts" / "build.sh"), *flags], src, env=env) != 0:
        sys.exit("mutate: the coverage build failed")
    tests = list_tests(build)
    return src, build, tests, line_coverage(src, cov, tests)


def run_cases(build, src, jobs, test_timeout, numbers=None):
    """0 when every case passes. Twice the processors: many cases wait on a peer or a child."""
    cmd = ["ctest", "--test-dir", str(build), f"-j{2 * jobs}", "--stop-on-failure",
           "--timeout", str(test_timeout)]
    if numbers:
        cmd += ["-I", "0,0,0," + ",".join(map(str, sorted(numbers)))]
    return run(cmd, src, timeout=test_timeout * 6)


def try_mutant(mutant, src, build, jobs, test_timeout, tests, covered):
    """The cases that run the line first, so most kills cost one small build; a mutant they
    miss (or on a line coverage cannot see, a declaration or a forked child's) meets the
    whole suite."""
    path = src / mutant.path
    original = path.read_text()
    lines = original.splitlines(keepends=True)
    ending = "\n" if lines[mutant.line_no - 1].endswith("\n") else ""
    lines[mutant.line_no - 1] = mutant.mutated + ending
    path.write_text("".join(lines))
    try:
        first = covered.get((mutant.path, mutant.line_no), set())
        if first:
            programs = sorted({tests[n - 1][1] for n in first})
            built = run(["cmake", "--build", str(build), f"-j{jobs}", "--target", *programs], src)
            if built != 0:  # a case run by a script rather than a program of its own
                built = run(["cmake", "--build", str(build), f"-j{jobs}"], src)
            if built != 0:
                return "stillborn"
            status = run_cases(build, src, jobs, test_timeout, first)
            if status != 0:
                return "hang" if status == "timeout" else "killed"
        if run(["cmake", "--build", str(build), f"-j{jobs}"], src) != 0:
            return "stillborn"
        status = run_cases(build, src, jobs, test_timeout)
        return {0: "survived", "timeout": "hang"}.get(status, "killed")
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
    parser.add_argument("--summary", metavar="LOG", action="append",
                        help="score the fates printed in LOG, run nothing; a later LOG (a rerun of "
                             "some mutants) overrides an earlier one")
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
            mutant.id = f"{GROUPS[group][0]}{number}"
            chosen.append(mutant)
        print(f"# {group}: {len(drawn)} of {len(pool)} mutants")
    if args.only:
        chosen = [m for m in chosen if m.id in args.only]
    if args.list:
        for m in chosen:
            print(f"{m.id:6} {m.path}:{m.line_no} [{m.operator}] {m.mutated.strip()}")
        return 0

    # A stopped run still puts the mutated line back (SystemExit runs the finally clauses).
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    equivalents = load_equivalents()
    results = {}
    if args.summary:  # the fates printed by an earlier run, with today's list of equivalents
        where = {m.id: f" {m.path}:{m.line_no} " for m in chosen}
        for log in args.summary:
            for raw in Path(log).read_text().splitlines():
                match = re.match(r"^([skoh]\d+)\s+(killed|hang|survived|equivalent|stillborn)\s", raw)
                if match and match.group(1) in where:
                    if where[match.group(1)] not in raw:  # the tree moved on since that run
                        sys.exit(f"mutate: {match.group(1)} of {log} is not this tree's")
                    results[match.group(1)] = match.group(2)
        return summarize(chosen, results, equivalents, args.goal)

    work = Path(os.environ.get("KORA_MUTATE_DIR", "/tmp/kora-mutate"))
    src, build, tests, covered = prepare(work, args.jobs)
    started = time.time()
    try:
        for m in chosen:
            results[m.id] = try_mutant(m, src, build, args.jobs, args.test_timeout, tests, covered)
            print(f"{m.id:6} {results[m.id]:10} {m.path}:{m.line_no} [{m.operator}] "
                  f"{m.mutated.strip()}", flush=True)
    finally:
        print(f"\n# {len(results)} of {len(chosen)} mutants in {time.time() - started:.0f} s")
        met = summarize(chosen, results, equivalents, args.goal)
    run(["cmake", "--build", str(build), f"-j{args.jobs}"], src)  # leave the scratch build clean
    return met


def summarize(chosen, results, equivalents, goal):
    """Prints the score table and every survivor; 0 when each goal group reaches the goal."""
    done = [m for m in chosen if m.id in results]
    for m in done:
        if results[m.id] in ("survived", "equivalent"):
            results[m.id] = "equivalent" if m.key() in equivalents else "survived"
    print("\n| group | mutants | stillborn | equivalent | killed | of which by a hang | survived | score |")
    print("|---|---|---|---|---|---|---|---|")
    met = True
    for group in GROUPS:
        outcomes = [results[m.id] for m in done if m.group == group]
        if not outcomes:
            continue
        count = {k: outcomes.count(k) for k in ("stillborn", "equivalent", "killed", "hang", "survived")}
        count["killed"] += count["hang"]
        live = count["killed"] + count["survived"]
        score = 100.0 * count["killed"] / live if live else 100.0
        met &= group not in GOAL_GROUPS or score >= goal
        print(f"| {group} | {len(outcomes)} | {count['stillborn']} | {count['equivalent']} | "
              f"{count['killed']} | {count['hang']} | {count['survived']} | {score:.1f}% |")
    for m in done:
        if results[m.id] in ("survived", "equivalent"):
            reason = equivalents.get(m.key(), "NOT KILLED")
            print(f"{results[m.id]:10} {m.id}: {m.key()} -- {reason}")
    return 0 if met else 1


if __name__ == "__main__":
    sys.exit(main())
