// mroutectl key: print, parse and convert route keys.
//
// Every way of naming a key ends in one IpGenRouteKey, which is checked
// (kind, display) before anything is printed, so a report is either whole or
// replaced by a one-line error.

#include <cctype>
#include <charconv>
#include <memory>
#include <cstdio>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "mroute/entity/kiv/text_form.h"
#include "mroute/route/ip_gen_route_key.h"
#include "mroute/route/route_key.h"
#include "mroute/route/route_key_input.h"
#include "mroute/runtime/assert.h"
#include "stored_types.h"
#include "table_json.h"

namespace Mroutectl {
namespace {

using Orvet::IpGenPrefix;
using Routing::Multicast::Fib::IpGenRouteKey;
using Routing::Multicast::Fib::RouteKey;
using Routing::Multicast::Fib::RouteKeyType;
namespace Fib = Routing::Multicast::Fib;

// Bad input; what() is the whole error line.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

constexpr const char* kKeyForms =
    "  mroutectl key '(S,G)' | '(*,G)'              a route as displayed, IPv4 or IPv6,\n"
    "                                               e.g. '(*,239.1.1.1)', '(10.0.0.0/24,232.1.1.1)'\n"
    "  mroutectl key vlan-floodset <vlan>\n"
    "  mroutectl key multicast-floodset <vlan>\n"
    "  mroutectl key vxlan-floodset <vlan>\n"
    "  mroutectl key eth-group <vlan> <ethernet address>\n"
    "  mroutectl key mcast-group <group kind> <group index>\n"
    "  mroutectl key --parse '<text form>'          either the (s, g) or the by-kind text form\n"
    "  mroutectl key --raw <s-prefix> <g-prefix>    decode a raw pair, e.g. 0.0.0.0/0 16.10.0.0/32\n"
    "Prints the key's display, kind, hash, both text forms, its raw (s, g) pair and, for\n"
    "the reserved kinds, what it encodes.";

// Runs a library call on operator input, turning its range errors and
// assertions into an InputError that names the input.
template <class F>
auto checked(const std::string& what, std::string_view input, F f) -> decltype(f()) {
  try {
    return f();
  } catch (const InputError&) {
    throw;
  } catch (const Mroute::AssertionFailure& e) {
    throw InputError("bad " + what + " '" + std::string(input) + "': not in the expected form (" + e.what() +
                     ")");
  } catch (const std::exception& e) {
    throw InputError("bad " + what + " '" + std::string(input) + "': " + e.what());
  }
}

uint32_t number(const std::string& what, std::string_view text, uint32_t max) {
  uint32_t v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size() || v > max) {
    throw InputError("bad " + what + " '" + std::string(text) + "': expected a number 0.." +
                     std::to_string(max));
  }
  return v;
}

// The library's messages name the input already.
Bridging::VlanId vlan(std::string_view text) {
  try {
    return Fib::vlanIdFromText(text);
  } catch (const std::exception& e) {
    throw InputError(e.what());
  }
}

IpGenRouteKey parseDisplay(std::string_view text) {
  try {
    return Fib::routeKeyFromDisplay(text);
  } catch (const std::exception& e) {
    throw InputError(std::string(e.what()) + " (see --help)");
  }
}

IpGenRouteKey parseTextForm(std::string_view text) {
  if (text.find("'kind':") != std::string_view::npos) {
    return checked("text form", text, [text] { return IpGenRouteKey(RouteKey::fromText(text)); });
  }
  return checked("text form", text, [text] { return IpGenRouteKey::fromText(text); });
}

IpGenRouteKey parseRaw(std::string_view sText, std::string_view gText) {
  IpGenPrefix s = checked("s prefix", sText, [sText] { return IpGenPrefix::fromText(sText); });
  IpGenPrefix g = checked("g prefix", gText, [gText] { return IpGenPrefix::fromText(gText); });
  return IpGenRouteKey(s, g);
}

std::string gHex(const IpGenPrefix& g) {
  if (g.af() == Orvet::afUnknown()) return "unset";
  char buf[40];
  int bytes = g.af().isIpv4() ? 4 : 16;
  std::string out = "0x";
  for (int i = 0; i < bytes; ++i) {
    std::snprintf(buf, sizeof buf, "%02x", g.address().bytes()[i]);
    out += buf;
  }
  return out;
}

std::string encodes(const IpGenRouteKey& key) {
  switch (key.kind()) {
    case Fib::mroute_:
      return key.s().length() == 0 ? "(*,G) route: any source" : "(S,G) route";
    case Fib::vlanFloodset_:
      return "flood set of VLAN " + std::to_string(key.vlanId().value());
    case Fib::multicastFloodset_:
      return "multicast flood set of VLAN " + std::to_string(key.vlanId().value());
    case Fib::vxlanCoreSideFloodset_:
      return "VXLAN core-side flood set of VLAN " + std::to_string(key.vlanId().value());
    case Fib::ethGroup_:
      return "Ethernet group " + key.ethAddr().text() + " in VLAN " + std::to_string(key.vlanId().value());
    case Fib::mcastGroup_:
      return "group request of kind " + std::to_string(key.mcastGroup().kind()) + ", index " +
             std::to_string(key.mcastGroup().index());
    case Fib::unknownRouteKeyType_:
      break;
  }
  return "nothing: an unset or unknown key";
}

// The report as (field, value) pairs, all computed before anything is
// printed, so that a failure half-way prints nothing but the error.
using Report = std::vector<std::pair<std::string, std::string>>;

Report report(const IpGenRouteKey& key) {
  Report r;
  if (key.g().af().isIpv6() && !key.g().isMulticast()) {
    throw InputError("bad key: g " + key.g().text() +
                     " is IPv6 but not multicast; only IPv4 groups carry other kinds");
  }
  RouteKeyType kind = key.kind();
  if (kind > Fib::routeKeyTypeMax) {
    throw InputError("bad key: g " + key.g().text() + " carries kind tag " + std::to_string(kind) +
                     ", which names no kind of key");
  }
  auto line = [&r](std::string_view label, const std::string& value) {
    r.emplace_back(std::string(label.substr(0, label.size() - 1)), value);
  };
  line("display:", Fib::exactDisplay(key));
  line("kind:", std::string(Fib::stringValue(kind)));
  char hash[48];
  std::snprintf(hash, sizeof hash, "0x%08x (%u)", key.hash(), key.hash());
  line("hash:", hash);
  line("text:", Kiv::textOf(key));
  bool ipv6 = key.s().af().isIpv6() || key.g().af().isIpv6();
  line("text by kind:", ipv6 ? "none (IPv6 keys have no compact form)" : Kiv::textOf(RouteKey(key)));
  line("s:", key.s().text());
  line("g:", key.g().text() + " (" + gHex(key.g()) + ")");
  line("encodes:", encodes(key));
  switch (kind) {
    case Fib::ethGroup_:
      line("ethernet:", key.ethAddr().text());
      [[fallthrough]];
    case Fib::vlanFloodset_:
    case Fib::multicastFloodset_:
    case Fib::vxlanCoreSideFloodset_:
      line("vlan:", std::to_string(key.vlanId().value()));
      break;
    case Fib::mcastGroup_:
      line("group kind:", std::to_string(key.mcastGroup().kind()));
      line("group index:", std::to_string(key.mcastGroup().index()));
      break;
    default:
      break;
  }
  return r;
}

using Args = std::vector<std::string_view>;

IpGenRouteKey keyOf(const Args& args) {
  auto want = [&args](size_t n) {
    if (args.size() != n) {
      throw InputError("'" + std::string(args[0]) + "' takes " + std::to_string(n - 1) + " argument" +
                       (n == 2 ? "" : "s") + " (see mroutectl key --help)");
    }
  };
  std::string_view what = args[0];
  if (what == "vlan-floodset") {
    want(2);
    return Fib::makeRouteKeyVlanFloodset(vlan(args[1]));
  }
  if (what == "multicast-floodset") {
    want(2);
    return Fib::makeRouteKeyMulticastFloodset(vlan(args[1]));
  }
  if (what == "vxlan-floodset") {
    want(2);
    return Fib::makeRouteKeyVxlanCoreSideFloodset(vlan(args[1]));
  }
  if (what == "eth-group") {
    want(3);
    auto id = vlan(args[1]);
    auto eth = checked("Ethernet address", args[2], [&args] { return Orvet::EthAddr::fromText(args[2]); });
    return Fib::makeRouteKeyEthGroup(id, eth);
  }
  if (what == "mcast-group") {
    want(3);
    auto kind = static_cast<uint16_t>(number("group kind", args[1], 0xffff));
    auto index = static_cast<uint16_t>(number("group index", args[2], 0xffff));
    return Fib::makeRouteKeyMcastGroup(::Multicast::Group::GroupKey(kind, index));
  }
  if (what == "--parse") {
    want(2);
    return parseTextForm(args[1]);
  }
  if (what == "--raw") {
    want(3);
    return parseRaw(args[1], args[2]);
  }
  if (what.starts_with("-") || what.find('(') == std::string_view::npos) {
    throw InputError("unknown key command '" + std::string(what) + "' (see mroutectl key --help)");
  }
  want(1);
  return parseDisplay(what);
}

struct KeyOptions {
  std::vector<std::string> words;
  std::string parse;
  std::vector<std::string> raw;
};

void runKey(const KeyOptions& o, Context& ctx) {
  Args args;
  // Appended word by word: GCC 12 at -O3 reports a false -Warray-bounds on
  // assigning an initializer list to the vector.
  if (!o.parse.empty()) args.insert(args.end(), {std::string_view("--parse"), o.parse});
  if (!o.raw.empty()) args.insert(args.end(), {std::string_view("--raw"), o.raw[0], o.raw[1]});
  if (args.size() > 3 || (!args.empty() && !o.words.empty())) {
    throw CommandError(kExitUsage, "give a key, or --parse, or --raw, not several (see mroutectl key --help)");
  }
  args.insert(args.end(), o.words.begin(), o.words.end());
  if (args.empty()) throw CommandError(kExitUsage, "no key given (see mroutectl key --help)");
  try {
    const IpGenRouteKey key = keyOf(args);
    const Report r = checked("key", key.s().text() + " " + key.g().text(), [&key] { return report(key); });
    if (ctx.json) {
      Json j;
      for (const auto& [field, value] : r) {
        std::string name = field;
        for (size_t at = name.find(' '); at != std::string::npos; at = name.find(' ')) {
          name.erase(at, 1);
          name[at] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[at])));
        }
        j[name] = value;
      }
      j["hash"] = key.hash();
      ctx.out << jsonText(j) << "\n";
    } else {
      for (const auto& [field, value] : r) {
        ctx.out << field << ":" << std::string(15 - field.size(), ' ') << value << "\n";
      }
    }
  } catch (const InputError& e) {
    throw CommandError(kExitUsage, e.what());
  }
}

}  // namespace

IpGenRouteKey routeKeyFromText(std::string_view text) {
  try {
    if (text.find("Value(") != std::string_view::npos) return parseTextForm(text);
    return parseDisplay(text);
  } catch (const InputError& e) {
    throw CommandError(kExitUsage, e.what());
  }
}

void addKeyCommand(CommandLine& app, Context& ctx) {
  auto o = std::make_shared<KeyOptions>();
  CliCommand sub = app.addCommand("key", "print, parse and convert route keys");
  sub.footer(kKeyForms);
  sub.addOption("key", &o->words, "a route as displayed, or a key command and its arguments");
  sub.addOption("--parse", &o->parse, "read a text form back").optionText("TEXT");
  sub.addOption("--raw", &o->raw, "say what a raw (s, g) pair encodes").expected(2).optionText("S G");
  addJsonFlag(sub, ctx);
  sub.callback([o, &ctx] { runKey(*o, ctx); });
}

}  // namespace Mroutectl
