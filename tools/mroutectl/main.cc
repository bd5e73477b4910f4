// mroutectl: the operator's tool for the multicast routing library.
//
//   mroutectl <command> [arguments]    run a command
//   mroutectl --help | --version       list the commands | the library version
//   mroutectl <command> --help         a command's usage
//
// Every failure ends in one line "mroutectl <command>: <what>" and an exit
// code that says what kind of failure it was (command.h). Library assertions
// are turned into exceptions for the whole run, so bad input never aborts.
#include <CLI/CLI.hpp>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "command.h"
#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"
#include "mroute/runtime/trace.h"
#include "stored_types.h"

#ifndef MROUTECTL_VERSION
#error "the build defines MROUTECTL_VERSION"
#endif

namespace Mroutectl {

void addJsonFlag(CLI::App& sub, Context& ctx) {
  sub.add_flag("--json", ctx.json, "machine-readable output (schema in the README)");
}

void addSecondsOption(CLI::App& sub, double* seconds, const std::string& what) {
  sub.add_option("--seconds", *seconds, what)->check(CLI::Range(0.0, 86400.0))->option_text("N");
}

namespace {

// The name of the subcommand being run, for the error line.
std::string commandName(const CLI::App& app) {
  for (const CLI::App* sub : app.get_subcommands()) return "mroutectl " + sub->get_name();
  return "mroutectl";
}

// The parser checks required arguments before it complains about arguments
// it did not know, so "dump --bogus" would be told that the table is
// missing. An unknown option is the likelier mistake: it is named first.
std::string parseMessage(const CLI::App& app, const CLI::ParseError& e) {
  for (const CLI::App* sub : app.get_subcommands()) {
    for (const std::string& arg : sub->remaining()) {
      if (arg.size() > 1 && arg[0] == '-') return "The following argument was not expected: " + arg;
    }
  }
  const std::vector<std::string> rest = app.remaining();
  if (app.get_subcommands().empty() && !rest.empty()) {
    const bool option = rest[0].size() > 1 && rest[0][0] == '-';
    return (option ? "unknown option '" : "unknown command '") + rest[0] + "'";
  }
  return e.what();
}

int run(int argc, char** argv) {
  CLI::App app("The operator's tool for the multicast routing library: shared-memory tables, route keys,\n"
               "entity trees. Tables live under $MROUTE_SHM_ROOT (default /dev/shm/mroute).\n"
               "Exit codes: 0 ok, 1 damaged table, 2 bad usage, 3 not found, 4 internal error.",
               "mroutectl");
  app.set_version_flag("--version", std::string("mroutectl ") + MROUTECTL_VERSION);
  app.require_subcommand(1);
  registerStoredTypes();
  Context ctx{std::cout, std::cerr};
  addKeyCommand(app, ctx);
  addTablesCommand(app, ctx);
  addDumpCommand(app, ctx);
  addValidateCommand(app, ctx);
  addFollowCommand(app, ctx);
  addDemoCommand(app, ctx);
  addTypesCommand(app, ctx);
  addBitmapCommand(app, ctx);
  addRoutesCommand(app, ctx);
  addAppsDemoCommand(app, ctx);
  addEntityCommand(app, ctx);
  addTraceCommand(app, ctx);
  // The trace settings are read when the library first traces, which some
  // subcommands never do: read them now so that every subcommand reports a bad
  // MROUTE_TRACE. A trace file that cannot be written is an error, except for
  // `trace`, whose job is to show that problem.
  for (const std::string& problem : Mroute::Trace::environmentErrors()) {
    const bool traceCommand = argc > 1 && std::string_view(argv[1]) == "trace";
    if (problem.starts_with("MROUTE_TRACE_FILE") && !traceCommand) {
      std::cerr << "mroutectl: the trace file is not writable; fix or unset MROUTE_TRACE_FILE\n";
      return kExitUsage;
    }
  }
  try {
    app.parse(argc, argv);
    return kExitOk;
  } catch (const CLI::ParseError& e) {
    // --help and --version end parsing with exit code 0.
    if (e.get_exit_code() == 0) return app.exit(e);
    const std::string name = commandName(app);
    std::cout.flush();
    std::cerr << name << ": " << parseMessage(app, e) << " (see " << name << " --help)\n";
    return kExitUsage;
  } catch (const CommandError& e) {
    std::cout.flush();
    std::cerr << commandName(app) << ": " << e.what() << "\n";
    return e.code();
  } catch (const Pavo::CorruptionDetectedException& e) {
    std::cout.flush();
    std::cerr << commandName(app) << ": the table's files are damaged: " << e.what()
              << " (mroutectl validate says more)\n";
    return kExitDamaged;
  } catch (const std::exception& e) {
    std::cout.flush();
    std::cerr << commandName(app) << ": internal error: " << e.what() << "\n";
    return kExitInternal;
  }
}

}  // namespace
}  // namespace Mroutectl

int main(int argc, char** argv) {
  Mroute::ThrowingAssertHandler assertionsThrow;
  return Mroutectl::run(argc, argv);
}
