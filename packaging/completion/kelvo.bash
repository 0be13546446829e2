# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# bash completion for kelvo, softdvb, softdvb-mux and tv_grab_kelvo. What there is to complete is read from the program's own --help, so
# that it is never older than the program.

# _kelvo_read_help PROGRAM [COMMAND...]: fills the arrays `options`, `commands` and `positionals`, and `values` by option,
# all of them the caller's.
_kelvo_read_help() {
  local line section names rest value name
  options=() commands=() positionals=() values=()
  while IFS= read -r line; do
    if [[ $line =~ ^[A-Z][A-Za-z\ ]*:$ ]]; then
      section=${line%:}
    elif [[ $section == Subcommands && $line =~ ^\ \ ([a-z][a-z-]*)\  ]]; then
      commands+=("${BASH_REMATCH[1]}")
    elif [[ $section == Positionals && $line =~ ^\ \ ([A-Z]+)\  ]]; then
      positionals+=("${BASH_REMATCH[1]}")
    elif [[ $section == *Options && $line =~ ^\ \ (-[^\ ]*)(.*) ]]; then
      names=${BASH_REMATCH[1]} rest=${BASH_REMATCH[2]} value=
      if [[ $rest =~ ^\ ([^\ ]+) ]]; then value=${BASH_REMATCH[1]}; fi
      case $value in Excludes: | Needs: | REQUIRED) value= ;; esac
      for name in ${names//,/ }; do
        options+=("$name")
        values[$name]=$value
      done
    fi
  done < <("$@" --help 2>/dev/null)
}

_kelvo() {
  local word=$2 previous=$3 program=$1 i name
  local -a path options commands positionals
  local -A values
  [[ ${program:0:2} == \~/ ]] && program=$HOME/${program:2}
  path=("$program")
  _kelvo_read_help "${path[@]}"
  for ((i = 1; i < COMP_CWORD; ++i)); do
    name=${COMP_WORDS[i]}
    if [[ $name == -- ]]; then  # behind it stands somebody else's command
      if ((i == COMP_CWORD - 1)); then mapfile -t COMPREPLY < <(compgen -c -- "$word"); fi
      return
    elif [[ $name == -* && -n ${values[$name]-} ]]; then
      ((++i))
    elif [[ " ${commands[*]} " == *" $name "* ]]; then
      path+=("$name")
      _kelvo_read_help "${path[@]}"
    fi
  done

  local value=
  if [[ $previous == '=' || $word == '=' ]]; then  # bash cuts --OPTION=VALUE and FREQ=FILE in three
    previous=${COMP_WORDS[COMP_CWORD - 1]}
    [[ $word == '=' ]] || previous=${COMP_WORDS[COMP_CWORD - 2]-}
    word=${word#=}
    if [[ $previous != --* ]]; then
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
    fi
  fi
  [[ $previous == -* ]] && value=${values[$previous]-}
  if [[ -z $value && $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${options[*]}" -- "$word")
    return
  fi
  if [[ -z $value && ${#commands[@]} -gt 0 ]]; then
    mapfile -t COMPREPLY < <(compgen -W "${commands[*]}" -- "$word")
    return
  fi
  if [[ -z $value ]]; then
    value=${positionals[0]-}
    case $value in IN | OUT | DESCRIPTION) value=FILE ;; esac
  fi
  case $value in
    *:\{*\}*)
      value=${value#*\{}
      value=${value%%\}*}
      mapfile -t COMPREPLY < <(compgen -W "${value//,/ }" -- "$word")
      ;;
    'FILE|NAME')
      mapfile -t COMPREPLY < <(
        compgen -f -- "$word"
        cd /usr/share/dvb/dvb-t 2>/dev/null && compgen -f -- "$word"
      )
      ;;
    'NAME[+NAME]')
      mapfile -t COMPREPLY < <(compgen -W "$("$program" --list-devices 2>/dev/null | sed -n 's/^\([a-z0-9]*\):.*/\1/p')" -- "$word")
      ;;
    N:*) mapfile -t COMPREPLY < <(cd /dev/dvb 2>/dev/null && compgen -W "$(printf '%s ' adapter* | sed 's/adapter//g')" -- "$word") ;;
    DATE*) mapfile -t COMPREPLY < <(compgen -W "today tomorrow yesterday" -- "$word") ;;
    *FOLDER* | *DIR*) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
    *FILE* | *SVG* | *HTML*) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    *[a-z]*'|'* | *'|'*[a-z]*)  # words to choose from; those in capitals stand for something else
      mapfile -t COMPREPLY < <(compgen -W "$(printf '%s\n' "${value//|/$'\n'}" | grep -v '[A-Z]')" -- "$word")
      ;;
  esac
}
complete -o filenames -F _kelvo kelvo softdvb softdvb-mux tv_grab_kelvo
