#!/usr/bin/env python3
"""Doxygen's INPUT_FILTER for the library's headers: turns their plain // comments into doc
comments, so that the headers keep one comment style and the reference still shows every
contract. Prints the filtered header; line numbers stay as they are, so warnings point at the
real lines.

usage: header_filter.py HEADER

What becomes of a comment, by where it stands (comments inside function bodies stay plain):
- the first comment block of the file, before any declaration: the file's description
  (the aliases of the Doxyfile end a command's line, so that the filter adds no lines);
- a block right above a declaration: that declaration's documentation; further declarations of
  the same name right below it (the narrow and wide twins) are marked as its overloads;
- a comment behind a declaration on the same line: that declaration's documentation;
- a block followed by a blank line, inside a namespace or class: the heading and description of
  a member group that lasts until the next such block or the end of the scope;
- everything in the file goes into the group of its folder (the subsystem), declared in
  groups.dox.
"""
import os
import re
import sys

DECLARATION_NAME = re.compile(r"(~?\w+|operator\s*[^\s(]+)\s*\(")
FIELD_NAME = re.compile(r"(\w+)\s*(\[[^\]]*\])?\s*(=[^;]*)?;\s*$")
SCOPE_KEYWORD = re.compile(r"\b(namespace|class|struct|union|enum|extern)\b")
ACCESS = re.compile(r"(public|protected|private)\s*:")


def code_part(line):
    """The line without its // comment and string literals, and the comment's text or None."""
    stripped = re.sub(r'"(\\.|[^"\\])*"|\'(\\.|[^\'\\])*\'', '""', line)
    at = stripped.find("//")
    if at < 0:
        return stripped, None
    return stripped[:at], stripped[at + 2:]


def title_of(first):
    """A member group's heading, from the first line of its comment: "--- Title ---" (a line of
    its own), or a short first sentence ("Lines."), or else the first word ("Searches are...").
    True when the line is the heading alone."""
    first = first.strip()[2:].strip()
    heading = re.fullmatch(r"-+\s*(.*?)\s*-+", first)
    if heading:
        return heading.group(1), True
    sentence = re.match(r"([^.:]*?)(\s*\([^)]*\))?[.:]\s", first + " ")
    if sentence and len(sentence.group(1).split()) <= 4:
        return sentence.group(1), False
    return first.split()[0].rstrip(".,:;"), False


def brief_first(block):
    """The texts of a comment block with its first sentence on one line, so that Doxygen, which
    takes a brief description up to the first dot of the first line, gets the whole sentence.
    The lines that the sentence leaves empty come first, where Doxygen skips them."""
    texts = [l.strip()[2:] for l in block]
    for k, text in enumerate(texts):
        if not text.strip():
            return texts  # A paragraph ends before the first sentence does.
        if re.search(r"\.(\s|$)", text):
            if k > 0:
                texts[:k + 1] = [""] * k + [" " + " ".join(t.strip() for t in texts[:k + 1])]
            return texts
    return texts


def run_doc(name, first, block):
    """The documentation of a declaration in the run right below a documented one (named
    `first`, documented by the comment `block`): an overload of the same name refers to it,
    any other shares its comment."""
    if name is None or first is None:
        return None
    if name == first:
        return "/** \\overload */ "
    text = " ".join(l.strip()[2:].strip() for l in block)
    return "/** %s */ " % text.replace("*/", "* /")


def declared_name(code):
    match = DECLARATION_NAME.search(code) or FIELD_NAME.search(code)
    return match.group(1) if match else None


def filter_header(path, lines):
    group = os.path.basename(os.path.dirname(os.path.abspath(path)))
    if group not in ("foundation", "buffer", "sync", "net", "xml"):
        group = "library"
    out = list(lines)
    scopes = []          # One entry per open brace: True for a namespace, class or enum.
    statement = ""       # Code since the last ; { or }, to classify the next brace.
    seen_code = False
    open_groups = []     # Scope depth of the open member group, if any.
    previous_name = None  # The first declaration of a run below a comment, and the comment.
    previous_block = []

    def close_group(depth, at):
        if open_groups and open_groups[-1] == depth:
            out[at] = "/*@}*/ " + out[at]
            open_groups.pop()

    i = 0
    while i < len(lines):
        line = lines[i]
        text = line.strip()
        in_body = scopes and not scopes[-1]
        if text.startswith("//") and not text.startswith(("///", "//!")) and not in_body:
            start = i
            while i < len(lines) and lines[i].strip().startswith("//"):
                i += 1
            block = lines[start:i]
            following = lines[i].strip() if i < len(lines) else ""
            indent = line[:len(line) - len(line.lstrip())]
            if not seen_code and (following == "" or following.startswith("#")):
                texts = brief_first(block)
                out[start] = indent + "/** \\filedoc " + texts[0]
                for k in range(start + 1, i):
                    out[k] = " *" + texts[k - start]
                out[i - 1] += " */"
                seen_code = True
            elif following == "":
                # A section: a member group that opens on the blank line behind it.
                close_group(len(scopes), start)
                title, alone = title_of(block[0])
                for k in range(start, i):
                    out[k] = indent + " *" + lines[k].strip()[2:]
                out[start] = indent + "/** \\heading{%s}" % title + ("" if alone else out[start][len(indent) + 2:])
                out[i - 1] += " */"
                if i < len(lines):
                    out[i] = indent + "/*@{*/"
                    open_groups.append(len(scopes))
            elif not following.startswith("#"):
                for k, text in enumerate(brief_first(block)):
                    out[start + k] = indent + "///" + text
                previous_name = declared_name(code_part(following)[0])
                previous_block = block
                seen_code = True
            continue
        if ACCESS.match(text):
            close_group(len(scopes), i)
        if text and not text.startswith(("#", "//")) and not re.fullmatch(r"namespace \w+ \{", text):
            seen_code = True
        code, comment = code_part(line)
        if code.strip() and not in_body and not text.startswith("#"):
            name = declared_name(code)
            if comment is not None and not comment.startswith(("/", "!")) and \
                    code.strip().strip("{};"):
                out[i] = line[:len(code)] + "///<" + comment
            elif run_doc(name, previous_name, previous_block) and lines[i - 1].strip() and \
                    not lines[i - 1].strip().startswith("//"):
                indent = line[:len(line) - len(line.lstrip())]
                out[i] = indent + run_doc(name, previous_name, previous_block) + line.lstrip()
        if not text:
            previous_name = None
        if not text.startswith("#"):
            for ch in code:
                if ch == "{":
                    scopes.append(bool(SCOPE_KEYWORD.search(statement)))
                    statement = ""
                elif ch == "}":
                    close_group(len(scopes), i)
                    if scopes:
                        scopes.pop()
                    statement = ""
                elif ch == ";":
                    statement = ""
                else:
                    statement += ch
        i += 1
    # Everything in the file belongs to its subsystem's group. Doxygen puts the classes and
    # functions of a namespace into a group only when the group opens inside the namespace.
    def plain(k):
        return lines[k].strip() and not lines[k].strip().startswith("#")

    spaces = [k for k in range(len(lines)) if re.fullmatch(r"namespace \w+ \{", lines[k].strip())]
    first = next(k for k in range(spaces[0] + 1 if spaces else 0, len(lines)) if plain(k))
    out[first] = "/** \\subsystem{%s} */ " % group + out[first]
    last = max(k for k in range(len(lines)) if plain(k))
    closers = re.match(r"(/\*@\}\*/ )*", out[last]).group()
    if re.match(r"\}\s*// namespace", lines[last].strip()):
        out[last] = closers + "/** @} */ " + out[last][len(closers):]
    else:
        at = out[last].find("//") if "//" in out[last] else len(out[last])
        out[last] = out[last][:at].rstrip() + " /** @} */ " + out[last][at:]
    return out


def main():
    with open(sys.argv[1], encoding="utf-8") as f:
        lines = f.read().split("\n")
    sys.stdout.write("\n".join(filter_header(sys.argv[1], lines)))


if __name__ == "__main__":
    main()
