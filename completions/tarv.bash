# bash completion for tarv and tarv-service: commands, options, sort names,
# AI providers, and file names after --config and --compatibility.
# Works on its own (sourced from a shell's rc file) and when bash-completion
# loads it on demand from share/bash-completion/completions/.

# Words are split on blanks; file names only on line feeds, so they may hold spaces.
_tarv_words() {
  local IFS=$' \t\n'
  COMPREPLY=($(compgen -W "$1" -- "$2"))
}

_tarv_files() {
  local IFS=$'\n'
  compopt -o filenames 2>/dev/null
  COMPREPLY=($(compgen -f -- "$1"))
}

# Sets the caller's cur and prev to the word under the cursor and the one
# before it, and completes file names after the options both commands share;
# succeeds when it did so and nothing is left to offer.
_tarv_start() {
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=
  ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  case $prev in
    --config | --compatibility)
      _tarv_files "$cur"
      return 0
      ;;
  esac
  return 1
}

_tarv() {
  local cur prev
  _tarv_start && return 0

  case $prev in
    --sort)
      _tarv_words "name-asc name-desc path-asc path-desc size-asc size-desc
date-modified-asc date-modified-desc date-created-asc date-created-desc
size-on-disk-asc size-on-disk-desc volume-label-asc volume-label-desc" "$cur"
      return 0
      ;;
    --provider)
      _tarv_words "apple openAI anthropic" "$cur"
      return 0
      ;;
    --limit | --offset | --base-url | --model)
      return 0
      ;;
  esac

  # The command is the first word that is neither a global option nor its value.
  local command= i
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      --config | --compatibility) ((i++)) ;;
      *)
        command=${COMP_WORDS[i]}
        break
        ;;
    esac
  done

  local globals="--config --compatibility"
  if [[ -z $command ]]; then
    if [[ $cur == -* ]]; then
      _tarv_words "$globals --help -h" "$cur"
    else
      _tarv_words "search status syntax ai mcp help" "$cur"
    fi
    return 0
  fi

  [[ $cur == -* ]] || return 0
  case $command in
    search) _tarv_words "--sort --limit --offset --json --count $globals" "$cur" ;;
    status) _tarv_words "--json $globals" "$cur" ;;
    ai) _tarv_words "--provider --base-url --model --search --json $globals" "$cur" ;;
    syntax | mcp) _tarv_words "$globals" "$cur" ;;
  esac
  return 0
}

_tarv_service() {
  local cur prev
  _tarv_start && return 0
  _tarv_words "--config --compatibility" "$cur"
  return 0
}

complete -F _tarv tarv
complete -F _tarv_service tarv-service
