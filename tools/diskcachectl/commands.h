// The subcommands. Each adds itself to the program with its options and a callback that does its work, and
// ends in a Failure when it has anything but success to report.
#pragma once

namespace CLI {
class App;
}

namespace diskcachectl {

void addReplay(CLI::App& program);

}  // namespace diskcachectl
