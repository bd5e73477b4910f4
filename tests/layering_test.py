#!/usr/bin/env python3
"""Checks that the library's folders form layers.

Every folder under src/mroute that holds a mroute_library() is one target. For each target this says an
error when one of its files includes a header of another target that the target does not list in DEPS
(so a public header's includes are always declared), and when the targets' includes form a cycle.
Usage: layering_test.py <source root>; exit 1 with one line per finding.
"""
import pathlib
import re
import sys

LIBRARY = re.compile(r'mroute_library\((\w+)(.*?)\)', re.S)
INCLUDE = re.compile(r'^\s*#\s*include\s+"mroute/([^"]+)"', re.M)


def targets(src):
    """Folder (relative to src/mroute) -> (target name, declared deps)."""
    found = {}
    for cmake in sorted(src.rglob('CMakeLists.txt')):
        for name, body in LIBRARY.findall(cmake.read_text()):
            deps = set(re.findall(r'mroute::(\w+)', body.split('DEPS', 1)[1])) if 'DEPS' in body else set()
            found[cmake.parent.relative_to(src).as_posix()] = (name, deps)
    return found


def owner(path, folders):
    """The target folder that holds `path`: the longest folder prefix."""
    best = None
    for folder in folders:
        if (path == folder or path.startswith(folder + '/')) and (best is None or len(folder) > len(best)):
            best = folder
    return best


def main(root):
    src = pathlib.Path(root) / 'src' / 'mroute'
    folders = targets(src)
    uses = {name: set() for name, _ in folders.values()}
    findings = []
    for file in sorted(src.rglob('*')):
        if file.suffix not in ('.h', '.cc'):
            continue
        rel = file.relative_to(src).as_posix()
        home = owner(rel, folders)
        if home is None:
            continue
        name, deps = folders[home]
        for included in INCLUDE.findall(file.read_text()):
            there = owner(included, folders)
            if there is None or there == home:
                continue
            other = folders[there][0]
            uses[name].add(other)
            if other not in deps:
                findings.append(f'{rel}: includes mroute/{included} but mroute::{name} does not declare mroute::{other}')
    # A cycle in the include graph between targets.
    state = {}

    def visit(node, stack):
        state[node] = 'open'
        for nxt in sorted(uses[node]):
            if state.get(nxt) == 'open':
                findings.append('include cycle: ' + ' -> '.join(stack[stack.index(nxt):] + [nxt]))
            elif nxt not in state:
                visit(nxt, stack + [nxt])
        state[node] = 'done'

    for node in sorted(uses):
        if node not in state:
            visit(node, [node])
    for line in findings:
        print(line)
    return 1 if findings else 0


if __name__ == '__main__':
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else '.'))
