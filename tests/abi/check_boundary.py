#!/usr/bin/env python3
"""Checks that no standard-library type crosses TernCoreLib.dll's boundary.

An application built with another C++ library, or another build of the same one, lays out and
names standard types differently, so none may stand in what both sides compile:

- signatures: no exported name (demangled) mentions a type of namespace std;
- layouts: no class that the exports name (the exported classes, and those in their signatures,
  such as XArray in String::ToTokens) holds a field or base of namespace std, directly or in a
  member or base of its own. Fixed-width integer typedefs (std::uint64_t) and std::size_t are
  plain integers, and pass.

The exports come from the DLL of an MSVC-ABI build (llvm-readobj, llvm-undname); the layouts from
clang's record layout dump of a file that takes the size of each of those classes through the
public headers.

  check_boundary.py --dll TernCoreLib.dll --readobj llvm-readobj --undname llvm-undname
                    --compiler clang-cl --flags FILE --work DIR
FILE holds the compiler's arguments for the public headers, one per line.
"""

import argparse
import pathlib
import re
import subprocess
import sys

ALLOWED_STD = re.compile(r"std::(?:u?int(?:8|16|32|64)_t|size_t|ptrdiff_t)\b")
MENTIONS_STD = re.compile(r"\bstd::")


def std_types(text):
    """The mentions of namespace std in `text` that are not plain integer typedefs."""
    return MENTIONS_STD.findall(ALLOWED_STD.sub("", text))


def balanced(text, start):
    """The end of the name that starts at `start`: the first space, comma, parenthesis, & or *
    outside angle brackets."""
    depth = 0
    end = start
    while end < len(text):
        ch = text[end]
        depth += ch == "<"
        depth -= ch == ">"
        if depth == 0 and ch in " ,()&*":
            break
        end += 1
    return end


def top_level_parts(name):
    """`name` split at the `::` outside angle brackets."""
    parts, depth, last = [], 0, 0
    for i, ch in enumerate(name):
        depth += ch == "<"
        depth -= ch == ">"
        if depth == 0 and name.startswith("::", i) and i >= last:
            parts.append(name[last:i])
            last = i + 2
    return parts + [name[last:]]


def class_names(signature):
    """The classes that a demangled name mentions: `class X` and `struct X` wherever they stand
    (parameters, results), and the class of a member (KVT::CBuffer<char>::Free, a vftable)."""
    names = []
    for match in re.finditer(r"\b(?:class|struct) ", signature):
        names.append(signature[match.end():balanced(signature, match.end())])
    for match in re.finditer(r"(?<![\w:])KVT::", signature):
        parts = top_level_parts(signature[match.start():balanced(signature, match.start())])
        if len(parts) >= 3:
            names.append("::".join(parts[:2]))
    return [name for name in names if re.match(r"^(KVT::[A-Z]\w*|XArray\w*)(<.*>)?$", name)]


def exports(args):
    listing = subprocess.run([args.readobj, "--coff-exports", args.dll], check=True,
                             capture_output=True, text=True).stdout
    mangled = [line.split("Name:", 1)[1].strip() for line in listing.splitlines()
               if line.strip().startswith("Name:")]
    mangled = [name for name in mangled if name]
    text = subprocess.run([args.undname], input="\n".join(mangled) + "\n", check=True,
                          capture_output=True, text=True).stdout
    demangled = [line for line in text.splitlines() if line and not line.startswith("?")]
    plain = [name for name in mangled if not name.startswith("?")]  # C names: no types.
    return demangled + plain


def dump_layouts(args, classes, work):
    source = work / "boundary_layouts.cpp"
    sizes = ",\n".join(f"    sizeof({name})" for name in sorted(classes))
    source.write_text('#include "TernCoreLib.h"\n\nunsigned long long tern_boundary_sizes[] = {\n'
                      f"{sizes}\n}};\n")
    flags = [line for line in pathlib.Path(args.flags).read_text().splitlines() if line.strip()]
    result = subprocess.run([args.compiler, *flags, "/Zs", "-Xclang", "-fdump-record-layouts",
                             "--", str(source)], capture_output=True, text=True)
    if result.returncode != 0:
        sys.exit(f"check_boundary: the layout file did not compile:\n{result.stderr}")
    blocks = {}
    for block in result.stdout.split("*** Dumping AST Record Layout")[1:]:
        lines = [line for line in block.splitlines() if "|" in line]
        head = re.match(r"\s*0 \| (?:class|struct|union) (.*?)( \(empty\))?$", lines[0])
        if head:
            blocks[head.group(1).strip()] = lines
    return blocks


# The spellings of one integer type in demangled names, in source and in the dump.
CANONICAL = [(r"std::uint64_t|unsigned __int64", "unsigned long long"),
             (r"std::int64_t|__int64", "long long"), (r"std::uint32_t", "unsigned int"),
             (r"std::int32_t", "int"), (r"std::uint16_t", "unsigned short"),
             (r"std::int16_t", "short"), (r"std::uint8_t", "unsigned char"),
             (r"std::int8_t", "signed char")]


def normalise(name):
    for spelling, canonical in CANONICAL:
        name = re.sub(r"\b(?:%s)\b" % spelling, canonical, name)
    return re.sub(r"\s+", "", name)


def main():
    parser = argparse.ArgumentParser()
    for option in ("dll", "readobj", "undname", "compiler", "flags", "work"):
        parser.add_argument("--" + option, required=True)
    args = parser.parse_args()
    work = pathlib.Path(args.work)
    work.mkdir(parents=True, exist_ok=True)

    problems = []
    names = exports(args)
    if len(names) < 100:
        sys.exit(f"check_boundary: only {len(names)} exports in {args.dll}")
    for name in names:
        if std_types(name):
            problems.append(f"exported signature names a standard type: {name}")

    classes = set()
    for name in names:
        classes.update(class_names(name))
    # A record's dump shows its members and bases laid out inside it, down to the last level.
    blocks = dump_layouts(args, classes, work)
    by_name = {normalise(key): lines for key, lines in blocks.items()}
    for name in sorted(classes):
        lines = by_name.get(normalise(name))
        if lines is None:
            problems.append(f"no layout dumped for {name}")
            continue
        inside = None  # The indentation of a standard type reported, whose insides follow.
        for line in lines[1:]:
            text = line.split("|", 1)[1]
            indent = len(text) - len(text.lstrip())
            if inside is not None and indent > inside:
                continue
            inside = None
            if std_types(text):
                problems.append(f"{name} holds a standard type: {text.strip()}")
                inside = indent

    for problem in problems:
        print(problem)
    print(f"{len(names)} exports and {len(classes)} classes checked, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
