// Reads an object through an installed diskcache-client, from the origin and then from disk.
//
// Use: outsideClient DIR; root and volume are made below DIR. Status 0 when all is well.
#include <client/blockTrailer.h>
#include <client/objectCache.h>
#include <client/objectCacheMetrics.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using namespace ObjectStore;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: outsideClient DIR\n");
    return 2;
  }
  const std::string dir = argv[1], object = "an object from outside";
  ObjectCache cache({.root = dir + "/root", .volumes = {dir + "/volume"}, .maxBytes = 1'000'000});
  if (const CZuError error = cache.open(); error.IsError()) {
    std::fprintf(stderr, "outsideClient: %s\n", error.AsString().c_str());
    return 1;
  }
  for (const uint32_t misses : {1U, 0U}) {
    std::vector<std::byte> bytes(object.size());
    const ReadResult got = cache.read("key", "version", 0, bytes, [&](uint64_t, std::span<std::byte> to) {
      std::memcpy(to.data(), object.data(), object.size());
      return OriginAnswer{.objectSize = object.size()};
    });
    if (!got || got.misses != misses || std::memcmp(bytes.data(), object.data(), object.size()) != 0) {
      std::fprintf(stderr, "outsideClient: %s\n", got.error.AsString().c_str());
      return 1;
    }
  }
  return 0;
}
