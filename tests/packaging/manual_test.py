# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""manual_test.py SOURCE BUILD VERSION DATE: the manual pages that would be installed. Each has the version's date and is
laid out without a warning of groff and mandoc (where these are there); what one names of our own is there; each program has
one, with every subcommand and option of its --help, kelvo's synopsis, too; the examples of descriptions and traces can be used."""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile


def plain(text):
    return text.replace("\\-", "-").replace("\\fP", "").replace("\\fB", "").replace("\\fR", "").replace("\\fI", "")


def said_by(*command):
    done = subprocess.run(command, capture_output=True, text=True, timeout=60)
    return (done.stdout + done.stderr).strip() if command[0] == "mandoc" else done.stderr.strip()


def layout(page):
    """What the programs that lay a page out say of it."""
    said = []
    if shutil.which("groff"):
        said.append(said_by("groff", "-ww", "-b", "-z", "-man", "-Tutf8", "-K", "utf8", page))
    if shutil.which("mandoc"):
        said.append(said_by("mandoc", "-T", "lint", "-W", "warning", page))
    return [text for text in said if text]


def missing_of(program, page, *commands):
    text = subprocess.run([program, *commands, "--help"], capture_output=True, text=True, check=True).stdout
    options = {name for names in re.findall(r"^  (-\S+)", text, re.MULTILINE) for name in names.split(",") if name[:2] == "--"}
    options -= {"--help", "--version"} if program.name == "kelvo" else set()
    where = " ".join((program.name, *commands))
    missing = [f"{where} {name}" for name in sorted(options) if not re.search(re.escape(name) + r"(?![a-z-])", page)]
    section = re.search(r"^Subcommands:\n((?:  .*\n)+)", text, re.MULTILINE)
    for name in re.findall(r"^  (\S+)", section[1], re.MULTILINE) if section else []:
        if f"{where} {name}" not in page:
            missing.append(f"{where} {name}")
        missing += missing_of(program, page, *commands, name)
    return missing


def missing_in_synopsis(program, page):
    """Options that a command has by its --help and not by the page's synopsis, under their long or short name."""
    missing, shown = [], {}
    for part in re.search(r"^\.SH SYNOPSIS\n(.*?)^\.SH", page, re.MULTILINE | re.DOTALL)[1].split(".br\n"):
        shown.setdefault(re.match(rf"\.B ({program.name}(?: [a-z]+)*)", part)[1], set()).update(re.findall(r"-+[a-z][a-z-]*", part))
    for command, options in shown.items():
        text = subprocess.run([program, *command.split()[1:], "--help"], capture_output=True, text=True, check=True).stdout
        for names in re.findall(r"^  (-\S+)", text, re.MULTILINE):
            if not options & set(names.split(",")) and not re.search("--(help|version)", names):
                missing.append(f"{command} {names}")
    return missing


def examples(pages, build, folder):
    """Examples that are files, used by the programs that they are for."""
    def example(name):
        text = re.search(r"\.EX\n(.*?)\.EE", pages[name], re.DOTALL)[1]
        return plain(text)
    problems = []
    (folder / "mux.json").write_text(example("softdvb-mux.5"))
    (folder / "trace.log").write_text(example("kelvo-trace.5"))
    for command in ([build / "softdvb/mux/softdvb-mux", "-q", "mux.json", "-o", "mux.ts"],
                    [build / "tools/kelvo", "trace", "convert", "trace.log", "trace.svg"]):
        if command[0].exists():
            done = subprocess.run(command, cwd=folder, capture_output=True, text=True, timeout=60)
            if done.returncode != 0 or done.stderr:
                problems.append(f"{command[0].name} of the example: {done.stderr}")
    if (folder / "trace.svg").exists() and "2 records, 1.00 s" not in (folder / "trace.svg").read_text():
        problems.append("kelvo-trace.5: the task of the example does not run for a second")
    return problems


def main():
    source, build = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
    version, date = sys.argv[3], sys.argv[4]
    folder = build / "packaging/man"
    pages = {path.name: path.read_text() for path in sorted((source / "docs/man").iterdir())}
    problems = []
    for name in pages:
        text = (folder / name).read_text()
        if alias := re.search(r"^\.so man\d/(\S+)", text, re.MULTILINE):
            problems += [] if alias[1] in pages else [f"{name} stands for {alias[1]}, which is not there"]
            continue
        if not re.search(rf'^\.TH \S+ {name[-1]} {re.escape(date)} "kelvo\+\+ {re.escape(version)}"', text, re.MULTILINE):
            problems.append(f"{name} does not begin with its section, {date} and {version}: write @KELVO_DATE@ and @PROJECT_VERSION@")
        problems += [f"{name}: {said}" for said in layout(folder / name)]
        for other, section in re.findall(r"^\.BR (\S+) \(?\"?\(?(\d)\)", text, re.MULTILINE):
            other = plain(other)
            if re.match("(kelvo|softdvb)", other) and f"{other}.{section}" not in pages:
                problems.append(f"{name} names {other}({section}), which is not there")
    for program in (build / "tools/kelvo", build / "tools/tv_grab_kelvo", build / "softdvb/softdvb",
                    build / "softdvb/mux/softdvb-mux"):
        if program.exists():
            page = plain(pages[f"{program.name}.1"])
            problems += [f"{program.name}.1 lacks {name}" for name in missing_of(program, page)]
            if program.name == "kelvo":
                problems += [f"the synopsis of kelvo.1 lacks {name}" for name in missing_in_synopsis(program, page)]
    with tempfile.TemporaryDirectory() as work:
        problems += examples(pages, build, pathlib.Path(work))
    print("\n".join(problems) or f"{len(pages)} pages")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
