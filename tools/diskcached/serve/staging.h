// Write-back: objects that are safe here before the store has them. That they are staged the cache knows; the
// index only makes them visible.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

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

// Gives up staged objects of one key that a change at the store has replaced: after it has succeeded, so that a kill
// leaves the state before or after it. To be called under the key's lock.
enum class GivenUp { Nothing, All, NotForSure, Failed };  // not for sure: a power cut may bring them back
using StagedObjects = std::vector<std::shared_ptr<const ObjectStore::StagedObject>>;
GivenUp giveUpStaged(Service& service, const StagedObjects& objects);

// Makes known what the last run has staged; where it was killed in a change, the newer object counts. To be called
// before uploads and requests.
void adoptStaged(Service& service);

}  // namespace diskcached
