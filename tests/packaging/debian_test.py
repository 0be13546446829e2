# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""debian_test.py SOURCE BUILD CMAKE LIBRARY VERSION DATE: what the Debian packages say fits the tree. Version and date are
the tree's, the programs say the same; what the build needs is asked for; every file that is installed is in exactly one
package, and each entry of a package's list finds something; the list of symbols is the library's. The packages themselves:
make deb-check."""

import fnmatch
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile


def installed_files(cmake, build, folder):
    """What is installed, where the packages have it."""
    subprocess.run([cmake, "--install", build, "--prefix", "/usr"], check=True, stdout=subprocess.DEVNULL,
                   env=os.environ | {"DESTDIR": str(folder)})
    for path in sorted(folder.rglob("*")):
        if path.is_dir() and not path.is_symlink():
            if not any(path.iterdir()):
                yield f"{path.relative_to(folder)}/, an empty folder"
            continue
        name = str(path.relative_to(folder))
        name = re.sub(r"^usr/lib/(?:[^/]*-linux-[^/]*/)?(libkelvo|pkgconfig|cmake)", r"usr/lib/machine/\1", name)
        name = name.replace("usr/lib/systemd/", "lib/systemd/")
        yield name.replace("usr/share/doc/kelvo++", "usr/share/doc/libkelvo++-doc")


def lists_of(debian):
    """(package, pattern) of each entry; what no package gets has the package "-"."""
    for path in [*sorted(debian.glob("*.install")), debian / "not-installed"]:
        for line in path.read_text().split():
            yield (path.stem if path.suffix else "-"), line


def wrong_places(files, lists):
    problems, used = [], set()
    for name in files:
        found = [(package, pattern) for package, pattern in lists
                 if fnmatch.fnmatch(name, pattern) or fnmatch.fnmatch(name, pattern + "/*")]
        used |= set(found)
        packages = {package for package, _ in found}
        if len(packages - {"-"}) > 1 or not packages:
            problems.append(f"{name}: in {', '.join(sorted(packages)) or 'no package'}")
    return problems + [f"{package}: nothing is '{pattern}'" for package, pattern in sorted(set(lists) - used)]


def main():
    source, build, cmake, library = (pathlib.Path(name) for name in sys.argv[1:5])
    version, date = sys.argv[5:7]
    debian = source / "packaging/debian"
    problems = []

    changelog = (debian / "changelog").read_text()
    if not re.match(rf"kelvo\+\+ \({re.escape(version)}-", changelog):
        problems.append(f"debian/changelog does not begin with {version}, the version of CMakeLists.txt")
    stamp = re.search(r"^ -- .*  (.*)$", changelog, re.MULTILINE)[1]
    stated = subprocess.run(["date", "-u", "+%F", "-d", stamp], capture_output=True, text=True, check=True).stdout.strip()
    if stated != date:
        problems.append(f"debian/changelog is of {stated}, CMakeLists.txt of {date}")
    if f'<release version="{version}" date="{date}"' not in (build / "packaging/kelvo.metainfo.xml").read_text():
        problems.append("kelvo.metainfo.xml has another version or date")
    if shutil.which("appstreamcli"):
        said = subprocess.run(["appstreamcli", "validate", "--no-net", build / "packaging/kelvo.metainfo.xml"],
                              capture_output=True, text=True)
        problems += [said.stdout] if said.returncode != 0 else []
    for program in ("tools/kelvo", "tools/tv_grab_kelvo", "softdvb/softdvb", "softdvb/mux/softdvb-mux"):
        if (build / program).exists():
            said = subprocess.run([build / program, "--version"], capture_output=True, text=True)
            if (said.returncode, said.stdout) != (0, f"{pathlib.Path(program).name} {version}\n"):
                problems.append(f"{program} --version says '{said.stdout}'")
        if f"<binary>{pathlib.Path(program).name}</binary>" not in (build / "packaging/kelvo.metainfo.xml").read_text():
            problems.append(f"kelvo.metainfo.xml lacks {program}")

    control = (debian / "control").read_text()
    asked = set(re.findall(r"^ ([a-z0-9+.-]+)", re.search(r"^Build-Depends:\n((?: .*\n)+)", control, re.MULTILINE)[1], re.MULTILINE))
    needed = set(re.findall(r"^build (\S+)$", (source / "scripts/packages.txt").read_text(), re.MULTILINE)) - {"build-essential"}
    problems += [f"debian/control: Build-Depends lacks {name}" for name in sorted(needed - asked)]
    packages = set(re.findall(r"^Package: (\S+)$", control, re.MULTILINE))
    lists = list(lists_of(debian))
    problems += [f"debian/: {name} is of no package" for name in sorted({package for package, _ in lists} - packages - {"-"})]

    if (build / "softdvb/softdvb").exists() and (build / "tools/kelvo").exists():
        with tempfile.TemporaryDirectory() as folder:
            problems += wrong_places(list(installed_files(cmake, build, pathlib.Path(folder))), lists)
    if not re.search("^KELVO_SANITIZE:STRING=.", (build / "CMakeCache.txt").read_text(), re.MULTILINE):
        said = subprocess.run([source / "scripts/deb-symbols", "--check", library], capture_output=True, text=True)
        problems += [said.stdout + said.stderr] if said.returncode != 0 else []
    print("\n".join(problems) or "all fits")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
