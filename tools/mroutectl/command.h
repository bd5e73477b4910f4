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

// Reads "--seconds N": a non-negative number of seconds, at most a day.
// False when `text` is not one.
bool parseSeconds(std::string_view text, double* seconds);

struct Subcommand {
  std::string_view name;
  std::string_view summary;
  void (*usage)(std::ostream& os);
  int (*run)(const Args& args, std::ostream& out, std::ostream& err);
};

// key_command.cc: print, parse and convert route keys.
extern const Subcommand keyCommand;
// tables_command.cc: list the tables under the shared-memory root.
extern const Subcommand tablesCommand;
extern const Subcommand listCommand;
// dump_command.cc, validate_command.cc, follow_command.cc, demo_command.cc.
extern const Subcommand dumpCommand;
extern const Subcommand validateCommand;
extern const Subcommand followCommand;
extern const Subcommand demoCommand;
// types_command.cc: the registered entity, value and enumeration types.
extern const Subcommand typesCommand;
// bitmap_command.cc: summarise a bit-index allocator's pool.
extern const Subcommand bitmapCommand;
// routes_command.cc: the merged view of the applications' table sets.
extern const Subcommand routesCommand;
// apps_demo_command.cc: several applications publishing for the same keys.
extern const Subcommand appsDemoCommand;
// entity_command.cc: an agent's entity tree, mounted read-only.
extern const Subcommand entityCommand;

}  // namespace Mroutectl
