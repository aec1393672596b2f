#!/usr/bin/env python3
"""Reports C++ function bodies longer than a limit, and files longer than a
limit, by brace matching (comments, strings and preprocessor lines are
blanked first). A heuristic, not a parser: a body is a brace block opened at
namespace or class level whose head holds a parameter list.

usage: funclen.py [--max-func N] [--max-file N] [--top K] PATH...
Exits 1 when something is over a limit."""
import argparse
import os
import re
import sys

EXTS = ('.cpp', '.cc', '.h', '.hpp')
NOT_FUNC = re.compile(r'^\s*(namespace|class|struct|union|enum|extern\s+"C")\b')


def blank(text):
    """Replaces comments, string/char literals and preprocessor lines by
    spaces, keeping newlines so line numbers stay."""
    out = []
    i, n = 0, len(text)
    line_start = True
    while i < n:
        c = text[i]
        if line_start and c == '#':
            # preprocessor line, with continuations
            while i < n and text[i] != '\n':
                if text[i] == '\\' and i + 1 < n and text[i + 1] == '\n':
                    out.append(' \n')
                    i += 2
                    continue
                out.append(' ')
                i += 1
            continue
        if c == '\n':
            line_start = True
            out.append(c)
            i += 1
            continue
        if not c.isspace():
            line_start = False
        if text.startswith('//', i):
            while i < n and text[i] != '\n':
                out.append(' ')
                i += 1
        elif text.startswith('/*', i):
            j = text.find('*/', i + 2)
            j = n if j < 0 else j + 2
            out.append(re.sub(r'[^\n]', ' ', text[i:j]))
            i = j
        elif c == 'R' and text.startswith('R"', i):
            m = re.match(r'R"([^(]*)\(', text[i:])
            end = text.find(')' + m.group(1) + '"', i) if m else -1
            j = n if end < 0 else end + len(m.group(1)) + 2
            out.append(re.sub(r'[^\n]', ' ', text[i:j]))
            i = j
        elif c in '"\'':
            j = i + 1
            while j < n and text[j] != c and text[j] != '\n':
                j += 2 if text[j] == '\\' else 1
            j = min(j + 1, n)
            out.append(' ' * (j - i))
            i = j
        else:
            out.append(c)
            i += 1
    return ''.join(out)


def functions(path):
    """Yields (name, first line, line count) for each function body."""
    with open(path, encoding='utf-8', errors='replace') as f:
        text = blank(f.read())
    stack = []  # per open brace: (kind, line, head)
    head_start = 0
    line = 1
    for i, c in enumerate(text):
        if c == '\n':
            line += 1
        elif c == '{':
            head = text[head_start:i]
            in_func = any(k == 'func' for k, _, _ in stack)
            kind = 'block'
            if not in_func:
                h = ' '.join(head.split())
                if (not NOT_FUNC.match(h) and '(' in h and ')' in h
                        and not h.rstrip().endswith('=')
                        and not re.search(r'=\s*$', h)):
                    kind = 'func'
                elif NOT_FUNC.match(h):
                    kind = 'scope'
            stack.append((kind, line, head))
            head_start = i + 1
        elif c == '}':
            if stack:
                kind, start, head = stack.pop()
                if kind == 'func':
                    name = re.findall(r'([~\w:]+)\s*\(', head)
                    yield (name[0] if name else '?', start, line - start + 1)
            head_start = i + 1
        elif c == ';':
            head_start = i + 1
        elif c == ':' and text[i - 1:i + 1] != '::' and text[i:i + 2] != '::':
            # access specifiers and constructor initialiser lists keep
            # their head; only "public:" style labels reset it
            if re.search(r'\b(public|private|protected)\s*$', text[head_start:i]):
                head_start = i + 1


def walk(paths):
    for p in paths:
        if os.path.isfile(p):
            yield p
            continue
        for root, _, files in os.walk(p):
            for name in sorted(files):
                if name.endswith(EXTS):
                    yield os.path.join(root, name)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--max-func', type=int, default=70)
    ap.add_argument('--max-file', type=int, default=450)
    ap.add_argument('--top', type=int, default=0,
                    help='also list the K longest functions and files')
    ap.add_argument('paths', nargs='+')
    args = ap.parse_args()
    funcs, files = [], []
    for path in walk(args.paths):
        with open(path, encoding='utf-8', errors='replace') as f:
            files.append((sum(1 for _ in f), path))
        for name, start, length in functions(path):
            funcs.append((length, '%s:%d %s' % (path, start, name)))
    bad = 0
    for length, where in sorted(funcs, reverse=True):
        if length > args.max_func:
            print('function %4d lines  %s' % (length, where))
            bad += 1
    for length, path in sorted(files, reverse=True):
        if length > args.max_file:
            print('file     %4d lines  %s' % (length, path))
            bad += 1
    if args.top:
        print('-- longest functions')
        for length, where in sorted(funcs, reverse=True)[:args.top]:
            print('%4d  %s' % (length, where))
        print('-- longest files')
        for length, path in sorted(files, reverse=True)[:args.top]:
            print('%4d  %s' % (length, path))
    return 1 if bad else 0


if __name__ == '__main__':
    sys.exit(main())
