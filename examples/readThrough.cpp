// A read-through client: readThrough CACHE_DIR FILE... reads files, from the cache where it has them.
#include <cerrno>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "diskcache/diskcache.h"

using namespace ObjectStore;
using Bytes = std::vector<unsigned char>;

// The bytes of `path`, from the cache or else from the file, which is cached then.
static CZuError readThrough(DiskCache& cache, DiskCacheContext& context, const std::string& path,
                            Bytes& bytes) {
  const guid_t guid = std::to_string(std::hash<std::string>()(path));
  CZuError error = cache.readCompleteSection(context, guid, 0, bytes);
  if (!RMErrorUtil::IsErrNo(error, ENOENT)) return error;

  std::ifstream file(path, std::ios::binary);
  bytes.assign(std::istreambuf_iterator<char>(file), {});
  if (bytes.empty()) return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENODATA, "%s", path.c_str());

  Section section;
  section.data = bytes.data();
  section.len = section.bufferSize = bytes.size();
  error = cache.createSegment(context, guid, {section}, false, false, false);
  if (!RMErrorUtil::IsErrNo(error, ENOSPC)) return error;
  // No room to cache it: the caller has its bytes all the same, and nothing half-written may stay.
  return cache.deleteSegment(context, guid, false, false, Recycle::No);
}

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: readThrough CACHE_DIR FILE...\n";
    return 2;
  }
  const std::string dir = argv[1];
  DiskCache cache(PersistentVolumes::Yes);
  CZuError error = cache.init(dir + "/root", {dir + "/volume"}, 90, 80, 95, 10000, nullptr, PruningMode::Lru);

  // The start-up scan enters segments under either name; the last one registered is the one used.
  DiskCacheContext context;
  context.prunerCallback = [&](const std::string&, const std::string&, const std::string& guid) {
    return !cache.deleteSegment(context, guid, false, false, Recycle::No).IsError();
  };
  for (const char* name : {"recycle", "files"}) {
    context.dir = name;
    if (!error.IsError()) error = cache.registerContext(context);
  }

  for (int i = 2; i < argc && !error.IsError(); ++i) {
    Bytes bytes;
    error = readThrough(cache, context, argv[i], bytes);
    if (!error.IsError()) std::cout << argv[i] << ": " << bytes.size() << " bytes\n";
  }
  if (error.IsError()) std::cerr << error.AsString() << '\n';
  return error.IsError() ? 3 : 0;
}
