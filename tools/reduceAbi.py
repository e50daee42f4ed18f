#!/usr/bin/env python3
"""Reduces what abidw writes to what clients are compiled against.

Usage: reduceAbi.py ROOT <abidw's output >baseline

Kept are the exported symbols, the functions behind them, and the classes that these refer to with all
fields and virtual slots. Of the C++ runtime's classes only name and size are kept: their inside is the
runtime's affair, and changes with it. Of the classes that ROOT's sources keep to themselves only the
name is kept. No place in a source file is named but the unit, relative to ROOT.
"""

import sys
import xml.etree.ElementTree as ElementTree

RUNTIME = {"std", "__gnu_cxx"}


def items(parent, around=None, inRuntime=False):
    """(parent, node, class around it, hollow) for all that can be dropped on its own."""
    for node in list(parent):
        if node.tag == "namespace-decl":
            yield from items(node, around, inRuntime or node.get("name") in RUNTIME)
            continue
        hollow = inRuntime and node.tag == "class-decl"
        if hollow:
            for part in list(node):
                if part.tag == "member-type":
                    yield from items(part, node, inRuntime)
                else:
                    node.remove(part)
        yield parent, node, around, hollow


def relative(path, root):
    return path.removeprefix(root).removeprefix("./")


def isExported(node):
    return any("elf-symbol-id" in part.attrib for part in node.iter())


def references(node):
    for part in node.iter():
        if "type-id" in part.attrib:
            yield part.get("type-id")
        if "naming-typedef-id" in part.attrib:
            yield part.get("naming-typedef-id")


def prune(node):
    for child in list(node):
        prune(child)
        if child.tag in ("member-type", "namespace-decl", "abi-instr") and len(child) == 0:
            node.remove(child)


def main():
    root = sys.argv[1].rstrip("/") + "/"
    corpus = ElementTree.parse(sys.stdin).getroot()
    for unit in corpus.findall("abi-instr"):
        unit.set("path", relative(unit.get("path"), root))

    # What no public header shows can change without a client.
    for node in corpus.iter("class-decl"):
        place = relative(node.get("filepath", ""), root)
        if place.startswith("Sources/") and (place.endswith(".cpp") or "/internal/" in place):
            node[:] = []
            node.attrib.pop("size-in-bits", None)
            node.set("is-declaration-only", "yes")
    for node in corpus.iter():
        for name in ("filepath", "line", "column"):
            node.attrib.pop(name, None)

    # A member function that has neither a symbol nor a virtual slot lives in clients alone.
    for node in corpus.iter("class-decl"):
        for part in node.findall("member-function"):
            if not isExported(part) and "vtable-offset" not in part.attrib:
                node.remove(part)

    everything = [item for unit in corpus.findall("abi-instr") for item in items(unit)]
    itemOf = {id(item[1]): item for item in everything}
    definitions = {}
    for item in everything:
        for part in item[1].iter():
            if "id" in part.attrib:
                definitions.setdefault(part.get("id"), []).append(item)

    kept, reached = set(), [item for item in everything if isExported(item[1])]
    while reached:
        _, node, around, hollow = reached.pop()
        if id(node) in kept:
            continue
        kept.add(id(node))
        if around is not None:
            reached.append(itemOf[id(around)])
        if not hollow:
            for name in references(node):
                reached += definitions.get(name, [])
    for parent, node, _, _ in everything:
        if id(node) not in kept:
            parent.remove(node)
    prune(corpus)

    ElementTree.indent(corpus)
    ElementTree.ElementTree(corpus).write(sys.stdout, encoding="unicode")
    print()


main()
