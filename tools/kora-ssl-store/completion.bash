# bash completion for kora-ssl-store. Installed as
# share/bash-completion/completions/kora-ssl-store.
_kora_ssl_store() {
  local cur prev cmd i
  COMPREPLY=()
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD - 1]}
  cmd=
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      -*) ;;
      *) cmd=${COMP_WORDS[i]}; break ;;
    esac
  done
  # Commands and kinds as the tool itself lists them, so this file never falls behind.
  local tool=${COMP_WORDS[0]}
  local kinds
  kinds=$("$tool" ls --help 2>/dev/null | sed -n '1s/.*\[\([a-z|]*\)\].*/\1/p' | tr '|' ' ')
  if [ -z "$cmd" ]; then
    local commands
    commands=$("$tool" --help 2>/dev/null | awk '/^commands:/ { on = 1; next } /^$/ { on = 0 } on { print $1 }')
    mapfile -t COMPREPLY < <(compgen -W "$commands -v --help --version" -- "$cur")
    return
  fi
  case $prev in
    --cert | --key | --p12 | --out)
      if [ "$cmd" = put ] || [ "$cmd" = csr ]; then
        [ "$prev" = --key ] && [ "$cmd" = csr ] &&
          { mapfile -t COMPREPLY < <(compgen -W "ec:P-256 ec:P-384 rsa:3072 ed25519" -- "$cur"); return; }
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
      fi
      ;;
    --pass)
      mapfile -t COMPREPLY < <(compgen -W "pass: env: file: stdin" -- "$cur")
      compopt -o nospace 2>/dev/null
      return
      ;;
  esac
  case $cmd in
    put)
      if [ "$COMP_CWORD" -eq $((i + 1)) ]; then
        mapfile -t COMPREPLY < <(compgen -W "$kinds" -- "$cur")
      elif [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--cert --key --p12 --pass -v --help" -- "$cur")
      else
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      fi
      ;;
    ls) mapfile -t COMPREPLY < <(compgen -W "$kinds -l --json -v --help" -- "$cur") ;;
    show | rm)
      [ "$COMP_CWORD" -eq $((i + 1)) ] && mapfile -t COMPREPLY < <(compgen -W "$kinds --json --help" -- "$cur")
      ;;
    csr) mapfile -t COMPREPLY < <(compgen -W "--subject --key --san --out --force -v --help" -- "$cur") ;;
    connect | serve) mapfile -t COMPREPLY < <(compgen -W "--cert --ca --psk -v --help" -- "$cur") ;;
    der2pem) mapfile -t COMPREPLY < <(compgen -f -- "$cur") ;;
  esac
}
complete -F _kora_ssl_store kora-ssl-store
