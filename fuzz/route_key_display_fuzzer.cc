// The display form an operator types, "(S,G)" or "(*,G)": a text is read
// into a key or refused with a range error, and the key's exact display
// reads back to the same key.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "mroute/route/route_key_input.h"
#include "mroute/runtime/error.h"

using namespace Routing::Multicast::Fib;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    vlanIdFromText(text);
  } catch (const Kiv::RangeException&) {
  }
  IpGenRouteKey key;
  try {
    key = routeKeyFromDisplay(text);
  } catch (const Kiv::RangeException&) {
    return 0;
  }
  // Outside the try: a display that does not read back is a finding.
  const std::string shown = exactDisplay(key);
  const IpGenRouteKey again = routeKeyFromDisplay(shown);
  if (!(again == key) || exactDisplay(again) != shown) std::abort();
  return 0;
}
