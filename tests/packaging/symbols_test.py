"""symbols_test.py LIBRARY DVBSI_HEADERS [--sanitize=X] [--dvbsi-system=ON]: what the shared library shows.

Its name, the classes at its boundary and nothing else, the order of the thread wrapper's virtual functions, and that
all it needs comes from libc, the C++ library and SQLite.
"""

import pathlib
import re
import subprocess
import sys

BOUNDARY = {
    "Kelvo", "KelvoMainThread", "COrbelThreadKelvo", "Sdbl", "Section_filter", "Siparse", "Tuner",
    "TunerMonitorThread", "Timedoc", "no_file_error",
}
BOUNDARY_NAMES = {"verbosity_kelvo", "cmp_epg_cache"}
NEEDED = re.compile(r"lib(c|m|gcc_s|stdc\+\+|sqlite3|pthread|rt|dvbsi\+\+|atomic)\.so\.\d+|ld-linux.*|ld\.so\.\d+")
SLOTS = ["COrbelThreadKelvo::Setup()", "COrbelThreadKelvo::Execute(void*)"]


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def dvbsi_names(folder):
    names = set()
    for header in pathlib.Path(folder).glob("*.h"):
        names.update(re.findall(r"\b(?:class|struct|namespace)\s+(?:[A-Z_]+_EXPORT\s+|__attribute__\S+\s+)?(\w+)",
                                header.read_text()))
    return names


def check_exports(library, allowed):
    wrong = []
    for line in run("nm", "-DC", "--defined-only", library).splitlines():
        name = line.split(" ", 2)[2]
        name = re.sub(r"^(vtable|typeinfo|typeinfo name|VTT|guard variable|non-virtual thunk) (for|to) ", "", name)
        owner = re.match(r"[\w]+", name)
        if name not in BOUNDARY_NAMES and (owner is None or owner.group() not in allowed | {"cmp_epg_cache"}):
            wrong.append(name)
    return [f"shown, but not part of the boundary: {name}" for name in wrong]


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
    library, headers = sys.argv[1:3]
    options = dict(argument.lstrip("-").split("=", 1) for argument in sys.argv[3:])
    allowed = set(BOUNDARY)
    if options.get("dvbsi-system") != "ON":
        allowed |= dvbsi_names(headers)
    problems = check_dynamic(library, bool(options.get("sanitize")))
    if not options.get("sanitize"):
        problems += check_exports(library, allowed) + check_slots(library)
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
