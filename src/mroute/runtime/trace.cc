#include "mroute/runtime/trace.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

namespace Mroute::Trace {
namespace {

struct Rule {
  std::string pattern;  // a trailing '*' matches any suffix
  uint32_t levels;
};

bool matches(const std::string& pattern, std::string_view name) {
  if (!pattern.empty() && pattern.back() == '*') {
    return name.substr(0, pattern.size() - 1) == std::string_view(pattern).substr(0, pattern.size() - 1);
  }
  return pattern == name;
}

// Whether every facility `earlier` matches is matched by `later` too: the
// later rule then decides for all of them.
bool covers(const std::string& later, const std::string& earlier) {
  if (later.empty() || later.back() != '*') return later == earlier;
  std::string_view prefix = std::string_view(later).substr(0, later.size() - 1);
  return std::string_view(earlier).substr(0, prefix.size()) == prefix;
}

// Appends `added`, dropping the rules it overrides, so that applying the same
// setting again and again keeps the list as it is.
void appendRules(std::vector<Rule>& rules, const std::vector<Rule>& added) {
  std::erase_if(rules, [&](const Rule& old) {
    return std::any_of(added.begin(), added.end(), [&](const Rule& r) { return covers(r.pattern, old.pattern); });
  });
  rules.insert(rules.end(), added.begin(), added.end());
}

// Reads a setting into rules; returns what is wrong with it, one message per
// bad item, or "" when every item is well formed.
std::string parseSetting(std::string_view setting, std::vector<Rule>& out) {
  std::string errors;
  auto bad = [&errors](std::string_view item, std::string_view why) {
    if (!errors.empty()) errors += "; ";
    errors += "\"" + std::string(item) + "\": " + std::string(why);
  };
  while (!setting.empty()) {
    size_t comma = setting.find(',');
    std::string_view item = setting.substr(0, comma);
    setting = comma == std::string_view::npos ? std::string_view() : setting.substr(comma + 1);
    if (item.empty()) continue;
    size_t slash = item.find('/');
    Rule rule{std::string(item.substr(0, slash)), 0x3ff};
    if (rule.pattern.empty()) {
      bad(item, "no facility name before '/'");
      continue;
    }
    if (rule.pattern.find_first_of(" \t") != std::string::npos ||
        rule.pattern.find('*') < rule.pattern.size() - 1) {
      bad(item, "a facility name has no blanks, and '*' only at its end");
      continue;
    }
    if (slash != std::string_view::npos) {
      int64_t mask = parseLevels(item.substr(slash + 1));
      if (mask < 0) {
        bad(item, "levels are digits 0-9 and ascending ranges such as 0-3");
        continue;
      }
      rule.levels = static_cast<uint32_t>(mask);
    }
    out.push_back(std::move(rule));
  }
  return errors;
}

class Registry {
 public:
  static Registry& instance() {
    static Registry* registry = new Registry();  // never destroyed: traces may run at exit
    return *registry;
  }

  Facility& facility(std::string_view name) {
    std::lock_guard lock(mutex_);
    auto it = facilities_.find(name);
    if (it != facilities_.end()) return *it->second;
    auto fac = std::make_unique<Facility>(std::string(name));
    applyRules(*fac);
    Facility& ref = *fac;
    facilities_.emplace(ref.name(), std::move(fac));
    return ref;
  }

  bool configure(std::string_view setting) {
    std::vector<Rule> parsed;
    if (!parseSetting(setting, parsed).empty()) return false;
    std::lock_guard lock(mutex_);
    appendRules(rules_, parsed);
    for (auto& [name, fac] : facilities_) applyRules(*fac);
    return true;
  }

  void emit(const Facility& fac, int level, std::string_view text) {
    std::lock_guard lock(mutex_);
    if (capturing_) {
      captured_.push_back(Line{fac.name(), level, std::string(text)});
      return;
    }
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm local{};
    localtime_r(&ts.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::fprintf(out_, "%s.%06ld %d %s %d %.*s\n", stamp, ts.tv_nsec / 1000, static_cast<int>(getpid()),
                 fac.name().c_str(), level, static_cast<int>(text.size()), text.data());
    std::fflush(out_);
  }

  // Capture support: remembers every facility's levels so they can be restored.
  std::map<std::string, uint32_t, std::less<>> beginCapture(std::string_view setting) {
    std::map<std::string, uint32_t, std::less<>> saved;
    std::vector<Rule> parsed;
    parseSetting(setting, parsed);
    std::lock_guard lock(mutex_);
    for (auto& [name, fac] : facilities_) saved.emplace(name, fac->levels());
    savedRules_ = rules_;
    appendRules(rules_, parsed);
    for (auto& [name, fac] : facilities_) applyRules(*fac);
    capturing_ = true;
    captured_.clear();
    return saved;
  }

  void endCapture(const std::map<std::string, uint32_t, std::less<>>& saved) {
    std::lock_guard lock(mutex_);
    capturing_ = false;
    rules_ = savedRules_;
    for (auto& [name, fac] : facilities_) {
      auto it = saved.find(name);
      if (it != saved.end()) {
        fac->levelsIs(it->second);
      } else {
        fac->levelsIs(0);
        applyRules(*fac);
      }
    }
  }

  std::vector<std::string> environmentErrors() {
    std::lock_guard lock(mutex_);
    return environmentErrors_;
  }

  std::vector<FacilityLevels> listFacilityLevels() {
    for (const std::string& name : systemFacilities()) facility(name);
    std::lock_guard lock(mutex_);
    std::vector<FacilityLevels> out;
    for (auto& [name, fac] : facilities_) out.push_back({name, fac->levels()});
    return out;
  }

  std::vector<Line> captured() {
    std::lock_guard lock(mutex_);
    return std::vector<Line>(captured_.begin(), captured_.end());
  }
  void clearCaptured() {
    std::lock_guard lock(mutex_);
    captured_.clear();
  }

 private:
  Registry() {
    if (const char* file = std::getenv("MROUTE_TRACE_FILE"); file && *file) {
      if (FILE* f = std::fopen(file, "a")) {
        out_ = f;
      } else {
        report("MROUTE_TRACE_FILE \"" + std::string(file) + "\" cannot be appended to: " +
               std::strerror(errno) + "; traces go to stderr");
      }
    }
    if (const char* setting = std::getenv("MROUTE_TRACE"); setting && *setting) {
      if (std::string error = parseSetting(setting, rules_); !error.empty()) {
        report("MROUTE_TRACE ignored: " + error);
        rules_.clear();
      }
      for (const Rule& rule : rules_) {
        bool known = std::any_of(systemFacilities().begin(), systemFacilities().end(),
                                 [&rule](const std::string& name) { return matches(rule.pattern, name); });
        if (!known) {
          report("MROUTE_TRACE: \"" + rule.pattern + "\" matches no trace facility of the library");
        }
      }
    }
  }

  void report(std::string message) {
    std::fprintf(stderr, "%s\n", message.c_str());
    environmentErrors_.push_back(std::move(message));
  }

  // REQUIRES: mutex_ held. Later rules override earlier ones.
  void applyRules(Facility& fac) {
    for (const Rule& rule : rules_) {
      if (matches(rule.pattern, fac.name())) fac.levelsIs(rule.levels);
    }
  }

  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<Facility>, std::less<>> facilities_;
  std::vector<Rule> rules_;
  std::vector<Rule> savedRules_;
  FILE* out_ = stderr;
  bool capturing_ = false;
  std::deque<Line> captured_;
  std::vector<std::string> environmentErrors_;  // written only while constructing
};

// Saved levels of the active capture (captures do not nest).
std::map<std::string, uint32_t, std::less<>>& savedLevels() {
  static std::map<std::string, uint32_t, std::less<>> saved;
  return saved;
}

}  // namespace

int64_t parseLevels(std::string_view text) {
  if (text.empty()) return -1;
  uint32_t mask = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c < '0' || c > '9') return -1;
    int from = c - '0';
    int to = from;
    if (i + 2 < text.size() && text[i + 1] == '-') {
      char d = text[i + 2];
      if (d < '0' || d > '9' || d < c) return -1;
      to = d - '0';
      i += 2;
    } else if (i + 1 < text.size() && text[i + 1] == '-') {
      return -1;
    }
    for (int l = from; l <= to; ++l) mask |= 1u << l;
  }
  return mask;
}

std::string levelsText(uint32_t mask) {
  std::string out;
  for (int level = 0; level <= 9;) {
    if (!((mask >> level) & 1u)) {
      ++level;
      continue;
    }
    int last = level;
    while (last < 9 && ((mask >> (last + 1)) & 1u)) ++last;
    out += static_cast<char>('0' + level);
    if (last > level) {
      // Two neighbours read the same either way; a range is shorter from three.
      out += last == level + 1 ? "" : "-";
      out += static_cast<char>('0' + last);
    }
    level = last + 1;
  }
  return out;
}

std::string settingError(std::string_view setting) {
  std::vector<Rule> ignored;
  return parseSetting(setting, ignored);
}

std::vector<std::string> environmentErrors() { return Registry::instance().environmentErrors(); }

const std::vector<std::string>& systemFacilities() {
  static const std::vector<std::string> names = {
      "Mroute::AttrLog",   "Mroute::BitMapper", "Mroute::Brume",   "Mroute::MfibBrume",
      "Mroute::MrtNotify", "Mroute::MrtPam",    "Mroute::RouteIntfIteratorConst",
  };
  return names;
}

std::vector<FacilityLevels> listFacilityLevels() { return Registry::instance().listFacilityLevels(); }

Facility& facility(std::string_view name) { return Registry::instance().facility(name); }

void emit(const Facility& fac, int level, std::string_view text) { Registry::instance().emit(fac, level, text); }

bool configure(std::string_view setting) { return Registry::instance().configure(setting); }

CaptureSink::CaptureSink(std::string_view setting) { savedLevels() = Registry::instance().beginCapture(setting); }

CaptureSink::~CaptureSink() { Registry::instance().endCapture(savedLevels()); }

std::vector<Line> CaptureSink::lines() const { return Registry::instance().captured(); }

std::vector<std::string> CaptureSink::texts(std::string_view fac) const {
  std::vector<std::string> out;
  for (const Line& line : lines()) {
    if (line.facility == fac) out.push_back(line.text);
  }
  return out;
}

bool CaptureSink::contains(std::string_view fac, std::string_view text) const {
  for (const Line& line : lines()) {
    if (line.facility == fac && line.text.find(text) != std::string::npos) return true;
  }
  return false;
}

void CaptureSink::clear() { Registry::instance().clearCaptured(); }

}  // namespace Mroute::Trace
