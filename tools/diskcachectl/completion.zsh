#compdef diskcachectl
# Zsh completion of diskcachectl. It asks the tool's own --help, so that it offers what there is.

_diskcachectl() {
  local tool=${words[1]} subcommand=${words[2]} previous=${words[CURRENT-1]} help kind
  if ((CURRENT == 2)); then
    compadd -- --help --version $($tool --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z][a-z]*\) .*/\1/p')
    return
  fi
  help=$(COLUMNS=110 $tool $subcommand --help 2>/dev/null) || return
  kind=
  [[ $previous == --* ]] && kind=$(sed -n "s/^  $previous \([^ =]*\).*/\1/p" <<<$help)
  case $kind in
    DIR) _files -/ ;;
    *'|'*) compadd -- ${(s:|:)kind} ;;
    N | S | L | SIZE | NAME | AGE | PERCENT | KEY | TEXT) ;;
    *)
      if [[ -z $kind && ${words[CURRENT]} == -* ]]; then
        compadd -- $(sed -n 's/^  \(-h,\)\{0,1\}\(--[a-z-]*\).*/\2/p' <<<$help)
      else
        _files
      fi
      ;;
  esac
}

_diskcachectl "$@"
