#include "floor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "diskcache/segmentFormat.h"
#include "frame.h"

using namespace ObjectStore;

namespace bench {

Place placeOf(const std::string& volume, const std::string& guid) {
  const std::string dir =
      volume + '/' + CONTEXT_DIR + '/' + guid.substr(0, 2) + '/' + guid.substr(2, 2) + '/';
  return {dir + '.', dir + guid};
}

namespace floor {

void makeDirectory(const Place& place) { std::filesystem::create_directories(place.probe); }

void create(const std::string& volume, const Place& place, Bytes payload, bool isSynced) {
  struct statvfs space {};
  statvfs(volume.c_str(), &space);
  mkdir(place.probe.c_str(), 0700);
  require(access(place.path.c_str(), F_OK) != 0, "access");
  const int fd = open(place.path.c_str(), O_WRONLY | O_CREAT | O_NOATIME | O_CLOEXEC, 0600);
  SegmentHeader header;
  header.magic = DISK_CACHE_MAGIC;
  header.version = DISK_CACHE_VERSION;
  require(write(fd, &header, sizeof(header)) == sizeof(header), "write");
  const off_t end = lseek(fd, 0, SEEK_END);
  const SectionDesc front{0, 0, payload.size()};
  const off_t data = end + static_cast<off_t>(SECTION_DESC_SIZE);
  const bool isWritten =
      pwrite(fd, &end, sizeof(end), static_cast<off_t>(sectionSlotOffset(0))) == sizeof(end) &&
      pwrite(fd, payload.data(), payload.size(), data) == std::ssize(payload) &&
      pwrite(fd, &front, sizeof(front), end) == sizeof(front);
  require(isWritten, "pwrite");
  struct stat status {};
  fstat(fd, &status);
  if (isSynced) require(fsync(fd) == 0, "fsync");
  close(fd);
}

bool read(const Place& place, uint64_t offset, Buffer out) {
  const int fd = open(place.path.c_str(), O_RDONLY | O_NOATIME | O_CLOEXEC);
  if (fd < 0) return false;
  SegmentHeader header;
  require(::read(fd, &header, sizeof(header)) == sizeof(header), "read");
  SectionDesc front;
  const uint64_t record = header.sectionOffset[0];
  require(pread(fd, &front, sizeof(front), static_cast<off_t>(record)) == sizeof(front), "pread");
  const size_t wanted = std::min(front.len - offset, out.size());
  const auto data = static_cast<off_t>(record + SECTION_DESC_SIZE + offset);
  require(pread(fd, out.data(), wanted, data) == static_cast<ssize_t>(wanted), "pread");
  close(fd);
  return wanted == out.size();
}

void overwrite(const Place& place, Bytes payload) {
  const int fd = open(place.path.c_str(), O_RDWR | O_NOATIME | O_CLOEXEC);
  struct stat status {};
  fstat(fd, &status);
  SegmentHeader header;
  require(::read(fd, &header, sizeof(header)) == sizeof(header), "read");
  const auto record = static_cast<off_t>(header.sectionOffset[0]);
  const off_t data = record + static_cast<off_t>(SECTION_DESC_SIZE);
  require(pwrite(fd, payload.data(), payload.size(), data) == std::ssize(payload), "pwrite");
  SectionDesc front;
  require(pread(fd, &front, sizeof(front), record) == sizeof(front), "pread");
  const uint64_t length = std::max<uint64_t>(front.len, payload.size());
  const off_t slot = record + static_cast<off_t>(offsetof(SectionDesc, len));
  require(pwrite(fd, &length, sizeof(length), slot) == sizeof(length), "pwrite");
  fstat(fd, &status);
  close(fd);
}

void remove(const Place& place) {
  struct stat status {};
  const bool isThere = access(place.path.c_str(), F_OK) == 0 && stat(place.path.c_str(), &status) == 0;
  require(isThere && unlink(place.path.c_str()) == 0, "unlink");
}

}  // namespace floor

namespace {

class FloorStore : public Store {
 public:
  FloorStore(const std::string& dir, const Guids& guids) : m_volume(volumeOf(dir)) {
    m_places.reserve(guids.size());
    for (const std::string& guid : guids) {
      m_places.push_back(placeOf(m_volume, guid));
      floor::makeDirectory(m_places.back());
    }
  }
  std::unique_ptr<Session> session() override { return std::make_unique<ByHand>(*this); }

 private:
  class ByHand : public Session {
   public:
    explicit ByHand(const FloorStore& store) : m_store(store) {}
    void create(size_t segment, Bytes payload, bool isSynced) override {
      floor::create(m_store.m_volume, m_store.m_places[segment], payload, isSynced);
    }
    bool read(size_t segment, uint64_t offset, Buffer out) override {
      return floor::read(m_store.m_places[segment], offset, out);
    }
    void overwrite(size_t segment, Bytes payload) override {
      floor::overwrite(m_store.m_places[segment], payload);
    }
    void remove(size_t segment) override { floor::remove(m_store.m_places[segment]); }

   private:
    const FloorStore& m_store;
  };

  std::string m_volume;
  std::vector<Place> m_places;
};

}  // namespace

std::unique_ptr<Store> makeFloor(const std::string& dir, const Guids& guids) {
  return std::make_unique<FloorStore>(dir, guids);
}

}  // namespace bench
