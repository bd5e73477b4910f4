// IPv4 (Orvet::IpAddr) and family-generic (Orvet::IpGenAddr) addresses, and
// the IPv6 address hash.
#pragma once

#include "mroute/runtime/net/ip_gen_addr.h"
#include "mroute/runtime/net/ipv4_addr.h"
