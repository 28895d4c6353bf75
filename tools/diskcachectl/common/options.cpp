#include "common/options.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

namespace diskcachectl {

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

void makeVolumesOptional(CLI::App& command) {
  command.get_option("--volume")
      ->required(false)
      ->description("Directory of segments; give one or several (default: all that the cache knows)");
}

void addAddVolume(CLI::App& command, bool& addsVolume) {
  command.add_flag("--add-volume", addsVolume, "Make a directory that the cache does not know one of its volumes");
}

void addJson(CLI::App& command, bool& isJson) {
  command.add_flag("--json", isJson, "Print the result as JSON");
}

}  // namespace diskcachectl
