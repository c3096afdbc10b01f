# Completion of kalvrin for bash. Commands and options are what the tool itself lists.
_kalvrin() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]}
  local commands
  commands=$(kalvrin help 2>/dev/null | sed -n '/^commands:/,/^$/s/^  \([a-z]*\) .*/\1/p')
  if [ "$COMP_CWORD" = 1 ] || [ "$before" = help ]; then
    COMPREPLY=($(compgen -W "$commands --version" -- "$word"))
    return
  fi
  case $before in
    --format) COMPREPLY=($(compgen -W "wav flac ogg" -- "$word")); return ;;
    --encoding) COMPREPLY=($(compgen -W "pcm16 pcm24 pcm32 float" -- "$word")); return ;;
  esac
  case $word in
    -*)
      COMPREPLY=($(compgen -W "$(kalvrin help "$command" 2>/dev/null | sed -n 's/^  \(--[a-z-]*\).*/\1/p')" -- "$word"))
      ;;
    *)
      compopt -o filenames
      COMPREPLY=($(compgen -f -- "$word"))
      ;;
  esac
}
complete -F _kalvrin kalvrin
