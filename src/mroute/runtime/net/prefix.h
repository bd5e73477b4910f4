// IPv4 (Orvet::Prefix) and family-generic (Orvet::IpGenPrefix) prefixes.
#pragma once

#include "mroute/runtime/net/ip_gen_prefix.h"
#include "mroute/runtime/net/ipv4_prefix.h"
