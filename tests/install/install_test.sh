#!/bin/sh
# Installs the library into a fresh prefix, builds a program against the
# installed package only, once through the CMake package and once through
# pkg-config, and checks that each finds every described type and the
# hand-written registered ones by name. The prefix holds headers only where
# there are some, and no internal header that no public one includes.
# usage: install_test.sh <build dir> <source dir> <python3> [<sanitizers>]
set -eu
build=$1 src=$2 python=$3 sanitize=${4:-}
# A sanitized library needs its runtime in the consumer too.
flags=""
[ -n "$sanitize" ] && flags="-fsanitize=$sanitize"
work=$(mktemp -d "${TMPDIR:-/tmp}/mroute-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$src/tests/install/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$work/build" >"$work/build.log" 2>&1 || { tail -20 "$work/build.log"; exit 1; }
pc=$(find "$work/prefix" -name mroute.pc)
[ -n "$pc" ] || { echo "no mroute.pc installed"; exit 1; }
# shellcheck disable=SC2046
c++ $flags -o "$work/find_types_pc" "$src/tests/install/consumer/find_types.cc" \
  $(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs mroute) >"$work/pc.log" 2>&1 ||
  { tail -20 "$work/pc.log"; exit 1; }

include="$work/prefix/include/mroute"
empty=$(find "$work/prefix" -type d -empty)
[ -z "$empty" ] || { echo "empty folders installed: $empty"; exit 1; }
[ ! -e "$include/route/internal/key_display.h" ] || { echo "an internal header no public one needs is installed"; exit 1; }
[ -e "$include/table/brume_map.h" ] && [ -e "$include/runtime/trace.h" ] || { echo "public headers missing"; exit 1; }
{
  "$python" "$src/tools/entitygen/entitygen.py" --list-types --src "$src/src"
  cat <<NAMES
Routing::Multicast::Fib::RouteKeyType
Routing::Multicast::Fib::IpGenRouteKey
Brume::Multicast::Fib::Route
Brume::Multicast::Fib::OifIndexIntf
NAMES
} > "$work/names"
"$work/build/find_types" < "$work/names"
"$work/find_types_pc" < "$work/names"
