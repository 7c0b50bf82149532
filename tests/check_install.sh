#!/bin/sh
# Installs into a scratch prefix, then builds a C consumer with pkg-config and a
# CMake consumer with find_package, and runs both against the installed library
# (through the sandbox launcher when one is given as the fourth argument).
set -eu
src=$1 build=$2 cc=$3 run=${4:-}
tmp=$(mktemp -d "$build/install-check.XXXXXX")  # not /tmp: the sandbox hides it
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
pc=$(find "$tmp/prefix" -name gikraidrum.pc)
libdir=$(dirname "$(find "$tmp/prefix" -name 'libgikraidrum.so.1')")
for f in libgikraidrum.so libgikraidrum.so.1; do
  [ -e "$libdir/$f" ] || { echo "missing $f" >&2; exit 1; }
done
cat >"$tmp/use.c" <<'C'
#include <gikraidrum.h>
#include <string.h>
int main(void) {
  cmf_buf_t b;
  memset(&b, 0, sizeof b);
  if (cmf_buf_snprintf(&b, "v%d", 1) != 0 || strcmp(b.data, "v1") != 0) return 1;
  cmf_buf_free(&b);
  return cmdb_find_cache_idx(0) == 0 ? 0 : 1;
}
C
export PKG_CONFIG_PATH=$(dirname "$pc")
# shellcheck disable=SC2046
"$cc" -std=c99 -pedantic -Wall -Werror $(pkg-config --cflags gikraidrum) "$tmp/use.c" -o "$tmp/use" \
  $(pkg-config --libs gikraidrum)
LD_LIBRARY_PATH=$libdir $run "$tmp/use"
mkdir "$tmp/cm"
cat >"$tmp/cm/CMakeLists.txt" <<'CM'
cmake_minimum_required(VERSION 3.20)
project(consumer C)
find_package(gikraidrum REQUIRED)
add_executable(use use.c)
target_link_libraries(use PRIVATE gikraidrum::gikraidrum)
CM
cp "$tmp/use.c" "$tmp/cm/use.c"
cmake -S "$tmp/cm" -B "$tmp/cm/build" -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/cm/build" >/dev/null
LD_LIBRARY_PATH=$libdir $run "$tmp/cm/build/use"
echo "installed library consumed through pkg-config and find_package"
