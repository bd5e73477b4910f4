// The subcommands of mroutectl. Each lives in its own file and registers
// itself in main.cc's table; a subcommand prints its report to `out`, its
// one-line errors to `err`, and returns the process exit code.
#pragma once

#include <iosfwd>
#include <string_view>
#include <vector>

namespace Mroutectl {

using Args = std::vector<std::string_view>;

constexpr int kExitOk = 0;
constexpr int kExitUsage = 2;  // bad arguments or bad input

struct Subcommand {
  std::string_view name;
  std::string_view summary;
  void (*usage)(std::ostream& os);
  int (*run)(const Args& args, std::ostream& out, std::ostream& err);
};

// key_command.cc: print, parse and convert route keys.
extern const Subcommand keyCommand;

}  // namespace Mroutectl
