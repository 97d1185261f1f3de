#!/usr/bin/env bash
# Compares the dynamic symbols a shared object defines with the expected
# list, and checks that each carries the library's version node.
set -euo pipefail
lib=$1 expected=$2 node=$3
# The node itself shows as an absolute symbol of its own name.
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | grep -vx "$node" | sort)
want=$(grep -v '^#' "$expected" | sed '/^$/d' | sort)
if [[ "$actual" != "$want" ]]; then
  echo "exported symbols differ from $expected (< expected, > actual):"
  diff <(echo "$want") <(echo "$actual") || true
  exit 1
fi
unversioned=$(nm -D --defined-only --with-symbol-versions "$lib" | awk '{print $3}' | grep -vx "$node" | grep -vx "$node@@$node" |
              grep -v "@@$node\$" || true)
if [[ -n "$unversioned" ]]; then
  echo "symbols outside the $node node:"
  echo "$unversioned"
  exit 1
fi
echo "$(echo "$actual" | wc -l) exported symbols as expected, all in $node"
