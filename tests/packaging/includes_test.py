# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""includes_test.py SOURCE: all includes point the way they should, and scripts/check-includes sees those that do not."""

import pathlib
import subprocess
import sys
import tempfile

# file, its text, what is said about it
WRONG = [
    ("lib/db/a.cpp", '#include "base/log.h"\n#include "si/siparse.h"\n',
     "2: db/ includes si/siparse.h, which does not stand below it"),
    ("lib/filter/a.h", '#include "trace/timedoc.h"\n', "1: filter/ includes trace/timedoc.h, which does not stand below it"),
    ("lib/tuner/a.cpp", '#include "filter/section_filter.h"\n',
     "1: tuner/ includes filter/section_filter.h, which does not stand below it"),
    ("lib/si/a.cpp", '#include "tests/support/support.h"\n', "1: the library includes tests/support/support.h"),
    ("lib/db/b.cpp", "#include <dvbsi++/descriptor.h>\n",
     "1: db/ includes dvbsi++/descriptor.h; sections are taken apart in si/"),
    ("lib/db/sdbl.h", '#include "db/sdbl_parts.h"\n', "1: an installed header includes db/sdbl_parts.h, which is not installed"),
    ("lib/db/sql_query.h", "struct X {\n  std::mutex lock_;  // here\n};\n", "2: an installed header shows a lock"),
    ("lib/db/ca_pid.h", "struct sqlite3_stmt;\nsqlite3_stmt* get(int);\nstruct X {\n  sqlite3_stmt* stmt_ = nullptr;\n};\n",
     "4: an installed header shows a statement"),
    ("tools/a.cpp", '#include "kelvo/kelvo.h"\n#include "base/log.h"\n',
     "2: tools/ includes base/log.h, which is not installed"),
    ("softdvb/a.cpp", '#include "base/types.h"\n', "1: softdvb/ includes base/types.h, of the library or the command"),
]


def check(root):
    script = pathlib.Path(sys.argv[1]) / "scripts/check-includes"
    return subprocess.run([sys.executable, script, root], capture_output=True, text=True)


def main():
    tree = check(sys.argv[1])
    print(tree.stdout + tree.stderr, end="")
    result = tree.returncode
    for file, text, said in WRONG:
        with tempfile.TemporaryDirectory() as root:
            for path in pathlib.Path(sys.argv[1]).glob("lib/*/sources.cmake"):
                for name in path.read_text().split():
                    if name.endswith(".h"):
                        (pathlib.Path(root) / "lib" / name).parent.mkdir(parents=True, exist_ok=True)
                        (pathlib.Path(root) / "lib" / name).touch()
                (pathlib.Path(root) / "lib" / path.parent.name / path.name).write_text(path.read_text())
            (pathlib.Path(root) / file).parent.mkdir(parents=True, exist_ok=True)
            (pathlib.Path(root) / file).write_text(text)
            found = check(root).stdout.splitlines()
            if f"{file}:{said}" not in found:
                print(f"not noticed: {file}:{said}\ninstead: {found}")
                result = 1
    return result


if __name__ == "__main__":
    sys.exit(main())
