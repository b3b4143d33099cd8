#!/usr/bin/env bash
# Installs the build into a temporary prefix and checks what a user gets:
# the tree's layout, a C program built with pkg-config and a C++ project built
# with find_package(qvaclient) against that prefix alone, both calling a
# Gateway started from the installed qva-gateway; then the Debian package
# that cpack makes, by its control fields and contents.
#
# The environment names the build: QVA_SOURCE_DIR, QVA_BUILD_DIR, QVA_VERSION,
# QVA_BINDIR, QVA_LIBDIR, QVA_INCLUDEDIR, QVA_MANDIR, QVA_CC, QVA_CXX, QVA_CMAKE,
# QVA_CPACK. Exits 77 (skipped) when a tool it needs is missing.
set -euo pipefail

skip() {
  echo "SKIPPED: $*"
  exit 77
}
die() {
  echo "FAILED: $*" >&2
  exit 1
}

command -v pkg-config >/dev/null || skip "pkg-config is not installed (apt-get install pkg-config)"

work=$(mktemp -d "${TMPDIR:-/tmp}/qva-install-check.XXXXXX")
gateway=""
cleanup() {
  if [ -n "$gateway" ]; then kill "$gateway" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

# The consumers must see the prefix only: any path into the source or build
# tree in their flags or build files means they may have used those instead.
no_tree_paths() { # what file...
  local what=$1
  shift
  if grep -F -n -e "$QVA_SOURCE_DIR" -e "$QVA_BUILD_DIR" "$@"; then
    die "$what refers to the source or build tree (lines above)"
  fi
}

# ---- What every install holds, relative to the prefix -------------------------

major=${QVA_VERSION%%.*}
so_version=$(echo "$QVA_VERSION" | cut -d. -f1-3)
# One line per path; a symlink as "path -> target".
expected_tree() {
  echo "$QVA_BINDIR/qva-call"
  echo "$QVA_BINDIR/qva-gateway"
  echo "$QVA_LIBDIR/libqvaclient.so.$so_version"
  echo "$QVA_LIBDIR/libqvaclient.so.$major -> libqvaclient.so.$so_version"
  echo "$QVA_LIBDIR/libqvaclient.so -> libqvaclient.so.$major"
  echo "$QVA_LIBDIR/libqvaclient.a"
  echo "$QVA_LIBDIR/pkgconfig/qvaclient.pc"
  for file in qvaclientConfig.cmake qvaclientConfigVersion.cmake qvaclientTargets.cmake qvaclientTargets-CONFIG.cmake; do
    echo "$QVA_LIBDIR/cmake/qvaclient/$file"
  done
  (cd "$QVA_SOURCE_DIR/include" && find qvaclient -name '*.h' -o -name '*.hpp') | sed "s|^|$QVA_INCLUDEDIR/|"
  if [ -d "$QVA_SOURCE_DIR/docs/man" ]; then
    (cd "$QVA_SOURCE_DIR/docs/man" && find . -maxdepth 1 -name '*.1') | sed "s|^\./|$QVA_MANDIR/man1/|"
  fi
}
# The per-configuration targets file is named after the build type.
normalise() { sed -E 's|qvaclientTargets-[a-z]+\.cmake|qvaclientTargets-CONFIG.cmake|' | sort; }
expected_tree | normalise >"$work/expected"

same_tree() { # what actual-list
  if ! diff -u "$work/expected" "$2" >"$work/tree.diff"; then
    cat "$work/tree.diff" >&2
    die "$1 differs from the expected layout (- expected, + found)"
  fi
}

# ---- Install into the temporary prefix -------------------------------------

prefix="$work/prefix"
"$QVA_CMAKE" --install "$QVA_BUILD_DIR" --prefix "$prefix" >"$work/install.log" || {
  cat "$work/install.log"
  die "cmake --install"
}
(cd "$prefix" && find . ! -type d | sed 's|^\./||' | while read -r path; do
  if [ -L "$path" ]; then echo "$path -> $(readlink "$path")"; else echo "$path"; fi
done) | normalise >"$work/installed"
same_tree "the installed tree" "$work/installed"
soname=$(readelf -d "$prefix/$QVA_LIBDIR/libqvaclient.so.$so_version" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libqvaclient.so.$major" ] || die "SONAME is '$soname'"
echo "installed tree: $(wc -l <"$work/installed") entries as expected, SONAME $soname"

# ---- A Gateway from the installed tree ---------------------------------------

timeout 120 "$prefix/$QVA_BINDIR/qva-gateway" --port 0 --port-file "$work/port" \
  --server INSTCHK="Installed tree check" </dev/null >"$work/gateway.log" 2>&1 &
gateway=$!
for _ in $(seq 100); do
  if [ -s "$work/port" ] && grep -qx '[0-9]*' "$work/port"; then break; fi
  sleep 0.1
done
port=$(cat "$work/port" 2>/dev/null || true)
[ -n "$port" ] || die "qva-gateway wrote no port: $(cat "$work/gateway.log")"

# The installed qva-call finds the installed library by itself.
"$prefix/$QVA_BINDIR/qva-call" --host 127.0.0.1 --port "$port" ECHO --text "installed qva-call" >"$work/call.out" 2>&1 ||
  die "installed qva-call: $(cat "$work/call.out")"
grep -q "installed qva-call" "$work/call.out" || die "installed qva-call: $(cat "$work/call.out")"

# Runs a consumer and checks its echo and its listing of INSTCHK.
run_consumer() { # name echoed-text program
  local out="$work/$1.out"
  LD_LIBRARY_PATH="$prefix/$QVA_LIBDIR" "$3" "$port" >"$out" 2>&1 || die "$1 failed: $(cat "$out")"
  grep -qx "ECHO: $2" "$out" || die "$1: no echo of '$2': $(cat "$out")"
  grep -q "^server INSTCHK: Installed tree check" "$out" || die "$1: INSTCHK not listed: $(cat "$out")"
  echo "$1: echo and server list ok"
}
# A program linked to the shared library must load the prefix's copy.
loads_prefix_library() { # name program
  local ldd_out
  ldd_out=$(LD_LIBRARY_PATH="$prefix/$QVA_LIBDIR" ldd "$2" | grep libqvaclient || true)
  [[ "$ldd_out" == *"=> $prefix/$QVA_LIBDIR/libqvaclient.so.$major "* ]] || die "$1 loads: '$ldd_out'"
}

# ---- The C consumer, built with pkg-config -----------------------------------

mkdir "$work/c"
cp "$QVA_SOURCE_DIR/tests/install/consumer.c" "$work/c/"
flags=$(PKG_CONFIG_PATH="" PKG_CONFIG_LIBDIR="$prefix/$QVA_LIBDIR/pkgconfig" pkg-config --cflags --libs qvaclient) ||
  die "pkg-config does not find qvaclient in the prefix"
echo "pkg-config: $flags"
echo "$flags" >"$work/c/flags"
no_tree_paths "pkg-config's flags" "$work/c/flags"
# shellcheck disable=SC2086 # the flags are words
"$QVA_CC" -std=c99 -Wall -Wextra -Werror -o "$work/c/consumer" "$work/c/consumer.c" $flags ||
  die "the C consumer does not build with: $flags"
loads_prefix_library "C consumer" "$work/c/consumer"
run_consumer "C consumer" "installed tree, C" "$work/c/consumer"

# ---- The C++ consumer, a CMake project with find_package ---------------------

cp -r "$QVA_SOURCE_DIR/tests/install/cmake_consumer" "$work/cxx"
"$QVA_CMAKE" -S "$work/cxx" -B "$work/cxx/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER="$QVA_CXX" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF \
  >"$work/cxx.log" 2>&1 || {
  cat "$work/cxx.log"
  die "the C++ consumer does not configure"
}
"$QVA_CMAKE" --build "$work/cxx/build" >>"$work/cxx.log" 2>&1 || {
  cat "$work/cxx.log"
  die "the C++ consumer does not build"
}
found=$(sed -n 's/^qvaclient_DIR:PATH=//p' "$work/cxx/build/CMakeCache.txt")
[ "$found" = "$prefix/$QVA_LIBDIR/cmake/qvaclient" ] || die "find_package found qvaclient in '$found'"
no_tree_paths "the C++ consumer's build" "$work/cxx/build/build.ninja"
loads_prefix_library "C++ consumer (shared)" "$work/cxx/build/consumer_shared"
if readelf -d "$work/cxx/build/consumer_static" | grep -q 'NEEDED.*libqvaclient'; then
  die "consumer_static needs the shared library"
fi
run_consumer "C++ consumer (shared)" "installed tree, C++" "$work/cxx/build/consumer_shared"
run_consumer "C++ consumer (static)" "installed tree, C++" "$work/cxx/build/consumer_static"
run_consumer "C++ layer consumer" "installed tree, C++ layer" "$work/cxx/build/consumer_hpp"

# ---- The Debian package -------------------------------------------------------

command -v dpkg-deb >/dev/null || skip "the consumers passed, but dpkg-deb is missing: the .deb is not checked"
"$QVA_CPACK" -G DEB --config "$QVA_BUILD_DIR/CPackConfig.cmake" -B "$work/deb" >"$work/cpack.log" 2>&1 || {
  cat "$work/cpack.log"
  die "cpack -G DEB"
}
deb=$(find "$work/deb" -maxdepth 1 -name '*.deb')
if [ -z "$deb" ] || [ "$(echo "$deb" | wc -l)" != 1 ]; then die "cpack made '$deb'"; fi
for field in Package:qvaclient Version:"$QVA_VERSION"; do
  value=$(dpkg-deb -f "$deb" "${field%%:*}")
  [ "$value" = "${field#*:}" ] || die "the package's ${field%%:*} is '$value'"
done
depends=$(dpkg-deb -f "$deb" Depends)
[[ "$depends" == *libc6* && "$depends" == *libstdc++6* ]] || die "the package depends on '$depends'"
# "lrwxrwxrwx root/root 0 2026-01-01 12:00 ./usr/lib/libqvaclient.so -> libqvaclient.so.8"
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); print }' |
  sed 's|^\./usr/||' | normalise >"$work/packed"
same_tree "the package's contents under /usr" "$work/packed"
echo "package $(basename "$deb"): $(wc -l <"$work/packed") entries as expected, Depends: $depends"
