#!/usr/bin/env python3
"""Compares the code and the output that pages of documentation show with what is compiled.

Usage: checkPages.py ROOT NAME=COMMAND... -- PAGE...

A fenced block behind one of these lines must be, to the letter, what the line names:

    <!-- code: FILE [REGION] -->    what stands between two comments `// [REGION]` of FILE, or all of it
    <!-- output: NAME -->           what the command NAME prints to standard output

Every relative link of a page must lead to a file. Reports all differences; exits with 1 if there is any.
"""

import difflib
import re
import shlex
import subprocess
import sys
import textwrap
from pathlib import Path


def region(path, name):
    text = path.read_text(encoding="utf-8")
    if name is None:
        return text
    mark = re.compile(rf"^[ ]*// \[{re.escape(name)}\]\n", re.MULTILINE)
    parts = mark.split(text)
    if len(parts) != 3:
        raise ValueError(f"{path}: no region [{name}]")
    return textwrap.dedent(parts[1])


def main():
    root = Path(sys.argv[1])
    split = sys.argv.index("--")
    commands = dict(argument.split("=", 1) for argument in sys.argv[2:split])
    block = re.compile(r"<!-- (code|output): ([^\s]+)(?: \[([^\]]+)\])? -->\n+```[^\n]*\n(.*?)^```",
                       re.MULTILINE | re.DOTALL)
    link = re.compile(r"\]\(([^)#:]+)(?:#[^)]*)?\)")
    blocks, links, failures = 0, 0, 0
    for page in map(Path, sys.argv[split + 1:]):
        text = page.read_text(encoding="utf-8")
        if text.count("<!-- ") != len(block.findall(text)):
            print(f"{page}: a comment is not followed by a block", file=sys.stderr)
            failures += 1
        for kind, source, name, shown in block.findall(text):
            blocks += 1
            if kind == "code":
                actual = region(root / source, name)
            else:
                actual = subprocess.run(shlex.split(commands[source]), check=True, text=True,
                                        stdout=subprocess.PIPE).stdout
            if shown != actual:
                failures += 1
                sys.stderr.writelines(difflib.unified_diff(
                    shown.splitlines(True), actual.splitlines(True), str(page), source))
        for target in link.findall(text):
            links += 1
            if not (page.parent / target).exists():
                failures += 1
                print(f"{page}: the link {target} leads nowhere", file=sys.stderr)
    print(f"{blocks} blocks and {links} links compared, {failures} differences")
    return 1 if failures or not blocks else 0


if __name__ == "__main__":
    sys.exit(main())
