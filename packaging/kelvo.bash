# bash completion for kelvo
_kelvo() {
  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]}
  case $previous in
    --db) mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
    --band) mapfile -t COMPREPLY < <(compgen -W "uhf vhf all" -- "$word"); return ;;
    --format) mapfile -t COMPREPLY < <(compgen -W "table json" -- "$word"); return ;;
    --adapter) mapfile -t COMPREPLY < <(compgen -W "0 1 2 3" -- "$word"); return ;;
    --freq) return ;;
  esac
  local options="--help --version"
  if [[ $COMP_CWORD -eq 1 ]]; then
    options+=" scan channels"
  else
    case $command in
      scan) options="--adapter --freq --band --db --verbose --help" ;;
      channels) options="--db --format --help" ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
}
complete -F _kelvo kelvo
