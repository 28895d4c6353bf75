#include "common/options.h"

#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <utility>

namespace diskcachectl {

CLI::App* addCommand(CLI::App& program, const std::string& name, const std::string& summary,
                     const std::string& help, std::function<void()> run) {
  CLI::App* command = program.add_subcommand(name, summary);
  command->footer(help);
  command->callback(std::move(run));
  return command;
}

CLI::Option* addRoot(CLI::App& command, std::string& dir) {
  return command.add_option("--root", dir, "Directory of the cache's own files")->type_name("DIR");
}

CLI::Option* addVolumes(CLI::App& command, std::vector<std::string>& dirs, bool many) {
  return command.add_option("--volume", dirs, "Directory of segments; give one or several")
      ->type_name("DIR")
      ->expected(1, many ? CLI::detail::expected_max_vector_size : 1)
      ->allow_extra_args(many)
      ->take_all();
}

std::string whyNotBelow(const std::string& name) {
  const std::filesystem::path path(name);
  const auto leadsOn = [](const std::filesystem::path& part) { return !part.empty() && part != "."; };
  const bool isBelow = path.is_relative() && std::any_of(path.begin(), path.end(), leadsOn) &&
                       std::find(path.begin(), path.end(), "..") == path.end();
  return isBelow ? "" : fmt::format("\"{}\" lies below no volume", name);
}

std::string whyNan(const std::string& text) {
  return std::isnan(std::strtod(text.c_str(), nullptr)) ? fmt::format("\"{}\" is no number", text) : "";
}

CLI::Option* addContexts(CLI::App& command, const std::string& name, std::vector<std::string>& names,
                         const std::string& description) {
  return command.add_option(name, names, description)
      ->type_name("NAME")
      ->take_all()
      ->check(CLI::Validator(whyNotBelow, ""));
}

void makeVolumesOptional(CLI::App& command) {
  command.get_option("--volume")
      ->required(false)
      ->description("Directory of segments; give one or several (default: all that the cache knows)");
}

void addAddVolume(CLI::App& command, bool& addsVolume) {
  command.add_flag("--add-volume", addsVolume,
                   "Make a directory that the cache does not know one of its volumes");
}

void addJson(CLI::App& command, bool& isJson) {
  command.add_flag("--json", isJson, "Print the result as JSON");
}

}  // namespace diskcachectl
