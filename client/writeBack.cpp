#include "client/writeBack.h"

#include <algorithm>
#include <cerrno>

#include "client/cacheState.h"
#include "client/waitable.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr std::chrono::seconds FIRST_PAUSE(1), LONGEST_PAUSE(64);

}  // namespace

class WriteBack::Object final : public StagedObject {
 public:
  Object(WriteBack& owner, std::string_view itsKey, std::string_view itsVersion, uint64_t itsSize,
         const Metadata& itsMetadata, Clock::time_point itsAge)
      : id(objectIdOf(itsKey, itsVersion)), m_owner(owner) {
    key = itsKey;
    version = itsVersion;
    size = itsSize;
    metadata = itsMetadata;
    stagedAt = itsAge;
  }
  virtual ~Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  CZuError read(uint64_t offset, std::span<std::byte> out) const override;

  uint32_t blocks() const {
    const uint64_t blockSize = m_owner.m_options.blockSize;
    return static_cast<uint32_t>(std::max<uint64_t>((size + blockSize - 1) / blockSize, 1));
  }

  const ObjectId id;
  std::chrono::seconds pause{0};  // before the next try; belongs to the worker that has the object

 private:
  WriteBack& m_owner;
};

CZuError WriteBack::Object::read(uint64_t offset, std::span<std::byte> out) const {
  if (offset > size || out.size() > size - offset) {
    return keyError(RM_CODE_LOCATION, EINVAL, key, "the range is not within the object");
  }
  const uint64_t blockSize = m_owner.m_options.blockSize;
  while (!out.empty()) {
    const uint64_t from = offset % blockSize;
    const size_t count = std::min<uint64_t>(out.size(), blockSize - from);
    const auto lookup = m_owner.m_store.open({id, static_cast<uint32_t>(offset / blockSize)}, key, version);
    if (!lookup.block || lookup.block->read(from, out.first(count), Verify::Always) != BytesAre::Right) {
      return keyError(RM_CODE_LOCATION, EIO, key, "a staged block can't be read");
    }
    offset += count;
    out = out.subspan(count);
  }
  return {};
}

bool WriteBack::isStaged(const ObjectId& id) {
  const KxCriticalSectionLock lock(&m_lock);
  return m_objects.contains(id);
}

CZuError WriteBack::stage(std::string_view key, std::string_view version, std::span<const std::byte> bytes,
                          const Metadata& metadata) {
  const auto object = std::make_shared<Object>(*this, key, version, bytes.size(), metadata, Clock::now());
  // All blocks are this thread's before it writes the first one: nobody fetches or drops one meanwhile. They are
  // taken in order, so two that stage one object do not wait for each other.
  std::vector<std::unique_ptr<Flights::Flight>> flights;
  for (uint32_t number = 0; number < object->blocks(); ++number)
    flights.push_back(m_flights.take({object->id, number}));
  if (isStaged(object->id)) return {};
  if (const int rc = storeBlocks(*object, bytes); rc != 0) {
    for (uint32_t number = 0; number < object->blocks(); ++number)
      m_store.discardStaged({object->id, number});
    return keyError(RM_CODE_LOCATION, rc, key, "can't be staged");
  }
  enter(object);
  m_metrics.add(Count::stagedObjects);
  return {};
}

int WriteBack::storeBlocks(Object& object, std::span<const std::byte> bytes) {
  const uint64_t blockSize = m_options.blockSize;
  for (uint32_t number = object.blocks(); number-- > 0;) {
    const BlockId id{object.id, number};
    m_store.drop(id);  // the prunable copy
    const auto payload = bytes.subspan(number * blockSize, payloadSizeOf(object.size, blockSize, number));
    const BlockContent content{id, object.key, object.version, object.size, object.metadata, payload};
    if (const int rc = m_store.store(content, BlockStore::Place::Staged); rc != 0) return rc;
  }
  return 0;
}

void WriteBack::adopt(const BlockTrailer& first) {
  enter(std::make_shared<Object>(*this, first.key, first.version, first.objectSize, first.metadata,
                                 Clock::from_time_t(static_cast<time_t>(first.madeAt))));
}

void WriteBack::enter(ObjectPointer object) {
  const KxCriticalSectionLock lock(&m_lock);
  m_bytes += object->size;
  m_ages.insert(object->stagedAt);
  m_due.emplace(object->stagedAt, object);
  m_objects.emplace(object->id, std::move(object));
  m_changed.notify_all();
}

CZuError WriteBack::flush(Upload upload, unsigned parallel) {
  const Clock::time_point began = Clock::now();
  if (parallel == 0) {
    CZuError first;
    while (const ObjectPointer object = take(true, began)) {
      const CZuError error = uploadOne(*object, upload);
      giveBack(object, !error.IsError());
      if (error.IsError() && !first.IsError()) first = error;
    }
    return first;
  }
  const KxCriticalSectionLock lock(&m_lock);
  if (!m_workers.empty())
    return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, EALREADY, "flush workers run already");
  const auto shared = std::make_shared<const Upload>(std::move(upload));
  try {
    for (unsigned i = 0; i < parallel; ++i) m_workers.emplace_back([this, shared] { work(*shared); });
  } catch (const std::system_error& error) {
    if (m_workers.empty()) {
      return RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, error.code().value(),
                                     "no flush worker can be started");
    }
  }
  return {};
}

void WriteBack::work(const Upload& upload) {
  while (const ObjectPointer object = take(false, {})) {
    giveBack(object, !uploadOne(*object, upload).IsError());
  }
}

WriteBack::ObjectPointer WriteBack::take(bool isSinglePass, Clock::time_point passBegan) {
  const KxCriticalSectionLock lock(&m_lock);
  Waitable waitable{m_lock};
  while (!m_stop) {
    const Clock::time_point now = isSinglePass ? passBegan : Clock::now();
    if (!m_due.empty() && m_due.begin()->first <= now) {
      ObjectPointer object = std::move(m_due.begin()->second);
      m_due.erase(m_due.begin());
      return object;
    }
    if (isSinglePass) return nullptr;
    if (m_due.empty()) {
      m_changed.wait(waitable);
    } else {
      const Clock::time_point due = m_due.begin()->first;
      m_changed.wait_until(waitable, due);
    }
  }
  return nullptr;
}

CZuError WriteBack::uploadOne(Object& object, const Upload& upload) {
  CZuError error;
  try {
    error = upload(object);
  } catch (...) {
    error = keyError(RM_CODE_LOCATION, EIO, object.key, "the upload threw");
  }
  if (!error.IsError()) {
    const int rc = release(object);
    if (rc == 0) {
      m_metrics.add(Count::uploadedObjects);
      return {};
    }
    error = keyError(RM_CODE_LOCATION, rc, object.key, "can't be made prunable");
  }
  m_metrics.add(Count::failedUploads);
  DC_LOG(LogLevel::Error, "Error: upload of [%s] failed: %s", object.key.c_str(), error.AsString().c_str());
  return error;
}

int WriteBack::release(const Object& object) {
  for (uint32_t number = 0; number < object.blocks(); ++number) {
    if (const int rc = m_store.release({object.id, number}); rc != 0) return rc;
  }
  return 0;
}

void WriteBack::giveBack(const ObjectPointer& object, bool isUploaded) {
  const KxCriticalSectionLock lock(&m_lock);
  if (isUploaded) {
    m_bytes -= object->size;
    m_ages.erase(m_ages.find(object->stagedAt));
    m_objects.erase(object->id);
  } else {
    object->pause = std::clamp(object->pause * 2, FIRST_PAUSE, LONGEST_PAUSE);
    m_due.emplace(Clock::now() + object->pause, object);
  }
  m_changed.notify_all();
}

StagedStatus WriteBack::status() {
  const KxCriticalSectionLock lock(&m_lock);
  StagedStatus status{m_objects.size(), m_bytes, {}};
  if (!m_ages.empty()) {
    status.oldest = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - *m_ages.begin());
  }
  return status;
}

bool WriteBack::drained(std::chrono::steady_clock::time_point deadline) {
  const KxCriticalSectionLock lock(&m_lock);
  Waitable waitable{m_lock};
  while (!m_objects.empty()) {
    if (m_changed.wait_until(waitable, deadline) == std::cv_status::timeout) return m_objects.empty();
  }
  return true;
}

void WriteBack::stop() {
  std::vector<std::thread> workers;
  {
    const KxCriticalSectionLock lock(&m_lock);
    m_stop = true;
    workers.swap(m_workers);
    m_changed.notify_all();
  }
  for (std::thread& worker : workers) worker.join();
}

}  // namespace ObjectStore
