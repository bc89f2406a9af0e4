#!/usr/bin/env python3
"""What is public shows in the path: the checks of the tree's layout.

- The public headers are the headers that include/TernCoreLib.h reaches, and they are exactly
  the headers of the subsystem folders themselves (the tests' helpers, whose names hold "test",
  aside). A subsystem's internal headers live in <subsystem>/internal/.
- No public header includes an internal one, but for the one exception: x_array.h needs
  foundation/internal/counted_block.h, since the application compiles XArray, whose table is a
  counted block.
- The tools and the examples include public headers only (and the examples' own).
- An internal header that opens the namespace KVT puts its names into KVT::internal.

  check_layout.py SOURCE_DIR
Prints each violation and exits 1 if there is any.
"""
import pathlib
import re
import sys

SUBSYSTEMS = ("foundation", "buffer", "sync", "net", "xml")
EXCEPTION = ("foundation/x_array.h", "foundation/internal/counted_block.h")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def includes(root, path):
    return INCLUDE.findall((root / path).read_text(encoding="utf-8", errors="replace"))


def main():
    root = pathlib.Path(sys.argv[1])
    problems = []

    def resolve(name):
        # The project's includes are written from the checkout's root, the umbrella by its name.
        return "include/" + name if name == "TernCoreLib.h" else name

    reached, queue = set(), ["include/TernCoreLib.h"]
    while queue:
        header = queue.pop()
        if header in reached:
            continue
        reached.add(header)
        if not (root / header).is_file():
            problems.append(f"{header}: reached from TernCoreLib.h but missing")
            continue
        for name in includes(root, header):
            target = resolve(name)
            if "/internal/" in target and (header, target) != EXCEPTION:
                problems.append(f"{header}: a public header includes the internal {target}")
            queue.append(target)

    own = {f"{s}/{p.name}" for s in SUBSYSTEMS for p in (root / s).glob("*.h")
           if "test" not in p.name}
    public = reached - {"include/TernCoreLib.h", EXCEPTION[1]}
    for header in sorted(own - public):
        problems.append(f"{header}: not reached from TernCoreLib.h; an internal header "
                        "belongs in internal/")
    for header in sorted(public - own):
        problems.append(f"{header}: reached from TernCoreLib.h but not a subsystem's own header")

    for folder in ("tools", "examples"):
        for path in sorted((root / folder).rglob("*")):
            if path.suffix not in (".h", ".cpp"):
                continue
            name = path.relative_to(root).as_posix()
            for included in includes(root, name):
                target = resolve(included)
                if target not in reached - {EXCEPTION[1]} and not target.startswith("examples/"):
                    problems.append(f"{name}: includes {included}, which is not public")

    for path in sorted(root.glob("*/internal/*.h")):
        text = path.read_text(encoding="utf-8", errors="replace")
        if "namespace KVT {" in text and not re.search(r"namespace KVT \{\s*namespace internal \{",
                                                       text):
            problems.append(f"{path.relative_to(root).as_posix()}: internal names belong in "
                            "KVT::internal")

    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
