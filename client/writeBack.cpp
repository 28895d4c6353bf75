#include "client/writeBack.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>

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
         const Metadata& itsMetadata, Age itsAge)
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

  uint32_t blocks() const { return static_cast<uint32_t>(blockCount(size, m_owner.m_options.blockSize)); }

  const ObjectId id;
  std::chrono::seconds pause{0};        // before the next try; belongs to the worker that has the object
  std::atomic<bool> isUploaded{false};  // and only to be made prunable
  bool isClaimed = false;               // belongs to the owner's lock

 private:
  WriteBack& m_owner;
};

CZuError WriteBack::Object::read(uint64_t offset, std::span<std::byte> out) const {
  if (offset > size || out.size() > size - offset) {
    return keyError(RM_CODE_LOCATION, EINVAL, key, "the range is not within the object");
  }
  if (!m_owner.isStaged(*this)) return keyError(RM_CODE_LOCATION, ENOENT, key, "is staged no more");
  const uint64_t blockSize = m_owner.m_options.blockSize;
  while (!out.empty()) {
    const uint64_t from = offset % blockSize;
    const size_t count = std::min<uint64_t>(out.size(), blockSize - from);
    const auto lookup = m_owner.m_store.open({id, static_cast<uint32_t>(offset / blockSize)}, key, version);
    if (!lookup.block || lookup.block->read(from, out.first(count), Verify::Always) != BytesAre::Right) {
      return m_owner.isStaged(*this) ? keyError(RM_CODE_LOCATION, EIO, key, "a staged block can't be read")
                                     : keyError(RM_CODE_LOCATION, ENOENT, key, "is staged no more");
    }
    offset += count;
    out = out.subspan(count);
  }
  return {};
}

WriteBack::ObjectPointer WriteBack::find(std::string_view key, std::string_view version) {
  const KxCriticalSectionLock lock(&m_lock);
  const auto [first, end] = m_objects.equal_range(key);
  const auto found =
      std::find_if(first, end, [&](const auto& each) { return each.second->version == version; });
  return found == end ? nullptr : found->second;
}

WriteBack::Objects::iterator WriteBack::positionLocked(const Object& object) {
  const auto [first, end] = m_objects.equal_range(object.key);
  const auto found = std::find_if(first, end, [&](const auto& each) { return each.second.get() == &object; });
  return found == end ? m_objects.end() : found;
}

bool WriteBack::isStaged(const Object& object) {
  const KxCriticalSectionLock lock(&m_lock);
  Waitable waitable{m_lock};
  while (object.isClaimed) m_changed.wait(waitable);
  return positionLocked(object) != m_objects.end();
}

bool WriteBack::claim(Object& object) {
  const KxCriticalSectionLock lock(&m_lock);
  Waitable waitable{m_lock};
  while (object.isClaimed) m_changed.wait(waitable);
  return object.isClaimed = positionLocked(object) != m_objects.end();
}

void WriteBack::unclaim(Object& object, bool isStagedStill) {
  ObjectPointer last;  // ends after the lock
  const KxCriticalSectionLock lock(&m_lock);
  object.isClaimed = false;
  if (!isStagedStill) {
    m_bytes -= object.size;
    m_ages.erase(m_ages.find(object.stagedAt));
    const auto position = positionLocked(object);
    last = std::move(position->second);
    m_objects.erase(position);
  }
  m_changed.notify_all();
}

class WriteBack::Claim {
 public:
  Claim(WriteBack& owner, Object& object) : m_owner(owner), m_object(object), m_isHeld(owner.claim(object)) {}
  ~Claim() {
    if (m_isHeld) m_owner.unclaim(m_object, isStagedStill);
  }
  Claim(const Claim&) = delete;
  Claim& operator=(const Claim&) = delete;

  explicit operator bool() const { return m_isHeld; }

  bool isStagedStill = true;

 private:
  WriteBack& m_owner;
  Object& m_object;
  const bool m_isHeld;
};

// All blocks are this thread's before it changes the first one: nobody fetches or drops one meanwhile. They are
// taken in order, so two that want those of one object do not wait for each other.
std::vector<std::unique_ptr<Flights::Flight>> WriteBack::takeBlocks(const Object& object) {
  std::vector<std::unique_ptr<Flights::Flight>> flights;
  for (uint32_t number = 0; number < object.blocks(); ++number)
    flights.push_back(m_flights.take({object.id, number}));
  return flights;
}

CZuError WriteBack::stage(std::string_view key, std::string_view version, std::span<const std::byte> bytes,
                          const Metadata& metadata) {
  const Age now = std::chrono::system_clock::now();
  const auto object = std::make_shared<Object>(*this, key, version, bytes.size(), metadata, now);
  const auto flights = takeBlocks(*object);
  if (const ObjectPointer known = find(key, version)) {
    const int rc = restore(*known, bytes);
    if (rc == 0) return {};
    if (rc != ENOENT) return keyError(RM_CODE_LOCATION, rc, key, "is staged already, and can't be mended");
  }
  std::vector<BlockId> stored;
  try {
    if (const int rc = storeBlocks(*object, bytes, stored); rc != 0) {
      takeBack(stored);
      return keyError(RM_CODE_LOCATION, rc, key, "can't be staged");
    }
    enter(object, Clock::now());
  } catch (...) {
    takeBack(stored);
    throw;
  }
  m_metrics.add(Count::stagedObjects);
  return {};
}

int WriteBack::restore(Object& object, std::span<const std::byte> bytes) {
  Claim claim(*this, object);
  if (!claim) return ENOENT;
  if (object.isUploaded) {  // and only its release fails: it is to be uploaded anew
    const int rc = discardBlocks(object);
    claim.isStagedStill = m_store.isStaged({object.id, 0});
    return rc == 0 ? ENOENT : rc;
  }
  if (object.size != bytes.size()) return ESTALE;
  std::vector<BlockId> stored;
  return storeBlocks(object, bytes, stored);
}

int WriteBack::storeBlocks(const Object& object, std::span<const std::byte> bytes,
                           std::vector<BlockId>& stored) {
  const uint64_t blockSize = m_options.blockSize;
  stored.reserve(object.blocks());
  for (uint32_t number = object.blocks(); number-- > 0;) {
    const auto payload = bytes.subspan(number * blockSize, payloadSizeOf(object.size, blockSize, number));
    const BlockContent content{{object.id, number}, object.key,      object.version,
                               object.size,         object.metadata, payload};
    if (const int rc = storeBlock(content, stored); rc != 0) return rc;
  }
  return 0;
}

// One that is there and sound stays as it is, and one that nobody can read now may be sound: it may be the only copy,
// of an object that this run does not know of while another block's volume is away.
int WriteBack::storeBlock(const BlockContent& content, std::vector<BlockId>& stored) {
  int rc = EEXIST;
  for (int attempt = 0; attempt < 2 && rc == EEXIST; ++attempt) {
    if (m_store.isStaged(content.id)) {
      const BytesAre state = m_store.checkStaged(content.id, content.key, content.version);
      if (state == BytesAre::Unreadable) return EIO;
      rc = state == BytesAre::Right ? m_store.syncStaged(content.id) : m_store.mendStaged(content);
      if (rc != ENOENT) return rc;
      rc = m_store.discardStaged(content.id, BlockStore::Durable::No);  // the record of it
      if (rc != 0) return rc;
    }
    m_store.drop(content.id);  // the prunable copy
    rc = m_store.store(content, BlockStore::Place::Staged);
    if (rc == 0) stored.push_back(content.id);
  }
  return rc;
}

// The first block was stored last, and goes first.
void WriteBack::takeBack(const std::vector<BlockId>& stored) {
  for (auto id = stored.rbegin(); id != stored.rend(); ++id)
    (void)m_store.discardStaged(*id, id->number == 0 ? BlockStore::Durable::Yes : BlockStore::Durable::No);
}

CZuError WriteBack::discard(std::string_view key, std::string_view version) {
  const ObjectPointer object = find(key, version);
  const auto flights = object ? takeBlocks(*object) : std::vector<std::unique_ptr<Flights::Flight>>();
  return object ? discard(*object) : keyError(RM_CODE_LOCATION, ENOENT, key, "is not staged");
}

CZuError WriteBack::discard(Object& object) {
  Claim claim(*this, object);
  if (!claim) return keyError(RM_CODE_LOCATION, ENOENT, object.key, "is not staged");
  const int rc = discardBlocks(object);
  claim.isStagedStill = m_store.isStaged({object.id, 0});
  return rc == 0 ? CZuError() : keyError(RM_CODE_LOCATION, rc, object.key, "can't be given up");
}

// A block that stays behind the first one goes at the next start.
int WriteBack::discardBlocks(const Object& object) try {
  const int rc = m_store.discardStaged({object.id, 0}, BlockStore::Durable::Yes);
  if (m_store.isStaged({object.id, 0})) return rc;
  for (uint32_t number = 1; number < object.blocks(); ++number)
    (void)m_store.discardStaged({object.id, number}, BlockStore::Durable::No);
  return rc;
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

std::vector<std::shared_ptr<const StagedObject>> WriteBack::list(std::optional<std::string_view> key) {
  std::vector<std::shared_ptr<const StagedObject>> objects;
  {
    const KxCriticalSectionLock lock(&m_lock);
    const auto [first, end] =
        key ? m_objects.equal_range(*key) : std::pair(m_objects.begin(), m_objects.end());
    for (auto at = first; at != end; ++at) objects.push_back(at->second);
  }
  std::sort(objects.begin(), objects.end(),
            [](const auto& a, const auto& b) { return a->stagedAt < b->stagedAt; });
  return objects;
}

void WriteBack::adopt(const BlockTrailer& trailer) {
  enter(std::make_shared<Object>(*this, trailer.key, trailer.version, trailer.objectSize, trailer.metadata,
                                 Age::clock::from_time_t(static_cast<time_t>(trailer.madeAt))),
        Clock::time_point::min());
}

void WriteBack::enter(const ObjectPointer& object, Clock::time_point due) {
  const KxCriticalSectionLock lock(&m_lock);
  const std::string_view key = object->key;
  const auto age = m_ages.insert(object->stagedAt);
  try {
    m_due.emplace(std::pair(due, object->stagedAt), object);
    m_objects.emplace(key, object);
  } catch (...) {
    m_ages.erase(age);
    throw;
  }
  m_bytes += object->size;
  m_changed.notify_all();
}

CZuError WriteBack::flush(Upload upload, unsigned parallel) {
  const Clock::time_point began = Clock::now();
  if (parallel == 0) {
    CZuError first;
    while (Queue::node_type object = take(true, began)) {
      const CZuError error = takeTurn(std::move(object), upload);
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
  while (Queue::node_type object = take(false, {})) (void)takeTurn(std::move(object), upload);
}

CZuError WriteBack::takeTurn(Queue::node_type&& object, const Upload& upload) {
  CZuError error;
  try {
    error = uploadOne(*object.mapped(), upload);
  } catch (const std::bad_alloc&) {
    error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOMEM);
  }
  if (error.IsError()) tryLater(std::move(object));
  return error;
}

WriteBack::Queue::node_type WriteBack::take(bool isSinglePass, Clock::time_point passBegan) {
  const KxCriticalSectionLock lock(&m_lock);
  Waitable waitable{m_lock};
  while (!m_stop) {
    const Clock::time_point now = isSinglePass ? passBegan : Clock::now();
    if (!m_due.empty() && m_due.begin()->first.first <= now) {
      Queue::node_type object = m_due.extract(m_due.begin());
      if (positionLocked(*object.mapped()) == m_objects.end()) continue;
      return object;
    }
    if (isSinglePass) return {};
    if (m_due.empty()) {
      m_changed.wait(waitable);
    } else {
      const Clock::time_point due = m_due.begin()->first.first;
      m_changed.wait_until(waitable, due);
    }
  }
  return {};
}

// What the store has is not given to it again: others may have changed it there since.
CZuError WriteBack::uploadOne(Object& object, const Upload& upload) {
  CZuError error;
  try {
    if (!object.isUploaded) error = upload(object);
    object.isUploaded = !error.IsError();
    if (object.isUploaded) error = makePrunable(object);
  } catch (...) {
    error = keyError(RM_CODE_LOCATION, EIO, object.key, "the upload threw");
  }
  if (!error.IsError() || !isStaged(object)) return {};
  m_metrics.add(Count::failedUploads);
  DC_LOG(LogLevel::Error, "Error: upload of [%s] failed: %s", object.key.c_str(), error.AsString().c_str());
  return error;
}

CZuError WriteBack::makePrunable(Object& object) {
  Claim claim(*this, object);
  if (!claim) return {};
  const int rc = release(object);
  if (rc == 0) m_metrics.add(Count::uploadedObjects);  // before anybody sees that it is done
  claim.isStagedStill = rc != 0;
  return rc == 0 ? CZuError() : keyError(RM_CODE_LOCATION, rc, object.key, "can't be made prunable");
}

// The first block's move is durable: a power cut must not bring back what may have been replaced at the store.
int WriteBack::release(const Object& object) {
  using Durable = BlockStore::Durable;
  for (uint32_t number = 0; number < object.blocks(); ++number) {
    const int rc = m_store.release({object.id, number}, number == 0 ? Durable::Yes : Durable::No);
    if (rc != 0) return rc;
  }
  return 0;
}

void WriteBack::tryLater(Queue::node_type&& object) {
  const KxCriticalSectionLock lock(&m_lock);
  std::chrono::seconds& pause = object.mapped()->pause;
  pause = std::clamp(pause * 2, FIRST_PAUSE, LONGEST_PAUSE);
  object.key().first = Clock::now() + pause;
  m_due.insert(std::move(object));
  m_changed.notify_all();
}

StagedStatus WriteBack::status() {
  const KxCriticalSectionLock lock(&m_lock);
  StagedStatus status{m_objects.size(), m_bytes, {}};
  if (!m_ages.empty()) {
    const Age now = std::chrono::system_clock::now();
    status.oldest = std::chrono::duration_cast<std::chrono::seconds>(now - *m_ages.begin());
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
