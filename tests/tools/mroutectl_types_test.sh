#!/bin/sh
# mroutectl types: every registered type with its kind, one type's attributes
# with ids, kinds, types, defaults and table capacities, an enumeration's
# literals, --json, and a one-line error with exit code 3 for an unknown name.
set -u
mroutectl="$1"
fail() { echo "FAIL: $*"; exit 1; }

out=$("$mroutectl" types) || fail "types exited $?"
echo "$out" | grep -q '^entity      BitMapper::BrumeStatus$' || fail "types entity: $out"
echo "$out" | grep -q '^enumeration Routing::Multicast::Fib::RouteKeyType$' || fail "types enumeration: $out"
echo "$out" | grep -q '^enumeration Orvet::MrtMessageType$' || fail "types kernel enumeration: $out"
echo "$out" | grep -q '^value       Brume::Multicast::Fib::Route::RouteFlags$' || fail "types flags: $out"
[ "$(echo "$out" | sort | uniq -d)" = "" ] || fail "a type is listed twice: $out"

out=$("$mroutectl" types BitMapper::BrumeStatus) || fail "types BrumeStatus exited $?"
echo "$out" | grep -q '^BitMapper::BrumeStatus (entity)$' || fail "type header: $out"
echo "$out" | grep -q '^   258  bitIndexMap  *table  *BitIndex -> BitIndexMap, capacity 65536$' || fail "table row: $out"
echo "$out" | grep -q '^   260  maxBitIndexMaps  *const  *uint32_t = 65536$' || fail "const row: $out"

out=$("$mroutectl" types Routing::Multicast::Fib::Config) || fail "types Config exited $?"
echo "$out" | grep -q '^   267  clearMfibCount  *counter  *uint8_t = 0$' || fail "counter row: $out"

# A derived entity lists what it inherits, its base's ids first.
out=$("$mroutectl" types Routing::Multicast::Notify::MrtStockSocketPam) || fail "types MrtStockSocketPam exited $?"
echo "$out" | grep -q '^   258  readableCount  *counter' || fail "inherited row: $out"
echo "$out" | grep -q '  rxFiltered  *counter' || fail "own row: $out"

out=$("$mroutectl" types Orvet::MrtMessageType) || fail "types MrtMessageType exited $?"
echo "$out" | grep -q '^     2  wholePktAlert$' || fail "literal row: $out"

out=$("$mroutectl" types No::Such 2>&1)
[ $? -eq 3 ] || fail "unknown type: exit code"
[ "$out" = "mroutectl types: no type 'No::Such' is registered (mroutectl types lists them)" ] || fail "unknown type: $out"

# --json: the same registry, read by a JSON parser.
out=$("$mroutectl" types BitMapper::BrumeStatus --json | python3 -c \
  'import json, sys; j = json.load(sys.stdin); print(j["kind"], [a["capacity"] for a in j["attributes"] if a["name"] == "bitIndexMap"])')
[ "$out" = "entity [65536]" ] || fail "types --json: $out"

# trace: the library's facilities with the levels MROUTE_TRACE gives them, and
# a setting that names no facility reported rather than ignored.
out=$(MROUTE_TRACE='Mroute::Brume*/0-3' "$mroutectl" trace) || fail "trace exited $?"
echo "$out" | grep -q '^Mroute::BitMapper  *-$' || fail "trace: BitMapper off: $out"
echo "$out" | grep -Eq '^Mroute::Brume[A-Za-z]*  *0-3$' || fail "trace: Brume levels: $out"
out=$(MROUTE_TRACE=garbage "$mroutectl" trace --json 2>/dev/null | python3 -c \
  'import json, sys; j = json.load(sys.stdin); print(len(j["facilities"]) > 0, len(j["problems"]))')
[ "$out" = "True 1" ] || fail "trace --json with a bad setting: $out"
# Any subcommand reports a bad setting, and refuses an unwritable trace file.
err=$(MROUTE_TRACE=garbage "$mroutectl" key '(*,239.1.1.1)' 2>&1 >/dev/null)
echo "$err" | grep -q 'MROUTE_TRACE: "garbage" matches no trace facility' || fail "key with a bad setting: $err"
status=0; err=$(MROUTE_TRACE_FILE=/nonexistent/dir/t "$mroutectl" key '(*,239.1.1.1)' 2>&1 >/dev/null) || status=$?
[ "$status" = 2 ] && echo "$err" | grep -q 'fix or unset MROUTE_TRACE_FILE' || fail "unwritable trace file: $status $err"
echo ok
