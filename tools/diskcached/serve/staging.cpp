#include "serve/staging.h"

#include <cerrno>
#include <memory>
#include <vector>

#include "origin/digest.h"
#include "serve/spool.h"

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

bool isReplaced(Service& service, const ObjectStore::StagedObject& object) {
  const ObjectInfoPointer known = service.index.find(object.key);
  return known && known->version != object.version;
}

// From now on the store's word counts; where it names the object alike, what is on disk stays of use.
void markUploaded(Service& service, const ObjectStore::StagedObject& object, const OriginReply& reply) {
  const KxCriticalSectionLock lock(&service.keyLocks.of(object.key));
  if (isReplaced(service, object)) return;
  if (headerOf(reply.headers, "etag") != object.version) return service.index.change(object.key, nullptr);
  auto info = std::make_shared<ObjectInfo>(
      describeObject(object.metadata, object.size, *service.options(), Clock::now()));
  service.index.change(object.key, std::move(info));
}

}  // namespace

StageResult stageObject(Service& service, const std::string& key, std::span<const std::byte> bytes,
                        Metadata kept, const Options& options) {
  const std::string etag = '"' + md5Of(bytes) + '"';
  kept["etag"] = etag;
  auto info = std::make_shared<ObjectInfo>(describeObject(kept, bytes.size(), options, Clock::now()));
  info->mayStore = info->isStaged = true;
  const KxCriticalSectionLock lock(&service.keyLocks.of(key));
  CZuError error = service.cache.stage(key, etag, bytes, kept);
  if (error.IsError()) return {.error = std::move(error)};
  service.index.change(key, std::move(info));
  if (const int errNo = service.index.sync(); errNo != 0)
    return {.error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, errNo, "the index can't be written")};
  return {.etag = etag};
}

CZuError uploadStaged(Service& service, const ObjectStore::StagedObject& object) {
  const auto turn = service.keyTurns.wait(object.key);
  {
    const KxCriticalSectionLock lock(
        &service.keyLocks.of(object.key));  // it may be on the way into the index
    if (isReplaced(service, object)) return {};
  }
  Spool spool;
  std::span<const std::byte> bytes;
  if (CZuError error = spoolObject(object, service.options()->root, spool, bytes); error.IsError())
    return error;
  const OriginReply reply = service.origin.call(callFor(object, bytes));
  if (reply.isSuccess()) {
    markUploaded(service, object, reply);
    return {};
  }
  return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, reply.isTimeout ? ETIMEDOUT : EIO,
                                 "the store answers %u %s", reply.status, reply.error.c_str());
}

}  // namespace diskcached
