// mroutectl: the operator's tool for the multicast routing library.
//
//   mroutectl <command> [arguments]    run a command
//   mroutectl --help | --version       list the commands | the library version
//   mroutectl <command> --help         a command's usage
//
// Every failure ends in one line "mroutectl <command>: <what>" and an exit
// code that says what kind of failure it was (command.h). Library assertions
// are turned into exceptions for the whole run, so bad input never aborts.
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "cli_options.h"
#include "command.h"
#include "mroute/runtime/assert.h"
#include "mroute/runtime/error.h"
#include "mroute/runtime/trace.h"
#include "stored_types.h"

#ifndef MROUTECTL_VERSION
#error "the build defines MROUTECTL_VERSION"
#endif

namespace Mroutectl {

void addJsonFlag(CliCommand& sub, Context& ctx) {
  sub.addFlag("--json", &ctx.json, "machine-readable output (schema in the README)");
}

void addSecondsOption(CliCommand& sub, double* seconds, const std::string& what) {
  sub.addOption("--seconds", seconds, what).inRange(0.0, 86400.0).optionText("N");
}

namespace {

int run(int argc, char** argv) {
  CommandLine app("The operator's tool for the multicast routing library: shared-memory tables, route keys,\n"
                  "entity trees. Tables live under $MROUTE_SHM_ROOT (default /dev/shm/mroute).\n"
                  "Exit codes: 0 ok, 1 damaged table, 2 bad usage, 3 not found, 4 internal error.",
                  "mroutectl");
  app.versionFlag("--version", std::string("mroutectl ") + MROUTECTL_VERSION);
  app.requireOneCommand();
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
    app.parseAndRun(argc, argv);  // --help and --version print their text and end here too
    return kExitOk;
  } catch (const UsageError& e) {
    const std::string name = app.commandName();
    std::cout.flush();
    std::cerr << name << ": " << e.what() << " (see " << name << " --help)\n";
    return kExitUsage;
  } catch (const CommandError& e) {
    std::cout.flush();
    std::cerr << app.commandName() << ": " << e.what() << "\n";
    return e.code();
  } catch (const Pavo::CorruptionDetectedException& e) {
    std::cout.flush();
    std::cerr << app.commandName() << ": the table's files are damaged: " << e.what()
              << " (mroutectl validate says more)\n";
    return kExitDamaged;
  } catch (const std::exception& e) {
    std::cout.flush();
    std::cerr << app.commandName() << ": internal error: " << e.what() << "\n";
    return kExitInternal;
  }
}

}  // namespace
}  // namespace Mroutectl

int main(int argc, char** argv) {
  Mroute::ThrowingAssertHandler assertionsThrow;
  return Mroutectl::run(argc, argv);
}
