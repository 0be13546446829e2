# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""completion_test.py SOURCE BUILD SHELL: what SHELL completes of our programs is what their --help has:
every subcommand, every option, every value that can only be one of some words. Exit status 77 where SHELL is not there."""

import os
import pathlib
import pty
import re
import shutil
import signal
import subprocess
import sys
import tempfile

SECONDS = 100

BASH = """
. "$SCRIPT"
while IFS= read -r line; do
  COMP_LINE=$line COMP_POINT=${#line} COMPREPLY=()
  read -ra COMP_WORDS <<<"${line//=/ = }"  # as bash cuts words
  [[ $line == *' ' ]] && COMP_WORDS+=("")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  _kelvo "${COMP_WORDS[0]}" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  echo "? $line"
  [ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\\n' "${COMPREPLY[@]}"
done <"$QUESTIONS" >"$ANSWERS"
"""

FISH = """
source $SCRIPT
while read -l line
  echo "? $line"
  complete -C "$line"
end <$QUESTIONS >$ANSWERS
"""

# zsh completes only where a line is edited: the lines are put there one by one, and what would be offered is written down.
ZSH = """
PS1= PS2= RPS1= LISTMAX=0
fpath=("${SCRIPT:h}" $fpath)
autoload -Uz compinit && compinit -D -u
setopt extendedglob nobeep noautomenu nolistambiguous
zstyle ':completion:*' verbose no
compadd() {
  local -a hits
  if (( ${@[(I)-[OAD]]} )); then
    builtin compadd "$@"
  else
    builtin compadd -A hits "$@"
    (( $#hits )) && print -rl -- $hits >>$ANSWERS
    builtin compadd "$@"
  fi
}
zle-line-init() {
  local line
  for line in "${(@f)$(<$QUESTIONS)}"; do
    print -r -- "? $line" >>$ANSWERS
    BUFFER=$line CURSOR=$#line
    zle complete-word
  done
  exit
}
zle -N zle-line-init
"""


def help_of(program, *commands):
    text = subprocess.run([program, *commands, "--help"], capture_output=True, text=True, check=True).stdout
    options, values = set(), {}
    for names, rest in re.findall(r"^  (-\S+)(.*)$", text, re.MULTILINE):
        options |= set(names.split(","))
        for name in names.split(","):
            if words := re.match(r" \S*:\{(.*?)\}", rest):
                values[name] = set(words[1].split(","))
    section = re.search(r"^Subcommands:\n((?:  .*\n)+)", text, re.MULTILINE)
    return options, values, set(re.findall(r"^  (\S+)", section[1], re.MULTILINE)) if section else set()


def expected_of(program, *commands):
    """By line: what should be offered at its end."""
    options, values, subcommands = help_of(program, *commands)
    line = " ".join((os.path.basename(program), *commands))
    long = {name for name in options if name.startswith("--")}
    found = {f"{line} --": long}
    for option, words in values.items():
        found[f"{line} {option} "] = words
    if subcommands:
        found[line + " "] = subcommands
        for name in sorted(subcommands):
            found |= expected_of(program, *commands, name)
    return found


def ask(shell, source, questions, folder, environment):
    """The answers of a shell, by line."""
    completion = source / "packaging/completion"
    scripts = {"bash": (BASH, "kelvo.bash"), "fish": (FISH, "kelvo.fish"), "zsh": (ZSH, "_kelvo")}
    text, script = scripts[shell]
    (folder / "script").write_text(text)
    (folder / "questions").write_text("".join(line + "\n" for line in questions))
    (folder / "answers").write_text("")
    environment |= {"SCRIPT": str(completion / script), "QUESTIONS": str(folder / "questions"), "ANSWERS": str(folder / "answers")}
    if shell == "zsh":
        (folder / "script").rename(folder / ".zshrc")
        environment |= {"ZDOTDIR": str(folder), "TERM": "dumb"}
        pid, terminal = pty.fork()
        if pid == 0:
            os.chdir(folder)
            os.execvpe("zsh", ["zsh", "-o", "noglobalrcs", "-i"], environment)
        signal.signal(signal.SIGALRM, lambda *_: os.kill(pid, signal.SIGKILL))
        signal.alarm(SECONDS)
        shown = b""
        try:
            while part := os.read(terminal, 4096):
                shown += part
        except OSError:  # how a terminal ends
            pass
        if os.waitpid(pid, 0)[1] != 0:
            print(f"zsh ended badly: {shown.decode(errors='replace')}")
    else:
        subprocess.run([shell, folder / "script"], env=environment, cwd=folder, check=True, timeout=SECONDS)
    answers, line = {}, None
    for answer in (folder / "answers").read_text().splitlines():
        if answer.startswith("? "):
            line = answer[2:]
            answers[line] = set()
        else:
            answer = answer.split("\t")[0]
            # fish and zsh have the whole word, bash what stands behind '='.
            answers[line].add(answer.rpartition("=")[2] if line.endswith("=") or "=" in line.split()[-1] else answer)
    return answers


def main():
    source, build, shell = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve(), sys.argv[3]
    if not shutil.which(shell):
        print(f"skipped: {shell} is not installed")
        return 77
    programs = [build / "tools/kelvo", build / "tools/tv_grab_kelvo", build / "softdvb/softdvb",
                build / "softdvb/mux/softdvb-mux"]
    programs = [str(program) for program in programs if program.exists()]
    expected = {}
    for program in programs:
        expected |= expected_of(program)
    # What is no list of its own: values by their kind, other people's commands, a value that is named like a command.
    here = {"stream.ts", "channels.db", "folder"}
    expected |= {
        "kelvo channels --db ": here,
        "kelvo epg --day to": {"today", "tomorrow"},
        "kelvo epg --format=": {"table", "json", "xmltv", "csv", "ics"},
        "kelvo epg --format=x": {"xmltv"},
        "kelvo scan --profile=b": {"box"},
        "kelvo channels --db=chan": {"channels.db"},
        "softdvb --mux 506000000=str": {"stream.ts"},
        "tv_grab_kelvo --configure-": {"--configure-api"},
        "tv_grab_kelvo --output ": here,
        "kelvo epg --db scan --no": {"--now"},
        "kelvo scan --country ": set(),
        "kelvo trace convert st": {"stream.ts"},
        "kelvo trace demo --samples ": {"folder"},
        "softdvb --start ": {"tune", "air", "filter"},
        "softdvb --firmware m": {"missing"},
        "softdvb --device rtl": {"rtl2832"},
        "softdvb -- kelvo-of-some": {"kelvo-of-somebody"},
    }
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        (folder / "home").mkdir()
        (folder / "bin").mkdir()
        (folder / "bin/kelvo-of-somebody").symlink_to("/bin/true")
        path = ":".join([str(folder / "bin")] + [os.path.dirname(program) for program in programs] + ["/usr/bin", "/bin"])
        environment = {"HOME": str(folder / "home"), "PATH": path, "LC_ALL": "C.UTF-8"}
        work = folder / "work"
        (work / "folder").mkdir(parents=True)
        for file in ("stream.ts", "channels.db"):
            (work / file).touch()
        answers = ask(shell, source, list(expected), work, environment)
    problems = 0
    for line, words in expected.items():
        answered = {word.rstrip("/") for word in answers.get(line, set())} - {"script", "questions", "answers"}
        if answered != words:
            print(f"{shell}: '{line}' lacks {sorted(words - answered)}, has too much {sorted(answered - words)}")
            problems += 1
    print(f"{len(expected)} lines completed by {shell}, {problems} wrong")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
