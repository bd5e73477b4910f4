// Mount paths of entities come in pairs by address family: the IPv4 path
// (family 1) and the IPv6 path (family 2). Any other family is a programming
// error: the assertion "false && \"Unsupported address family\"".
//
// Thread-safety: pure function.
#pragma once

#include <cstdint>
#include <string>
#include <initializer_list>
#include <string_view>

namespace Kiv {

// REQUIRES: family is 1 (IPv4) or 2 (IPv6).
std::string familyPath(uint32_t family, std::string_view ipv4Path, std::string_view ipv6Path);

// The family's path followed by "/<part>" for each part, e.g.
// routing6/multicast/routestatus/red/pim.
std::string familyPath(uint32_t family, std::string_view ipv4Path, std::string_view ipv6Path,
                       std::initializer_list<std::string_view> parts);

}  // namespace Kiv
