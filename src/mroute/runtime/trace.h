// Tracing to named facilities with numbered levels 0..9.
//
// A facility ("Mroute::BitMapper", "Mroute::MrtPam", ...) has one enabled bit
// per level. Levels are switched on by the environment variable MROUTE_TRACE,
// read once when the first facility is created:
//
//   MROUTE_TRACE="Mroute::BitMapper/0-9,Mroute::Brume*/3"
//
// Each comma-separated item is a facility name (a trailing '*' matches any
// suffix) and, after '/', the levels: single digits and ranges ("0-3", "39",
// "0-2,5" is two items). A name without '/' enables every level. Lines go to
// stderr, or are appended to the file named by MROUTE_TRACE_FILE.
//
// A malformed MROUTE_TRACE, an item that names no facility of the system and
// a MROUTE_TRACE_FILE that cannot be appended to are reported once on stderr
// when the variables are read, and kept in environmentErrors() for tools that
// refuse to run on them. None of them stops the process: a malformed setting
// switches nothing on, and traces fall back to stderr.
//
// By convention: 9 entry lines, 8 sizes, 3 per-pass summaries, 2 receive
// errors, 1 missing packet, 0 always-interesting events.
//
// Thread-safety: enabled() is a relaxed load and may run anywhere; emitting
// and configuration are serialised by an internal mutex.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Mroute::Trace {

class Facility {
 public:
  explicit Facility(std::string name) : name_(std::move(name)) {}
  Facility(const Facility&) = delete;
  Facility& operator=(const Facility&) = delete;

  const std::string& name() const { return name_; }
  // Relaxed: a level switched on by another thread shows up a little later,
  // which is all tracing needs.
  bool enabled(int level) const { return (levels_.load(std::memory_order_relaxed) >> level) & 1u; }
  uint32_t levels() const { return levels_.load(std::memory_order_relaxed); }
  void levelsIs(uint32_t mask) { levels_.store(mask & 0x3ffu, std::memory_order_relaxed); }

 private:
  std::string name_;
  std::atomic<uint32_t> levels_{0};
};

// The facility with this name, created on first use. The reference stays
// valid for the life of the process.
Facility& facility(std::string_view name);

// Writes one line for `facility` at `level` (whether or not it is enabled;
// callers test enabled() first, as MROUTE_TRACE does).
void emit(const Facility& facility, int level, std::string_view text);

// Applies a setting in the MROUTE_TRACE syntax to every facility,
// present and future. Returns false, changing nothing, when it is malformed.
bool configure(std::string_view setting);

// Level mask of a "0-3"/"39" level text; nullopt-like -1 when malformed.
int64_t parseLevels(std::string_view text);

// The shortest level text of a mask, as parseLevels reads it ("0-39" for
// levels 0..3 and 9); "" for no level.
std::string levelsText(uint32_t mask);

// What is wrong with a setting in the MROUTE_TRACE syntax, one message per
// bad item ("" when it is well formed).
std::string settingError(std::string_view setting);

// The problems found in MROUTE_TRACE and MROUTE_TRACE_FILE, one message each,
// e.g. "MROUTE_TRACE_FILE \"/x/t\" cannot be appended to: No such file or
// directory; traces go to stderr". Reading them the first time reads the
// variables.
std::vector<std::string> environmentErrors();

// The facilities the library's own subsystems trace to.
const std::vector<std::string>& systemFacilities();

struct FacilityLevels {
  std::string name;
  uint32_t levels;  // bit n: level n enabled
};

// Every facility of the system and every other facility created so far in
// this process, sorted by name, with the levels the current settings give it.
// This is what an operator lists to know which names MROUTE_TRACE takes.
std::vector<FacilityLevels> listFacilityLevels();

struct Line {
  std::string facility;
  int level;
  std::string text;
};

// While alive, every emitted line is also kept here instead of being written
// out; the given setting is applied on construction and the previous
// levels are restored on destruction. Used by tests.
class CaptureSink {
 public:
  explicit CaptureSink(std::string_view setting = "*");
  ~CaptureSink();
  CaptureSink(const CaptureSink&) = delete;
  CaptureSink& operator=(const CaptureSink&) = delete;

  std::vector<Line> lines() const;
  // Texts of the lines of one facility, in order.
  std::vector<std::string> texts(std::string_view facility) const;
  bool contains(std::string_view facility, std::string_view text) const;
  void clear();
};

}  // namespace Mroute::Trace

// MROUTE_TRACE(facility, level, a << b << c): formats and emits only when the
// level is enabled, so disabled traces cost one load and a branch.
#define MROUTE_TRACE(fac, level, streamed)                  \
  do {                                                      \
    const ::Mroute::Trace::Facility& mrouteFac_ = (fac);    \
    if (mrouteFac_.enabled(level)) {                        \
      std::ostringstream mrouteOs_;                         \
      mrouteOs_ << streamed;                                \
      ::Mroute::Trace::emit(mrouteFac_, level, mrouteOs_.str()); \
    }                                                       \
  } while (0)
