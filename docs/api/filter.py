#!/usr/bin/env python3
# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""filter.py FOLDER FILE...: writes into FOLDER what Doxygen reads instead of the files, under their names.

Headers keep their plain comments, which are the manual for people who read the source. Here a comment right before a
declaration, or behind one, becomes Doxygen's; one that stands alone before the first declaration is the file's; the
declarations that follow without an empty line share it. Indented lines are listings. In pages headings get the names
that links of the repository's viewer use.
"""

import pathlib
import re
import sys

COMMENT = re.compile(r"^(\s*)//( ?)(.*)$")
TRAILING = re.compile(r"^(?P<code>[^\"/]*(?:\"(?:\\.|[^\"])*\"[^\"/]*)*[^\s\"/][^\"/]*?)(?P<gap>\s+)// (?P<text>.*)$")


def escaped(text):
    """What Doxygen would take for commands or HTML is text. Between quotes and backquotes it takes nothing for that."""
    pieces = re.split(r"(`[^`]*`|\"[^\"]*\")", text)
    for i in range(0, len(pieces), 2):
        pieces[i] = re.sub(r"([\\@<>#&%$*]|\b_|_\b)", r"\\\1", pieces[i])
    return "".join(pieces)


def described(lines):
    """The lines of a comment, without their slashes, in Doxygen's language."""
    out, listing, in_list = [], [], False

    def end_listing():
        if listing:
            kind = "code{.cpp}" if any(line.endswith(";") for line in listing) else "code{.unparsed}"
            out.extend([f"\\{kind}", *(line[2:] for line in listing), "\\end" + re.sub(r"\{.*", "", kind)])
            listing.clear()

    for line in lines:
        item = re.match(r"\s+- ", line)
        if item or (in_list and line.startswith("    ")):
            end_listing()
            in_list = True
            out.append(("- " if item else "  ") + escaped(line.strip().removeprefix("- ")))
            continue
        in_list = False
        if line.startswith("  "):
            listing.append(line)
            continue
        end_listing()
        out.append(escaped(line))
    end_listing()
    return out


def is_code(line):
    return line.strip() != "" and not COMMENT.match(line) and not line.lstrip().startswith("#")


def declarations(lines, at):
    """How many lines from `at` on, up to an empty one, are operations or fields that say nothing themselves."""
    end, ended = at, 0
    while end < len(lines) and is_code(lines[end]) and "//" not in lines[end] and not re.search(r"[{}]\s*;?$|:$", lines[end]):
        ended += lines[end].rstrip().endswith(";")
        end += 1
    return end - at if ended > 1 and lines[end - 1].rstrip().endswith(";") else 0


def header(text):
    lines = text.splitlines()
    out, at, begun = [], 0, False
    while at < len(lines):
        comment = COMMENT.match(lines[at])
        if comment is None:
            line = lines[at]
            begun = begun or is_code(line)
            at += 1
            trailing = TRAILING.match(line)
            if trailing is None or line.lstrip().startswith("#"):
                out.append(line)
                continue
            # Lines below that begin in the same column go on with it.
            column, said = line.rindex("// " + trailing["text"]), [trailing["text"]]
            while at < len(lines) and COMMENT.match(lines[at]) and lines[at].index("//") == column:
                said.append(lines[at][column + 2:].removeprefix(" "))
                at += 1
            said = [escaped(words) for words in said]
            out.append(f"{trailing['code']}{trailing['gap']}///< {said[0]}")
            out.extend(" " * column + f"///< {words}" for words in said[1:])
            continue
        block = []
        while at < len(lines) and COMMENT.match(lines[at]):
            block.append(COMMENT.match(lines[at]).group(3) if COMMENT.match(lines[at]).group(2) else "")
            at += 1
        indent = comment.group(1)
        followed = at < len(lines) and is_code(lines[at])
        if block[0].startswith("SPDX") or block[0].startswith("---") or not (followed or not begun):
            out.extend(f"{indent}// {line}" for line in block)
            continue
        if not followed:
            block.insert(0, "")
        shared = declarations(lines, at) if followed else 0
        said = described(block)
        if not followed:
            said[0] = "\\file"
        said = [f"{indent}/// {line}".rstrip() for line in said]
        if shared:
            said = [f"{indent}///@{{", *said, *lines[at:at + shared], f"{indent}///@}}"]
            at += shared
        out.extend(said)
    return "\n".join(out) + "\n"


def anchor(stem, title):
    """As the repository's viewer makes them, with the page's name before it."""
    return stem + "-" + re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-")


def page_name(path):
    """Of the README of a folder below the root the folder's."""
    stem = path.stem.lower()
    return path.parent.name if stem == "readme" and not (path.parent / "CMakePresets.json").exists() else stem


def page(path, text):
    stem = page_name(path)
    seen = {}

    def heading(match):
        marks, title = match.groups()
        if marks == "#":
            return f"# {title} {{#page-{stem}}}"
        known = anchor(stem, title)
        seen[known] = seen.get(known, -1) + 1
        return f"{marks} {title} {{#{known}{'-' + str(seen[known]) if seen[known] else ''}}}"

    pieces = re.split(r"(^```.*?^```$)", text, flags=re.M | re.S)
    for i in range(0, len(pieces), 2):
        pieces[i] = re.sub(r"^(#+) (.*)$", heading, pieces[i], flags=re.M)
        # A name behind "::" would be looked up, also between backquotes.
        pieces[i] = re.sub(r"`([^`<&\n]*\+\+)::([^`<&\n]*)`", r"<tt>\1\\::\2</tt>", pieces[i])
        pieces[i] = re.sub(r"\]\((?:docs/)?([\w-]*)(?:\.md)?#([^)]+)\)",
                           lambda m: f"](#{(m[1] or stem).lower()}-{m[2]})", pieces[i])
        pieces[i] = re.sub(r"\]\(([\w-]+)/README\.md\)", lambda m: f"](#page-{m[1].lower()})", pieces[i])
        pieces[i] = re.sub(r"\]\((?:docs/)?([\w-]+)\.md\)", lambda m: f"](#page-{m[1].lower()})", pieces[i])
    return "".join(pieces)


def main():
    folder = pathlib.Path(sys.argv[1])
    for name in sys.argv[2:]:
        path = pathlib.Path(name)
        text = path.read_text(encoding="utf-8")
        made = folder / name
        made.parent.mkdir(parents=True, exist_ok=True)
        made.write_text(page(path.resolve(), text) if path.suffix == ".md" else header(text), encoding="utf-8")


if __name__ == "__main__":
    main()
