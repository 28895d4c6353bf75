// The store behind the cache, asked over HTTP in the thread that calls.
//
// Any thread may call anything; connections are kept and used again.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "http/headers.h"
#include "options/credentials.h"
#include "options/options.h"
#include "support/lock.h"

namespace diskcached {

struct OriginReply {
  unsigned status = 0;  // 0: there was no answer
  Headers headers{};
  std::string error{};  // why there was none, or why it ended early
  bool isTimeout = false;
  uint64_t bodyBytes = 0;  // that came

  bool isSuccess() const { return status >= 200 && status < 300 && error.empty(); }
  // What is worth another try, or a stale answer: the store is down rather than of another opinion.
  bool isTrouble() const { return status == 0 || !error.empty() || status == 429 || status >= 500; }
  // A change that the store refused has changed nothing there.
  bool mayHaveChanged() const { return isTrouble() || status < 400; }
};

struct OriginCall {
  std::string method = "GET";
  std::string key{};    // decoded
  std::string query{};  // canonical
  Headers headers{};
  std::optional<std::pair<uint64_t, uint64_t>> range{};  // first and last byte
  std::span<const std::byte> body{};
  bool hasBody = false;
  bool mayRepeat = true;
  std::function<bool(const OriginReply&)> onHead{};          // before the body; false ends the call
  std::function<bool(std::span<const std::byte>)> onBody{};  // false ends the call; without it the body goes
};

struct OriginFigures {
  std::atomic<uint64_t> requests{0}, errors{0}, retries{0}, bytes{0};
};

class Origin {
 public:
  Origin(std::shared_ptr<const Options> options, std::optional<Credentials> credentials);
  ~Origin();
  Origin(const Origin&) = delete;
  Origin& operator=(const Origin&) = delete;

  // Makes the call, again after trouble as often as the options allow and as long as nothing of a body was
  // handed on. A status that the store chose is no error here.
  OriginReply call(const OriginCall& call);

  // From now on; calls under way go on with what they began with.
  void change(std::shared_ptr<const Options> options, std::optional<Credentials> credentials);
  // Ends calls that are under way, and makes no more.
  void stop() { m_isStopped = true; }

  const OriginFigures& figures() const { return m_figures; }

 private:
  class Attempt;
  struct Settings {
    std::shared_ptr<const Options> options;
    std::optional<Credentials> credentials;
  };

  std::shared_ptr<const Settings> settings();
  void* takeHandle();
  void giveBack(void* handle);
  void pause(unsigned attempt);

  ObjectStore::KxCriticalSection m_lock;
  std::shared_ptr<const Settings> m_settings DC_GUARDED_BY(m_lock);
  std::vector<void*> m_handles DC_GUARDED_BY(m_lock);  // idle, the one used last at the end
  std::atomic<bool> m_isStopped{false};
  OriginFigures m_figures;
};

}  // namespace diskcached
