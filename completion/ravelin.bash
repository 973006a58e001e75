# bash completion for ravelin

_ravelin() {
  local cur prev words cword
  _init_completion || return

  local subcommands="apps delete disk dupes helper junk large leftovers monitor rules serve startup"
  local global="--help --version --root --helper-socket"
  local command="" i
  for ((i = 1; i < cword; i++)); do
    case "${words[i]}" in
      --root | --helper-socket) ((i++)) ;;
      -*) ;;
      *) command="${words[i]}"; break ;;
    esac
  done

  case "$prev" in
    --root | --keep-under | --exclude | --size)
      _filedir -d
      return ;;
    --helper-socket | --check | --from | --from0)
      _filedir
      return ;;
    --keep)
      COMPREPLY=($(compgen -W "first newest oldest shortest-path" -- "$cur"))
      return ;;
    --category)
      COMPREPLY=($(compgen -W "caches logs trash disk_images apps browsers orphans" -- "$cur"))
      return ;;
    --min-size | --exclude-ext | --for | --watch | --count | --enable | --disable | --jobs)
      return ;;
  esac

  local options
  case "$command" in
    "") COMPREPLY=($(compgen -W "$subcommands $global" -- "$cur")); return ;;
    dupes) options="--min-size --hidden --exclude --exclude-ext --delete --keep --keep-under --yes --dry-run --hard-links --jobs --json" ;;
    large) options="--min-size --count --tree --json" ;;
    disk) options="--size --json" ;;
    apps) options="--files --json" ;;
    leftovers) options="--delete --all --yes --dry-run --json" ;;
    junk) options="--clean --category --yes --dry-run --json" ;;
    startup) options="--all --disable --enable --json" ;;
    rules) options="--check --for --json" ;;
    monitor) options="--watch --count --free-memory --json" ;;
    serve) options="--port --open" ;;
    delete) options="--yes --dry-run --system --json --from --from0" ;;
    helper)
      COMPREPLY=($(compgen -W "status install uninstall --json --help" -- "$cur"))
      return ;;
  esac
  if [[ "$cur" == -* ]]; then
    COMPREPLY=($(compgen -W "$options --help $global" -- "$cur"))
  elif [[ "$command" =~ ^(dupes|large|delete)$ ]]; then
    _filedir
  fi
}
complete -F _ravelin ravelin
