#include "client/blockStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "client/descriptor.h"
#include "client/volumeMarkers.h"
#include "diskcache/segmentFormat.h"
#include "support/log.h"

namespace ObjectStore {

namespace {

constexpr int CREATE_ATTEMPTS = 4;
constexpr uint64_t PAGE = 4096;
constexpr const char* ENGINE_TEMPORARY = ".temp";  // of a replacement

DiskCacheContext contextOf(BlockStore::Place place, VolIndex volume) {
  DiskCacheContext context;
  context.dir = BLOCKS_DIR;
  context.volume = volume;
  if (place == BlockStore::Place::Staged) {
    context.nonprunableDir = STAGED_DIR;
    context.useNonPrunableDir = true;
  }
  return context;
}

Section sectionOf(int32_t type, std::span<const std::byte> bytes) {
  Section section;
  section.type = type;
  section.subType = TRAILER_FORMAT;
  section.len = section.bufferSize = bytes.size();
  // The writing operations never write to it.
  section.data = reinterpret_cast<unsigned char*>(const_cast<std::byte*>(bytes.data()));
  return section;
}

std::vector<Section> sectionsOf(const BlockContent& content, const std::vector<std::byte>& trailer) {
  std::vector<Section> sections;  // none may be empty
  if (!content.payload.empty()) sections.push_back(sectionOf(PAYLOAD_SECTION, content.payload));
  sections.push_back(sectionOf(TRAILER_SECTION, trailer));
  return sections;
}

// What a file takes on its disk; 0 when there is none.
uint64_t spaceAt(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0
             ? std::max<uint64_t>(static_cast<uint64_t>(status.st_blocks) * 512, 1)
             : 0;
}

// What a file of these bytes may take, its file system's own records included.
uint64_t spaceFor(uint64_t bytes) { return (bytes + PAGE - 1) / PAGE * PAGE + PAGE; }

BlockStore::Found foundBy(int errNo) {
  switch (errNo) {
    case ENOENT:
    case ENOTDIR: return BlockStore::Found::Nothing;
    case EINVAL:
    case ELOOP: return BlockStore::Found::Broken;
    case EIO: return BlockStore::Found::Unfinished;
    default: return BlockStore::Found::Trouble;
  }
}

constexpr size_t SMALL_TRAILER = 2048;

// `place` has read the front of the trailer, which is all of a small one.
std::optional<BlockTrailer> readTrailer(int fd, const SectionPlace& place) {
  if (!place.found || place.len > MAX_TRAILER_SIZE) return {};
  const std::span<const unsigned char> front(place.data, place.read);
  if (place.read == place.len) return decodeTrailer(std::as_bytes(front));
  std::vector<std::byte> bytes(place.len);
  const ssize_t got = pread(fd, bytes.data(), bytes.size(), static_cast<off_t>(place.offset));
  if (got != static_cast<ssize_t>(bytes.size())) return {};
  return decodeTrailer(bytes);
}

bool isOf(const BlockTrailer& trailer, const BlockId& id) {
  return trailer.number == id.number && objectIdOf(trailer.key, trailer.version) == id.object;
}

// Where a trailer's record may begin, by its magic number, the last one first; what is meant to mislead is not followed
// for long.
std::vector<uint64_t> recordsIn(std::span<const std::byte> tail) {
  constexpr size_t MOST = 8;
  const std::string_view text(reinterpret_cast<const char*>(tail.data()), tail.size());
  std::vector<uint64_t> places;
  for (size_t at = text.rfind(TRAILER_MAGIC);
       at != text.npos && at >= SECTION_DESC_SIZE && places.size() < MOST;
       at = text.rfind(TRAILER_MAGIC, at - 1))
    places.push_back(at - SECTION_DESC_SIZE);
  return places;
}

// 0, or why not; a disk's error may come late.
int readAll(int fd, std::span<std::byte> to, uint64_t from) {
  while (!to.empty()) {
    errno = 0;
    const ssize_t got = pread(fd, to.data(), to.size(), static_cast<off_t>(from));
    if (got <= 0) return errno != 0 ? errno : EIO;
    from += static_cast<uint64_t>(got);
    to = to.subspan(static_cast<size_t>(got));
  }
  return 0;
}

unsigned char* plain(std::byte* bytes) { return reinterpret_cast<unsigned char*>(bytes); }

int syncDirectoryOf(const std::string& path) {
  errno = 0;
  const Descriptor dir(::open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return dir.fd >= 0 && fsync(dir.fd) == 0 ? 0 : errno != 0 ? errno : EIO;
}

// A file's name is on disk when its directory is, up to the volume.
int syncDirectories(std::string path, const std::string& root) {
  for (; path.size() > root.size(); path.resize(path.rfind('/'))) {
    if (const int rc = syncDirectoryOf(path); rc != 0) return rc;
  }
  return 0;
}

}  // namespace

bool BlockStore::isKnown(const BlockId& id) {
  if (isStaged(id) || m_hot.find(id).block) return true;
  VolIndex volume = 0;
  return m_engine.findVolume(blockName(id), volume);
}

bool BlockStore::locate(const BlockId& id, const guid_t& name, DiskCacheContext& context) {
  if (const auto volume = m_room.staged.find(id)) {
    context = contextOf(Place::Staged, *volume);
    return true;
  }
  context = contextOf(Place::Prunable, 0);
  return m_engine.findVolume(name, context.volume);
}

BlockStore::Lookup BlockStore::open(const BlockId& id, std::string_view key, std::string_view version,
                                    std::span<std::byte> front) {
  const guid_t name = blockName(id);
  DiskCacheContext context;
  if (locate(id, name, context)) return openIn(context, name, id, key, version, front);
  if (m_options.mode == PruningMode::Lru) return {};
  // There the list forgets what it has no place for.
  for (const VolIndex volume : m_volumes.indexes()) {
    context.volume = volume;
    Lookup lookup = openIn(context, name, id, key, version, front);
    if (lookup.found == Found::Nothing) continue;
    (void)m_engine.remember(context, name);  // it fails for want of memory: the next start finds the block
    return lookup;
  }
  return {};
}

struct BlockStore::Opened {
  Found found = Found::Nothing;
  Descriptor file;
  uint64_t offset = 0;  // of the payload
  uint64_t size = 0;
  size_t read = 0;                      // bytes of the payload's front
  std::optional<BlockTrailer> trailer;  // there when found is Whole
};

BlockStore::Opened BlockStore::openFile(const DiskCacheContext& context, const guid_t& name,
                                        std::span<std::byte> front) {
  Opened opened;
  std::array<unsigned char, SMALL_TRAILER> trailer;
  thread_local std::vector<SectionPlace> places(2);
  SectionPlace &payload = places[0], &last = places[1];
  payload.type = PAYLOAD_SECTION;
  payload.data = front.empty() ? nullptr : plain(front.data());
  payload.bufferSize = front.size();
  last.type = TRAILER_SECTION;
  last.data = trailer.data();
  last.bufferSize = trailer.size();
  const CZuError error = m_engine.openSection(opened.file.fd, places, context, name);
  if (error.IsError()) {
    opened.found = foundBy(RMErrorUtil::GetErrNo(error));
    if (opened.found == Found::Trouble) m_metrics.add(Count::diskErrors);
    return opened;
  }
  opened.offset = payload.offset;
  opened.size = payload.len;
  opened.read = payload.read;
  opened.trailer = readTrailer(opened.file.fd, last);
  opened.found = opened.trailer ? Found::Whole : last.found ? Found::Broken : Found::Unfinished;
  return opened;
}

BlockStore::Lookup BlockStore::openIn(const DiskCacheContext& context, const guid_t& name, const BlockId& id,
                                      std::string_view key, std::string_view version,
                                      std::span<std::byte> front) {
  Opened opened = openFile(context, name, front);
  if (opened.found != Found::Whole) return {opened.found, nullptr, 0};
  const BlockTrailer& trailer = *opened.trailer;
  const bool isIt = trailer.number == id.number && trailer.payloadSize == opened.size && trailer.key == key &&
                    trailer.version == version;
  if (!isIt) return {Found::Broken, nullptr, 0};
  if (trailer.blockSize != m_options.blockSize) return {Found::Outdated, nullptr, 0};
  auto block =
      std::make_shared<OpenBlock>(opened.file.fd, opened.offset, id, name, std::move(*opened.trailer));
  opened.file.release();
  return {Found::Whole, std::move(block), opened.read};
}

// Of a block that can't be opened. The header is written first, and the front of the trailer's record last: a kill
// leaves that away, and a power cut may leave zeros for either or for the trailer's end. A damaged number does not hide
// the record: it is looked for, too.
BlockStore::Adopted BlockStore::salvage(const std::string& path, const BlockId& id) {
  SegmentHeader header;
  struct stat status {};
  errno = 0;
  const int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  int fd = ::open(path.c_str(), flags | O_NOATIME);
  if (fd < 0 && errno == EPERM) fd = ::open(path.c_str(), flags);  // another user's
  const Descriptor file(fd);
  if (file.fd < 0 || fstat(file.fd, &status) != 0) return {.errNo = errno};
  const auto size = static_cast<uint64_t>(status.st_size);
  if (size <= sizeof header) return {Adopted::Unfinished};
  const uint64_t tailAt = size - std::min(size - sizeof header, SECTION_DESC_SIZE + MAX_TRAILER_SIZE);
  std::vector<std::byte> tail(size - tailAt);
  if (const int rc = readAll(file.fd, std::as_writable_bytes(std::span(&header, 1)), 0); rc != 0)
    return {.errNo = rc};
  if (const int rc = readAll(file.fd, tail, tailAt); rc != 0) return {.errNo = rc};

  const bool isWritten = header.magic != 0 || header.version != 0;
  bool isFinished = isWritten && (header.magic != DISK_CACHE_MAGIC || header.version != DISK_CACHE_VERSION);
  auto places = recordsIn(tail);
  places.push_back(header.sectionOffset[TRAILER_SECTION] - tailAt);
  for (const uint64_t at : places) {
    if (at >= tail.size() || tail.size() - at <= SECTION_DESC_SIZE) continue;
    SectionDesc front;
    std::memcpy(&front, &tail[at], sizeof front);
    if (front.type == 0 && front.subType == 0 && front.len == 0) continue;
    const auto bytes = std::span(tail).subspan(at + SECTION_DESC_SIZE);
    if (auto trailer = decodeTrailer(bytes); trailer && isOf(*trailer, id))
      return {Adopted::Damaged, std::move(trailer)};
    const auto end = bytes.last(std::min(bytes.size(), sizeof(uint64_t)));
    const bool hasEnd =
        std::any_of(end.begin(), end.end(), [](std::byte byte) { return byte != std::byte{}; });
    isFinished = isFinished || (front.len == bytes.size() && hasEnd);
  }
  return {isFinished ? Adopted::Damaged : Adopted::Unfinished};
}

BlockStore::Adopted BlockStore::adoptStaged(const BlockId& id, VolIndex volume) {
  m_room.staged.insert(id, volume);
  const guid_t name = blockName(id);
  auto trailer = openFile(contextOf(Place::Staged, volume), name, {}).trailer;
  if (trailer && isOf(*trailer, id)) return {Adopted::Whole, std::move(trailer)};
  return salvage(m_engine.guid2path(name, volume, STAGED_DIR), id);
}

BytesAre BlockStore::checkStaged(const BlockId& id, std::string_view key, std::string_view version) {
  const auto volume = m_room.staged.find(id);
  if (!volume) return BytesAre::Damaged;
  const guid_t name = blockName(id);
  for (bool isSecond = false;; isSecond = true) {
    const auto [found, block, read] = openIn(contextOf(Place::Staged, *volume), name, id, key, version, {});
    if (block) return block->check(0, block->trailer().payloadSize, Verify::Always);
    bool canTell = found != Found::Trouble;
    if (found == Found::Nothing) {
      canTell = m_volumes.isThere(*volume);
    } else if (canTell) {
      canTell = salvage(m_engine.guid2path(name, *volume, STAGED_DIR), id).state != Adopted::Unknown;
    }
    if (!canTell) return BytesAre::Unreadable;
    if (isSecond) return BytesAre::Damaged;  // also now that the disk has told all
  }
}

int BlockStore::syncStaged(const BlockId& id) {
  const auto volume = m_room.staged.find(id);
  if (!volume) return ENOENT;
  const std::string path = m_engine.guid2path(blockName(id), *volume, STAGED_DIR);
  errno = 0;
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (file.fd < 0 || fsync(file.fd) != 0) return errno != 0 ? errno : EIO;
  if (const int rc = syncDirectories(path, m_volumes.rootOf(path).dir); rc != 0) return rc;
  return m_volumes.isThere(*volume) ? 0 : EIO;
}

int BlockStore::mendStaged(const BlockContent& content) {
  const auto volume = m_room.staged.find(content.id);
  const guid_t name = blockName(content.id);
  const std::string path = volume ? m_engine.guid2path(name, *volume, STAGED_DIR) : "";
  const uint64_t before = spaceAt(path);
  if (before == 0) return ENOENT;
  const std::vector<std::byte> trailer = trailerOf(content);
  if (trailer.empty()) return EFBIG;
  ByteAccount::Grant grant(m_account);
  if (!m_room.make(grant, spaceFor(content.payload.size() + trailer.size()))) return ENOSPC;
  m_verified.erase(content.id);
  DiskCacheContext context = contextOf(Place::Prunable, *volume);
  context.dir = STAGED_DIR;
  const CZuError error = m_engine.replaceSegment(context, name, sectionsOf(content, trailer));
  m_engine.forget(name);
  m_hot.erase(content.id);
  if (error.IsError()) {
    unlink((path + ENGINE_TEMPORARY).c_str());
    return RMErrorUtil::GetErrNo(error) != 0 ? RMErrorUtil::GetErrNo(error) : ENOSPC;
  }
  grant.settle(*volume, spaceAt(path));
  m_account.subtract(*volume, before);
  return syncStaged(content.id);
}

void BlockStore::removeStagedCopy(const BlockId& id, VolIndex volume) {
  const guid_t name = blockName(id);
  const std::string path = m_engine.guid2path(name, volume, STAGED_DIR);
  const bool isGone = m_room.remove(name, volume, STAGED_DIR) > 0;
  if (isGone && syncDirectoryOf(path) == 0) return;
  DC_LOG(LogLevel::Error, "Error: [%s] lies on another volume too, and may be uploaded twice", path.c_str());
}

// Empty when it would be too long.
std::vector<std::byte> BlockStore::trailerOf(const BlockContent& content) const {
  BlockTrailer trailer;
  trailer.number = content.id.number;
  trailer.blockSize = m_options.blockSize;
  trailer.objectSize = content.objectSize;
  trailer.payloadSize = content.payload.size();
  trailer.madeAt = static_cast<uint64_t>(time(nullptr));
  trailer.checksums = checksumsOf(content.payload);
  trailer.key = content.key;
  trailer.version = content.version;
  trailer.metadata = content.metadata;
  return encodeTrailer(trailer);
}

int BlockStore::store(const BlockContent& content, Place place) {
  const std::vector<std::byte> bytes = trailerOf(content);
  if (bytes.empty()) return EFBIG;
  const uint64_t space = spaceFor(content.payload.size() + bytes.size());
  m_verified.erase(content.id);
  const BlockSet::Member writing(m_room.writing, content.id);
  int rc = ENOSPC;
  for (int attempt = 0; attempt < CREATE_ATTEMPTS; ++attempt) {
    ByteAccount::Grant grant(m_account);
    if (!m_room.make(grant, space)) break;
    rc = create(content, bytes, place, grant);
    const bool isInTheWay = rc == EEXIST && place == Place::Prunable;
    const bool isWorthAnother = rc == ENOSPC ? m_room.freeBytes(space) : isInTheWay || rc == ENOENT;
    if (!isWorthAnother) break;
  }
  if (rc == 0) {
    m_metrics.add(Count::storedBlocks);
    m_metrics.add(Count::storedBytes, content.payload.size());
  }
  if (rc != 0) m_metrics.add(rc == ENOSPC ? Count::refusedForRoom : Count::refusedByDisk);
  return rc;
}

// One attempt, with nothing left behind when it fails.
int BlockStore::create(const BlockContent& content, const std::vector<std::byte>& trailer, Place place,
                       ByteAccount::Grant& grant) {
  const bool isStaging = place == Place::Staged;
  const guid_t name = blockName(content.id);
  m_engine.forget(name);  // a volume that the list remembers from before would stay
  const std::vector<Section> sections = sectionsOf(content, trailer);
  DiskCacheContext context = contextOf(place, 0);
  int rc = 0;
  try {
    const CZuError error = m_engine.createSegment(context, name, sections, isStaging, isStaging, false);
    rc = RMErrorUtil::GetErrNo(error);
    if (error.IsError() && rc == 0) rc = ENOSPC;  // the last bytes of a disk took a part
    if (rc == 0) rc = finish(content, name, context.volume, place, grant);
  } catch (const std::bad_alloc&) {
    rc = ENOMEM;
  }
  if (rc == 0) return 0;
  m_engine.forget(name);
  if (rc == EEXIST && isStaging) {  // maybe the only copy
    m_room.staged.insert(content.id, context.volume);
    m_account.add(context.volume, spaceAt(m_engine.guid2path(name, context.volume, STAGED_DIR)));
  } else if (rc == EEXIST) {
    removeEverywhere(name);
  } else {
    m_room.staged.erase(content.id);
    m_room.discard(name, context.volume, isStaging ? STAGED_DIR : BLOCKS_DIR);
  }
  return rc;
}

// Counts what the new file takes and says where it is: in the list, or staged.
int BlockStore::finish(const BlockContent& content, const guid_t& name, VolIndex volume, Place place,
                       ByteAccount::Grant& grant) {
  const bool isStaging = place == Place::Staged;
  const std::string path = m_engine.guid2path(name, volume, isStaging ? STAGED_DIR : BLOCKS_DIR);
  if (isStaging) {
    if (const int rc = syncDirectories(path, m_volumes.rootOf(path).dir); rc != 0) return rc;
    if (!m_volumes.isThere(volume)) return EIO;  // it lies where the volume was mounted until now
  }
  const uint64_t space = spaceAt(path);
  if (space == 0) return EIO;
  if (isStaging) m_room.staged.insert(content.id, volume);
  grant.settle(volume, space);
  if (isStaging) {
    m_engine.forget(name);
    return 0;
  }
  // The list may have asked about the block while it was written, and forgotten it then.
  m_room.writing.erase(content.id);
  (void)m_engine.remember(contextOf(place, volume),
                          name);  // it fails for want of memory: the next start finds the block
  return 0;
}

void BlockStore::removeEverywhere(const guid_t& name) {
  for (const VolIndex volume : m_volumes.indexes()) m_room.remove(name, volume, BLOCKS_DIR);
}

void BlockStore::drop(const BlockId& id) {
  if (isStaged(id)) return;
  const guid_t name = blockName(id);
  m_engine.forget(name);  // from here on no callback gives it up beside us
  m_hot.erase(id);
  removeEverywhere(name);
}

int BlockStore::release(const BlockId& id, Durable durable) {
  const guid_t name = blockName(id);
  VolIndex volume = 0;
  if (const auto staged = m_room.staged.find(id)) {
    volume = *staged;
    const CZuError error = m_engine.moveToPrunable(contextOf(Place::Staged, volume), name);
    if (error.IsError()) return RMErrorUtil::GetErrNo(error) != 0 ? RMErrorUtil::GetErrNo(error) : EIO;
    if (!m_volumes.isThere(volume)) return EIO;
    m_room.staged.erase(id);
    (void)m_engine.remember(contextOf(Place::Prunable, volume),
                            name);  // it fails for want of memory: the next start finds the block
  } else if (!m_engine.findVolume(name, volume)) {
    return 0;
  }
  return durable == Durable::Yes ? syncDirectoryOf(m_engine.guid2path(name, volume, STAGED_DIR)) : 0;
}

int BlockStore::discardStaged(const BlockId& id, Durable durable) {
  const auto volume = m_room.staged.find(id);
  if (!volume) return 0;
  const guid_t name = blockName(id);
  const std::string path = m_engine.guid2path(name, *volume, STAGED_DIR);
  m_room.remove(name, *volume, STAGED_DIR);
  struct stat status {};
  errno = 0;
  if (lstat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR))
    return errno != 0 ? errno : EIO;
  if (!m_volumes.isThere(*volume)) return EIO;  // and what lies there comes back with it
  m_room.staged.erase(id);
  m_hot.erase(id);  // who found it staged until now may have entered it
  return durable == Durable::Yes ? syncDirectoryOf(path) : 0;
}

}  // namespace ObjectStore
