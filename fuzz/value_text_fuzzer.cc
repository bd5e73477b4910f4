// The Value(...) text form of every value type: a text is read, or refused
// with an exception; what was read prints, and the print reads back to the
// same value and prints the same again. The first byte picks the type.
//
// At start the harness checks that it knows every value type the library
// registers, so that a new type cannot go unfuzzed.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

#include "mroute/entity/kiv/type_registry.h"
#include "value_types.h"

namespace {

// RouteKey prints under IpGenRouteKey's name in its own by-kind form; the
// route_key_text harness reads it.
constexpr std::string_view kElsewhere[] = {"Routing::Multicast::Fib::RouteKey"};

template <class T>
std::string print(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

template <class T>
void roundTrip(std::string_view text) {
  T value;
  try {
    value = T::fromText(text);
  } catch (const std::exception&) {
    return;
  }
  const std::string printed = print(value);
  const T again = T::fromText(printed);
  if (!(again == value) || print(again) != printed) {
    std::fprintf(stderr, "%s does not read back: %s\n", Fuzz::nameOf<T>().c_str(), printed.c_str());
    std::abort();
  }
}


}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const std::set<std::string> known = Fuzz::ValueTypes::names();
  bool missing = false;
  for (const Kiv::TypeRecord* t : Kiv::registeredTypes()) {
    if (t->kind != Kiv::TypeKind::value || known.contains(t->name)) continue;
    if (std::find(std::begin(kElsewhere), std::end(kElsewhere), t->name) != std::end(kElsewhere)) continue;
    std::fprintf(stderr, "value type %s is registered but not fuzzed: add it to value_text_fuzzer.cc\n",
                 t->name.c_str());
    missing = true;
  }
  if (missing) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  Fuzz::ValueTypes::visit(data[0] % Fuzz::ValueTypes::kCount, [&]<class T>() { roundTrip<T>(text); });
  return 0;
}
