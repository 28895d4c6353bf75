#include "clientStore.h"

#include <sys/resource.h>

#include <cstring>

#include "frame.h"

using namespace ObjectStore;

namespace bench {

namespace {

constexpr const char* VERSION = "1";
// A table for no more than what was just read: in a random order hardly anything is found in it.
constexpr size_t COLD_TABLE = 16;
constexpr uint64_t MEMORY = uint64_t{256} << 20;  // more than any set of small segments

void requireSuccess(const CZuError& error, const char* operation) {
  if (error.IsError()) std::fprintf(stderr, "%s\n", error.AsString().c_str());
  require(!error.IsError(), operation);
}

std::span<std::byte> bytesAt(Buffer buffer) { return std::as_writable_bytes(buffer); }

class ClientSession : public Session {
 public:
  ClientSession(ObjectCache& cache, const Guids& guids) : m_cache(cache), m_guids(guids) {}

  void create(size_t segment, Bytes payload, bool isSynced) override {
    if (isSynced) {
      requireSuccess(m_cache.stage(m_guids[segment], VERSION, std::as_bytes(payload)), "stage");
      return;
    }
    m_buffer.resize(payload.size());
    const auto origin = [&](uint64_t from, std::span<std::byte> to) {
      if (from < payload.size())
        std::memcpy(to.data(), payload.data() + from, std::min(to.size(), payload.size() - from));
      return OriginAnswer{.objectSize = payload.size()};
    };
    requireSuccess(m_cache.read(m_guids[segment], VERSION, 0, bytesAt(m_buffer), origin).error, "create");
  }
  bool read(size_t segment, uint64_t offset, Buffer out) override {
    const auto origin = [](uint64_t, std::span<std::byte>) {
      return OriginAnswer{.error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOENT)};
    };
    const ReadResult got = m_cache.read(m_guids[segment], VERSION, offset, bytesAt(out), origin);
    return got && got.bytes == out.size();
  }
  void overwrite(size_t, Bytes) override { require(false, "an object cannot be overwritten"); }
  void remove(size_t segment) override { m_cache.drop(m_guids[segment], VERSION, 0); }

 private:
  ObjectCache& m_cache;
  const Guids& m_guids;
  std::vector<unsigned char> m_buffer;
};

class ClientStore : public Store {
 public:
  ClientStore(const std::string& dir, const Guids& guids, const ClientOptions& options)
      : m_guids(guids),
        m_cache({.root = dir + "/root",
                 .volumes = {dir + "/volume"},
                 .verify = options.verify,
                 .hotBlocks = options.isHot ? 2 * guids.size() : COLD_TABLE,
                 .maxHotBytes = options.isInMemory ? MEMORY : 0}) {
    rlimit limit{};
    require(getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
    limit.rlim_cur = limit.rlim_max;
    require(setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
    requireSuccess(m_cache.open(), "open");
  }
  std::unique_ptr<Session> session() override { return std::make_unique<ClientSession>(m_cache, m_guids); }

 private:
  const Guids& m_guids;
  ObjectCache m_cache;
};

}  // namespace

std::unique_ptr<Store> makeClient(const std::string& dir, const Guids& guids, const ClientOptions& options) {
  return std::make_unique<ClientStore>(dir, guids, options);
}

}  // namespace bench
