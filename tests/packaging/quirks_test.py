# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""quirks_test.py SOURCE: docs/quirks.md names every test that pins an oddity, and none that is gone."""

import pathlib
import re
import sys


def main():
    root = pathlib.Path(sys.argv[1])
    tests = set()
    for source in (root / "tests").rglob("*.cpp"):
        for suite, name in re.findall(r"\bTEST(?:_F|_P)?\(\s*(\w+),\s*(quirk_\w+)", source.read_text()):
            tests.add(f"{suite}.{name}")
    text = (root / "docs/quirks.md").read_text()
    listed = set(re.findall(r"\b\w+\.quirk_\w+", text))
    problems = [f"{name}: no row in docs/quirks.md" for name in sorted(tests - listed)]
    problems += [f"{name}: in docs/quirks.md, but there is no such test" for name in sorted(listed - tests)]
    problems += [f"{name}: in docs/quirks.md, but there is no such file"
                 for name in sorted(set(re.findall(r"`((?:kelvo|db|si|filter|tuner|trace|dvbsi)/[\w.]+)`", text)))
                 if not (root / "lib" / name).exists()]
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
