#!/bin/bash
# The built completion script offers what it should, line by line as bash
# would hand it over (words split at '=' as readline does).
# Usage: check-completion.sh COMPLETION_SCRIPT
main=/usr/share/bash-completion/bash_completion
[ -r "$main" ] || { echo "SKIPPED: bash-completion is not installed"; exit 77; }
source "$main"
source "$1" || exit 1
compopt() { :; }  # only valid while readline completes
dir=$(mktemp -d) && mkdir "$dir/schema" "$dir/plugins" && touch "$dir/lib.so" "$dir/a.bin" "$dir/a.txt"
trap 'rm -rf "$dir"' EXIT
failed=0
# expect: the replies, sorted and joined by spaces, for the words.
check() {
  local expect=$1
  shift
  COMP_WORDS=("$@")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMP_LINE=$(printf '%s ' "$@" | sed 's/ = /=/g; s/ =$/=/; s/ $//')
  COMP_POINT=${#COMP_LINE}
  COMPREPLY=()
  _dtl_complete "$1"
  local got
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sort | xargs)
  [ "$got" = "$expect" ] || { echo "'$COMP_LINE': got '$got', expected '$expect'"; failed=1; }
}
cd "$dir" || exit 1
check '--plugin' dtl-host --pl
check 'ipfix-receiver-port=' dtl-host -o ipfix-receiver-po
check 'switch-1-interfaces=' dtl-host --option switch-1-int
check 'false' dtl-host -o switch-2-insecure = f
check 'plugins schema' dtl-host -o ipfix-data-path = ''
check 'lib.so plugins schema' dtl-host --plugin ''
check '' dtl-host --duration ''
check '--schema-dir' dtl-read --schema-
check 'schema' dtl-read --schema-dir = s
check 'a.bin plugins schema' dtl-read --json ''
check '--json' dtl-ls --js
check 'wall' hft-sim --export-time w
check '' hft-sim --target ''
check '--max-lines' dtl-plot --max
exit $failed
