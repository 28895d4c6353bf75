#include "serve/staging.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "origin/digest.h"
#include "serve/spool.h"
#include "support/log.h"

namespace diskcached {

using ObjectStore::CZuError;
using ObjectStore::KxCriticalSectionLock;
using ObjectStore::RMErrorUtil;

namespace {

constexpr uint64_t COPIED_AT_ONCE = 1 << 20;

// One span of an object that lies in blocks.
CZuError spoolObject(const ObjectStore::StagedObject& object, const std::string& dir, Spool& spool,
                     std::span<const std::byte>& bytes) {
  int errNo = spool.open(dir);
  std::vector<std::byte> piece(std::min(object.size, COPIED_AT_ONCE));
  for (uint64_t at = 0; errNo == 0 && at < object.size; at += piece.size()) {
    piece.resize(std::min(object.size - at, COPIED_AT_ONCE));
    if (const CZuError error = object.read(at, piece); error.IsError()) return error;
    errNo = spool.append(piece);
  }
  if (errNo == 0) errNo = spool.map(bytes);
  return errNo == 0 ? CZuError() : RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, errNo, "no room for an upload");
}

OriginCall callFor(const ObjectStore::StagedObject& object, std::span<const std::byte> bytes) {
  OriginCall call{.method = "PUT", .key = object.key, .body = bytes, .hasBody = true};
  for (const auto& [name, value] : object.metadata) {
    if (name != "etag" && name != "last-modified") call.headers.emplace_back(name, value);
  }
  return call;
}

// From now on the store's word counts; where it names the object alike, what is on disk stays of use.
void markUploaded(Service& service, const ObjectStore::StagedObject& object, const OriginReply& reply) {
  const KxCriticalSectionLock lock(&service.keyLocks.of(object.key));
  const ObjectInfoPointer known = service.index.find(object.key);
  if (known && known->isStaged && known->version != object.version) return;
  auto info = std::make_shared<ObjectInfo>(
      describeObject(object.metadata, object.size, *service.options(), Clock::now()));
  if (headerOf(reply.headers, "etag") != info->version) info = nullptr;
  service.index.change(object.key, std::move(info));
  service.index.sync();  // from its release on the cache does not tell of it any more
}

ObjectInfoPointer describeStaged(Metadata kept, uint64_t size, std::string_view version,
                                 const Options& options, Clock::time_point when) {
  auto info = std::make_shared<ObjectInfo>(describeObject(std::move(kept), size, options, when));
  info->version = version;
  info->mayStore = info->isStaged = true;
  return info;
}

// The ETag; longer while the same bytes are staged, maybe with other headers.
std::string freeVersion(const StagedObjects& staged, std::string version) {
  const auto isTaken = [&](const auto& object) { return object->version == version; };
  while (std::any_of(staged.begin(), staged.end(), isTaken)) version += '+';
  return version;
}

bool isGone(const CZuError& error) { return RMErrorUtil::GetErrNo(error) == ENOENT; }

GivenUp discardAll(Service& service, const StagedObjects& objects) {
  GivenUp result = objects.empty() ? GivenUp::Nothing : GivenUp::All;
  for (const auto& object : objects) {
    const CZuError error = service.cache.discardStaged(object->key, object->version);
    if (!error.IsError() || isGone(error)) continue;
    DC_LOG(ObjectStore::LogLevel::Error, "Error: %s", error.AsString().c_str());
    if (!isGone(object->read(0, {}))) return GivenUp::Failed;
    result = GivenUp::NotForSure;
  }
  return result;
}

// For one that was read whole, so that older ones are of no more use; while one is there it must not come later.
CZuError giveUpOlder(Service& service, const ObjectStore::StagedObject& object) {
  // Whoever stages another is done with this one.
  const KxCriticalSectionLock lock(&service.keyLocks.of(object.key));
  StagedObjects older = service.cache.stagedObjects(object.key);
  const auto place =
      std::find_if(older.begin(), older.end(), [&](const auto& each) { return each.get() == &object; });
  const bool isNewest = place != older.end() && std::next(place) == older.end();
  older.erase(place, older.end());
  if (isNewest && discardAll(service, older) != GivenUp::Failed) return {};
  return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, EBUSY, "another object of this key is staged");
}

}  // namespace

StageResult stageObject(Service& service, const std::string& key, std::span<const std::byte> bytes,
                        Metadata kept, const Options& options) {
  const std::string etag = '"' + md5Of(bytes) + '"';
  kept["etag"] = etag;
  const KxCriticalSectionLock lock(&service.keyLocks.of(key));
  const StagedObjects before = service.cache.stagedObjects(key);
  const std::string version = freeVersion(before, etag);
  CZuError error = service.cache.stage(key, version, bytes, kept);
  if (error.IsError()) return {.error = std::move(error)};
  // Nobody sees it before the older ones are gone, as far as they can be.
  if (discardAll(service, before) == GivenUp::Failed) {
    (void)service.cache.discardStaged(key, version);
    return {.error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, EIO, "what it replaces can't be given up")};
  }
  service.index.change(key, describeStaged(std::move(kept), bytes.size(), version, options, Clock::now()));
  return {.etag = etag};
}

GivenUp giveUpStaged(Service& service, const StagedObjects& objects) {
  const GivenUp result = discardAll(service, objects);
  if (result == GivenUp::Nothing || result == GivenUp::Failed) return result;
  const std::string& key = objects.front()->key;
  const ObjectInfoPointer known = service.index.find(key);
  const auto isKnown = [&](const auto& object) {
    return known->isStaged && known->version == object->version;
  };
  if (known && std::any_of(objects.begin(), objects.end(), isKnown)) service.index.change(key, nullptr);
  return result;
}

// Where two are staged of a key, the older one's end was cut off, or it has come back with its volume.
void adoptStaged(Service& service) {
  for (const auto& object : service.cache.stagedObjects()) {
    service.index.change(object->key, describeStaged(object->metadata, object->size, object->version,
                                                     *service.options(), object->stagedAt));
  }
}

CZuError uploadStaged(Service& service, const ObjectStore::StagedObject& object) {
  const auto turn = service.keyTurns.wait(object.key);
  Spool spool;
  std::span<const std::byte> bytes;
  if (CZuError error = spoolObject(object, service.options()->root, spool, bytes); error.IsError()) {
    if (isGone(error)) return {};  // given up while this thread waited
    return error;
  }
  if (CZuError error = giveUpOlder(service, object); error.IsError()) return error;
  const OriginReply reply = service.origin.call(callFor(object, bytes));
  if (reply.isSuccess()) {
    markUploaded(service, object, reply);
    return {};
  }
  return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, reply.isTimeout ? ETIMEDOUT : EIO,
                                 "the store answers %u %s", reply.status, reply.error.c_str());
}

}  // namespace diskcached
