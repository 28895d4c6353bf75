#include "serve/service.h"

namespace diskcached {

namespace {

// Longer queues would only keep clients waiting for what they have given up.
constexpr size_t QUEUED_A_THREAD = 16;

}  // namespace

Service::Service(std::shared_ptr<const Options> options, ObjectStore::ObjectCache& itsCache,
                 std::optional<Credentials> credentials)
    : m_options(options),
      cache(itsCache),
      origin(options, std::move(credentials)),
      index(options->indexEntries),
      memory(options->memory),
      accessLog(options->accessLog),
      disks(options->diskThreads, options->diskThreads * QUEUED_A_THREAD),
      fetchers(options->originConnections, options->originConnections * QUEUED_A_THREAD),
      passers(options->passing, options->passing),
      lookups(cache, index, origin, fetchers, stats),
      fetches(cache, origin, fetchers, memory, options->blockSize) {}

void Service::change(std::shared_ptr<const Options> options, std::optional<Credentials> credentials) {
  origin.change(options, std::move(credentials));
  accessLog.open(options->accessLog);
  std::atomic_store(&m_options, std::move(options));
}

void Service::stopWorkers() {
  origin.stop();
  for (WorkerPool* pool : {&passers, &fetchers, &disks}) pool->stop();
}

void Service::forget(const std::string& key) {
  if (const ObjectInfoPointer known = index.forget(key)) cache.drop(key, known->version, known->size);
}

}  // namespace diskcached
