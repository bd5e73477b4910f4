#!/bin/sh
# Installs the library into a fresh prefix, builds a program against the
# installed package only, and checks that it finds every described type and
# the hand-written registered ones by name.
# usage: install_test.sh <build dir> <source dir> <python3>
set -eu
build=$1 src=$2 python=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/mroute-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$src/tests/install/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$work/build" >/dev/null
{
  "$python" "$src/tools/entitygen/entitygen.py" --list-types --src "$src/src"
  cat <<NAMES
Routing::Multicast::Fib::RouteKeyType
Orvet::MrtMessageType
Routing::Multicast::Fib::IpGenRouteKey
Brume::Multicast::Fib::Route
Brume::Multicast::Fib::OifIndexIntf
NAMES
} > "$work/names"
"$work/build/find_types" < "$work/names"
