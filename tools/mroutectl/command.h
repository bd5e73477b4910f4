// The subcommands of mroutectl. Each lives in its own file and adds itself
// to the command line (cli_options.h) from main.cc: its options, its help,
// and a callback that writes its report to ctx.out. A subcommand reports a
// failure by throwing CommandError with the exit code that classifies it;
// main.cc prints the one error line and returns the code.
//
// Exit codes (documented in the README; scripts rely on them):
//   0 ok; 1 the table's files are damaged (or validate has findings);
//   2 bad usage; 3 not found (no root, table, key, type or writer);
//   4 internal error (a fault of the tool or the library, not of the input).
#pragma once

#include <iosfwd>
#include <stdexcept>
#include <string>

#include "cli_options.h"

namespace Mroutectl {

constexpr int kExitOk = 0;
constexpr int kExitDamaged = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNotFound = 3;
constexpr int kExitInternal = 4;

// A failure to report in one line; what() is the line without the command.
class CommandError : public std::runtime_error {
 public:
  CommandError(int code, const std::string& what) : std::runtime_error(what), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

struct Context {
  std::ostream& out;
  std::ostream& err;
  bool json = false;  // --json: one JSON document (follow: one object a line)
};

// Adds "--json" to a subcommand, bound to ctx.json.
void addJsonFlag(CliCommand& sub, Context& ctx);
// Adds "--seconds N" (a non-negative number of seconds, at most a day).
void addSecondsOption(CliCommand& sub, double* seconds, const std::string& what);

// One function per subcommand file.
void addKeyCommand(CommandLine& app, Context& ctx);       // key_command.cc
void addTablesCommand(CommandLine& app, Context& ctx);    // tables_command.cc: tables, stat
void addDumpCommand(CommandLine& app, Context& ctx);      // dump_command.cc: dump, lookup
void addValidateCommand(CommandLine& app, Context& ctx);  // validate_command.cc
void addFollowCommand(CommandLine& app, Context& ctx);    // follow_command.cc
void addDemoCommand(CommandLine& app, Context& ctx);      // demo_command.cc
void addTypesCommand(CommandLine& app, Context& ctx);     // types_command.cc
void addBitmapCommand(CommandLine& app, Context& ctx);    // bitmap_command.cc
void addRoutesCommand(CommandLine& app, Context& ctx);    // routes_command.cc
void addAppsDemoCommand(CommandLine& app, Context& ctx);  // apps_demo_command.cc
void addEntityCommand(CommandLine& app, Context& ctx);    // entity_command.cc
void addTraceCommand(CommandLine& app, Context& ctx);     // trace_command.cc

}  // namespace Mroutectl
