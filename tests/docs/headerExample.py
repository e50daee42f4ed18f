#!/usr/bin/env python3
"""Writes the example that a header's first comment shows into a file that can be compiled.

Usage: headerExample.py HEADER OUTPUT
"""

import re
import sys
from pathlib import Path


def main():
    header, output = map(Path, sys.argv[1:])
    comment = header.read_text(encoding="utf-8").split("*/", 1)[0]
    example = re.findall(r"^ \*     (.*)$", comment, re.MULTILINE)
    if not example:
        sys.exit(f"{header}: no example in its first comment")
    output.write_text(f"#include <korvane/{header.name}>\n\n" + "\n".join(example) + "\n",
                      encoding="utf-8")


if __name__ == "__main__":
    main()
