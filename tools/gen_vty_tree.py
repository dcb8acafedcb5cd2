#!/usr/bin/env python3
"""Writes the node records of the command tree libcorvex_vty_tree, and the
selector constants its callbacks compare their magic numbers with.

Usage: gen_vty_tree.py DESCRIPTION OUTPUT.cpp SELECTORS.h

DESCRIPTION is the indented tree (utils/vty_tree.txt says how it reads).
Each node becomes a static record named libcorvex_vty_tree followed by its
path of 1-based positions (libcorvex_vty_tree_1_3_2: the second alternative
below the third top-level word); where a command may end, its end-of-line
node is the first alternative. Only libcorvex_vty_tree itself is exported.
SELECTORS.h holds one enumeration per callback of the selectors named in
the description, for the callbacks to include.
"""
import argparse
import re
import sys
from pathlib import Path

LINE = re.compile(r'^(?P<indent> *)(?P<node><[^>]*>|\S+)\s+"(?P<help>[^"]*)"(?P<rest>.*)$')
VALUE = re.compile(r'^<(?P<kind>number|address)(?: (?P<min>\d+)-(?P<max>\d+))?>$')
IDENTIFIER = re.compile(r'^[A-Za-z_]\w*$')
U64_MAX = 2**64 - 1


class Node:
    def __init__(self, kind, help_text, word=None, low=0, high=U64_MAX):
        self.kind = kind  # keyword, number, address or end
        self.help = help_text
        self.word = word
        self.low, self.high = low, high
        self.hidden = False
        self.level = 0
        self.callback = None
        self.magic = 0
        self.selector = None  # the name the callback knows the magic number by
        self.followers = []
        self.name = None


def fail(where, message):
    sys.exit(f"{where}: {message}")


def parse_node(match, where):
    value = VALUE.match(match["node"])
    if value:
        low, high = (int(value["min"]), int(value["max"])) if value["min"] else (0, U64_MAX)
        if value["kind"] == "address" and value["min"]:
            fail(where, "an address node takes the whole address space")
        node = Node(value["kind"], match["help"], low=low, high=high)
    elif match["node"].startswith("<"):
        fail(where, f"unknown value node {match['node']}")
    else:
        node = Node("keyword", match["help"], word=match["node"])
    words = match["rest"].split()
    while words:
        word = words.pop(0)
        if word == "hidden" and node.kind == "keyword":
            node.hidden = True
        elif word == "level" and words:
            node.level = int(words.pop(0))
        elif word == "=>" and len(words) in (2, 3) and words[1].isdigit():
            end = Node("end", None)
            end.callback, end.magic = words[0], int(words[1])
            end.selector = words[2] if len(words) == 3 else None
            if end.selector is not None and not IDENTIFIER.match(end.selector):
                fail(where, f"selector name '{end.selector}' is not an identifier")
            end.where = where
            node.followers.append(end)
            words = []
        else:
            fail(where, f"unexpected '{word}'")
    return node


def parse(path):
    top = []
    open_nodes = []  # the last node of each indentation level
    with open(path, encoding="utf-8") as description:
        for number, text in enumerate(description, 1):
            where = f"{path}:{number}"
            if not text.strip() or text.lstrip().startswith("#"):
                continue
            match = LINE.match(text.rstrip("\n"))
            if not match or len(match["indent"]) % 2:
                fail(where, "expected: two spaces a level, a word or <value>, then \"help\"")
            depth = len(match["indent"]) // 2
            if depth > len(open_nodes):
                fail(where, "indented more than one level below the node above")
            node = parse_node(match, where)
            del open_nodes[depth:]
            (open_nodes[-1].followers if open_nodes else top).append(node)
            open_nodes.append(node)
    return top


def check_ends(nodes, where):
    for node in nodes:
        if node.kind != "end":
            if not node.followers:
                fail(where, f"'{node.word or node.kind}' ends no command and has nothing after it")
            check_ends(node.followers, where)


def name_all(nodes, path):
    for position, node in enumerate(nodes, 1):
        node.name = f"{path}_{position}"
        name_all(node.followers, node.name)


def preorder(nodes):
    for node in nodes:
        yield node
        yield from preorder(node.followers)


def ref(node):
    return f"node(&{node.name})" if node else "nullptr"


def c_string(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def record(node, next_node):
    first = node.followers[0] if node.followers else None
    kind = {"keyword": "KEYWORD", "number": "UNSIGNED_NUMBER", "address": "ADDRESS", "end": "END_OF_LINE"}[node.kind]
    info = (f".info = {{.type = PARSER_NODE_{kind}, .next_level = {ref(first)}, "
            f".next_this_level = {ref(next_node)}, .help = {c_string(node.help) if node.help else 'nullptr'}, "
            f".security_level = {node.level}}}")
    if node.kind == "keyword":
        fields = (f".keyword = {c_string(node.word)}, .hidden = {int(node.hidden)}, .usevalue = 0, .value = 0, "
                  f".no_case_sense = 0")
        record_type = "parser_type_keyword"
    elif node.kind == "number":
        fields = f".max = {node.high}ull, .min = {node.low}ull, .default_ok = 0"
        record_type = "parser_type_unsigned_number"
    elif node.kind == "address":
        fields = ".max = reinterpret_cast<void*>(UINTPTR_MAX), .min = nullptr, .default_ok = 0"
        record_type = "parser_type_address"
    else:
        fields = f".callback = {node.callback}, .magic_number = {node.magic}u"
        record_type = "parser_type_end_of_line"
    return f"static const {record_type} {node.name} = {{\n    {info},\n    {fields}}};\n"


def generate(top, source):
    name_all(top, "libcorvex_vty_tree_1")
    next_of = {}
    for node in preorder(top):
        for first, second in zip(node.followers, node.followers[1:]):
            next_of[id(first)] = second
    for first, second in zip(top, top[1:]):
        next_of[id(first)] = second
    # Every record points only at records that come after it in preorder,
    # so writing them in reverse defines each before it is referred to.
    records = [record(node, next_of.get(id(node))) for node in reversed(list(preorder(top)))]
    return (f"// Generated by tools/gen_vty_tree.py from {source}: edit that, not this.\n"
            "#include <cstdint>\n\n"
            '#include "heap.h"\n#include "host_cli.h"\n#include "packet_var.h"\n\n'
            "namespace {\n"
            "// The records link through plain pointers; the tree is never written.\n"
            "constexpr void* node(const void* record) { return const_cast<void*>(record); }\n"
            "}  // namespace\n\n"
            + "\n".join(records)
            + "\nextern \"C\" const parser_tree_info libcorvex_vty_tree = {\n"
            f"    .top = const_cast<parser_node_info*>(&{top[0].name}.info), .sub_parsers = nullptr}};\n")


def selectors(top):
    """{callback: {name: magic}}, each name standing for one magic number
    of one callback and each magic number of a callback named once."""
    named = {}
    for node in preorder(top):
        if node.kind != "end" or node.selector is None:
            continue
        names = named.setdefault(node.callback, {})
        known = names.get(node.selector)
        if known is not None and known != node.magic:
            fail(node.where, f"selector {node.selector} is {known} elsewhere")
        other = next((name for name, magic in names.items() if magic == node.magic and name != node.selector), None)
        if other is not None:
            fail(node.where, f"{node.callback} selector {node.magic} is named {other} elsewhere")
        names[node.selector] = node.magic
    return named


def generate_selectors(named, source):
    enums = []
    for callback, names in named.items():
        constants = ",\n".join(f"    {name} = {magic}" for name, magic in sorted(names.items(), key=lambda n: n[1]))
        enums.append(f"// The magic numbers {callback} is called with.\n"
                     f"enum {callback}_selector : u_int32_t {{\n{constants},\n}};\n")
    return (f"// Generated by tools/gen_vty_tree.py from {source}: edit that, not this.\n"
            "#pragma once\n\n"
            '#include "corvex_types.h"\n\n'
            "namespace corvex::vty {\n\n"
            + "\n".join(enums)
            + "\n}  // namespace corvex::vty\n")


def write(path, text):
    with open(path, "w", encoding="utf-8") as out:
        out.write(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("source", help="the tree's description (utils/vty_tree.txt)")
    parser.add_argument("output", help="the C++ file to write")
    parser.add_argument("selectors_output", metavar="SELECTORS.h", help="the selector header to write")
    arguments = parser.parse_args()
    source, output, selectors_output = arguments.source, arguments.output, arguments.selectors_output
    top = parse(source)
    if not top:
        fail(source, "no command")
    check_ends(top, source)
    shown_source = "/".join(Path(source).parts[-2:])
    named = selectors(top)
    write(output, generate(top, shown_source))
    write(selectors_output, generate_selectors(named, shown_source))


if __name__ == "__main__":
    main()
