#include "mroute/runtime/net/intf_id.h"

#include <cstdio>
#include <ostream>

#include "mroute/runtime/error.h"
#include "mroute/runtime/net/internal/address_text.h"

namespace Orvet {
namespace {

struct KindRule {
  IntfId::Kind kind;
  std::string_view prefix;
  int minNumbers;
  int maxNumbers;
  uint32_t firstMin;
  uint32_t firstMax;
};

constexpr uint32_t kFirstLimit = 0xfffffe;  // 24 bits, less the absent marker
constexpr uint32_t kOtherLimit = 0xfffe;    // 16 bits, less the absent marker

constexpr KindRule kRules[] = {
    {IntfId::Kind::ethernet, "Ethernet", 1, 3, 1, kFirstLimit},
    {IntfId::Kind::vlan, "Vlan", 1, 1, 1, 4094},
    {IntfId::Kind::portChannel, "Port-Channel", 1, 1, 1, kFirstLimit},
    {IntfId::Kind::register_, "Register", 1, 1, 0, kFirstLimit},
    {IntfId::Kind::loopback, "Loopback", 1, 1, 0, kFirstLimit},
    {IntfId::Kind::management, "Management", 1, 2, 0, kFirstLimit},
    {IntfId::Kind::vxlan, "Vxlan", 1, 1, 1, kFirstLimit},
    {IntfId::Kind::tunnel, "Tunnel", 1, 1, 0, kFirstLimit},
    {IntfId::Kind::cpu, "Cpu", 0, 0, 0, 0},
    {IntfId::Kind::recircChannel, "Recirc-Channel", 1, 1, 1, kFirstLimit},
};

const KindRule* ruleOf(IntfId::Kind kind) {
  for (const KindRule& r : kRules) {
    if (r.kind == kind) return &r;
  }
  return nullptr;
}

[[noreturn]] void badName(std::string_view name) {
  throw Kiv::RangeException("IntfId '" + std::string(name) + "' not allowed");
}

constexpr int kShift[3] = {32, 16, 0};

}  // namespace

IntfId::IntfId(std::string_view name) {
  size_t digits = name.find_first_of("0123456789");
  std::string_view prefix = name.substr(0, digits);
  const KindRule* rule = nullptr;
  for (const KindRule& r : kRules) {
    if (r.prefix == prefix) rule = &r;
  }
  if (!rule) badName(name);
  uint64_t value = static_cast<uint64_t>(rule->kind) << 56;
  int count = 0;
  std::string_view rest = digits == std::string_view::npos ? std::string_view() : name.substr(digits);
  while (!rest.empty()) {
    if (count == rule->maxNumbers) badName(name);
    size_t slash = rest.find('/');
    uint32_t lo = count == 0 ? rule->firstMin : 0;
    uint32_t hi = count == 0 ? rule->firstMax : kOtherLimit;
    auto n = net_internal::parseDecimal(rest.substr(0, slash), hi);
    if (!n || *n < lo) badName(name);
    value |= static_cast<uint64_t>(*n + 1) << kShift[count];
    ++count;
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    // "Ethernet3/" leaves an empty number behind the slash.
    if (slash != std::string_view::npos && rest.empty()) badName(name);
  }
  if (count < rule->minNumbers) badName(name);
  value_ = value;
}

IntfId IntfId::fromText(std::string_view text) {
  if (text == "null") return IntfId();
  return IntfId(text);
}

std::string IntfId::name() const {
  if (isNull()) return "null";
  const KindRule* rule = ruleOf(kind());
  if (!rule) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "IntfId(0x%016llx)", static_cast<unsigned long long>(value_));
    return buf;
  }
  std::string out(rule->prefix);
  for (int i = 0; i < 3; ++i) {
    uint64_t mask = i == 0 ? 0xffffff : 0xffff;
    uint64_t field = (value_ >> kShift[i]) & mask;
    if (field == 0) break;
    if (i > 0) out += '/';
    out += std::to_string(field - 1);
  }
  return out;
}

std::ostream& operator<<(std::ostream& os, IntfId id) { return os << id.name(); }

}  // namespace Orvet
