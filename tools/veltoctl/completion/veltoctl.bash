# bash completion for veltoctl(1)

_veltoctl_names() {
  # None is started for this.
  VELTO_IPC_DAEMON='' veltoctl list 2>/dev/null | cut -d ' ' -f 1
}

_veltoctl() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' each names=0
  for each in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $each == -* ]] && continue
    if [[ -z $command ]]; then command=$each; else names=1; fi
  done
  case $before in
    --file)
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
      ;;
    --exec)
      mapfile -t COMPREPLY < <(compgen -c -- "$word")
      return
      ;;
    --timeout | --interval | --duration | --count | --concurrency | --reply) return ;;
  esac
  local options='--json --help'
  case $command in
    '')
      options+=' --version'
      [[ $word == -* ]] || options='list info wait send listen monitor bench stats top doctor'
      ;;
    wait) options+=' --timeout' ;;
    send) options+=' --file --async --timeout --count --interval' ;;
    listen) options+=' --reply --exec --count --take-over --strict' ;;
    bench) options+=' --duration --count --concurrency --timeout' ;;
    top) options+=' --interval --count' ;;
  esac
  if [[ -n $command && $word != -* ]]; then
    options=''
    case $command in
      info | wait | send | listen | monitor | bench) ((names)) || options=$(_veltoctl_names) ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
}

complete -F _veltoctl veltoctl
