#!/usr/bin/env bash
# The main job: builds mroutectl, runs its demo (a writer process publishing
# routes into a shared-memory table and a reader process following them), and
# then looks at the table the demo left behind, as an operator would.
# Tables go under $MROUTE_SHM_ROOT (default /dev/shm/mroute).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
cmake --preset default >/dev/null
cmake --build --preset default --target mroutectl
ctl=build/default/tools/mroutectl/mroutectl
table=demo/routing/multicast/fib/route
set -x
"$ctl" demo "$@"
"$ctl" tables
"$ctl" dump "$table"
"$ctl" validate "$table"
"$ctl" key '(*,239.1.1.1)'
"$ctl" key vlan-floodset 10
"$ctl" apps-demo
"$ctl" routes --all
