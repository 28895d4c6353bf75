// The README's example: one segment, made and read back.
#include <cstdio>

#include "diskcache/diskcache.h"
using namespace ObjectStore;

int main() {
  DiskCache cache(PersistentVolumes::Yes);
  CZuError e = cache.init("/tmp/dc/root", {"/tmp/dc/a"}, 100, 100, 100, 1'000, nullptr, PruningMode::Lru);
  DiskCacheContext ctx;
  ctx.dir = "images";
  ctx.prunerCallback = [&](auto& /*dir*/, auto& /*path*/, auto& guid) {  // a full list: may this one go?
    return !cache.deleteSegment(ctx, guid, false, false, Recycle::No).IsError();
  };
  if (!e.IsError()) e = cache.registerContext(ctx);

  std::vector<unsigned char> bytes(1000, 'x'), back;
  Section section;
  section.data = bytes.data();
  section.len = section.bufferSize = bytes.size();
  if (!e.IsError()) e = cache.createSegment(ctx, "0a1b2c3d", {section}, /*sync=*/true, false, false);
  if (!e.IsError()) e = cache.readCompleteSection(ctx, "0a1b2c3d", /*type=*/0, back);
  (void)cache.deleteSegment(ctx, "0a1b2c3d", false, false, Recycle::No);
  std::puts(e.IsError() ? e.AsString().c_str() : back == bytes ? "read back right" : "wrong bytes");
}
