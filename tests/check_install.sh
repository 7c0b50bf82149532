#!/bin/sh
# Installs into a scratch prefix, then builds a C consumer with pkg-config and a
# CMake consumer with find_package, and runs both against the installed library
# (through the sandbox launcher when one is given as the fourth argument); then
# builds the programs of docs/getting-started.md against the installed writer
# and schema loader, both ways, and runs the guide's steps with them.
set -eu
src=$1 build=$2 cc=$3 run=${4:-} cxx=${5:-c++}
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

# The getting-started programs: owner.cc through the writer and the schema loader.
gs_run() {  # the guide's steps with the programs in $1
  out=$(LD_LIBRARY_PATH=$libdir $run /bin/sh "$src/examples/getting_started.sh" "$1")
  printf '%s\n' "$out" | grep -qx "interface 1: eth0" || { printf '%s\n' "$out" >&2; exit 1; }
}
mkdir "$tmp/gs"
# reader.c takes its layout from the header the installed cmdbctl writes.
LD_LIBRARY_PATH=$libdir "$tmp/prefix/bin/cmdbctl" schema header "$src/examples/appliance.json" \
  -o "$tmp/gs/appliance_schema.h"
# shellcheck disable=SC2046
"$cxx" -std=c++20 $(pkg-config --cflags gikraidrum-writer gikraidrum-schema) "$src/examples/owner.cc" \
  -o "$tmp/gs/owner" $(pkg-config --libs gikraidrum-writer gikraidrum-schema)
for prog in reader receiver; do
  # shellcheck disable=SC2046
  "$cc" -std=c99 -I"$tmp/gs" $(pkg-config --cflags gikraidrum) "$src/examples/$prog.c" -o "$tmp/gs/$prog" \
    $(pkg-config --libs gikraidrum)
done
gs_run "$tmp/gs"
mkdir "$tmp/gscm"
cat >"$tmp/gscm/CMakeLists.txt" <<CM
cmake_minimum_required(VERSION 3.20)
project(getting_started C CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(gikraidrum REQUIRED)
add_executable(owner $src/examples/owner.cc)
target_link_libraries(owner PRIVATE gikraidrum::writer gikraidrum::schema)
foreach(prog reader receiver)
  add_executable(\${prog} $src/examples/\${prog}.c)
  target_link_libraries(\${prog} PRIVATE gikraidrum::gikraidrum)
  target_include_directories(\${prog} PRIVATE $tmp/gs)
endforeach()
CM
cmake -S "$tmp/gscm" -B "$tmp/gscm/build" -DCMAKE_PREFIX_PATH="$tmp/prefix" -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$tmp/gscm/build" >/dev/null
gs_run "$tmp/gscm/build"
echo "installed library, writer and schema loader consumed through pkg-config and find_package"
