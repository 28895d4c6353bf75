# Bash completion of diskcachectl. It asks the tool's own --help, so that it offers what there is.

# _diskcachectl_values KIND BEGIN: what can stand for a value that --help calls KIND.
_diskcachectl_values() {
  case $1 in
    DIR) compgen -d -- "$2" ;;
    *'|'*) compgen -W "${1//|/ }" -- "$2" ;;
    N | S | L | SIZE | NAME | AGE | PERCENT | KEY | TEXT) ;;
    *) compgen -f -- "$2" ;;
  esac
}

_diskcachectl() {
  local tool=${COMP_WORDS[0]} subcommand=${COMP_WORDS[1]} current=$2 previous=$3 help kind
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    help=$("$tool" --help 2>/dev/null) || return
    mapfile -t COMPREPLY < <(compgen -W "--help --version $(
      sed -n '/^Subcommands:/,$s/^  \([a-z]*\) .*/\1/p' <<<"$help")" -- "$current")
    return
  fi
  help=$("$tool" "$subcommand" --help 2>/dev/null) || return
  kind=
  [[ $previous != --* ]] || kind=$(sed -n "s/^  $previous \([^ =]*\).*/\1/p" <<<"$help")
  if [[ -n $kind ]]; then
    mapfile -t COMPREPLY < <(_diskcachectl_values "$kind" "$current")
  elif [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(sed -n 's/^  \(-h,\)\{0,1\}\(--[a-z-]*\).*/\2/p' <<<"$help")" -- "$current")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}

complete -o filenames -F _diskcachectl diskcachectl
