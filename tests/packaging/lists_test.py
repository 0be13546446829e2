# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""lists_test.py SOURCE: every source file is in its folder's list, every public header is installed, and no file that
is listed is missing. Every class that hosts use says which threads may, and docs/threads.md has every lock in its
place."""

import pathlib
import re
import sys

THREAD_WORDS = re.compile(r"any-thread|worker-only|before-start|one thread", re.IGNORECASE)
FOLDERS = ["base", "db", "filter", "si", "tuner", "trace", "kelvo"]


def without_thread_word(text):
    """The exported classes and functions of a header that say nothing of threads: an exception is a value."""
    names = []
    for match in re.finditer(r"^(?:class KELVO_EXPORT (\w+)|(?:extern )?KELVO_EXPORT [^;]*?(\w+)[(;])([^\n]*)", text, re.MULTILINE):
        comment = re.search(r"(?:^//[^\n]*\n)*\Z", text[: match.start()], re.MULTILINE).group()
        if not THREAD_WORDS.search(comment) and "runtime_error" not in match[3]:
            names.append(match[1] or match[2])
    return names


def locks_of(root):
    """Name and place of each lock of the library."""
    found = {("connection", "CONNECTION")}  # SQLite's
    for path in sorted(root.glob("*/*.h")) + sorted(root.glob("*/*.cpp")):
        found |= {(name, rank) for rank, name in re.findall(r'Mutex \w+\{Lock_rank::(\w+), "([^"]+)"\}', path.read_text())}
    return found


def main():
    root = pathlib.Path(sys.argv[1]) / "lib"
    problems = []
    public = set()
    for folder in FOLDERS:
        text = (root / folder / "sources.cmake").read_text()
        listed = set(re.findall(rf"{folder}/[\w.]+", text))
        here = {f"{folder}/{p.name}" for p in (root / folder).glob("*.cpp")}
        problems += [f"{name}: not in {folder}/sources.cmake" for name in sorted(here - listed)]
        problems += [f"{name}: listed, but not there" for name in sorted(listed) if not (root / name).exists()]
        public |= {name for name in listed if name.endswith(".h")}
    # A header that a public one includes must be installed, too.
    for name in sorted(public):
        for included in re.findall(r'#include ["<]((?:%s)/[\w.]+)[">]' % "|".join(FOLDERS), (root / name).read_text()):
            if included not in public:
                problems.append(f"{name} includes {included}, which is not installed")
    for name in sorted(public):
        problems += [f"{name}: {what} does not say which threads may use it"
                     for what in without_thread_word((root / name).read_text())]
    for path in [*root.glob("*/*.h"), *root.glob("*/*.cpp")]:
        if path.stem not in ("mutex", "lock_order") and re.search(r"std::(recursive_|shared_)?mutex|pthread_mutex_t", path.read_text()):
            problems.append(f"{path}: a lock without a place in the order (base/mutex.h)")
    code = locks_of(root)
    table = set(re.findall(r"^\| ([\w ]+) \| `(\w+)` \|", (root.parent / "docs/threads.md").read_text(), re.MULTILINE))
    problems += [f"docs/threads.md lacks the lock '{name}', {rank}" for name, rank in sorted(code - table)]
    problems += [f"docs/threads.md has a lock '{name}', {rank}, that is not there" for name, rank in sorted(table - code)]
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
