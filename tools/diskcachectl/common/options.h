// Options that several subcommands take, under one name and with one meaning.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace diskcachectl {

// A subcommand that does `run` when it is the one that was given, after its options were read.
CLI::App* addCommand(CLI::App& program, const std::string& name, const std::string& summary,
                     const std::string& help, std::function<void()> run);

CLI::Option* addRoot(CLI::App& command, std::string& dir);

// One directory for each time it is given; `many`, for a subcommand without arguments of its own, also takes
// several at once.
CLI::Option* addVolumes(CLI::App& command, std::vector<std::string>& dirs, bool many);

// Directories below the volumes; one for each time it is given.
CLI::Option* addContexts(CLI::App& command, const std::string& name, std::vector<std::string>& names,
                         const std::string& description);

// Why a name lies below no volume; empty when it does.
std::string whyNotBelow(const std::string& name);

// Why a text is no number to compare with; "nan" is within all bounds.
std::string whyNan(const std::string& text);

// For commands that can ask the root for its volumes.
void makeVolumesOptional(CLI::App& command);

// "--add-volume", of commands that change a cache: a directory that it does not know becomes a volume of it.
void addAddVolume(CLI::App& command, bool& addsVolume);

// "--json": the result as JSON.
void addJson(CLI::App& command, bool& isJson);

}  // namespace diskcachectl
