#!/usr/bin/env bash
# The simulator reaches the library only through libvxsdm/abi: every quoted
# include under sim/ names a header of sim/ itself or of the ABI folder.
set -euo pipefail
src=$1
status=0
while IFS= read -r line; do
  file=${line%%:*}
  header=$(sed -E 's/.*#include "([^"]+)".*/\1/' <<<"${line#*:}")
  name=$(basename "$header")
  if ! find "$src/sim" "$src/libvxsdm/abi" -name "$name" -print -quit | grep -q .; then
    echo "$file includes $header, which is neither the simulator's nor the ABI's"
    status=1
  fi
done < <(grep -rn --include='*.cpp' --include='*.h' '#include "' "$src/sim" | cut -d: -f1,3-)
grep -rn 'libvxsdm' "$src/sim" --include=CMakeLists.txt | grep -v 'vxsdm_abi' && status=1
[[ $status == 0 ]] && echo "the simulator includes only its own headers and libvxsdm/abi"
exit $status
