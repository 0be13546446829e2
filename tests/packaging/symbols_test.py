# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""symbols_test.py LIBRARY HEADER,... FOLDER,... [--sanitized]: what the shared library shows.

Its name, everything that its installed headers declare and nothing else, the order of the thread wrapper's virtual
functions, that all it needs comes from libc, the C++ library and SQLite, and that no FOLDER of the build is named in it.
"""

import pathlib
import re
import subprocess
import sys

NEEDED = re.compile(r"lib(c|m|gcc_s|stdc\+\+|sqlite3|pthread|rt|dvbsi\+\+|atomic)\.so\.\d+|ld-linux.*|ld\.so\.\d+")
SLOTS = ["COrbelThreadKelvo::Setup()", "COrbelThreadKelvo::Execute(void*)"]


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def declarations(text):
    """Yields (class or "", name, number of parameters, access) of every function that a header declares and leaves to
    the library to define, (class, "", 0, "virtual") for a class that has a virtual table, and variables with None for
    the parameters. Knows the forms that clang-format leaves of our own headers."""
    text = re.sub(r"//[^\n]*|/\*.*?\*/|^#[^\n]*(?:\\\n[^\n]*)*", "", text, flags=re.S | re.M)
    text = re.sub(r"__attribute__\(\(.*?\)\)\)?(?=;)|\bKELVO_EXPORT\b", "", text)
    scopes = []  # of class, access; None for any other brace
    start = i = 0
    while i < len(text):
        inner = scopes[-1] if scopes else ["", "public"]
        head = " ".join(text[start:i].split())
        label = re.search(r"\b(public|protected|private)$", head)
        if text[i] == ":" and label and text[i + 1] != ":":
            inner[1] = label.group(1)
            start = i + 1
        elif text[i] == "{":
            named = re.match(r"(class|struct) (\w+)[^=(]*$", head)
            if named and inner is not None:
                owner = (inner[0] + "::" if inner[0] else "") + named.group(2)
                scopes.append([owner, "public" if named.group(1) == "struct" else "private"])
                if re.search(r": public", head):
                    yield owner, "", 0, "virtual"
            elif head.startswith("namespace"):
                scopes.append(["", "public"])
            else:
                scopes.append(None)
            start = i + 1
        elif text[i] == "}":
            scopes.pop()
            start = i + 1
        elif text[i] == ";":
            start = i + 1
            if inner is not None and head:
                yield from declared(inner[0], head, inner[1])
        i += 1


def declared(owner, head, access):
    if head.startswith("virtual "):
        yield owner, "", 0, "virtual"
    if re.match(r"(using|friend|typedef|enum|class|struct|template|static_assert)\b(?!.*\()", head) or \
            re.match(r"(using|friend|typedef|template|static_assert)\b", head) or re.search(r"= (default|delete)$", head):
        return
    if head.startswith("extern "):
        yield owner, re.search(r"(\w+)$", head).group(1), None, access
    function = re.match(r"(?:[^()=<]|<[^()]*>)*?(~?\w+)\(", head)
    if function and not head.endswith("}"):
        depth, parameters, empty = 0, 1, True
        for at in range(function.end(), len(head)):
            letter = head[at]
            if letter == ")" and depth == 0:
                break
            depth += {"(": 1, "<": 1, "{": 1, ")": -1, ">": -1, "}": -1}.get(letter, 0)
            parameters += letter == "," and depth == 0
            empty = False
        yield owner, function.group(1), 0 if empty else parameters, access


def exported(library):
    """The same forms, of what the library shows."""
    shown = set()
    for line in run("nm", "-DC", "--defined-only", library).splitlines():
        name = line.split(" ", 2)[2]
        table = re.match(r"(?:vtable|typeinfo|typeinfo name) for (.*)", name)
        if table:
            shown.add((table.group(1), "", 0))
            continue
        name = name.replace("[abi:cxx11]", "")
        function = re.match(r"((?:\w+::)*)(~?\w+)\((.*)\)(?: const)?$", name)
        if function is None:
            shown.add(("", name, None))
            continue
        depth, parameters = 0, 1 if function.group(3) else 0
        for letter in function.group(3):
            depth += {"(": 1, "<": 1, ")": -1, ">": -1}.get(letter, 0)
            parameters += letter == "," and depth == 0
        shown.add((function.group(1)[:-2], function.group(2), parameters))
    return shown


def text_of(symbol):
    owner, name, parameters = symbol
    if not name:
        return f"the virtual table of {owner}"
    return (owner + "::" if owner else "") + name + (f" with {parameters} parameters" if parameters is not None else "")


def check_exports(library, headers):
    wanted, may = set(), set()
    for header in headers:
        for owner, name, parameters, access in declarations(pathlib.Path(header).read_text()):
            may.add((owner, name, parameters))
            if access in ("public", "protected"):
                wanted.add((owner, name, parameters))
    shown = exported(library)
    return [f"shown, but no installed header declares it: {text_of(symbol)}" for symbol in sorted(shown - may, key=str)] + \
        [f"declared in an installed header, but not shown: {text_of(symbol)}" for symbol in sorted(wanted - shown, key=str)]


def check_dynamic(library, sanitized):
    problems = []
    dynamic = run("readelf", "-d", library)
    soname = re.search(r"SONAME.*\[(.*)\]", dynamic)
    if soname is None or soname.group(1) != "libkelvo++.so.2":
        problems.append(f"SONAME is {soname and soname.group(1)}")
    if not sanitized:
        problems += [f"needs {name}" for name in re.findall(r"NEEDED.*\[(.*)\]", dynamic) if not NEEDED.fullmatch(name)]
    if re.search(r"\b(RPATH|RUNPATH)\b", dynamic) and "build" not in library:
        problems.append("has a run path")
    return problems


def check_folders(library, folders):
    content = pathlib.Path(library).read_bytes()
    return [f"names the folder {folder}" for folder in folders if folder.encode() in content]


def check_slots(library):
    """Reads the vtable out of the library's relocations: behind two words, one for each virtual function."""
    symbols = run("nm", "-DC", "--defined-only", "-S", library)
    vtable = re.search(r"^([0-9a-f]+) ([0-9a-f]+) . vtable for COrbelThreadKelvo$", symbols, re.M)
    if vtable is None:
        return ["no vtable of COrbelThreadKelvo"]
    start, size = int(vtable.group(1), 16), int(vtable.group(2), 16)
    functions = {int(a, 16): n for a, n in re.findall(r"^([0-9a-f]+) T (.*)$", run("nm", "-C", library), re.M)}
    functions.update({int(a, 16): n for a, n in
                      re.findall(r"^([0-9a-f]+) [TW] (.*)$", run("nm", "-DC", "--defined-only", library), re.M)})
    slots = {}
    for line in run("readelf", "-rWC", library).splitlines():
        fields = line.split()
        if len(fields) < 4 or not re.fullmatch(r"[0-9a-f]+", fields[0]):
            continue
        offset = int(fields[0], 16)
        if start <= offset < start + size:
            if "RELATIVE" in fields[2]:
                slots[offset] = functions.get(int(fields[3], 16), fields[3])
            else:
                name = re.match(r"\S+\s+\S+\s+\S+\s+[0-9a-f]+\s+(.*?)(@\S+)?( \+ 0)?$", line.strip())
                slots[offset] = name.group(1) if name else line
    found = [slots[offset] for offset in sorted(slots)][-(size // 8 - 2):] if size >= 16 else []
    return [] if found == SLOTS else [f"virtual functions of COrbelThreadKelvo are {found}, not {SLOTS}"]


def main():
    library = sys.argv[1]
    headers, folders = (argument.split(",") for argument in sys.argv[2:4])
    sanitized = "--sanitized" in sys.argv[4:]
    problems = check_dynamic(library, sanitized) + check_folders(library, folders)
    if not sanitized:
        problems += check_exports(library, headers) + check_slots(library)
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
