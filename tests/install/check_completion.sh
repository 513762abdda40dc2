#!/usr/bin/env bash
# Every subcommand that `marquelctl --help` lists is offered by the bash and by the zsh
# completion (zsh with its description), and the bash completion completes a command name.
# Usage: check_completion.sh MARQUELCTL BASH_COMPLETION ZSH_COMPLETION
set -euo pipefail
ctl="$1"
bash_file="$2"
zsh_file="$3"

commands="$("$ctl" --help | awk '/^Subcommands:/ {on = 1; next} on && /^  [a-z]/ {print $1}')"
[ "$(wc -w <<<"$commands")" -ge 10 ] || { echo "FAIL: --help lists too few commands: $commands"; exit 1; }
bash -n "$bash_file"
# shellcheck disable=SC1090
source "$bash_file"
# The bash completion offers each command for the word typed so far (its whole name).
offers() {
  COMP_WORDS=(marquelctl "$1")
  COMP_CWORD=1
  _marquelctl
  printf '%s\n' "${COMPREPLY[@]}"
}
missing=0
for c in $commands; do
  offers "$c" | grep -qx "$c" || { echo "FAIL: bash completion lacks '$c'"; missing=1; }
  # zsh shows each command with its description, several words.
  grep -q "^    '$c:[^ ]* [^ ]" "$zsh_file" || { echo "FAIL: zsh completion lacks '$c' with its description"; missing=1; }
done
[ $missing = 0 ] || exit 1
[ "$(offers sta)" = "status" ] || { echo "FAIL: 'sta' completed to '$(offers sta)'"; exit 1; }
echo "both completions offer: $(tr '\n' ' ' <<<"$commands")"
