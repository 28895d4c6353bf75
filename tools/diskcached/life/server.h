// The server's life: start, signals, end.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "options/credentials.h"
#include "options/options.h"

namespace ObjectStore {
class FileLogWriter;
}

namespace diskcached {

// Serves until SIGTERM or SIGINT, which must be blocked in all threads, and returns the exit status. Throws
// BadOptions. `arguments` are read anew at SIGHUP.
int runServer(std::shared_ptr<const Options> options, std::optional<Credentials> credentials,
              ObjectStore::FileLogWriter& log, const std::vector<const char*>& arguments);

// The signals that the server waits for; to be blocked before the first thread starts.
void blockSignals();

}  // namespace diskcached
