#!/bin/sh
# Installs the library into a fresh prefix, builds a program against the
# installed package only, and checks that it finds every described type and
# the hand-written registered ones by name.
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
