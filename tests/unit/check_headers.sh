#!/usr/bin/env bash
# Compiles each public header on its own, as C11 and as C++20, with the
# build's warnings as errors: a header that leans on another being included
# first fails here.
set -euo pipefail
cc=$1 cxx=$2 dir=$3
shift 3
flags=(-Wall -Wextra -Werror -pedantic -fsyntax-only -I "$dir")
compile() {  # compiler, standard, language, header
  if ! out=$(echo "#include \"$4\"" | "$1" "-std=$2" -x "$3" "${flags[@]}" - 2>&1); then
    echo "$4 does not compile on its own as $2:"
    echo "$out" | head -20
    exit 1
  fi
}
for h in "$@"; do
  compile "$cc" c11 c "$h"
  compile "$cxx" c++20 c++ "$h"
done
echo "$# public headers compile alone as C11 and C++20"
