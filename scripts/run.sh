#!/usr/bin/env bash
# The main job: builds mroutectl and shows what it does with route keys.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
cmake --preset default >/dev/null
cmake --build --preset default --target mroutectl
ctl=build/default/tools/mroutectl/mroutectl
set -x
"$ctl" key '(*,239.1.1.1)'
"$ctl" key '(10.0.0.0/24,232.1.1.1)'
"$ctl" key vlan-floodset 10
"$ctl" key eth-group 100 01:00:5e:01:02:03
"$ctl" key --parse "Value('Routing::Multicast::Fib::IpGenRouteKey', ** {'kind': 'vlanFloodset', 'vlanId': 10})"
