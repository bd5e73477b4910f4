// The by-kind text form of RouteKey: a text is read into a key, or refused
// with a range error, or, when it does not match its kind's pattern, with
// the assertion that names the pattern's match count. What was read prints
// and reads back as far as the form allows (see below).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "mroute/route/route_key.h"
#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"

using Routing::Multicast::Fib::RouteKey;

namespace {

std::string text(const RouteKey& k) {
  std::ostringstream os;
  os << k;
  return os.str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Mroute::ThrowingAssertHandler asserts;
  RouteKey key;
  try {
    key = RouteKey::fromText(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const Kiv::RangeException&) {
    return 0;
  } catch (const Mroute::AssertionFailure& e) {
    if (std::string_view(e.what()).starts_with("matches == ")) return 0;
    throw;
  }
  // The parser builds a key from the fields as given, so a text may name
  // one kind and give fields of another; the print names the key's own kind.
  // An mroute key prints whole and reads back to itself. A VLAN kind prints
  // its VLAN bits raw (printing never throws), so its print reads back,
  // unless those bits are no VLAN id, to a key that prints the same. The
  // mcastGroup pattern wants "'index' : ", a blank before the colon that the
  // printer does not write, and undefined kinds print no fields: neither
  // reads back.
  using namespace Routing::Multicast::Fib;
  const std::string printed = text(key);
  switch (key.kind()) {
    case mroute_: {
      const RouteKey again = RouteKey::fromText(printed);
      if (!(again == key) || text(again) != printed) std::abort();
      break;
    }
    case vlanFloodset_:
    case multicastFloodset_:
    case vxlanCoreSideFloodset_:
    case ethGroup_:
      try {
        if (text(RouteKey::fromText(printed)) != printed) std::abort();
      } catch (const Kiv::RangeException&) {
      }
      break;
    default:
      break;
  }
  return 0;
}
