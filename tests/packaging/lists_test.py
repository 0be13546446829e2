# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""lists_test.py SOURCE: every source file is in its folder's list, every public header is installed, and no file that
is listed is missing."""

import pathlib
import re
import sys

FOLDERS = ["base", "db", "filter", "si", "tuner", "trace", "kelvo"]


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
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
