#!/usr/bin/env python3
"""Fails on Markdown that a bad merge or a forgotten fence left broken.

Checks every *.md file under the given root (build trees excluded):
  - a line that is a merge-conflict marker (<<<<<<<, =======, >>>>>>>),
    inside code blocks too: a bad merge shifts fences, so it often lands in
    one;
  - a fenced code block (``` or ~~~) that is never closed, which turns the
    rest of the file into code, or one that meets a fence with an info
    string (```sh) before its end: that cannot close it, so the two were
    meant as a pair of blocks and one closing fence is missing.
Prints one line per fault, file:line: reason, and exits 1 if any was found.
"""
import os
import re
import sys

MARKER = re.compile(r'^(<{7}|={7}|>{7})( |$)')
FENCE = re.compile(r'^ {0,3}(`{3,}|~{3,})')
SKIP_DIRS = {'.git', 'node_modules'}


def check(path):
    faults = []
    fence = None  # (character, length, line) of the open fence
    with open(path, encoding='utf-8', errors='replace') as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip('\n')
            if MARKER.match(line):
                faults.append(f'{path}:{number}: merge-conflict marker')
            m = FENCE.match(line)
            if not m:
                continue
            mark = m.group(1)
            info = line.strip()[len(mark):].strip()
            if fence is None:
                fence = (mark[0], len(mark), number)
            elif mark[0] == fence[0] and len(mark) >= fence[1]:
                if info:
                    faults.append(f'{path}:{number}: fence with "{info}" inside '
                                  f'the block opened at line {fence[2]}')
                fence = None
    if fence is not None:
        faults.append(f'{path}:{fence[2]}: code fence never closed')
    return faults


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else '.'
    faults = []
    for top, dirs, files in os.walk(root):
        dirs[:] = sorted(d for d in dirs
                         if d not in SKIP_DIRS and not d.startswith('build'))
        for name in sorted(files):
            if name.endswith('.md'):
                faults += check(os.path.join(top, name))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == '__main__':
    sys.exit(main())
