#!/usr/bin/env bash
# A tool's man page and its --help agree: every command and option that --help lists (of the
# tool and of each command, at any depth) is in the page, and the page names no option that
# the tool does not have.
#   man_options_test.sh TOOL PAGE
set -euo pipefail
tool=$1
page=$2

# "option --x" and "command name" for the tool (arguments: a command path).
collect() {
  local out
  out=$("$tool" "$@" --help)
  grep -oE -- '--[a-z][a-z-]*' <<<"$out" | sed 's/^/option /' || true
  local sub
  for sub in $(awk '/^Subcommands:/ { on = 1; next } on && /^  [a-z]/ { print $1 } on && /^$/ { on = 0 }' <<<"$out"); do
    echo "command $sub"
    collect "$@" "$sub"
  done
}

from_help=$(collect | sort -u)
# The page as text: roff's escaped dashes and font changes undone.
text=$(sed -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' "$page")
failures=0
while read -r kind name; do
  case $kind in
    option) grep -qF -- "$name" <<<"$text" || { echo "$page lacks $name"; failures=$((failures + 1)); } ;;
    command) grep -qw -- "$name" <<<"$text" || { echo "$page lacks the command $name"; failures=$((failures + 1)); } ;;
  esac
done <<<"$from_help"
# Examples may run other programs (systemctl, podman) with options of their own.
described=$(awk '/^\.SH EXAMPLES/ { skip = 1; next } /^\.SH / { skip = 0 } !skip' <<<"$text")
for name in $(grep -oE -- '--[a-z][a-z-]*' <<<"$described" | sort -u); do
  grep -qxF "option $name" <<<"$from_help" || { echo "$page names $name, which the tool does not have"; failures=$((failures + 1)); }
done
count=$(wc -l <<<"$from_help")
if [ "$failures" -ne 0 ]; then
  echo "$failures differences between $page and $(basename "$tool") --help"
  exit 1
fi
echo "$page covers all $count commands and options of $(basename "$tool") --help"
