# Completion of tidegate-agent for bash. The options, and the words that one of them takes, are read from
# --help, so that there is no list here to keep. With "=" bash sees three words: --print, =, text.

_tidegate_agent() {
  local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  if [[ $current == "=" ]]; then
    current=""
  elif [[ $before == "=" ]]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  fi

  local command=() line options="" kind=""
  if [[ ${COMP_WORDS[1]} == top ]] && ((COMP_CWORD > 1)); then command=(top); fi
  while IFS= read -r line; do
    # Names, and after one blank the kind of the value in capitals, if there is one.
    [[ $line =~ ^\ +(-[^ ]+)(\ ([A-Z][A-Z][^ ]*))? ]] || continue
    options+=" ${BASH_REMATCH[1]//,/ }"
    if [[ ,${BASH_REMATCH[1]}, == *",$before,"* ]]; then kind=${BASH_REMATCH[3]}; fi
  done < <("$1" "${command[@]}" --help 2>/dev/null)

  local words=""
  case $kind in
    *"{"*"}"*)
      kind=${kind#*\{}
      words=${kind%%\}*}
      words=${words//,/ }
      ;;
    FILE* | PATH* | DIR*)
      local action=file
      [[ $kind != DIR* ]] || action=directory
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -A "$action" -- "$current")
      return
      ;;
    "")
      words=$options
      if ((COMP_CWORD == 1)) && [[ $current == [^-]* ]]; then words+=" top"; fi
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _tidegate_agent tidegate-agent
