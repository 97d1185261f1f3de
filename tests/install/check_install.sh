#!/usr/bin/env bash
# Installs a build tree as an administrator or a package build would, and
# checks the result: everything under DESTDIR, ldconfig only without it,
# stripped binaries (the build tree keeps its debug info), a relative vxsim
# link, the pkg-config file and CMake package naming the real prefix, and the
# example compiled both ways against the build tree and the installations.
# With root, the installed vxsim and vxcli run a simulated host.
set -euo pipefail
build=$(realpath "$1") src=$(realpath "$2")
tmp=$(mktemp -d /tmp/vx-install.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
check() {  # description, command...: the command's output is shown when it fails
  local what=$1 out; shift
  if out=$("$@" 2>&1); then echo "ok: $what"; else fail "$what"; tail -20 <<<"$out"; fi
}

# A stand-in ldconfig that only records that it ran.
mkdir -p "$tmp/bin"
printf '#!/bin/sh\necho ran >>"%s/ldconfig.calls"\n' "$tmp" >"$tmp/bin/ldconfig"
chmod +x "$tmp/bin/ldconfig"
install_to() {  # destdir ("" for none), prefix
  rm -f "$tmp/ldconfig.calls"
  DESTDIR=$1 PATH="$tmp/bin:$PATH" cmake --install "$build" --prefix "$2" --strip >"$tmp/install.log"
}
ldconfig_runs() { [[ -f "$tmp/ldconfig.calls" ]] && [[ $(wc -l <"$tmp/ldconfig.calls") -eq 1 ]]; }
stripped() { ! readelf -S "$1" | grep -qE '\.debug_info|\.symtab'; }
has_debug() { readelf -S "$1" | grep -q '\.debug_info'; }
pc_var() { PKG_CONFIG_PATH=$(dirname "$1") pkg-config --variable="$2" libvxsdm; }

# 1. A package build's staging tree: prefix /usr under DESTDIR.
stage=$tmp/stage
install_to "$stage" /usr
# The manifest names the files as on the target host, without DESTDIR.
missing=$(while read -r f; do [[ -e $stage$f || -L $stage$f ]] || echo "$f"; done <"$build/install_manifest.txt")
check "every installed file lies under DESTDIR" test -z "$missing"
# /etc/hba.conf is the wrapper's file, edited rather than installed: not in the manifest.
check "the manifest lists every staged file" \
  test "$(cd "$stage" && find . \( -type f -o -type l \) ! -path ./etc/hba.conf | cut -c2- | sort)" = \
       "$(sort "$build/install_manifest.txt")"
check "no ldconfig under DESTDIR" test ! -e "$tmp/ldconfig.calls"
lib=$(find "$stage/usr" -path "*/lib*/libvxsdm.so.6.*" -type f | head -1)
libdir=$(dirname "$lib")
for f in "$lib" "$stage/usr/bin/vxcli" "$stage/usr/bin/vxhbalist" "$stage/usr/libexec/vxsim/vxsim" "$stage/usr/libexec/vxsim/libvxsim_driver.so"; do
  check "stripped: ${f#"$stage"}" stripped "$f"
done
check "the build tree keeps debug info" has_debug "$build/tools/vxcli/vxcli"
check "libvxsdm.so.6 and libvxsdm.so link to the library" \
  test "$(readlink "$libdir/libvxsdm.so.6")" = "$(basename "$lib")" -a "$(readlink "$libdir/libvxsdm.so")" = libvxsdm.so.6
check "the vxsim command is a relative link" test "$(readlink "$stage/usr/bin/vxsim")" = ../libexec/vxsim/vxsim
check "the vxsim link resolves inside DESTDIR" test -x "$stage/usr/bin/vxsim"
for f in usr/include/vxsdm/vsdmgt.h usr/include/vxsdm/vsdmgtln.h usr/include/vxsdm/vsdnvram.h \
         usr/share/man/man1/vxcli.1 usr/share/man/man1/vxsim.1 usr/share/man/man1/vxhbalist.1 usr/share/bash-completion/completions/vxcli \
         usr/share/vxsim/scenarios/default.json; do
  check "installed: $f" test -f "$stage/$f"
done
pc=$libdir/pkgconfig/libvxsdm.pc
check "libvxsdm.pc names the prefix, not DESTDIR" test "$(pc_var "$pc" prefix)" = /usr
check "libvxsdm.pc libdir" test "$(pc_var "$pc" libdir)" = "${libdir#"$stage"}"
check "CMake package installed" test -f "$libdir/cmake/vxsdm/vxsdmConfig.cmake"
check "the staged hba.conf holds our line, naming the library as installed" \
  test "$(cat "$stage/etc/hba.conf")" = "com.varnex-vxsdm ${libdir#"$stage"}/libvxsdm.so.6"

# 2. Straight onto a host at another prefix: ldconfig runs, files name the prefix.
# The install edits the host's /etc/hba.conf: a copy stands in for it, in a
# mount namespace of its own, so the host's file is never touched.
prefix=$tmp/prefix
conf=$tmp/hba.conf
printf '# vendor libraries\nother.vendor-lib /nonexistent/libother.so\n' >"$conf"
host_conf=$(sha256sum /etc/hba.conf 2>/dev/null || true)
userns=(); [[ $(id -u) -eq 0 ]] || userns=(-r)
export -f install_to; export tmp build
if [[ -e /etc/hba.conf ]] && unshare "${userns[@]}" -m true 2>/dev/null; then
  unshare "${userns[@]}" -m --propagation private bash -c \
    'mount --bind "$0" /etc/hba.conf && install_to "" "$1"' "$conf" "$prefix" ||
    fail "install to $prefix"
  plib=$(find "$prefix" -path "*/lib*/libvxsdm.so.6" | head -1)
  check "hba.conf: our line, naming the library under --prefix, after the others" \
    test "$(cat "$conf")" = "$(printf '# vendor libraries\nother.vendor-lib /nonexistent/libother.so\ncom.varnex-vxsdm %s' "$plib")"
  check "the host's own hba.conf is untouched" test "$(sha256sum /etc/hba.conf 2>/dev/null || true)" = "$host_conf"
else
  fail "no mount namespace to install without DESTDIR (it edits /etc/hba.conf)"
fi
check "ldconfig runs once without DESTDIR" ldconfig_runs
ppc=$(find "$prefix" -path "*/lib*/pkgconfig/libvxsdm.pc" | head -1)
check "libvxsdm.pc follows --prefix" test "$(pc_var "$ppc" prefix)" = "$prefix"

# 3. The example, the same commands against the build tree and the installations.
example() {  # name, extra environment...: builds examples/ with its own Makefile
  local name=$1; shift
  rm -rf "$tmp/ex-$name" && cp -r "$src/examples" "$tmp/ex-$name"
  env "$@" make -s -C "$tmp/ex-$name" >"$tmp/ex-$name.log" 2>&1 || { cat "$tmp/ex-$name.log"; return 1; }
}
check "example with pkg-config, build tree" example build PKG_CONFIG_PATH="$build"
check "example with pkg-config, staged package" example stage \
  PKG_CONFIG_SYSROOT_DIR="$stage" PKG_CONFIG_LIBDIR="$libdir/pkgconfig"
check "example with pkg-config, prefix" example prefix PKG_CONFIG_LIBDIR="$(dirname "$ppc")"
check "example with find_package, build tree" \
  cmake -S "$src/examples" -B "$tmp/cm-build" -G Ninja -Dvxsdm_DIR="$build" --fresh
check "  ... builds" cmake --build "$tmp/cm-build"
check "example with find_package, prefix" \
  cmake -S "$src/examples" -B "$tmp/cm-prefix" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" --fresh
check "  ... builds" cmake --build "$tmp/cm-prefix"

# 4. The installed programs in a simulated host (root and namespaces).
if [[ $(id -u) -eq 0 ]] && unshare -m -i true 2>/dev/null; then
  out=$(env -u VXSIM_SCENARIOS -u VXSIM_DRIVER LD_LIBRARY_PATH="$libdir" \
        "$stage/usr/bin/vxsim" run --scenario single -- "$stage/usr/bin/vxcli" --json list 2>&1 || true)
  check "installed vxsim finds its own scenarios and runs the installed vxcli" grep -q '"wwpn"' <<<"$out"
  out=$(LD_LIBRARY_PATH="$build/libvxsdm" "$build/sim/vxsim" run --scenario default -- "$tmp/ex-build/list_ports" 2>&1 || true)
  check "the example lists the default host's four ports" \
    test "$(grep -c '^port [0-3]: wwnn ' <<<"$out")" -eq 4
elif [[ ${VXSIM_REQUIRE:-0} == 1 ]]; then
  fail "no root or namespaces for the simulated host (VXSIM_REQUIRE=1)"
else
  echo "skipped: the simulated host needs root and namespaces"
fi

[[ $failures -eq 0 ]] || { echo "$failures checks failed"; exit 1; }
echo "install checks passed"
