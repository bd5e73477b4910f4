#include "change_printer.h"

#include <cstring>

#include "route_table.h"
#include "route_text.h"

namespace Mroutectl {

bool holdsRoutes(const Brume::Survey::ValueCodec& codec) {
  return codec.typeName == Route::kTypeName && codec.size == sizeof(RouteValue);
}

Route routeOf(const ValueBytes& bytes) {
  RouteValue v;
  std::memcpy(static_cast<void*>(&v), bytes.data(), sizeof v);
  return v.value;
}

std::string ChangePrinter::show(const ValueBytes& value) const {
  return shownOrDamaged(codec_.keyText(value.data()), [&] {
    return routes_ && !text_ ? routeLine(routeOf(value)) : codec_.text(value.data());
  });
}

ChangePrinter::Change ChangePrinter::classify(const std::string& key, const ValueBytes* now) {
  const auto it = known_.find(key);
  std::optional<ValueBytes> before;
  if (it != known_.end()) before = it->second;
  if (now == nullptr) {
    if (it != known_.end()) known_.erase(it);
    return Change{'-', std::nullopt, std::move(before), ""};
  }
  known_[key] = *now;
  if (!before) return Change{'+', *now, std::nullopt, ""};
  std::string diff = routes_ ? shownOrDamaged("", [&] { return routeDiff(routeOf(*before), routeOf(*now)); }) : "";
  return Change{'~', *now, std::move(before), std::move(diff)};
}

std::string ChangePrinter::line(const std::string& key, const Change& c) const {
  if (!c.now) return "- " + key + (c.before ? "" : " (not seen before)");
  return std::string(1, c.mark) + " " + show(*c.now) + (c.diff.empty() ? "" : "   [" + c.diff + "]");
}

}  // namespace Mroutectl
