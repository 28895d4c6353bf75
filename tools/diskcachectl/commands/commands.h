// The subcommands. Each adds itself to the program with its options and a callback that does its work, and
// ends in a Failure when it has anything but success to report.
#pragma once

namespace CLI {
class App;
}

namespace diskcachectl {

// Only look: no file is opened for writing, no lock taken, no access time changed.
void addInspect(CLI::App& program);
void addVerify(CLI::App& program);
void addLs(CLI::App& program);
void addDu(CLI::App& program);
void addVolumesCommand(CLI::App& program);
void addExists(CLI::App& program);
void addExplain(CLI::App& program);
void addStatus(CLI::App& program);

// Of a running server, and of a trace
void addTop(CLI::App& program);
void addCurve(CLI::App& program);

// Change a cache's files, while no server has it in use.
void addPrune(CLI::App& program);
void addClean(CLI::App& program);
void addForget(CLI::App& program);
void addWarm(CLI::App& program);

// Through the engine
void addPut(CLI::App& program);
void addGet(CLI::App& program);
void addRm(CLI::App& program);
void addMigrate(CLI::App& program);
void addReplay(CLI::App& program);

}  // namespace diskcachectl
