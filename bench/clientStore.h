// ObjectCache as a client uses it, on volumes of its own.
#pragma once

#include "client/objectCache.h"
#include "store.h"

namespace bench {

struct ClientOptions {
  ObjectStore::Verify verify = ObjectStore::Verify::Never;
  bool isHot = true;        // all blocks stay in the table of descriptors; otherwise none is found there
  bool isInMemory = false;  // and the small ones' bytes in memory
};

// Segments are objects, made by reading them through from an origin. They cannot be overwritten: a changed
// object is another one.
std::unique_ptr<Store> makeClient(const std::string& dir, const Guids& guids, const ClientOptions& options);

}  // namespace bench
