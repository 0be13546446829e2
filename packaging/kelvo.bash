# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

# bash completion for kelvo
_kelvo() {
  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]}
  case $previous in
    --db) mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
    --band) mapfile -t COMPREPLY < <(compgen -W "uhf vhf all" -- "$word"); return ;;
    --format)
      local formats="table json"
      [[ $command == epg ]] && formats+=" xmltv"
      [[ $command == trace ]] && formats="tdi log json svg"
      mapfile -t COMPREPLY < <(compgen -W "$formats" -- "$word")
      return
      ;;
    --from)
      if [[ $command == signal ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
      fi
      mapfile -t COMPREPLY < <(compgen -W "auto little big log" -- "$word")
      return
      ;;
    --samples) mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
    --day) mapfile -t COMPREPLY < <(compgen -W "today tomorrow yesterday" -- "$word"); return ;;
    --table)
      mapfile -t COMPREPLY < <(
        compgen -f -- "$word"
        cd /usr/share/dvb/dvb-t 2>/dev/null && compgen -f -- "$word"
      )
      return
      ;;
    --profile) mapfile -t COMPREPLY < <(compgen -W "any box" -- "$word"); return ;;
    --log | --plot) mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
    --adapter) mapfile -t COMPREPLY < <(compgen -W "0 1 2 3" -- "$word"); return ;;
    --freq | --for | --lock-time | --charset | --country | --channel | --search | --lang) return ;;
  esac
  local options="--help --version"
  if [[ $COMP_CWORD -eq 1 ]]; then
    options+=" adapters scan channels check epg watch signal trace"
  else
    case $command in
      adapters) options="--check --json --help" ;;
      scan)
        options="--adapter --freq --country --table --band --follow --for --profile --lock-time --set-clock --charset --other"
        options+=" --json --db --verbose --help"
        ;;
      signal)
        options="--freq --adapter --for --json --log --plot --from --profile --lock-time --db --help"
        ;;
      channels) options="--db --format --help" ;;
      check) options="--repair --json --db --help" ;;
      watch)
        options="--adapter --for --zone-of --country --profile --lock-time --set-clock --charset --other --db --help"
        ;;
      trace)
        options="--help"
        if [[ $COMP_CWORD -eq 2 ]]; then
          options+=" convert record demo"
        else
          case ${COMP_WORDS[2]} in
            convert) options="--format --from --verbose --help" ;;
            record) options="--format --adapter --freq --profile --lock-time --set-clock --help" ;;
            demo) options="--format --samples --help" ;;
          esac
          if [[ $word != -* ]]; then
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
          fi
        fi
        ;;
      epg)
        if [[ ${COMP_WORDS[2]} == update && $COMP_CWORD -gt 2 ]]; then
          options="--adapter --freq --all --for --country --profile --lock-time --set-clock --charset --other --db"
          options+=" --help"
        else
          options="--channel --now --next --day --search --lang --format --db --help"
          [[ $COMP_CWORD -eq 2 ]] && options+=" update"
        fi
        ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
}
complete -F _kelvo kelvo
