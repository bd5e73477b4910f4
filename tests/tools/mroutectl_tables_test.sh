#!/bin/sh
# mroutectl on tables written by its demo processes: tables/stat, dump with
# its limit and filters, lookup, validate (sound and damaged copies), follow
# while a writer changes routes; every --json form read by a JSON parser and
# compared with the table's contents; one-line errors with their exit codes.
set -u
mroutectl="$1"
MROUTE_SHM_ROOT=$(mktemp -d "${TMPDIR:-/tmp}/mroutectl-test.XXXXXX") || exit 1
export MROUTE_SHM_ROOT
trap 'rm -rf "$MROUTE_SHM_ROOT"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
# json <python expression over j, the parsed standard input>: prints its value.
json() { python3 -c "import json, sys; j = json.load(sys.stdin); print(($1))"; }
table=demo/routing/multicast/fib/route
fib="$MROUTE_SHM_ROOT/demo/routing/multicast/fib"
dir="$fib/route"

# The demo: the reader sees routes added, changed (an oif joins) and removed.
out=$("$mroutectl" demo --seconds 1) || fail "demo exited $?: $out"
echo "$out" | grep -q '^reader: + (10.0.0.1,239.1.1.1)  iif Ethernet2  oifs 3,7,12  flags valid,programmable  prio 1  ver [0-9]*$' \
  || fail "demo add: $out"
echo "$out" | grep -q '^reader: ~ (\*,239.1.1.1)  iif Ethernet1  oifs 3,7,20 .*\[oif +20, maxOifIndex 7 -> 20\]$' \
  || fail "demo oif added: $out"
echo "$out" | grep -q '^reader: - (' || fail "demo removal: $out"

# dump --json against tables --json, stat --json, dump and lookup: one table,
# the same entries everywhere.
dump=$("$mroutectl" dump "$table" --json) || fail "dump --json exited $?"
n=$(echo "$dump" | json 'len(j["entries"])')
[ "$(echo "$dump" | json 'j["matching"]')" = "$n" ] || fail "dump --json count: $dump"
[ "$("$mroutectl" tables --json | json '[(t["table"], t["entries"], t["writerRunning"], t["readers"]) for t in j["tables"]]')" = \
  "[('$table', $n, False, None)]" ] || fail "tables --json: $("$mroutectl" tables --json)"
[ "$("$mroutectl" stat "$table" --json | json 'j["valueType"], j["entries"], j["queue"]["newestSequence"] > 0')" = \
  "('Brume::Multicast::Fib::Route', $n, True)" ] || fail "stat --json: $("$mroutectl" stat "$table" --json)"
[ "$("$mroutectl" dump "$table" --text)" = "$(echo "$dump" | json '"\n".join(e["text"] for e in j["entries"])')" ] \
  || fail "dump --text and --json differ"
out=$("$mroutectl" dump "$table") || fail "dump exited $?"
[ "$(echo "$out" | wc -l)" = "$n" ] || fail "dump count: $out"
echo "$out" | grep -q '^(10.1.5.20,232.1.1.1)  iif Port-Channel7  oifs 12,15,[0-9,]*  flags valid,programmable  prio 1  ver [0-9]*$' \
  || fail "dump line: $out"
[ "$(echo "$out" | grep '239.1.1.2)' | head -1 | cut -c1-4)" = "(*,2" ] || fail "dump order: $out"
key=$(echo "$dump" | json 'j["entries"][0]["key"]')
[ "$("$mroutectl" lookup "$table" "$key" --json | json 'j["text"]')" = "$(echo "$dump" | json 'j["entries"][0]["text"]')" ] \
  || fail "lookup $key"

# Health: the demo's reader is on the writer's board, gone, caught up; a
# damaged or short health file is reported, never trusted.
stat=$("$mroutectl" stat "$table" --json) || fail "stat exited $?"
[ "$(echo "$stat" | json '[(r["state"], r["lag"], r["lastAck"] == j["queue"]["newestSequence"], r["goneAt"] is not None) for r in j["health"]["readers"]]')" = \
  "[('gone', 0, True, True)]" ] || fail "stat --json health: $stat"
"$mroutectl" tables --verbose | grep -q "^$table  *[0-9]*  *gone  *0 " || fail "tables --verbose readers: $("$mroutectl" tables -v)"
cp "$dir/health" "$MROUTE_SHM_ROOT/health.keep"
printf 'XXXXXXXX' | dd of="$dir/health" bs=1 conv=notrunc 2>/dev/null
[ "$("$mroutectl" stat "$table" --json | json 'j["health"]')" = "{'problem': 'health file has a bad magic or version'}" ] \
  || fail "damaged health file"
head -c 100 "$MROUTE_SHM_ROOT/health.keep" >"$dir/health"
"$mroutectl" stat "$table" | grep -q '^health.problem: "health file too short"$' || fail "short health file"
cp "$MROUTE_SHM_ROOT/health.keep" "$dir/health"

# --limit and the key filters.
[ "$("$mroutectl" dump "$table" --limit 2 2>/dev/null | wc -l)" = 2 ] || fail "dump --limit"
"$mroutectl" dump "$table" --limit 2 2>&1 >/dev/null | grep -q "^mroutectl dump: 2 of $n entries shown" || fail "limit note"
[ "$("$mroutectl" dump "$table" --group 239.1.1.0/24 --json | json 'sorted({e["key"][-10:] for e in j["entries"]})')" = \
  "['239.1.1.1)', '239.1.1.2)']" ] || fail "dump --group: $("$mroutectl" dump "$table" --group 239.1.1.0/24)"
[ "$("$mroutectl" dump "$table" --source 10.1.0.0/16 | cut -d' ' -f1)" = "(10.1.5.20,232.1.1.1)" ] || fail "dump --source"

# validate: sound, and it writes nothing.
before=$(cat "$dir"/slots "$dir"/buckets "$dir"/conquer.* | cksum)
[ "$("$mroutectl" validate "$table")" = "$table: ok" ] || fail "validate"
[ "$(cat "$dir"/slots "$dir"/buckets "$dir"/conquer.* | cksum)" = "$before" ] || fail "validate changed the files"

# Damaged copies: a wrong occupied count (deep check), a wrong magic (header
# check), a changed type name (checksum) that dump must not trust.
copy() {
  mkdir "$fib/$1"
  for f in slots buckets conquer.1 conquer.2 ember; do cp "$dir/$f" "$fib/$1/"; done
  printf "$3" | dd of="$fib/$1/slots" bs=1 seek="$2" conv=notrunc 2>/dev/null
}
copy counted 164 '\144\000\000\000'
copy unmagic 0 'X'
copy renamed 16 'Q'
out=$("$mroutectl" validate --json)
[ $? = 1 ] || fail "validate of damaged tables: exit code"
[ "$(echo "$out" | json '[(t["table"].split("/")[-1], t["ok"]) for t in j["tables"]]')" = \
  "[('counted', False), ('renamed', False), ('route', True), ('unmagic', False)]" ] || fail "validate --json: $out"
echo "$out" | json 'j["tables"][0]["findings"][0]' | grep -q '^chains: .*occupiedSlots:100 walkedSlots:[56]$' \
  || fail "damaged count: $out"
echo "$out" | json 'j["tables"][3]["findings"][0]' | grep -q '^slots: .*bad magic' || fail "bad magic: $out"
err=$("$mroutectl" dump demo/routing/multicast/fib/renamed 2>&1 >/dev/null)
[ $? = 1 ] && echo "$err" | grep -q "is damaged: slots: SlotTable::Header::validate() checksum fail" || fail "dump: $err"
rm -rf "$fib/counted" "$fib/unmagic" "$fib/renamed"

# A record with fields out of their range (slot 0's value after its key): dump
# and lookup show its key, say it is damaged and exit 1.
copy garbled 432 "$(printf '\\377%.0s' $(seq 120))"
out=$("$mroutectl" dump demo/routing/multicast/fib/garbled 2>"$MROUTE_SHM_ROOT/err")
[ $? = 1 ] || fail "dump of a damaged record: exit code"
[ "$(echo "$out" | grep -c '^(.*)  damaged record: .* not allowed$')" = 1 ] || fail "damaged record line: $out"
[ "$(echo "$out" | wc -l)" = "$n" ] || fail "dump stopped at the damaged record: $out"
grep -q "garbled holds 1 damaged record(s)" "$MROUTE_SHM_ROOT/err" || fail "damaged record note: $(cat "$MROUTE_SHM_ROOT/err")"
rm -rf "$fib/garbled"

# follow: time-stamped changes, the filter, a truthful closing line; --json
# is one object a line. The followers are waited for by what they print, not
# by the clock, so a busy machine only makes the test slower.
# await <file> <pattern>: until a line of the file matches, 30 s at most.
await() {
  i=0
  until grep -q "$2" "$1" 2>/dev/null; do
    i=$((i + 1))
    [ "$i" -le 300 ] || return 1
    sleep 0.1
  done
}
"$mroutectl" follow "$table" --seconds 120 --group 239.1.1.1 >"$MROUTE_SHM_ROOT/follow.out" 2>&1 &
follower=$!
"$mroutectl" follow "$table" --seconds 120 --json >"$MROUTE_SHM_ROOT/follow.json" 2>&1 &
jsonFollower=$!
stamp='[0-9-]*T[0-9:.]*Z'
change="^$stamp ~ (\\*,239.1.1.1)  iif Ethernet1  oifs 3,7,20 .*\\[oif +20, maxOifIndex 7 -> 20\\]\$"
await "$MROUTE_SHM_ROOT/follow.out" following && await "$MROUTE_SHM_ROOT/follow.json" following \
  || fail "the followers did not start: $(cat "$MROUTE_SHM_ROOT/follow.out" "$MROUTE_SHM_ROOT/follow.json")"
"$mroutectl" demo --seconds 1 >/dev/null || fail "second demo exited $?"
await "$MROUTE_SHM_ROOT/follow.out" "$change" || fail "follow change: $(cat "$MROUTE_SHM_ROOT/follow.out")"
await "$MROUTE_SHM_ROOT/follow.json" '"event":"removed"' || fail "follow --json removal: $(cat "$MROUTE_SHM_ROOT/follow.json")"
kill -INT "$follower"
kill -TERM "$jsonFollower"
wait "$follower" || fail "follow exited $?"
wait "$jsonFollower" || fail "follow --json exited $?"
out=$(cat "$MROUTE_SHM_ROOT/follow.out")
echo "$out" | grep -q "^$stamp following $table: attached, [56] entries" || fail "follow start: $out"
echo "$out" | grep '^[^ ]* [~+-] ' | grep -qv ',239.1.1.1)' && fail "follow --group let another group through: $out"
echo "$out" | tail -1 | grep -q "^$stamp stopped: interrupted (SIGINT); [0-9]* changes shown; no writer runs$" \
  || fail "follow end: $out"
python3 - "$MROUTE_SHM_ROOT/follow.json" <<'PY' || fail "follow --json: $(cat "$MROUTE_SHM_ROOT/follow.json")"
import json, sys
events = [json.loads(line) for line in open(sys.argv[1])]
kinds = [e["event"] for e in events]
assert kinds[0] == "following" and kinds[-1] == "stopped" and {"changed", "removed"} <= set(kinds), kinds
assert events[-1]["reason"] == "terminated" and events[-1]["changes"] == kinds.count("added") + kinds.count("changed") + kinds.count("removed")
assert all(e["key"].startswith("(") for e in events if e["event"] in ("added", "changed", "removed"))
PY

# follow --wait on a table nobody writes creates nothing, and says why it
# stopped.
out=$("$mroutectl" follow waited/for/route --wait --seconds 0.3 2>&1) || fail "follow --wait exited $?"
echo "$out" | tail -1 | grep -q "^$stamp stopped: --seconds passed; 0 changes shown; no writer runs$" \
  || fail "follow --wait end: $out"
[ ! -e "$MROUTE_SHM_ROOT/waited" ] || fail "follow --wait left $(find "$MROUTE_SHM_ROOT/waited")"

# Demos whose processes cannot make their tables (the root is a file here;
# a full file system reads the same) say which process failed and why.
blocked="$MROUTE_SHM_ROOT/blocked"
: >"$blocked"
out=$(MROUTE_SHM_ROOT="$blocked" "$mroutectl" demo --seconds 0.1 2>&1)
[ $? = 4 ] || fail "demo on a file exited $?: $out"
echo "$out" | grep -q "^mroutectl demo: the writer cannot open its table: .*$blocked" || fail "demo writer's error: $out"
echo "$out" | grep -q "^mroutectl demo: the demo's writer process failed (its error is above)$" || fail "demo error: $out"
out=$(MROUTE_SHM_ROOT="$blocked" "$mroutectl" apps-demo 2>&1)
[ $? = 4 ] || fail "apps-demo on a file exited $?: $out"
for app in pim igmp static; do
  echo "$out" | grep -q "^mroutectl apps-demo: $app: .*$blocked" || fail "apps-demo $app's error: $out"
  echo "$out" | grep -q "^apps-demo: $app (priority [0-9]) FAILED (its error is above)$" || fail "apps-demo $app: $out"
done

# Errors: one line naming the problem and its likely cause; the exit code
# says which kind (2 usage, 3 not found).
expect_error() {  # expect_error <exit code> <stderr pattern> <command arguments...>
  code="$1" pattern="$2"
  shift 2
  err=$("$mroutectl" "$@" 2>&1 >/dev/null)
  rc=$?
  [ "$rc" = "$code" ] || fail "'$*' exited $rc: $err"
  [ "$(echo "$err" | wc -l)" = 1 ] || fail "'$*' printed more than one line: $err"
  echo "$err" | grep -q "$pattern" || fail "'$*': $err"
}
expect_error 3 "^mroutectl dump: no table 'no/such' under $MROUTE_SHM_ROOT (mroutectl tables lists" dump no/such
expect_error 3 "^mroutectl validate: no table 'no/such'" validate no/such
expect_error 3 "^mroutectl follow: no table 'no/such'.*--wait" follow no/such --seconds 1
expect_error 3 "^mroutectl lookup: no entry for (\*,239.9.9.9) in $table$" lookup "$table" '(*,239.9.9.9)'
expect_error 2 "^mroutectl dump: '\.\./demo/route' is not a table name: .*'\.\.'" dump ../demo/route
expect_error 2 "^mroutectl follow: 'route' is not a table name" follow route
expect_error 2 "^mroutectl follow: --seconds: Value nan is not a number" follow "$table" --seconds nan
# An unknown option is named before a missing argument, by every subcommand.
subs=$("$mroutectl" --help | sed -n '/^Subcommands:/,$s/^  \([a-z-]*\)[ ,].*/\1/p')
[ "$(echo "$subs" | wc -l)" -ge 14 ] || fail "subcommand list: $subs"
for sub in $subs; do
  expect_error 2 "^mroutectl $sub: .*--bogus.* (see mroutectl $sub --help)$" $sub --bogus
done
expect_error 2 "^mroutectl dump: .*--bogus" dump "$table" --bogus
expect_error 2 "^mroutectl: unknown command 'bogus'" bogus
expect_error 2 "^mroutectl lookup: bad group '10.0.0.1': not a multicast group" lookup "$table" '(*,10.0.0.1)'
expect_error 2 "^mroutectl dump: bad group prefix 'x'" dump "$table" --group x
MROUTE_SHM_ROOT=relative/root expect_error 3 "^mroutectl tables: .*must be an absolute path" tables
MROUTE_SHM_ROOT="$MROUTE_SHM_ROOT/missing" expect_error 3 "^mroutectl tables: no shared-memory root .*(set by MROUTE_SHM_ROOT)" tables
MROUTE_SHM_ROOT="$dir/slots" expect_error 3 "^mroutectl tables: the shared-memory root .* is not a directory" tables
for sub in dump follow lookup stat tables validate key; do
  "$mroutectl" $sub --help | grep -q "^Usage: .*$sub" || fail "$sub --help"
done
"$mroutectl" dump "$table" --help >/dev/null || fail "dump <table> --help exited $?"
"$mroutectl" --version | grep -q '^mroutectl [0-9]*\.[0-9]*\.[0-9]*$' || fail "--version"
echo PASS
