// The only unit of mroutectl that compiles the argument parser.
#include "cli_options.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>

namespace Mroutectl {

CliOption& CliOption::required() {
  option_->required();
  return *this;
}

CliOption& CliOption::optionText(const std::string& text) {
  option_->option_text(text);
  return *this;
}

CliOption& CliOption::expected(int count) {
  option_->expected(count);
  return *this;
}

CliOption& CliOption::inRange(int min, int max) {
  option_->check(CLI::Range(min, max));
  return *this;
}

CliOption& CliOption::inRange(double min, double max) {
  // "nan" converts, and compares false with both bounds: it is refused first.
  option_->check([](const std::string& text) {
    return std::isnan(std::strtod(text.c_str(), nullptr)) ? "Value " + text + " is not a number" : std::string();
  });
  option_->check(CLI::Range(min, max));
  return *this;
}

CliOption& CliOption::oneOf(const std::vector<int>& values) {
  option_->check(CLI::IsMember(values));
  return *this;
}

void CliCommand::footer(const std::string& text) { app_->footer(text); }

void CliCommand::alias(const std::string& name) { app_->alias(name); }

CliOption CliCommand::addFlag(const std::string& names, bool* value, const std::string& help) {
  return CliOption(app_->add_flag(names, *value, help));
}

// The parser names the value's type in the help (TEXT, INT, UINT, FLOAT) from
// the variable's own type, so each overload hands it the exact type.
CliOption CliCommand::addOption(const std::string& names, std::string* value, const std::string& help) {
  return CliOption(app_->add_option(names, *value, help));
}

CliOption CliCommand::addOption(const std::string& names, std::vector<std::string>* value, const std::string& help) {
  return CliOption(app_->add_option(names, *value, help));
}

CliOption CliCommand::addOption(const std::string& names, int* value, const std::string& help) {
  return CliOption(app_->add_option(names, *value, help));
}

CliOption CliCommand::addOption(const std::string& names, uint32_t* value, const std::string& help) {
  return CliOption(app_->add_option(names, *value, help));
}

CliOption CliCommand::addOption(const std::string& names, std::optional<uint32_t>* value, const std::string& help) {
  return CliOption(app_->add_option(names, *value, help));
}

CliOption CliCommand::addOption(const std::string& names, size_t* value, const std::string& help) {
  return CliOption(app_->add_option(names, *value, help));
}

CliOption CliCommand::addOption(const std::string& names, double* value, const std::string& help) {
  return CliOption(app_->add_option(names, *value, help));
}

void CliCommand::callback(std::function<void()> run) { app_->callback(std::move(run)); }

CommandLine::CommandLine(const std::string& description, const std::string& name)
    : app_(std::make_unique<CLI::App>(description, name)) {}

CommandLine::~CommandLine() = default;

void CommandLine::versionFlag(const std::string& names, const std::string& version) {
  app_->set_version_flag(names, version);
}

void CommandLine::requireOneCommand() { app_->require_subcommand(1); }

CliCommand CommandLine::addCommand(const std::string& name, const std::string& description) {
  return CliCommand(app_->add_subcommand(name, description));
}

std::string CommandLine::commandName() const {
  for (const CLI::App* sub : app_->get_subcommands()) return "mroutectl " + sub->get_name();
  return "mroutectl";
}

namespace {

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

}  // namespace

void CommandLine::parseAndRun(int argc, char** argv) {
  try {
    app_->parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version end parsing with exit code 0; exit() prints them.
    if (e.get_exit_code() == 0) {
      app_->exit(e);
      return;
    }
    throw UsageError(parseMessage(*app_, e));
  }
}

}  // namespace Mroutectl
