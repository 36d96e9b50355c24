#!/usr/bin/env python3
"""Finds public functions without a comment.

Every function declared with KAVO_API in the public headers
(host/include/kavo/*.h and the generated gen/*.h) must carry a comment: one
directly above it, or above the group of declarations it belongs to (a run
of declarations with no blank line between them shares the comment above its
first line), or at the end of its own line.

    python3 tools/docs/check_header_docs.py [HEADER ...]

Prints "file:line: name has no comment" for each one and exits 1 when there
is any; exits 0 when every function is commented.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
DECL = re.compile(r"^\s*KAVO_API\b.*?\b(\w+)\s*\(")


def undocumented(path):
    lines = path.read_text().splitlines()
    missing = []
    for i, line in enumerate(lines):
        m = DECL.match(line)
        if not m:
            continue
        if re.search(r"/\*.*\*/\s*$|//", line):
            continue
        j = i - 1
        # Climb over the declarations of the same group (and their continuation lines).
        while j >= 0 and lines[j].strip() and not lines[j].rstrip().endswith("*/") \
                and not lines[j].lstrip().startswith("//"):
            if not (DECL.match(lines[j]) or lines[j].startswith((" ", "\t"))):
                break
            j -= 1
        prev = lines[j].rstrip() if j >= 0 else ""
        if not (prev.endswith("*/") or prev.lstrip().startswith("//")):
            missing.append((i + 1, m.group(1)))
    return missing


def main(argv):
    headers = [pathlib.Path(a) for a in argv] or sorted((ROOT / "host/include/kavo").rglob("*.h"))
    bad = 0
    for h in headers:
        for line, name in undocumented(h):
            print(f"{h.relative_to(ROOT) if h.is_absolute() else h}:{line}: {name} has no comment")
            bad += 1
    if bad:
        print(f"{bad} public function(s) without a comment", file=sys.stderr)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
