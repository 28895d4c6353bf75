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
  const std::string dir = argc > 1 ? argv[1] : ".", object = "an object from outside";
  ObjectCache cache({.root = dir + "/root", .volumes = {dir + "/volume"}, .maxBytes = 1'000'000});
  CZuError error = cache.open();
  bool isRight = true;
  for (const uint32_t misses : {1U, 0U}) {
    std::vector<std::byte> bytes(object.size());
    const ReadResult got = cache.read("key", "version", 0, bytes, [&](uint64_t, std::span<std::byte> to) {
      std::memcpy(to.data(), object.data(), object.size());
      return OriginAnswer{.objectSize = object.size()};
    });
    if (!error.IsError()) error = got.error;
    isRight = isRight && got && got.misses == misses &&
              std::memcmp(bytes.data(), object.data(), object.size()) == 0;
  }
  if (!isRight) std::fprintf(stderr, "outsideClient: %s\n", error.AsString().c_str());
  return isRight ? 0 : 1;
}
