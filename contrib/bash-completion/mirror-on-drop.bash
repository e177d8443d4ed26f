# bash completion for modctl, mod-agent, mod-gen and mod-collector.
#
# Use:  source contrib/bash-completion/mirror-on-drop.bash            (in ~/.bashrc, say), or install it as
#       /usr/share/bash-completion/completions/modctl with links named mod-agent, mod-gen and mod-collector.
#
# Commands and options are read from the programs' own --help, so they cannot drift from what the programs
# accept; what values an option takes (files, interfaces, keys, trace handles) is known here.

# The options ("-r", "--reverse") and the subcommands of a program's help text: names that begin a line of
# their section (descriptions and their continuation lines mention other options too).
_mod_help_options() {
  "$@" --help 2>/dev/null | sed -n '/^Options:/,/^$/p' |
    sed -n 's/^  \(-[A-Za-z],\)\{0,1\}\(--[A-Za-z][A-Za-z-]*\).*/\1 \2/p' | tr ',' ' '
}
_mod_help_commands() {
  "$@" --help 2>/dev/null | sed -n '/^Subcommands:/,/^$/p' | sed -n 's/^  \([a-z][a-z-]*\) .*/\1/p'
}

_mod_trace_handles() {
  echo "MOD-Manager MOD-Dispatcher MOD-Receiver MOD-Sender MOD-Adapter Calyx-Pam Calyx-Udp Calyx-ExactMatch"
}

_modctl() {
  local cur prev words cword
  _init_completion 2>/dev/null || {
    cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} words=("${COMP_WORDS[@]}") cword=$COMP_CWORD
  }
  local prog=${words[0]}
  case $prev in
    --state-dir) COMPREPLY=($(compgen -d -- "$cur")); return ;;
    --socket) COMPREPLY=($(compgen -f -- "$cur")); return ;;
    --time) COMPREPLY=($(compgen -W "iso ns" -- "$cur")); return ;;
    --sort) COMPREPLY=($(compgen -W "ip_proto src_ip dst_ip src_port dst_port type timestamp data_size interfaces" -- "$cur")); return ;;
    --filter)
      compopt -o nospace 2>/dev/null
      COMPREPLY=($(compgen -W "ip_proto= src_ip= dst_ip= ip= src_port= dst_port= port= type= interface=" -- "$cur"))
      return ;;
    --limit) return ;;
  esac
  # The command path so far: the words that are not options or option values, and the state directory.
  local path=() stateDir=() i w
  for ((i = 1; i < cword; i++)); do
    w=${words[i]}
    case $w in
      --state-dir | --socket | --time | --sort | --filter | --limit)
        [ "$w" = --state-dir ] && stateDir=(--state-dir "${words[i + 1]}")
        ((i++)) ;;
      -*) ;;
      *) path+=("$w") ;;
    esac
  done
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$(_mod_help_options "$prog" "${path[@]:0:2}") $(_mod_help_options "$prog")" -- "$cur"))
    return
  fi
  case "${path[*]}" in
    "trace set") COMPREPLY=($(compgen -W "$(_mod_trace_handles)" -- "$cur")); return ;;
    "trace set "*) COMPREPLY=($(compgen -W "0-1 0-4 0-8" -- "$cur")); return ;;
    "clear counters")
      local exporters
      exporters=$("$prog" "${stateDir[@]}" show collectors 2>/dev/null | awk 'NR > 1 { print $1 }' | sort -u)
      COMPREPLY=($(compgen -W "$exporters" -- "$cur"))
      return ;;
  esac
  ((${#path[@]} < 2)) && COMPREPLY=($(compgen -W "$(_mod_help_commands "$prog" "${path[@]}")" -- "$cur"))
}

_mod_agent() {
  local cur prev words cword
  _init_completion 2>/dev/null || {
    cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} words=("${COMP_WORDS[@]}") cword=$COMP_CWORD
  }
  case $prev in
    -c | --config) COMPREPLY=($(compgen -f -X '!*.toml' -- "$cur") $(compgen -d -- "$cur")); return ;;
    --state-dir) COMPREPLY=($(compgen -d -- "$cur")); return ;;
    --plugin) COMPREPLY=($(compgen -f -X '!*.so' -- "$cur") $(compgen -d -- "$cur")); return ;;
    --trace)
      compopt -o nospace 2>/dev/null
      COMPREPLY=($(compgen -W "$(_mod_trace_handles | sed 's/\([^ ]*\)/\1=/g')" -- "$cur"))
      return ;;
  esac
  COMPREPLY=($(compgen -W "$(_mod_help_options "${words[0]}")" -- "$cur"))
}

_mod_gen() {
  local cur prev words cword
  _init_completion 2>/dev/null || {
    cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} words=("${COMP_WORDS[@]}") cword=$COMP_CWORD
  }
  case $prev in
    --out) COMPREPLY=($(compgen -f -- "$cur")); return ;;
    --interface) COMPREPLY=($(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$cur")); return ;;
    --family) COMPREPLY=($(compgen -W "ipv4 ipv6 mixed" -- "$cur")); return ;;
    --proto) COMPREPLY=($(compgen -W "tcp udp mixed" -- "$cur")); return ;;
    --vlan-tags) COMPREPLY=($(compgen -W "0 1 2 mixed" -- "$cur")); return ;;
    --malformed)
      local kinds
      kinds=$("${words[0]}" --help 2>/dev/null | sed -n '/^Malformed kinds/,/^$/p' | sed -n 's/^  \([a-z0-9-]*\)$/\1/p')
      COMPREPLY=($(compgen -W "all $kinds" -- "$cur"))
      return ;;
    --collector | --rate | --flows | --drops-per-flow | --size | --cut | --malformed-count | --seed | \
      --start-time | --reason | --report-port) return ;;
  esac
  COMPREPLY=($(compgen -W "$(_mod_help_options "${words[0]}")" -- "$cur"))
}

_mod_collector() {
  local cur prev words cword
  _init_completion 2>/dev/null || {
    cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} words=("${COMP_WORDS[@]}") cword=$COMP_CWORD
  }
  case $prev in
    --listen) COMPREPLY=($(compgen -W "127.0.0.1:6343 [::1]:6343 0.0.0.0:6343 [::]:6343" -- "$cur")); return ;;
    --summary) COMPREPLY=($(compgen -W "none totals flows" -- "$cur")); return ;;
    --count | --duration) return ;;
  esac
  COMPREPLY=($(compgen -W "$(_mod_help_options "${words[0]}")" -- "$cur"))
}

complete -F _modctl modctl
complete -F _mod_agent mod-agent
complete -F _mod_gen mod-gen
complete -F _mod_collector mod-collector
