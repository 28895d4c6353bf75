// The subcommands, each in a file and a namespace of its name. Each adds itself to the program with its options and
// a callback that does its work, and ends in a Failure when it has anything but success to report.
#pragma once

namespace CLI {
class App;
}

namespace diskcachectl {

// clang-format off

// Only look: no file is opened for writing, no lock taken, no access time changed.
namespace inspect { void add(CLI::App& program); }
namespace verify  { void add(CLI::App& program); }
namespace ls      { void add(CLI::App& program); }
namespace du      { void add(CLI::App& program); }
namespace volumes { void add(CLI::App& program); }
namespace exists  { void add(CLI::App& program); }
namespace explain { void add(CLI::App& program); }
namespace status  { void add(CLI::App& program); }

// Of a running server, and of a trace
namespace top     { void add(CLI::App& program); }
namespace curve   { void add(CLI::App& program); }

// Change a cache's files, while no server has it in use.
namespace prune   { void add(CLI::App& program); }
namespace clean   { void add(CLI::App& program); }
namespace forget  { void add(CLI::App& program); }
namespace warm    { void add(CLI::App& program); }

// Through the engine
namespace put     { void add(CLI::App& program); }
namespace get     { void add(CLI::App& program); }
namespace rm      { void add(CLI::App& program); }
namespace migrate { void add(CLI::App& program); }
namespace replay  { void add(CLI::App& program); }

// clang-format on

}  // namespace diskcachectl
