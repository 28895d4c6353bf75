#include "cacheStore.h"

#include <unistd.h>

#include "floor.h"
#include "frame.h"
#include "support/log.h"
#include "support/perfCounters.h"

using namespace ObjectStore;

namespace bench {

namespace {

void requireSuccess(const CZuError& error, const char* operation) {
  if (error.IsError()) std::fprintf(stderr, "%s\n", error.AsString().c_str());
  require(!error.IsError(), operation);
}

class CacheSession : public Session {
 public:
  CacheSession(DiskCache& cache, const Guids& guids, bool isTouching)
      : m_cache(cache), m_guids(guids), m_isTouching(isTouching), m_sections(1) {
    m_context.dir = CONTEXT_DIR;
    requireSuccess(m_cache.registerContext(m_context), "registerContext");
  }

  void create(size_t segment, Bytes payload, bool isSynced) override {
    give(payload);
    requireSuccess(m_cache.createSegment(m_context, m_guids[segment], m_sections, isSynced, false, false),
                   "createSegment");
  }
  bool read(size_t segment, uint64_t offset, Buffer out) override {
    m_sections[0].off = offset;
    m_sections[0].data = out.data();
    m_sections[0].bufferSize = out.size();
    const CZuError error = m_cache.readSections(m_context, m_guids[segment], m_sections, m_isTouching);
    return !error.IsError() && m_sections[0].len == out.size();
  }
  void overwrite(size_t segment, Bytes payload) override {
    give(payload);
    requireSuccess(
        m_cache.writeSections(m_context, m_guids[segment], m_sections, false, ForceDiskLoc::Default),
        "writeSections");
  }
  void remove(size_t segment) override {
    requireSuccess(m_cache.deleteSegment(m_context, m_guids[segment], false, false, Recycle::No),
                   "deleteSegment");
  }

 private:
  void give(Bytes payload) {
    m_sections[0].off = 0;
    m_sections[0].len = m_sections[0].bufferSize = payload.size();
    m_sections[0].data = const_cast<unsigned char*>(payload.data());  // the cache only reads it
  }

  DiskCache& m_cache;
  const Guids& m_guids;
  const bool m_isTouching;
  DiskCacheContext m_context;
  std::vector<Section> m_sections;
};

class CacheStore : public Store {
 public:
  CacheStore(const std::string& dir, const std::string& name, const Guids& guids, const CacheOptions& options)
      : m_guids(guids), m_options(options), m_log(dir + '/' + name + ".log"), m_cache(PersistentVolumes::No) {
    // Watermarks out of reach: nobody is to wait or to prune.
    requireSuccess(m_cache.init(dir + '/' + name, {volumeOf(dir)}, 1000, 1000, 1000, options.listEntries,
                                nullptr, options.mode),
                   "init");
  }
  std::unique_ptr<Session> session() override {
    return std::make_unique<CacheSession>(m_cache, m_guids, m_options.isTouching);
  }
  void activate(bool isActive) override {
    if (m_options.watch == Watch::Counters) {
      m_counters.enable(isActive);
      g_object_store_counter = isActive ? &m_counters : nullptr;
      g_object_store_enable_perf = isActive;
    }
    if (m_options.watch == Watch::Log) {
      g_ptrLogWriter = isActive ? std::make_shared<FileLogWriter>(LogLevel::Segment, m_log) : nullptr;
      if (!isActive) unlink(m_log.c_str());  // a batch's lines are tens of megabytes
    }
  }

 private:
  const Guids& m_guids;
  CacheOptions m_options;
  std::string m_log;
  ThrdPerfCounter m_counters;
  DiskCache m_cache;
};

}  // namespace

std::unique_ptr<Store> makeCache(const std::string& dir, const std::string& name, const Guids& guids,
                                 const CacheOptions& options) {
  return std::make_unique<CacheStore>(dir, name, guids, options);
}

}  // namespace bench
