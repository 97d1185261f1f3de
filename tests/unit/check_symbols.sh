#!/usr/bin/env bash
# The Debian symbols file lists exactly the names of the version script,
# each under its node, and the node itself: a new export needs its line
# (with the first version that has it) before a package can be built.
set -euo pipefail
map=$1 symbols=$2 node=$3
in_map=$(sed -n '/global:/,/local:/p' "$map" | grep -oE '^[[:space:]]+[A-Za-z_][A-Za-z0-9_]*;' | tr -d ' \t;' | sort)
in_symbols=$(grep -E '^ [^ ]+@' "$symbols" | awk '{print $1}' | sort)
want=$( (echo "$node@$node"; echo "$in_map" | sed "s/\$/@$node/") | sort)
if [[ "$want" != "$in_symbols" ]]; then
  echo "$symbols differs from $map (< version script, > symbols file):"
  diff <(echo "$want") <(echo "$in_symbols") || true
  exit 1
fi
bad=$(grep -E '^ [^ ]+@' "$symbols" | awk 'NF != 2 || $2 !~ /^[0-9]+\.[0-9]+\.[0-9]+$/' || true)
if [[ -n "$bad" ]]; then
  echo "symbols lines without a version: $bad"
  exit 1
fi
echo "$(echo "$in_map" | wc -l) names of $map are in $symbols"
