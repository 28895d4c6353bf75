// A read-through client: readThrough CACHE_DIR FILE... reads files with eight threads, from the cache where it has
// them. A file's version is its time of change: a changed file is another object. With METRICS set in the environment
// it writes the cache's figures to standard error.
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

#include "client/objectCache.h"

using namespace ObjectStore;

// The origin: the bytes of a file from `from` on, as far as it has them, and its size.
static OriginAnswer fetch(const std::string& path, uint64_t from, std::span<std::byte> to) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return {.error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOENT, "%s", path.c_str())};
  file.seekg(static_cast<std::streamoff>(from)).read(reinterpret_cast<char*>(to.data()), std::ssize(to));
  return {.objectSize = std::filesystem::file_size(path)};
}

int main(int argc, char** argv) {
  const std::string dir = argc > 1 ? argv[1] : "";
  ObjectCache cache({.root = dir + "/root", .volumes = {dir + "/volume"}, .maxBytes = 1'000'000'000});
  if (const CZuError error = cache.open(); error.IsError()) return std::cerr << error.AsString() << '\n', 1;
  std::atomic<int> next{2}, failed{0};
  const auto work = [&] {
    for (int i; (i = next++) < argc;) {
      const std::string path = argv[i];
      const auto changed = std::filesystem::last_write_time(path).time_since_epoch().count();
      std::vector<std::byte> bytes(std::filesystem::file_size(path));
      const auto origin = [&](uint64_t from, std::span<std::byte> to) { return fetch(path, from, to); };
      if (!cache.read(path, std::to_string(changed), 0, bytes, origin)) ++failed;
    }
  };
  for (std::jthread threads[8]; std::jthread & thread : threads) thread = std::jthread(work);
  std::cout << argc - 2 << " files, " << cache.metrics().originBytes << " bytes from the origin\n";
  if (std::getenv("METRICS")) {  // a server would answer GET /metrics with this
    std::string page;
    cache.renderMetrics(page);
    std::cerr << page;
  }
  return failed > 0;
}
