# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""doc_test.py SOURCE: scripts/doc makes the pages of the library without a warning, and they have what the headers say.

Skips itself where there is no Doxygen, but for what makes comments readable to it.
"""

import html
import pathlib
import re
import runpy
import shutil
import subprocess
import sys
import tempfile

SKIPPED = 77

# A header's lines, and what Doxygen reads instead.
HEADERS = [
    ("a comment before a declaration", "// What it is.\nclass A {};", "/// What it is.\nclass A {};"),
    ("one behind a field", "int a = 0;  // Hz, 0 for none", "int a = 0;  ///< Hz, 0 for none"),
    ("one that goes on below", "int a;    // one\n          // two\nint b;", "int a;    ///< one\n          ///< two\nint b;"),
    ("the file's", "#pragma once\n\n// All of them.\n\nint a;", "#pragma once\n\n/// \\file\n/// All of them.\n\nint a;"),
    ("one that stands alone behind a declaration", "int a;\n\n// No more.\n\nint b;", "int a;\n\n// No more.\n\nint b;"),
    ("the licence's lines", "// SPDX-License-Identifier: none\n\nint a;", "// SPDX-License-Identifier: none\n\nint a;"),
    ("a heading", "// --- Files ---\n\nint a;", "// --- Files ---\n\nint a;"),
    ("shared by several", "// Both.\nint a();\nint b();\n", "///@{\n/// Both.\nint a();\nint b();\n///@}"),
    ("a listing", "// Like this:\n//   a();\n// And so on.\nint a();",
     "/// Like this:\n/// \\code{.cpp}\n/// a();\n/// \\endcode\n/// And so on.\nint a();"),
    ("a list", "//   - one\n//     goes on\n//   - two\nint a();", "/// - one\n///   goes on\n/// - two\nint a();"),
    ("what Doxygen would take for commands", "// 50 % of <x>, `<y>` and \"#z\" at @a #b.\nint a();",
     "/// 50 \\% of \\<x\\>, `<y>` and \"#z\" at \\@a \\#b.\nint a();"),
    ("an address in a text", 'const char* a = "http://b";', 'const char* a = "http://b";'),
]

PAGES = [
    ("headings have names, different ones", "# A page\n## One\n## Two, again\n## One\n",
     "# A page {#page-test}\n## One {#test-one}\n## Two, again {#test-two-again}\n## One {#test-one-1}\n"),
    ("links to headings", "[a](#one) [b](docs/threads.md#locks) [c](threads.md) [d](samples/README.md)",
     "[a](#test-one) [b](#threads-locks) [c](#page-threads) [d](#page-samples)"),
    ("listings stay", "```sh\n# no heading\n```\n", "```sh\n# no heading\n```\n"),
]

# Pages, and a text of each that stands in a header or a document.
WANTED = [
    ("index.html", "A C++20 library for receivers"),
    ("page-host-guide.html", "Writing a host"),
    ("page-database.html", "kanalid: the services"),
    ("page-threads.html", "any-thread: may be called from every thread"),
    ("page-profiles.html", "The switches"),
    ("page-reliability.html", "Promised"),
    ("page-quirks.html", "What looks wrong and is meant"),
    ("classKelvo.html", "Frontend readings, see Tuner: what cannot be read keeps its last good value."),
    ("classSdbl.html", "The channel database and the programme guide beside it"),
    ("classChannel__lookup.html", "hidden and lost ones too"),
    ("classNow__and__next.html", "the first one that starts later"),
    ("structScan__end.html", "what the merge changed: bits of Sdbl::update_master_scan_data's result"),
    ("kelvo_8h.html", "elementary streams of a channel were added or deleted"),
]


def check_filter(root):
    doxygen_filter = runpy.run_path(str(root / "docs/api/filter.py"))
    made = [(legend, wanted.rstrip("\n"), doxygen_filter["header"](text).rstrip("\n")) for legend, text, wanted in HEADERS]
    made += [(legend, wanted, doxygen_filter["page"](pathlib.Path("test.md"), text)) for legend, text, wanted in PAGES]
    return [f"{legend}: wanted is\n{wanted}\nbut it is\n{actual}" for legend, wanted, actual in made if wanted != actual]


def check_pages(root, work):
    made = subprocess.run([root / "scripts/doc", work], capture_output=True, text=True, check=False)
    problems = [f"scripts/doc ends with {made.returncode}"] if made.returncode else []
    problems += (made.stdout + made.stderr).splitlines()
    texts = {}
    for name, wanted in WANTED:
        file = work / "html" / name
        texts[name] = file.read_text(encoding="utf-8") if file.exists() else ""
        plain = " ".join(html.unescape(re.sub(r"<[^>]*>", "", texts[name])).split())
        if wanted not in plain:
            problems.append(f"{name} does not say '{wanted}'")
    if texts["classKelvo.html"].count("Without a tuner: 0 Hz") != 5:
        problems.append("the five readings of Kelvo do not share their description")
    if (work / "html/scan__loop_8h.html").exists():
        problems.append("a header that is not installed has a page")
    return problems


def main():
    root = pathlib.Path(sys.argv[1])
    problems = check_filter(root)
    if shutil.which("doxygen") is not None:
        with tempfile.TemporaryDirectory() as work:
            problems += check_pages(root, pathlib.Path(work))
    elif not problems:
        print("skipped: no doxygen here")
        return SKIPPED
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
