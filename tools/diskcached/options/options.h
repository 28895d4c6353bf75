// What the server is told by arguments and the config file, checked.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "client/objectCache.h"

namespace diskcached {

struct Address {
  std::string host;
  uint16_t port = 0;
  bool operator==(const Address&) const = default;
};

struct Options {
  std::string origin;  // http(s)://host[:port][/path], without a '/' at its end
  std::string originCa;
  std::string credentials;  // a file; empty: the environment, if it has any
  std::string region = "us-east-1";

  std::string root;
  std::vector<std::string> volumes;
  uint64_t maxBytes = 0;
  uint32_t blockSize = 1 << 20;
  uint64_t reserve = 0;
  ObjectStore::PruningMode mode = ObjectStore::PruningMode::Lru;
  ObjectStore::Verify verify = ObjectStore::Verify::Once;
  bool replaceVolumes = false;
  bool writeBack = false;
  unsigned uploads = 4;  // at once
  uint64_t indexEntries = 1'000'000;

  Address listen, admin;
  std::chrono::seconds freshFor{60};  // seconds::max(): for ever
  std::chrono::seconds staleIfError{0};

  unsigned ioThreads = 0;
  unsigned diskThreads = 16;
  unsigned originConnections = 64;
  unsigned passing = 32;  // requests passed through at once
  uint64_t maxConnections = 1024;
  uint64_t maxHeaderBytes = 16 << 10;
  uint64_t maxUrlBytes = 8 << 10;
  uint64_t maxUpload = uint64_t{5} << 30;
  uint64_t memory = 256 << 20;  // bytes of bodies on their way
  std::chrono::seconds requestTimeout{10}, idleTimeout{60};
  std::chrono::seconds originConnectTimeout{5}, originTimeout{30};
  unsigned originRetries = 2;
  std::chrono::seconds grace{30};

  std::string accessLog;  // empty: none; "-": standard output
  int logLevel = 0;
};

// Undoes in `wanted` what a running server cannot change. The names of what was another.
std::vector<std::string> keepWhatNeedsRestart(const Options& running, Options& wanted);

class BadOptions : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Reads arguments and the config file that they may name. Throws BadOptions. None when all was said already:
// by --help and --version.
std::unique_ptr<Options> readOptions(int argc, const char* const* argv);

}  // namespace diskcached
