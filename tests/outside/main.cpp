// Stores one segment through an installed diskcache and reads it back. Every public header is included, so
// that one which needs a header that is not installed does not compile.
//
// Use: outside DIR; the cache's root and its one volume are made below DIR. Status 0 when all is well.
#include <diskcache/diskcache.h>
#include <diskcache/diskcacheTypes.h>
#include <diskcache/segmentFormat.h>
#include <support/atomicCounter.h>
#include <support/config.h>
#include <support/error.h>
#include <support/export.h>
#include <support/lock.h>
#include <support/log.h>
#include <support/perfCounters.h>
#include <support/threadAnnotations.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

using namespace ObjectStore;

int main(int argc, char** argv) {
  const std::string dir = argc > 1 ? argv[1] : ".", text = "a segment written from outside";
  g_ptrLogWriter = std::make_shared<FileLogWriter>(LogLevel::Error);
  DiskCache cache(PersistentVolumes::No);
  DiskCacheContext context;
  context.dir = "outside";
  const guid_t guid(GUID_CHAR_SIZE, 'a');
  std::vector<unsigned char> written(text.begin(), text.end()), read;
  Section section;
  section.data = written.data();
  section.bufferSize = section.len = written.size();

  CZuError error =
      cache.init(dir + "/root", {dir + "/volume"}, 100, 100, 100, 100, nullptr, PruningMode::Lru);
  if (!error.IsError()) error = cache.registerContext(context);
  if (!error.IsError()) error = cache.createSegment(context, guid, {section}, false, false, false);
  if (!error.IsError()) error = cache.readCompleteSection(context, guid, 0, read);
  if (!error.IsError()) error = cache.deleteSegment(context, guid, false, false, Recycle::No);
  if (!error.IsError()) error = cache.unregisterContext(context);
  const bool isRight = !error.IsError() && read == written;
  if (!isRight) std::fprintf(stderr, "outside: %s\n", error.AsString().c_str());
  return isRight ? 0 : 1;
}
