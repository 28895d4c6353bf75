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

namespace {

bool fails(const char* operation, const CZuError& error) {
  if (error.IsError()) std::fprintf(stderr, "outside: %s: %s\n", operation, error.AsString().c_str());
  return error.IsError();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: outside DIR\n");
    return 2;
  }
  const std::string dir = argv[1];
  g_ptrLogWriter = std::make_shared<FileLogWriter>(LogLevel::Error);

  DiskCache cache(PersistentVolumes::No);
  const CZuError started =
      cache.init(dir + "/root", {dir + "/volume"}, 100, 100, 100, 100, nullptr, PruningMode::Lru);
  if (fails("init", started)) return 1;
  DiskCacheContext context;
  context.dir = "outside";
  if (fails("registerContext", cache.registerContext(context))) return 1;

  const guid_t guid(GUID_CHAR_SIZE, 'a');
  std::string written = "a segment written from outside";
  std::string read(written.size(), '\0');
  Section section;
  section.data = reinterpret_cast<unsigned char*>(written.data());
  section.bufferSize = section.len = written.size();
  if (fails("createSegment", cache.createSegment(context, guid, {section}, false, false, false))) return 1;

  section.data = reinterpret_cast<unsigned char*>(read.data());
  std::vector<Section> sections{section};
  if (fails("readSections", cache.readSections(context, guid, sections, true))) return 1;
  if (sections.front().len != written.size() || read != written) {
    std::fprintf(stderr, "outside: readSections: other bytes than were written\n");
    return 1;
  }
  return fails("deleteSegment", cache.deleteSegment(context, guid, false, false, Recycle::No)) ||
                 fails("unregisterContext", cache.unregisterContext(context))
             ? 1
             : 0;
}
