#!/usr/bin/env python3
"""Mutation runner: do the tests notice when the code is wrong?

Applies one mutation at a time to chosen lines of chosen source files,
rebuilds, runs the chosen tests and reports the mutants that survive (the
tests still pass). Standard library only.

    python3 tools/mutate/mutate.py [options] FILE[:FIRST-LAST] ...

Mutations, each applied to one occurrence on one line:
  cmp     flip a comparison (== and !=, < and <=, > and >=)
  logic   swap && and ||, true and false
  const   change an integer constant (n -> n + 1, 0 -> 1)
  drop    drop a statement (a line that is one call or assignment)

Options:
  --build DIR        build directory (default: build)
  --targets T ...    build targets to rebuild per mutant (default: all)
  --label L          ctest label regular expression (default: unit|e2e)
  --tests REGEX      ctest -R regular expression instead of a label
  --exclude-label L  ctest labels left out (default: slow)
  --timeout S        seconds per test (default: 30)
  --sample N         at most N mutants, chosen evenly over the list
  --ops OPS          comma-separated operators (default: cmp,logic,const,drop)
  --budget S         stop starting new mutants after S seconds (default: no limit)
  --list             only list the mutants
  --report FILE      write the survivors (file:line, operator, mutated line) there

A mutant that does not compile is not counted. The survival rate is
survivors / (killed + survivors). The source file is restored after each
mutant, also when the runner is interrupted. Do not edit the mutated files
while it runs.
"""
import argparse
import os
import re
import signal
import subprocess
import sys
import time

CMP = [("==", "!="), ("!=", "=="), ("<=", "<"), (">=", ">"), ("<", "<="), (">", ">=")]
LOGIC = [("&&", "||"), ("||", "&&"), ("true", "false"), ("false", "true")]
INT = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)(?:[uU]?[lL]{0,2})(?![\w.])")
# statements worth dropping: a call or an assignment, alone on its line (a
# compile-time assertion is not one: no test can see it dropped)
DROPPABLE = re.compile(r"^\s*(?!return\b|break\b|continue\b|case\b|default\b|else\b|static_assert\b|\w*STATIC_ASSERT\b)"
                       r"[\w:.\->\[\]()*&]+\s*(\(.*\)|[-+*/|&^]?=[^=].*)\s*;\s*$")


def code_part(line):
    """The line without a trailing // comment and without string literals' contents."""
    out, quote, i = [], None, 0
    while i < len(line):
        c = line[i]
        if quote:
            out.append(" " if c != quote else c)
            if c == "\\":
                out.append(" ")
                i += 1
            elif c == quote:
                quote = None
        elif c in "\"'":
            quote = c
            out.append(c)
        elif line.startswith("//", i):
            break
        else:
            out.append(c)
        i += 1
    return "".join(out)


def skip_line(code):
    s = code.strip()
    return (not s or s.startswith("#") or s.startswith("*") or s.startswith("/*") or s in ("{", "}", "};")
            or s.startswith("static_assert") or s.startswith("template") or s.startswith("namespace")
            or s.startswith("extern") or s.startswith("using"))


def token_positions(code, token):
    """Positions of a comparison or logic token that stands on its own."""
    found = []
    for m in re.finditer(re.escape(token), code):
        a, b = m.start(), m.end()
        before = code[a - 1] if a > 0 else " "
        after = code[b] if b < len(code) else " "
        if token in ("<", ">"):
            # not <<, >>, ->, <=, >=, template brackets, #include <...>
            if before in "<>-=" or after in "<>=" or re.match(r"[\w:*&\s,]+>", code[b:]) and token == "<":
                continue
            if token == ">" and (before.isalnum() or before in "_*&") and re.search(r"<[\w:,\s*&]*$", code[:a]):
                continue
        if token in ("<=", ">=") and (before in "<>" or after == "="):
            continue
        if token in ("==", "!=") and (after == "=" or before in "=!<>"):
            continue
        if token in ("true", "false") and (before.isalnum() or before == "_" or after.isalnum() or after == "_"):
            continue
        found.append(a)
    return found


def mutants_of_line(line, ops):
    code = code_part(line.rstrip("\n"))
    if skip_line(code):
        return []
    out = []
    if "cmp" in ops:
        for old, new in CMP:
            for pos in token_positions(code, old):
                out.append(("cmp", line[:pos] + new + line[pos + len(old):]))
    if "logic" in ops:
        for old, new in LOGIC:
            for pos in token_positions(code, old):
                out.append(("logic", line[:pos] + new + line[pos + len(old):]))
    if "const" in ops and not re.search(r"\[\s*\w*\s*\]\s*[;=]|^\s*(case\b)", code):
        for m in INT.finditer(code):
            text = m.group(1)
            value = int(text, 16) if text.lower().startswith("0x") else int(text)
            new = hex(value + 1) if text.lower().startswith("0x") else str(value + 1)
            out.append(("const", line[:m.start(1)] + new + line[m.end(1):]))
    if "drop" in ops and DROPPABLE.match(code):
        indent = line[:len(line) - len(line.lstrip())]
        out.append(("drop", indent + ";  // dropped\n"))
    return out


def parse_target(target):
    m = re.match(r"^(.*?):(\d+)-(\d+)$", target)
    if m:
        return m.group(1), int(m.group(2)), int(m.group(3))
    return target, 1, 10 ** 9


def run(cmd, timeout=None):
    try:
        return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return -1


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("files", nargs="+")
    ap.add_argument("--build", default="build")
    ap.add_argument("--targets", nargs="*", default=[])
    ap.add_argument("--label", default="unit|e2e")
    ap.add_argument("--tests")
    ap.add_argument("--exclude-label", default="slow")
    ap.add_argument("--timeout", type=int, default=30)
    ap.add_argument("--sample", type=int, default=0)
    ap.add_argument("--ops", default="cmp,logic,const,drop")
    ap.add_argument("--budget", type=int, default=0)
    ap.add_argument("--list", action="store_true")
    ap.add_argument("--report")
    args = ap.parse_args()
    ops = set(args.ops.split(","))

    mutants = []
    for target in args.files:
        path, first, last = parse_target(target)
        with open(path) as f:
            lines = f.readlines()
        for n in range(max(first, 1), min(last, len(lines)) + 1):
            for op, new in mutants_of_line(lines[n - 1], ops):
                mutants.append((path, n, op, new))
    if args.sample and len(mutants) > args.sample:
        step = len(mutants) / args.sample
        mutants = [mutants[int(i * step)] for i in range(args.sample)]
    if args.list:
        for path, n, op, new in mutants:
            print(f"{path}:{n}: {op}: {new.strip()}")
        print(f"{len(mutants)} mutants")
        return 0

    build = ["cmake", "--build", args.build] + (["--target"] + args.targets if args.targets else [])
    test = ["ctest", "--test-dir", args.build, "--stop-on-failure", "--timeout", str(args.timeout), "-j2"]
    test += ["-R", args.tests] if args.tests else ["-L", args.label]
    if args.exclude_label:
        test += ["-LE", args.exclude_label]
    if run(build) != 0 or run(test) != 0:
        print("the unmutated build or its tests fail: nothing to measure", file=sys.stderr)
        return 2

    killed, survivors, invalid = 0, [], 0
    current = {}

    def restore(*_):
        # Only a file that still holds the mutant is put back: a file edited
        # meanwhile by someone else is left alone and reported.
        for path, (text, mutated) in current.items():
            with open(path) as f:
                now = f.read()
            if now == mutated:
                with open(path, "w") as f:
                    f.write(text)
            elif now != text:
                print(f"{path} changed while it was mutated: left as it is, check it", file=sys.stderr)
        current.clear()

    def interrupted(*_):
        restore()
        run(build)
        sys.exit(130)

    signal.signal(signal.SIGINT, interrupted)
    signal.signal(signal.SIGTERM, interrupted)
    start = time.time()
    for i, (path, n, op, new) in enumerate(mutants, 1):
        if args.budget and time.time() - start > args.budget:
            print(f"time budget spent: {i - 1} of {len(mutants)} mutants run")
            break
        with open(path) as f:
            original = f.read()
        lines = original.splitlines(keepends=True)
        lines[n - 1] = new
        mutated = "".join(lines)
        current[path] = (original, mutated)
        try:
            with open(path, "w") as f:
                f.write(mutated)
            if run(build) != 0:
                invalid += 1
                verdict = "does not build"
            elif run(test, timeout=args.timeout * 20) == 0:
                survivors.append((path, n, op, new.strip()))
                verdict = "SURVIVED"
            else:
                killed += 1
                verdict = "killed"
        finally:
            restore()
        print(f"[{i}/{len(mutants)}] {path}:{n} {op}: {verdict}: {new.strip()}", flush=True)
    run(build)

    counted = killed + len(survivors)
    rate = 100.0 * len(survivors) / counted if counted else 0.0
    summary = (f"{killed + len(survivors) + invalid} of {len(mutants)} mutants run: {killed} killed, {len(survivors)} survived, {invalid} did not build; "
               f"survival {rate:.1f}% ({time.time() - start:.0f} s)")
    print(summary)
    for s in survivors:
        print("survivor: %s:%d %s: %s" % s)
    if args.report:
        with open(args.report, "w") as f:
            f.write(summary + "\n")
            for s in survivors:
                f.write("%s:%d %s: %s\n" % s)
    return 0


if __name__ == "__main__":
    sys.exit(main())
