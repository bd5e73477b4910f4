// The command line of mroutectl, declared through plain functions so that
// only cli_options.cc compiles the argument parser: every subcommand file
// states its options here instead of instantiating the parser's templates
// again. Each function forwards to the parser unchanged, so help texts, type
// names in the help and error texts are the parser's own.
//
// Single-threaded: the tool declares, parses and runs on its main thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace Mroutectl {

// One option or positional argument of a subcommand; the setters chain.
class CliOption {
 public:
  explicit CliOption(CLI::Option* option) : option_(option) {}
  CliOption& required();
  // The placeholder the help shows instead of the type name, e.g. "N".
  CliOption& optionText(const std::string& text);
  // The number of values the option takes each time it is given.
  CliOption& expected(int count);
  // The value must lie in [min, max]; the message names both bounds.
  CliOption& inRange(int min, int max);
  CliOption& inRange(double min, double max);
  CliOption& oneOf(const std::vector<int>& values);

 private:
  CLI::Option* option_;
};

// A subcommand: its help, its options (bound to variables that outlive the
// parse) and the callback that runs it.
class CliCommand {
 public:
  explicit CliCommand(CLI::App* app) : app_(app) {}
  void footer(const std::string& text);
  void alias(const std::string& name);
  // A name starting with '-' is an option ("--verbose,-v"), otherwise a
  // positional argument.
  CliOption addFlag(const std::string& names, bool* value, const std::string& help);
  CliOption addOption(const std::string& names, std::string* value, const std::string& help);
  CliOption addOption(const std::string& names, std::vector<std::string>* value, const std::string& help);
  CliOption addOption(const std::string& names, int* value, const std::string& help);
  CliOption addOption(const std::string& names, uint32_t* value, const std::string& help);
  CliOption addOption(const std::string& names, std::optional<uint32_t>* value, const std::string& help);
  CliOption addOption(const std::string& names, size_t* value, const std::string& help);
  CliOption addOption(const std::string& names, double* value, const std::string& help);
  // Runs after a successful parse when this subcommand was chosen.
  void callback(std::function<void()> run);

 private:
  CLI::App* app_;
};

// Arguments the parser refused; what() is the message for the error line.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The whole command line: the tool's description, its subcommands, parsing.
class CommandLine {
 public:
  CommandLine(const std::string& description, const std::string& name);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  void versionFlag(const std::string& names, const std::string& version);
  void requireOneCommand();
  CliCommand addCommand(const std::string& name, const std::string& description);

  // Parses the arguments and runs the chosen subcommand's callback, whose
  // exceptions pass through. --help and --version print their text and
  // return; wrong arguments throw UsageError.
  void parseAndRun(int argc, char** argv);
  // "mroutectl <command>" for the subcommand given, "mroutectl" before one is.
  std::string commandName() const;

 private:
  std::unique_ptr<CLI::App> app_;
};

}  // namespace Mroutectl
