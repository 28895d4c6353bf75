#include "life/server.h"

#include <fmt/core.h>

#include <csignal>
#include <ctime>
#include <future>

#include "admin/adminSocket.h"
#include "life/ioThreads.h"
#include "life/notify.h"
#include "life/startState.h"
#include "serve/staging.h"
#include "support/log.h"

namespace diskcached {

using ObjectStore::CZuError;
using ObjectStore::LogLevel::Error;
using ObjectStore::LogLevel::Notice;

namespace {

sigset_t waitedFor() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  return signals;
}

// 0 when none came in time.
int waitForSignal(std::chrono::milliseconds time) {
  const sigset_t signals = waitedFor();
  const timespec until{time.count() / 1000, (time.count() % 1000) * 1'000'000};
  return std::max(sigtimedwait(&signals, nullptr, &until), 0);
}

ObjectStore::ObjectCacheOptions cacheOptions(const Options& options, StartState& start) {
  ObjectStore::ObjectCacheOptions chosen;
  chosen.root = options.root;
  chosen.volumes = options.volumes;
  chosen.maxBytes = options.maxBytes;
  chosen.mode = options.mode;
  chosen.blockSize = options.blockSize;
  chosen.maxFetch = options.blockSize;  // a client waits for no more than the block that it is at
  chosen.reserve = options.reserve;
  chosen.verify = options.verify;
  chosen.maxHotBytes = 0;  // what is cached is sent by its descriptor
  chosen.replaceVolumes = options.replaceVolumes;
  chosen.onProgress = [&start](const ObjectStore::StartProgress& now) {
    start.setProgress(now.volume, now.blocks);
  };
  return chosen;
}

class Server {
 public:
  Server(std::shared_ptr<const Options> options, std::optional<Credentials> credentials,
         ObjectStore::FileLogWriter& log, const std::vector<const char*>& arguments)
      : m_log(log),
        m_arguments(arguments),
        m_cache(cacheOptions(*options, m_start)),
        m_service(options, m_cache, std::move(credentials)),
        m_io(options->listen, options->ioThreads),
        m_admin(options->admin, m_service, m_start) {}

  int run() {
    if (!open()) return 1;
    const auto options = m_service.options();
    m_service.index.open(options->root + "/diskcached.index");
    adoptStaged(m_service);
    if (options->writeBack || m_cache.staged().objects > 0) {
      if (const CZuError error = m_cache.flush(
              [this](const auto& object) { return uploadStaged(m_service, object); }, options->uploads);
          error.IsError()) {
        DC_LOG(Error, "Error: nothing can be uploaded: %s", error.AsString().c_str());
        return 1;
      }
    }
    m_io.start(m_service);
    m_start.setPhase(Phase::Ready);
    DC_LOG(Notice, "serving %s on %s:%u, admin on %s:%u", options->origin.c_str(),
           options->listen.host.c_str(), m_io.port(), options->admin.host.c_str(), m_admin.port());
    notifyManager("READY=1");
    while (!isToldToStop()) {
    }
    stop();
    return 0;
  }

 private:
  // In a thread of its own, so that the server can be told to stop meanwhile.
  bool open() {
    std::future<CZuError> opened = std::async(std::launch::async, [this] { return m_cache.open(); });
    while (opened.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready) {
      const int signal = waitForSignal(std::chrono::milliseconds(20));
      if (signal == SIGTERM || signal == SIGINT) std::_Exit(0);  // nothing was begun that must be finished
      notifyManager(fmt::format("STATUS=found {} blocks", m_start.now().blocks));
    }
    const CZuError error = opened.get();
    if (error.IsError()) DC_LOG(Error, "Error: the cache can't be opened: %s", error.AsString().c_str());
    return !error.IsError();
  }

  bool isToldToStop() {
    switch (waitForSignal(std::chrono::hours(1))) {
      case SIGTERM:
      case SIGINT: return true;
      case SIGHUP: reload(); return false;
      default: return false;
    }
  }

  // What is wrong in the file leaves everything as it is.
  void reload() {
    notifyManager("RELOADING=1");
    try {
      const std::shared_ptr<Options> wanted =
          readOptions(static_cast<int>(m_arguments.size()) - 1, m_arguments.data());
      const auto kept = keepWhatNeedsRestart(*m_service.options(), *wanted);
      m_service.change(wanted, readCredentials(wanted->credentials));
      m_log.setLevel(wanted->logLevel);
      m_cache.setMaxBytes(wanted->maxBytes);
      for (const std::string& name : kept)
        DC_LOG(Error, "Error: --%s takes effect at the next start", name.c_str());
      DC_LOG(Notice, "the configuration was read anew");
    } catch (const BadOptions& error) {
      DC_LOG(Error, "Error: the configuration stays as it was: %s", error.what());
    }
    notifyManager("READY=1");
  }

  void stop() {
    const auto deadline = std::chrono::steady_clock::now() + m_service.options()->grace;
    m_start.setPhase(Phase::Stopping);
    notifyManager("STOPPING=1");
    DC_LOG(Notice, "stopping");
    m_service.stop();
    m_io.stop(deadline);
    if (!m_cache.drained(deadline)) {
      DC_LOG(Error, "Error: %llu objects are not uploaded; they are safe on disk until the next start",
             static_cast<unsigned long long>(m_cache.staged().objects));
    }
    m_service.origin.stop();
    m_io.cutOff();
    m_admin.stop();
    m_service.stopWorkers();
    m_cache.close();
    m_service.index.save();
  }

  ObjectStore::FileLogWriter& m_log;
  const std::vector<const char*>& m_arguments;
  StartState m_start;
  ObjectStore::ObjectCache m_cache;
  Service m_service;
  // What the cache uploads is the service's, and what clients ask both.
  struct CloseCache {
    explicit CloseCache(ObjectStore::ObjectCache& itsCache) : cache(itsCache) {}
    ~CloseCache() { cache.close(); }
    CloseCache(const CloseCache&) = delete;
    CloseCache& operator=(const CloseCache&) = delete;
    ObjectStore::ObjectCache& cache;
  } m_afterClients{m_cache};
  IoThreads m_io;
  AdminSocket m_admin;
};

}  // namespace

void blockSignals() {
  const sigset_t signals = waitedFor();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

int runServer(std::shared_ptr<const Options> options, std::optional<Credentials> credentials,
              ObjectStore::FileLogWriter& log, const std::vector<const char*>& arguments) {
  return Server(std::move(options), std::move(credentials), log, arguments).run();
}

}  // namespace diskcached
