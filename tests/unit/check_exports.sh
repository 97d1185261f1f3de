#!/usr/bin/env bash
# Compares the dynamic symbols a shared object defines with the expected list.
set -euo pipefail
lib=$1 expected=$2
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort)
want=$(grep -v '^#' "$expected" | sed '/^$/d' | sort)
if [[ "$actual" != "$want" ]]; then
  echo "exported symbols differ from $expected (< expected, > actual):"
  diff <(echo "$want") <(echo "$actual") || true
  exit 1
fi
echo "$(echo "$actual" | wc -l) exported symbols as expected"
