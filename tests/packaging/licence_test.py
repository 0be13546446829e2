# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""licence_test.py SOURCE: the licence's text is there, and every source, script and build file says that it is under it."""

import pathlib
import subprocess
import sys


def main():
    root = pathlib.Path(sys.argv[1])
    result = 0
    if "GNU LESSER GENERAL PUBLIC LICENSE" not in (root / "COPYING").read_text()[:200]:
        print("COPYING is not the licence")
        result = 1
    return subprocess.run([sys.executable, root / "scripts/add-spdx", "--check"], check=False).returncode or result


if __name__ == "__main__":
    sys.exit(main())
