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
      memory(options->memory - options->memory / 4),
      uploadMemory(options->memory / 4),
      accessLog(options->accessLog),
      disks(options->diskThreads, options->diskThreads * QUEUED_A_THREAD),
      fetchers(options->originConnections, options->originConnections * QUEUED_A_THREAD),
      changers(options->passing, options->passing),
      passers(options->passing, options->passing),
      lookups(cache, index, origin, fetchers, stats),
      fetches(cache, origin, fetchers, memory, options->blockSize) {}

void Service::change(std::shared_ptr<const Options> options, std::optional<Credentials> credentials) {
  accessLog.open(options->accessLog);  // the only thing that can fail
  origin.change(options, std::move(credentials));
  std::atomic_store(&m_options, std::move(options));
}

void Service::stopWorkers() {
  for (WorkerPool* pool : {&passers, &changers, &fetchers, &disks}) pool->stop();
}

void Service::forget(const std::string& key) {
  if (const ObjectInfoPointer known = index.forget(key)) cache.drop(key, known->version, known->size);
}

}  // namespace diskcached
