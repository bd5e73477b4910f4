#!/bin/sh
# mroutectl on tables written by its demo processes: tables, dump (readable
# and --text), validate (sound, and damaged copies of the slot file), follow
# while a writer changes routes, and one-line errors with exit code 2.
set -u
mroutectl="$1"
MROUTE_SHM_ROOT=$(mktemp -d "${TMPDIR:-/tmp}/mroutectl-test.XXXXXX") || exit 1
export MROUTE_SHM_ROOT
trap 'rm -rf "$MROUTE_SHM_ROOT"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
table=demo/routing/multicast/fib/route
dir="$MROUTE_SHM_ROOT/$table"

# The demo: the reader sees routes added, changed (an oif joins) and removed.
out=$("$mroutectl" demo --seconds 1) || fail "demo exited $?: $out"
echo "$out" | grep -q '^reader: + (10.0.0.1,239.1.1.1)  iif Ethernet2  oifs 3,7,12  flags valid,programmable  prio 1  ver [0-9]*$' \
  || fail "demo add: $out"
echo "$out" | grep -q '^reader: ~ (\*,239.1.1.1)  iif Ethernet1  oifs 3,7,20 .*\[oif +20, maxOifIndex 7 -> 20\]$' \
  || fail "demo oif added: $out"
echo "$out" | grep -q '^reader: - (' || fail "demo removal: $out"
[ -f "$dir/slots" ] || fail "demo left no table in $dir"

# tables: one aligned row; no writer runs, so no reader count is claimed.
out=$("$mroutectl" tables) || fail "tables exited $?"
echo "$out" | grep -q "^root $MROUTE_SHM_ROOT: 1 table$" || fail "tables root: $out"
echo "$out" | grep -q '^TABLE  *VALUE TYPE  *ENTRIES  *CAPACITY  *EMBER  *WRITER  *READERS$' || fail "tables header: $out"
echo "$out" | grep -q "^$table  Brume::Multicast::Fib::Route  *[56]  *1024  0x[0-9a-f]\{8\}  none  *-$" \
  || fail "tables row: $out"

# dump: one readable line per route, (*,G) before the group's (S,G).
out=$("$mroutectl" dump "$table") || fail "dump exited $?"
n=$(echo "$out" | sed -n "s|^$table: \([0-9]*\) routes$|\1|p")
[ -n "$n" ] && [ "$(echo "$out" | grep -c '^  (.*  ver [0-9]*$')" = "$n" ] || fail "dump count: $out"
echo "$out" | grep -q '^  (10.1.5.20,232.1.1.1)  iif Port-Channel7  oifs 12,15,[0-9,]*  flags valid,programmable  prio 1  ver [0-9]*$' \
  || fail "dump line: $out"
[ "$(echo "$out" | grep -n '239.1.1.2)' | head -1 | cut -d: -f2 | cut -c1-6)" = "  (*,2" ] || fail "dump order: $out"
out=$("$mroutectl" dump "$table" --text) || fail "dump --text exited $?"
[ "$(echo "$out" | grep -c "^Value('Brume::Multicast::Fib::Route', \*\* {'key': ")" = "$n" ] || fail "dump --text: $out"
echo "$out" | grep -q "'iif': Port-Channel7, " || fail "dump --text iif: $out"

# validate: sound, and it writes nothing.
before=$(cat "$dir"/slots "$dir"/buckets "$dir"/conquer.* | cksum)
out=$("$mroutectl" validate "$table") || fail "validate exited $?: $out"
[ "$out" = "$table: ok" ] || fail "validate: $out"
[ "$(cat "$dir"/slots "$dir"/buckets "$dir"/conquer.* | cksum)" = "$before" ] || fail "validate changed the files"

# Damaged copies of the slot file: a wrong occupied count (found by the deep
# check) and a wrong magic (found by the header check).
copy() {
  mkdir "$MROUTE_SHM_ROOT/demo/routing/multicast/fib/$1"
  for f in slots buckets conquer.1 conquer.2 ember; do cp "$dir/$f" "$MROUTE_SHM_ROOT/demo/routing/multicast/fib/$1/"; done
}
copy counted
printf '\144\000\000\000' | dd of="$MROUTE_SHM_ROOT/demo/routing/multicast/fib/counted/slots" bs=1 seek=164 conv=notrunc 2>/dev/null
copy unmagic
printf 'X' | dd of="$MROUTE_SHM_ROOT/demo/routing/multicast/fib/unmagic/slots" bs=1 seek=0 conv=notrunc 2>/dev/null
out=$("$mroutectl" validate demo/routing/multicast/fib/counted)
rc=$?
[ "$rc" = 1 ] || fail "damaged count exited $rc: $out"
echo "$out" | grep -q '^  chains: .*occupiedSlots:100 walkedSlots:[56]$' || fail "damaged count: $out"
out=$("$mroutectl" validate)
rc=$?
[ "$rc" = 1 ] || fail "validate all exited $rc: $out"
echo "$out" | grep -q '^demo/routing/multicast/fib/unmagic: 1 finding$' || fail "bad magic: $out"
echo "$out" | grep -q '^  slots: .*bad magic' || fail "bad magic finding: $out"
echo "$out" | grep -q "^$table: ok$" || fail "validate all, sound table: $out"
err=$("$mroutectl" dump demo/routing/multicast/fib/unmagic 2>&1 >/dev/null)
rc=$?
[ "$rc" = 1 ] && [ "$(echo "$err" | wc -l)" = 1 ] || fail "dump of a damaged table exited $rc: $err"
rm -rf "$MROUTE_SHM_ROOT/demo/routing/multicast/fib/counted" "$MROUTE_SHM_ROOT/demo/routing/multicast/fib/unmagic"

# Damaged header fields that dump must not trust: a value size beyond the slot
# size and a changed type name (both caught by the header checksum).
copy sized
printf '\377\377\000\000' | dd of="$MROUTE_SHM_ROOT/demo/routing/multicast/fib/sized/slots" bs=1 seek=144 conv=notrunc 2>/dev/null
copy renamed
printf 'Q' | dd of="$MROUTE_SHM_ROOT/demo/routing/multicast/fib/renamed/slots" bs=1 seek=16 conv=notrunc 2>/dev/null
for t in sized renamed; do
  err=$("$mroutectl" dump "demo/routing/multicast/fib/$t" 2>&1 >/dev/null)
  rc=$?
  [ "$rc" = 1 ] && [ "$(echo "$err" | wc -l)" = 1 ] || fail "dump of $t exited $rc: $err"
  echo "$err" | grep -q "is damaged: slots: SlotTable::Header::validate() checksum fail" || fail "dump of $t: $err"
  out=$("$mroutectl" validate "demo/routing/multicast/fib/$t")
  [ $? = 1 ] && echo "$out" | grep -q '^  slots: .*checksum fail' || fail "validate of $t: $out"
  rm -rf "$MROUTE_SHM_ROOT/demo/routing/multicast/fib/$t"
done

# A queue entry naming a slot beyond numSlots, as a shrink leaves it until it
# is pruned, is sound for the writer and for validate.
copy shrunk
python3 - "$MROUTE_SHM_ROOT/demo/routing/multicast/fib/shrunk" <<'EOF' || fail "cannot append a queue entry"
import struct, sys
d = sys.argv[1]
with open(d + "/conquer.1", "rb") as f:
    cur = struct.unpack_from("<I", f.read(72), 36)[0]
path = d + "/conquer.%d" % (cur + 1)
with open(path, "r+b") as f:
    data = f.read()
    pos = struct.unpack_from("<I", data, 64)[0]
    last = struct.unpack_from("<Q", data, 72 + 12 * (pos - 1))[0] if pos else 0
    f.seek(72 + 12 * pos)
    f.write(struct.pack("<QI", last + 1, 5000))
    f.seek(64)
    f.write(struct.pack("<I", pos + 1))
EOF
out=$("$mroutectl" validate demo/routing/multicast/fib/shrunk) || fail "validate after a shrink exited $?: $out"
rm -rf "$MROUTE_SHM_ROOT/demo/routing/multicast/fib/shrunk"

# follow sees a writer's changes as they are notified.
"$mroutectl" follow "$table" --seconds 2.5 >"$MROUTE_SHM_ROOT/follow.out" 2>&1 &
follower=$!
sleep 0.3
"$mroutectl" demo --seconds 1 >/dev/null || fail "second demo exited $?"
wait "$follower" || fail "follow exited $?"
out=$(cat "$MROUTE_SHM_ROOT/follow.out")
echo "$out" | grep -q "^following $table: attached, [56] routes" || fail "follow start: $out"
echo "$out" | grep -q '^~ (\*,239.1.1.1)  iif Ethernet1  oifs 3,7,20 .*\[oif +20, maxOifIndex 7 -> 20\]$' \
  || fail "follow change: $out"
echo "$out" | grep -q '^- (' || fail "follow removal: $out"

# follow --wait on a table nobody writes creates nothing.
"$mroutectl" follow waited/for/route --wait --seconds 0.3 >/dev/null 2>&1 || fail "follow --wait exited $?"
[ ! -e "$MROUTE_SHM_ROOT/waited" ] || fail "follow --wait left $(find "$MROUTE_SHM_ROOT/waited")"

# Errors: one line naming the problem, exit code 2.
expect_error() {  # expect_error <stderr pattern> <command arguments...>
  pattern="$1"
  shift
  err=$("$mroutectl" "$@" 2>&1 >/dev/null)
  rc=$?
  [ "$rc" = 2 ] || fail "'$*' exited $rc: $err"
  [ "$(echo "$err" | wc -l)" = 1 ] || fail "'$*' printed more than one line: $err"
  echo "$err" | grep -q "$pattern" || fail "'$*': $err"
}
expect_error "^mroutectl dump: no table 'no/such' under $MROUTE_SHM_ROOT$" dump no/such
expect_error "^mroutectl dump: .*'\.\.'" dump ../demo/route
expect_error "^mroutectl validate: no table 'no/such'" validate no/such
expect_error "^mroutectl follow: no table 'no/such'" follow no/such --seconds 1
expect_error "^mroutectl follow: 'route' is not <mount path>/<name>$" follow route
MROUTE_SHM_ROOT=relative/root expect_error "^mroutectl tables: .*must be an absolute path" tables
MROUTE_SHM_ROOT="$MROUTE_SHM_ROOT/missing" expect_error "^mroutectl tables: no shared-memory root directory" tables
echo PASS
