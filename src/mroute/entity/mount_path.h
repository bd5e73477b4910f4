// Mount paths of entities come in pairs by address family: the IPv4 path
// (family 1) and the IPv6 path (family 2). Any other family is a programming
// error: the assertion "false && \"Unsupported address family\"".
//
// Thread-safety: pure function.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Kiv {

// REQUIRES: family is 1 (IPv4) or 2 (IPv6).
std::string familyPath(uint32_t family, std::string_view ipv4Path, std::string_view ipv6Path);

}  // namespace Kiv
