# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""host_guide_test.py SOURCE BUILD COMPILER CMAKE: docs/host-guide.md does what it says.

Its listings (cpp), one after the other, are examples/receiver.cpp; its commands (sh) build that against the installed
library and run it on the sample network; and what it prints is what the guide shows (text), with nothing beside it. The
program says what is wrong with its arguments, its adapter and its database. Links of the guide lead somewhere.
Skips itself, and says why, where programs cannot be built or run.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

SKIPPED = 77


def parts_of(text, language):
    return re.findall(rf"^```{language}\n(.*?)^```$", text, re.M | re.S)


def anchors_of(text):
    outside = re.sub(r"^```.*?^```$", "", text, flags=re.M | re.S)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in re.findall(r"^#+ (.*)$", outside, re.M)}


def broken_links(page):
    text = page.read_text()
    for target in re.findall(r"\]\(([^)\s]+)\)", text):
        if re.match(r"https?:", target):
            continue
        file, _, anchor = target.partition("#")
        to = page.parent / file if file else page
        if not to.exists():
            yield f"{page.name}: {target}: there is no such file"
        elif anchor and anchor not in anchors_of(to.read_text()):
            yield f"{page.name}: {target}: there is no such heading"


def difference(what, shown, actual):
    return [] if shown == actual else [f"{what}: shown is\n{shown}\nbut it is\n{actual}"]


def check_text(root, guide):
    example = (root / "examples/receiver.cpp").read_text()
    code = example[example.index("#include"):]
    problems = difference("the listings, one after the other, and examples/receiver.cpp",
                          "\n".join(parts_of(guide, "cpp")), code)
    known = len(re.findall(r"^```(?:cpp|sh|text)$", guide, re.M))
    if known * 2 != len(re.findall(r"^```", guide, re.M)):
        problems.append("a listing is none of cpp, sh and text: nobody looks at it")
    return problems + list(broken_links(root / "docs/host-guide.md"))


def run(command, work, environment):
    done = subprocess.run(command, cwd=work, env=environment, capture_output=True, text=True, check=False)
    return done.returncode, done.stdout, done.stderr


def install(build, cmake, work):
    for component in ("library", "development"):
        subprocess.run([cmake, "--install", build, "--prefix", work / "prefix", "--component", component], check=True,
                       stdout=subprocess.DEVNULL)
    return next((work / "prefix").rglob("libkelvo++.so")).parent


def check_program(root, build, compiler, cmake, work):
    """Runs the guide's commands as they stand: with the installed library, and the programs of the build."""
    libraries = install(build, cmake, work)
    (work / "bin").mkdir()
    (work / "bin/g++").symlink_to(compiler)
    (work / "samples").symlink_to(root / "samples")
    shutil.copy(root / "examples/receiver.cpp", work)
    guide = (root / "docs/host-guide.md").read_text()
    environment = dict(os.environ, LD_LIBRARY_PATH=str(libraries), PKG_CONFIG_PATH=str(libraries / "pkgconfig"),
                       PATH=f"{work / 'bin'}:{build / 'softdvb'}:{build / 'softdvb/mux'}:{os.environ['PATH']}")
    commands = "".join(parts_of(guide, "sh"))
    wanted = (0, "".join(parts_of(guide, "text")), "")
    for _ in range(3):
        outcome = run(["sh", "-euc", commands], work, environment)
        # The next frequency may be tuned while a time table of the last one is read, whose filter is gone then.
        if outcome == (*wanted[:2], "ERROR: Removed 0 instances of pid 14, Tid 73\n"):
            for file in work.glob("*.db*"):
                file.unlink()
        else:
            break
    problems = difference("what the commands of the guide lead to", wanted, outcome)
    if problems:
        return problems
    for name in ("backup.db", "backup_epg.db", "receiver.db"):
        if not (work / name).exists():
            problems.append(f"{name} was not written")
    on_air = ["softdvb", "--mux", "474000000=474.ts", "--"]
    usage = "usage: receiver HZ..., such as 474000000\n"
    for command, wanted in [
            (["./receiver"], (2, "", usage)),
            (["./receiver", "4.7"], (2, "", usage)),
            (["./receiver", "many"], (2, "", usage)),
            ([*on_air[:1], "--busy", *on_air[1:], "./receiver", "474000000"],
             (1, "", "receiver: /dev/dvb/adapter0/frontend0: Device or resource busy\n")),
            ([*on_air[:1], "--adapter", "1", *on_air[1:], "./receiver", "474000000"],
             (1, "", "receiver: /dev/dvb/adapter0/frontend0: No such file or directory\n")),
            (["sh", "-c", "mkdir full; ln -s ../nowhere/x.db full/receiver.db; cd full; ../receiver 474000000"],
             (1, "", "ERROR: FLUSH: Cannot open database receiver.db, error unable to open database file\n"
                     "receiver: receiver.db: Unable to open file\n"))]:
        problems += difference(" ".join(command), wanted, run(command, work, environment))
    return problems


def main():
    root, build = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    problems = check_text(root, (root / "docs/host-guide.md").read_text())
    skipped = None
    if re.search(r"^KELVO_SANITIZE:STRING=.", (build / "CMakeCache.txt").read_text(), re.M):
        skipped = "a sanitized library needs a sanitized program"
    elif not (build / "softdvb/softdvb").exists() or not (build / "softdvb/mux/softdvb-mux").exists():
        skipped = "no software adapter here"
    else:
        with tempfile.TemporaryDirectory() as work:
            problems += check_program(root, build, sys.argv[3], sys.argv[4], pathlib.Path(work))
    for problem in problems:
        print(problem)
    if problems:
        return 1
    if skipped is not None:
        print(f"skipped: {skipped}")
        return SKIPPED
    return 0


if __name__ == "__main__":
    sys.exit(main())
