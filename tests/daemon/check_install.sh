#!/bin/sh
# Installs into a scratch prefix, builds the C99 client check against the
# installed client library through pkg-config and through find_package, and
# runs both against the installed cmdbd in a sandbox of their own.
set -eu
src=$1 build=$2 cc=$3 cmdbctl=$4
tmp=$(mktemp -d "$build/client-install.XXXXXX")  # not /tmp: the sandbox hides it
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
for f in include/gikraidrum/client.h sbin/cmdbd lib/systemd/system/cmdbd.service lib/tmpfiles.d/cmdb.conf \
         lib/sysusers.d/cmdb.conf share/man/man8/cmdbd.8.gz; do
  [ -e "$prefix/$f" ] || { echo "not installed: $f" >&2; exit 1; }
done
libdir=$(dirname "$(find "$prefix" -name 'libgikraidrum-client.so.1')")
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
"$cc" -std=c99 -pedantic -Wall -Wextra -Werror $(pkg-config --cflags gikraidrum-client) \
  "$src/tests/daemon/client_check.c" -o "$tmp/check_pc" $(pkg-config --libs gikraidrum-client)
mkdir "$tmp/cm"
cat >"$tmp/cm/CMakeLists.txt" <<CM
cmake_minimum_required(VERSION 3.20)
project(consumer C)
find_package(gikraidrum REQUIRED)
add_executable(check_cm $src/tests/daemon/client_check.c)
target_link_libraries(check_cm PRIVATE gikraidrum::client)
CM
cmake -S "$tmp/cm" -B "$tmp/cm/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/cm/build" >/dev/null
cat >"$tmp/run.sh" <<SH
set -e
export LD_LIBRARY_PATH=$libdir
check() {  # a fresh region and store each time
  $prefix/sbin/cmdbd --schema $src/examples/appliance.json --write-group 0 2>/dev/null &
  i=0; until [ -S /run/cmdb/cmdbd.sock ]; do i=\$((i + 1)); [ \$i -lt 200 ] || exit 1; sleep 0.05; done
  "\$1" /run/cmdb/cmdbd.sock
  kill -TERM \$! && wait \$!
  rm -f /var/lib/cmdb/cmdb.sqlite* && $cmdbctl destroy >/dev/null
}
check $tmp/check_pc
check $tmp/cm/build/check_cm
SH
out=$("$cmdbctl" sandbox -- sh "$tmp/run.sh")
[ "$out" = "$(printf '1 2\n1 2')" ] || { echo "client check through the installed library: '$out'" >&2; exit 1; }
echo "installed cmdbd and client library used through pkg-config and find_package"
