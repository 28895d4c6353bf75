// The README's first example: objects read through a cache by eight threads.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

#include "client/objectCache.h"
using namespace ObjectStore;

int main(int argc, char** argv) {
  const std::string dir = argc > 1 ? argv[1] : "/tmp/dc";
  ObjectCache cache(
      {.root = dir + "/root", .volumes = {dir + "/disk1", dir + "/disk2"}, .maxBytes = 1 << 30});
  if (CZuError error = cache.open(); error.IsError()) return std::puts(error.AsString().c_str()), 1;

  std::atomic<int> asked{0}, wrong{0};
  const auto client = [&] {
    for (unsigned i = 0; i < 100; ++i) {
      std::vector<std::byte> bytes(i * 1000), expected(bytes.size(), std::byte(i));
      const ReadResult got = cache.read(  // from the disks, or from the origin, asked once however many wait
          "bucket/key" + std::to_string(i), "version 1", 0, bytes,
          [&](uint64_t from, std::span<std::byte> to) {
            ++asked;  // a GET of bytes [from, from + to.size()), as far as the object has them
            std::fill_n(to.begin(), std::min(to.size(), expected.size() - from), std::byte(i));
            return OriginAnswer{.objectSize = expected.size()};
          });
      if (!got || bytes != expected) ++wrong;
    }
  };
  for (std::jthread threads[8]; std::jthread & thread : threads) thread = std::jthread(client);
  std::printf("%d times asked, %d times wrong\n", asked.load(), wrong.load());
  return wrong > 0;
}
