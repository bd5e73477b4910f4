// MROUTE_TRACE as an operator sets it: a setting is refused with a message
// or applied (inside a capture, which restores the levels after, since
// configure() keeps every rule it was given), and every level text that
// reads back does so from its shortest form.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "mroute/runtime/trace.h"

namespace Trace = Mroute::Trace;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view setting(reinterpret_cast<const char*>(data), size);
  if (Trace::settingError(setting).empty()) {
    const Trace::CaptureSink applied(setting);
  }
  const int64_t mask = Trace::parseLevels(setting);
  if (mask >= 0 && Trace::parseLevels(Trace::levelsText(static_cast<uint32_t>(mask))) != mask) std::abort();
  return 0;
}
