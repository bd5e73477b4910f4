#include "mroute/runtime/net/eth_addr.h"

#include <cstdio>
#include <ostream>

#include "mroute/runtime/error.h"
#include "mroute/runtime/net/internal/address_text.h"

namespace Orvet {

EthAddr EthAddr::fromText(std::string_view text) {
  Bytes bytes{};
  std::string_view rest = text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    size_t colon = rest.find(':');
    bool last = i + 1 == bytes.size();
    std::string_view group = rest.substr(0, colon);
    bool ok = (last == (colon == std::string_view::npos)) && !group.empty() && group.size() <= 2;
    int value = 0;
    for (char c : group) {
      int d = net_internal::hexDigit(c);
      ok = ok && d >= 0;
      value = value << 4 | (d & 0xf);
    }
    if (!ok) throw Kiv::RangeException("EthAddr '" + std::string(text) + "' not allowed");
    bytes[i] = static_cast<uint8_t>(value);
    if (!last) rest.remove_prefix(colon + 1);
  }
  return EthAddr(bytes);
}

std::string EthAddr::text() const {
  char buf[18];
  std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", bytes_[0], bytes_[1], bytes_[2], bytes_[3],
                bytes_[4], bytes_[5]);
  return buf;
}

std::ostream& operator<<(std::ostream& os, const EthAddr& a) { return os << a.text(); }

}  // namespace Orvet
