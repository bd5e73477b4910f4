#include "mroute/entity/mount_path.h"

#include "mroute/runtime/assert.h"

namespace Kiv {

std::string familyPath(uint32_t family, std::string_view ipv4Path, std::string_view ipv6Path) {
  switch (family) {
    case 1:
      return std::string(ipv4Path);
    case 2:
      return std::string(ipv6Path);
    default:
      MROUTE_ASSERT(false && "Unsupported address family");
  }
}

std::string familyPath(uint32_t family, std::string_view ipv4Path, std::string_view ipv6Path,
                       std::initializer_list<std::string_view> parts) {
  std::string path = familyPath(family, ipv4Path, ipv6Path);
  for (std::string_view part : parts) {
    path += '/';
    path += part;
  }
  return path;
}

}  // namespace Kiv
