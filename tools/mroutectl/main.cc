// mroutectl: the operator's tool for the multicast routing library.
//
//   mroutectl <command> [arguments]    run a command
//   mroutectl --help                   list the commands
//   mroutectl <command> --help         a command's usage
//
// Library assertions are turned into exceptions for the whole run, so bad
// input always ends in a one-line error and exit code 2, never an abort.
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "command.h"
#include "mroute/runtime/assert.h"

namespace Mroutectl {

bool parseSeconds(std::string_view text, double* seconds) {
  const std::string s(text);
  char* end = nullptr;
  const double v = std::strtod(s.c_str(), &end);
  if (s.empty() || end != s.c_str() + s.size() || !(v >= 0 && v <= 86400)) return false;
  *seconds = v;
  return true;
}

namespace {

const Subcommand* const kCommands[] = {&keyCommand,      &tablesCommand, &listCommand, &dumpCommand,
                                       &validateCommand, &followCommand, &demoCommand, &typesCommand,
                                       &bitmapCommand,   &routesCommand, &appsDemoCommand, &entityCommand};

void usage(std::ostream& os) {
  os << "usage: mroutectl <command> [arguments]\n"
        "       mroutectl <command> --help\n\ncommands:\n";
  for (const Subcommand* c : kCommands) {
    os << "  " << c->name << std::string(10 - c->name.size(), ' ') << c->summary << "\n";
  }
}

// The command being run, for the error line of an exception.
std::string gCommand = "mroutectl";

int run(int argc, char** argv) {
  if (argc < 2) {
    usage(std::cerr);
    return kExitUsage;
  }
  std::string_view name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") {
    usage(std::cout);
    return kExitOk;
  }
  for (const Subcommand* c : kCommands) {
    if (c->name != name) continue;
    gCommand = "mroutectl " + std::string(c->name);
    Args args(argv + 2, argv + argc);
    if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
      c->usage(std::cout);
      return kExitOk;
    }
    return c->run(args, std::cout, std::cerr);
  }
  std::cerr << "mroutectl: unknown command '" << name << "' (see mroutectl --help)\n";
  return kExitUsage;
}

}  // namespace
}  // namespace Mroutectl

int main(int argc, char** argv) {
  Mroute::ThrowingAssertHandler assertionsThrow;
  try {
    return Mroutectl::run(argc, argv);
  } catch (const std::exception& e) {
    std::cout.flush();
    std::cerr << Mroutectl::gCommand << ": " << e.what() << "\n";
    return Mroutectl::kExitUsage;
  }
}
