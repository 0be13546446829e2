# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""foreign_classes.py NM ARCHIVE OUTPUT: writes, in C, another library with the classes of ARCHIVE: every symbol of theirs,
each of which ends the program when it is used."""

import re
import subprocess
import sys


def main():
    nm, archive, output = sys.argv[1:4]
    lines = subprocess.run([nm, "-g", "--defined-only", archive], check=True, capture_output=True, text=True).stdout
    symbols = {}
    for kind, name in re.findall(r"^[0-9a-f]+ (\w) (_Z\S+)$", lines, re.M):
        if not re.match(r"_ZT?[VISN]*K?(St|S[a-z]|9__gnu_cxx)", name):  # templates of the C++ library stay whole
            symbols[name] = kind
    with open(output, "w") as text:
        text.write("/* Made by tests/packaging/foreign_classes.py. */\n#include <stdio.h>\n#include <stdlib.h>\n")
        text.write('static void used(const char* name) { fprintf(stderr, "%s of another library\\n", name); abort(); }\n')
        for number, (name, kind) in enumerate(sorted(symbols.items())):
            if kind in "TW":
                text.write(f'void f{number}(void) __asm__("{name}");\nvoid f{number}(void) {{ used("{name}"); }}\n')
            else:
                text.write(f'extern char d{number}[512] __asm__("{name}");\nchar d{number}[512];\n')


if __name__ == "__main__":
    sys.exit(main())
