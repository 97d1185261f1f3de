#!/usr/bin/env bash
# Installs the built packages into a throwaway Debian root, as apt installs
# them on a fresh host, and runs `vxcli list` under the packaged vxsim there.
# Its output must equal the build tree's. The packages apt fetches are kept
# in a cache (VX_PKGTEST_CACHE) so later runs download nothing.
#
#   tests/install/check_debs.sh [DEBS_DIR [BUILD_DIR]]
set -euo pipefail
cd "$(dirname "$0")/../.."
debs=$(realpath "${1:-build-deb}")
build=${2:-build}
cache=${VX_PKGTEST_CACHE:-/var/cache/libvxsdm-pkgtest}
start=$SECONDS

mapfile -t packages < <(ls "$debs"/libvxsdm6_*.deb "$debs"/libvxsdm-dev_*.deb "$debs"/vxcli_*.deb "$debs"/vxsim_*.deb)
[[ ${#packages[@]} -eq 4 ]] || { echo "check_debs: expected four packages in $debs"; exit 1; }
includes=()
for p in "${packages[@]}"; do includes+=(--include="$p"); done

root=$(mktemp -d /var/tmp/vx-root.XXXXXX)
trap 'rm -rf "$root"' EXIT
mkdir -p "$cache"
# The smallest root apt can install into; apt resolves what the packages need.
mmdebstrap --quiet --mode=root --variant=essential "${includes[@]}" \
  --hook-dir=/usr/share/mmdebstrap/hooks/file-mirror-automount \
  --skip=download/empty --skip=essential/unlink \
  --setup-hook='mkdir -p "$1"/var/cache/apt/archives/' \
  --setup-hook="sync-in $cache /var/cache/apt/archives/" \
  --customize-hook="sync-out /var/cache/apt/archives $cache" \
  bookworm "$root"
echo "check_debs: root made in $((SECONDS - start)) s"

failures=0
for p in libvxsdm6 libvxsdm-dev vxcli vxsim; do
  chroot "$root" dpkg-query -W -f='${Status}\n' "$p" | grep -qx 'install ok installed' ||
    { echo "FAIL: $p is not installed"; failures=$((failures + 1)); }
done

# The root gets proc and dev; no sysfs, which vxsim mounts itself where a
# bare root lacks it (libsysfs finds sysfs through /proc/mounts). vxsim
# makes / private before it mounts anything, so the root must be a mount
# point of its own; all of it vanishes with the mount namespace.
in_root() {
  unshare --mount --propagation private sh -c '
    mount --bind "$0" "$0" && mount -t proc proc "$0/proc" && mount --rbind /dev "$0/dev" &&
    exec chroot "$0" "$@"' "$root" "$@"
}
got=$(in_root vxsim run -- vxcli list 2>&1) || { echo "FAIL: vxcli list in the root: $got"; failures=$((failures + 1)); }
echo "$got"
if [[ -x $build/sim/vxsim && -x $build/tools/vxcli/vxcli ]]; then
  want=$("$build/sim/vxsim" run -- "$build/tools/vxcli/vxcli" list 2>&1)
  [[ "$got" == "$want" ]] || { echo "FAIL: the packaged vxcli list differs from the build tree's:";
    diff <(echo "$want") <(echo "$got") || true; failures=$((failures + 1)); }
elif [[ $(grep -c '^ *[0-9]' <<<"$got") -ne 4 ]]; then
  echo "FAIL: the default host has four ports"; failures=$((failures + 1))
fi

# Our line of /etc/hba.conf comes back when the wrapper's package installs
# the file after ours (apt may order them either way).
chroot "$root" sed -i '/^com\.varnex-vxsdm /d' /etc/hba.conf
wrapper=$(ls "$cache"/libhbaapi2_*.deb | head -1)
cp "$wrapper" "$root/tmp/" && chroot "$root" dpkg -i "/tmp/$(basename "$wrapper")" >/dev/null
chroot "$root" grep -q '^com\.varnex-vxsdm /usr/lib/.*/libvxsdm\.so\.6$' /etc/hba.conf ||
  { echo "FAIL: installing the wrapper's package after ours left /etc/hba.conf without our line"; failures=$((failures + 1)); }

# The SNIA wrapper finds the packaged library through the line the package
# added to /etc/hba.conf. The build tree's list, for comparison, comes from
# its own line, added inside its simulated host (an /etc overlay that dies
# with it).
got=$(in_root vxsim run -- vxhbalist 2>&1) || { echo "FAIL: vxhbalist in the root: $got"; failures=$((failures + 1)); }
echo "$got"
if [[ -x $build/sim/vxsim && -x $build/tools/vxhbalist/vxhbalist ]]; then
  lib=$(realpath "$build/libvxsdm/libvxsdm.so.6")
  want=$("$build/sim/vxsim" run -- sh -c 'echo "com.varnex-vxsdm $1" >>/etc/hba.conf && exec "$2"' \
    sh "$lib" "$(realpath "$build/tools/vxhbalist/vxhbalist")" 2>&1)
  [[ "$got" == "$want" ]] || { echo "FAIL: the packaged vxhbalist differs from the build tree's:";
    diff <(echo "$want") <(echo "$got") || true; failures=$((failures + 1)); }
elif [[ $(grep -c '^varnex-' <<<"$got") -ne 4 ]]; then
  echo "FAIL: the wrapper lists four adapters"; failures=$((failures + 1))
fi
echo "check_debs: $((SECONDS - start)) s"
[[ $failures -eq 0 ]] || { echo "check_debs: $failures checks failed"; exit 1; }
echo "check_debs: the packages install and run"
