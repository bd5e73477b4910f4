// mroutectl: the operator's tool for the multicast routing library.
//
//   mroutectl <command> [arguments]    run a command
//   mroutectl --help                   list the commands
//   mroutectl <command> --help         a command's usage
//
// Library assertions are turned into exceptions for the whole run, so bad
// input always ends in a one-line error and exit code 2, never an abort.
#include <exception>
#include <iostream>
#include <string_view>

#include "command.h"
#include "mroute/runtime/assert.h"

namespace Mroutectl {
namespace {

const Subcommand* const kCommands[] = {&keyCommand};

void usage(std::ostream& os) {
  os << "usage: mroutectl <command> [arguments]\n"
        "       mroutectl <command> --help\n\ncommands:\n";
  for (const Subcommand* c : kCommands) os << "  " << c->name << "\t" << c->summary << "\n";
}

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
    std::cerr << "mroutectl: " << e.what() << "\n";
    return Mroutectl::kExitUsage;
  }
}
