#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds a consumer against it twice: with
# pkg-config and with find_package. Both must compile, link and run. A second consumer,
# which creates virtual devices, and a third, which takes one through its whole life, are
# built with pkg-config and run in the simulator.
# usage: run.sh BUILD_DIR CONSUMER_SOURCE_DIR [extra compiler flags...]
set -euo pipefail
build=$1 source=$2
shift 2
extra_flags="$*"
work=$(mktemp -d /tmp/zovdx-consumer-XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libzovdx.so.1.0.0' | head -n 1)")
[ -f "$libdir/libzovdx.so.1.0.0" ] || { echo "FAIL: no libzovdx.so.1.0.0 installed"; exit 1; }
[ "$(readlink "$libdir/libzovdx.so.1")" = libzovdx.so.1.0.0 ] || { echo "FAIL: libzovdx.so.1 link"; exit 1; }
[ "$(readlink "$libdir/libzovdx.so")" = libzovdx.so.1 ] || { echo "FAIL: libzovdx.so link"; exit 1; }
[ -f "$prefix/include/zovdx/vdx.h" ] || { echo "FAIL: header not installed"; exit 1; }

echo "== pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046,SC2086
cc -std=c99 -Wall -Werror $extra_flags "$source/consumer.c" $(pkg-config --cflags --libs zovdx) -o "$work/with-pkg-config"
LD_LIBRARY_PATH=$libdir "$work/with-pkg-config"
# shellcheck disable=SC2046,SC2086
cc -std=c99 -Wall -Werror $extra_flags "$source/create.c" $(pkg-config --cflags --libs zovdx) -o "$work/create"
"$build/sim/vdx-sim" -- env LD_LIBRARY_PATH="$libdir" "$work/create"
# shellcheck disable=SC2046,SC2086
cc -std=c99 -Wall -Werror $extra_flags "$source/lifecycle.c" $(pkg-config --cflags --libs zovdx) -o "$work/lifecycle"
"$build/sim/vdx-sim" -- env LD_LIBRARY_PATH="$libdir" "$work/lifecycle"

if [ -x "$build/tools/vdxctl" ]; then
  echo "== tools"
  for file in bin/vdxctl sbin/vdxd lib/systemd/system/vdxd.service share/man/man1/vdxctl.1.gz \
              share/man/man8/vdxd.8.gz; do
    [ -e "$prefix/$file" ] || { echo "FAIL: $file not installed"; exit 1; }
  done
  grep -q "^ExecStart=$prefix/sbin/vdxd$" "$prefix/lib/systemd/system/vdxd.service" ||
    { echo "FAIL: the unit does not start the installed vdxd"; exit 1; }
  # The installed tool finds the installed library through its run path.
  # (Captured first: under pipefail, grep -q leaving early would fail the pipe.)
  devices=$("$build/sim/vdx-sim" -- "$prefix/bin/vdxctl" --format csv devices)
  grep -q '^0,ZO XC-100 32G,60,' <<< "$devices" ||
    { echo "FAIL: the installed vdxctl does not run"; exit 1; }
fi

echo "== find_package"
cmake -S "$source" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_C_FLAGS="$extra_flags" -DCMAKE_EXE_LINKER_FLAGS="$extra_flags" >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/consumer"   # the imported target carries the run path
echo "consumer ok"
