// Write-back: objects that are safe here before the store has them.
#pragma once

#include <span>
#include <string>

#include "serve/service.h"

namespace diskcached {

struct StageResult {
  ObjectStore::CZuError error{};
  std::string etag{};
};

// Makes an object safe on disk and visible. The error is the disk's.
StageResult stageObject(Service& service, const std::string& key, std::span<const std::byte> bytes,
                        Metadata kept, const Options& options);

// Gives a staged object to the store, unless it was replaced or deleted since.
ObjectStore::CZuError uploadStaged(Service& service, const ObjectStore::StagedObject& object);

}  // namespace diskcached
