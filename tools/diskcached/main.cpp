// diskcached: an HTTP cache server in front of an object store.
#include <fmt/core.h>

#include <iostream>
#include <vector>

#include "life/server.h"
#include "support/log.h"

namespace {

constexpr int BAD_INPUT = 2;

}  // namespace

int main(int argc, char** argv) {
  using namespace diskcached;
  std::cout.rdbuf(nullptr);  // the library prints diagnostics to this stream
  try {
    const std::vector<const char*> arguments(argv, argv + argc + 1);
    const std::shared_ptr<const Options> options = readOptions(argc, argv);
    if (!options) return 0;
    auto credentials = readCredentials(options->credentials);
    const auto log = std::make_shared<ObjectStore::FileLogWriter>(options->logLevel);
    ObjectStore::g_ptrLogWriter = log;
    blockSignals();
    return runServer(options, std::move(credentials), *log, arguments);
  } catch (const BadOptions& error) {
    fmt::print(stderr, "diskcached: {}\n", error.what());
    return BAD_INPUT;
  } catch (const std::exception& error) {
    fmt::print(stderr, "diskcached: {}\n", error.what());
    return 1;
  }
}
