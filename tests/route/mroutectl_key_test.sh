#!/bin/sh
# mroutectl key: a good key prints its report, bad input one error line and
# exit code 2 (never an abort).
set -u
mroutectl="$1"
fail() { echo "FAIL: $*"; exit 1; }

out=$("$mroutectl" key '(*,239.1.1.1)') || fail "good key exited $?"
echo "$out" | grep -qx 'display:        (\*,239.1.1.1)' || fail "display: $out"
echo "$out" | grep -qx 'kind:           mroute' || fail "kind: $out"
echo "$out" | grep -q "{'kind': 'mroute', 's': 0.0.0.0/0, 'g': 239.1.1.1/32}" || fail "text by kind: $out"

out=$("$mroutectl" key --raw 0.0.0.0/0 16.10.0.0/32) || fail "raw pair exited $?"
echo "$out" | grep -qx 'vlan:           10' || fail "raw vlan: $out"
echo "$out" | grep -qx 'g:              16.10.0.0/32 (0x100a0000)' || fail "raw g: $out"

# A (*,G) group prefix keeps its length; blanks are ignored wherever they stand.
for key in '(*,239.1.1.1/24)' ' (*, 239.1.1.0/24)' '( * ,239.1.1.0/24 ) '; do
  out=$("$mroutectl" key "$key") || fail "'$key' exited $?"
  echo "$out" | grep -qx 'display:        (\*,239.1.1.0/24)' || fail "display of '$key': $out"
done

for vlan in 4095 0 abc; do
  err=$("$mroutectl" key vlan-floodset $vlan 2>&1 >/dev/null)
  rc=$?
  [ "$rc" = 2 ] || fail "VLAN $vlan exited $rc"
  [ "$err" = "mroutectl key: bad VLAN id '$vlan': expected a number 1..4094" ] || fail "bad VLAN: $err"
done

err=$("$mroutectl" key --parse "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': 'ethGroup', 'vlanId': 10})" 2>&1 >/dev/null)
rc=$?
[ "$rc" = 2 ] || fail "bad text form exited $rc"
echo "$err" | grep -q '(matches == 2)$' || fail "bad text form: $err"

# Two ways of giving the key at once are refused, not one picked silently.
err=$("$mroutectl" key --parse "(*,239.1.1.1)" --raw 0.0.0.0/0 239.1.1.1/32 2>&1 >/dev/null)
rc=$?
[ "$rc" = 2 ] || fail "--parse with --raw exited $rc"
[ "$err" = "mroutectl key: give a key, or --parse, or --raw, not several (see mroutectl key --help)" ] ||
  fail "--parse with --raw: $err"
echo PASS
