// diskcachectl: the operator's tool for disk caches.
#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/helpText.h"
#include "common/output.h"

namespace diskcachectl {
namespace {

int exitWith(ExitStatus status, std::string_view text) {
  text = text.substr(0, text.find_last_not_of(" \n") + 1);
  if (!text.empty()) printError(text);
  return static_cast<int>(status);
}

// Ends a parse that stopped: by --help or --version with success, otherwise as wrong usage.
int finishParse(const CLI::App& program, const CLI::ParseError& stop) {
  if (stop.get_exit_code() != 0) {
    return exitWith(ExitStatus::BadInput, fmt::format("{} (see --help)", stop.what()));
  }
  std::ostringstream text;
  program.exit(stop, text, text);
  fmt::print("{}", wrapped(text.str(), terminalWidth()));
  return 0;
}

// The parser would call it an argument that was not expected.
std::string whyNoSubcommand(const CLI::App& program, int argc, char** argv) {
  const std::string_view word = argc > 1 ? argv[1] : "";
  if (word.empty() || word.front() == '-') return "";
  std::vector<std::string> names;
  for (const CLI::App* command : program.get_subcommands(nullptr)) names.push_back(command->get_name());
  if (std::find(names.begin(), names.end(), word) != names.end()) return "";
  return fmt::format("there is no subcommand \"{}\"; the nearest is \"{}\" (see --help)", word,
                     nearest(word, names));
}

int run(int argc, char** argv) {
  CLI::App program("Looks into disk caches and works on them.", "diskcachectl");
  program.set_version_flag("--version", "diskcachectl " DISKCACHE_VERSION);
  program.require_subcommand(1);
  program.failure_message([](const CLI::App*, const CLI::Error& error) { return std::string(error.what()); });
  for (const auto add : {inspect::add, verify::add, ls::add, du::add, volumes::add, put::add, get::add,
                         rm::add, exists::add, status::add, migrate::add, prune::add, clean::add, forget::add,
                         explain::add, top::add, curve::add, warm::add, replay::add}) {
    add(program);
  }

  if (const std::string why = whyNoSubcommand(program, argc, argv); !why.empty()) {
    return exitWith(ExitStatus::BadInput, why);
  }
  int status = 0;
  try {
    program.parse(argc, argv);
  } catch (const CLI::ParseError& stop) {
    status = finishParse(program, stop);
  } catch (const Failure& failure) {
    status = exitWith(failure.status(), failure.what());
  }
  if (std::fflush(stdout) != 0 && status == 0)
    return exitWith(ExitStatus::Error, "cannot write to standard output");
  return status;
}

}  // namespace
}  // namespace diskcachectl

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_DFL);  // a reader that has seen enough ends the tool without a word
  // The library prints diagnostics to this stream; the tool's own output goes around it.
  std::cout.rdbuf(nullptr);
  try {
    return diskcachectl::run(argc, argv);
  } catch (const std::exception& error) {
    return diskcachectl::exitWith(diskcachectl::ExitStatus::Error, error.what());
  }
}
