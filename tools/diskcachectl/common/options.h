// Options that several subcommands take, under one name and with one meaning.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace diskcachectl {

CLI::Option* addRoot(CLI::App& command, std::string& dir);

// One directory for each time it is given; `many`, for a subcommand without arguments of its own, also takes
// several at once.
CLI::Option* addVolumes(CLI::App& command, std::vector<std::string>& dirs, bool many);

// "--json": the result as one object.
void addJson(CLI::App& command, bool& isJson);

}  // namespace diskcachectl
