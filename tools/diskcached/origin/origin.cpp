#include "origin/origin.h"

#include <curl/curl.h>
#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <random>
#include <thread>

#include "http/range.h"
#include "http/target.h"
#include "origin/signature.h"

namespace diskcached {

using ObjectStore::KxCriticalSectionLock;

namespace {

constexpr std::chrono::milliseconds FIRST_PAUSE(100), LONGEST_PAUSE(5000);
constexpr long RECEIVE_BUFFER = 256 << 10;

template <typename T>
void set(CURL* handle, CURLoption option, T value) {
  curl_easy_setopt(handle, option, value);
}

// A list of headers as libcurl has it.
class HeaderList {
 public:
  HeaderList() = default;
  ~HeaderList() { curl_slist_free_all(m_list); }
  HeaderList(const HeaderList&) = delete;
  HeaderList& operator=(const HeaderList&) = delete;
  void add(std::string_view name, std::string_view value) {
    // A header without a value would be left out by a colon alone.
    const std::string line = value.empty() ? fmt::format("{};", name) : fmt::format("{}: {}", name, value);
    if (curl_slist* const longer = curl_slist_append(m_list, line.c_str())) m_list = longer;
  }
  curl_slist* get() const { return m_list; }

 private:
  curl_slist* m_list = nullptr;
};

}  // namespace

// One try of one call.
class Origin::Attempt {
 public:
  Attempt(CURL* handle, const OriginCall& call, const Settings& settings, const std::atomic<bool>& isStopped)
      : m_handle(handle), m_call(call), m_options(*settings.options), m_isStopped(isStopped) {
    m_error[0] = '\0';
    address();
    headers(settings.credentials);
    callbacks();
  }

  OriginReply run() {
    const CURLcode code = curl_easy_perform(m_handle);
    if (code != CURLE_OK && !m_isEnough) {
      m_reply.error = m_error[0] != '\0' ? m_error : curl_easy_strerror(code);
      m_reply.isTimeout = code == CURLE_OPERATION_TIMEDOUT;
    }
    if (code == CURLE_OK && !m_isHeadGiven) giveHead();
    return std::move(m_reply);
  }

 private:
  void address() {
    std::string url = m_options.origin + '/' + encodePath(m_call.key);
    if (!m_call.query.empty()) url += '?' + m_call.query;
    set(m_handle, CURLOPT_URL, url.c_str());
    set(m_handle, CURLOPT_PATH_AS_IS, 1L);
    set(m_handle, CURLOPT_PROXY, "");
    set(m_handle, CURLOPT_NOSIGNAL, 1L);
    set(m_handle, CURLOPT_ERRORBUFFER, m_error);
    set(m_handle, CURLOPT_USERAGENT, "diskcached/" DISKCACHE_VERSION);
    set(m_handle, CURLOPT_CONNECTTIMEOUT, static_cast<long>(m_options.originConnectTimeout.count()));
    set(m_handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(m_handle, CURLOPT_LOW_SPEED_TIME, static_cast<long>(m_options.originTimeout.count()));
    set(m_handle, CURLOPT_BUFFERSIZE, RECEIVE_BUFFER);
    set(m_handle, CURLOPT_EXPECT_100_TIMEOUT_MS, 200L);
    if (!m_options.originCa.empty()) set(m_handle, CURLOPT_CAINFO, m_options.originCa.c_str());
    if (m_call.method == "HEAD") {
      set(m_handle, CURLOPT_NOBODY, 1L);
    } else if (m_call.method != "GET") {
      set(m_handle, CURLOPT_CUSTOMREQUEST, m_call.method.c_str());
    }
    if (m_call.range) {
      set(m_handle, CURLOPT_RANGE, fmt::format("{}-{}", m_call.range->first, m_call.range->second).c_str());
    }
    if (m_call.hasBody) {
      set(m_handle, CURLOPT_UPLOAD, 1L);
      set(m_handle, CURLOPT_CUSTOMREQUEST, m_call.method.c_str());
      set(m_handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(m_call.body.size()));
    }
  }

  void headers(const std::optional<Credentials>& credentials) {
    for (const auto& [name, value] : m_call.headers) m_headers.add(name, value);
    if (credentials) sign(*credentials);
    set(m_handle, CURLOPT_HTTPHEADER, m_headers.get());
  }

  void sign(const Credentials& credentials) {
    const std::string_view origin = m_options.origin;
    const size_t host = origin.find("://") + 3, slash = std::min(origin.find('/', host), origin.size());
    const std::string path = std::string(origin.substr(slash)) + '/' + encodePath(m_call.key);
    const SignedParts parts{
        m_call.method, origin.substr(host, slash - host), path, m_call.query, m_call.headers, m_call.body};
    m_headers.add("Host", parts.host);
    for (const auto& [name, value] : signatureOf(parts, credentials, m_options.region, std::time(nullptr)))
      m_headers.add(name, value);
  }

  void callbacks() {
    set(m_handle, CURLOPT_HEADERFUNCTION, &Attempt::onHeaderLine);
    set(m_handle, CURLOPT_HEADERDATA, this);
    set(m_handle, CURLOPT_WRITEFUNCTION, &Attempt::onBody);
    set(m_handle, CURLOPT_WRITEDATA, this);
    set(m_handle, CURLOPT_READFUNCTION, &Attempt::onSend);
    set(m_handle, CURLOPT_READDATA, this);
    set(m_handle, CURLOPT_SEEKFUNCTION, &Attempt::onSeek);
    set(m_handle, CURLOPT_SEEKDATA, this);
    set(m_handle, CURLOPT_NOPROGRESS, 0L);
    set(m_handle, CURLOPT_XFERINFOFUNCTION, &Attempt::onProgress);
    set(m_handle, CURLOPT_XFERINFODATA, this);
  }

  static size_t onHeaderLine(char* data, size_t size, size_t count, void* self) {
    return endingOnThrow([&] {
      static_cast<Attempt*>(self)->takeHeaderLine({data, size * count});
      return size * count;
    });
  }
  // Nothing may be thrown through libcurl.
  template <typename F>
  static size_t endingOnThrow(F take) {
    try {
      return take();
    } catch (const std::exception&) {  // no memory
      return 0;
    }
  }
  // Others may read a line of another form than a name and a value in another way than it is read here: nobody gets
  // one.
  void takeHeaderLine(std::string_view line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
    if (line.starts_with("HTTP/")) {  // a new answer: what came before was an interim one
      const size_t space = std::min(line.find(' '), line.size());
      m_reply.status =
          static_cast<unsigned>(parseNumber(line.substr(std::min(space + 1, line.size()), 3)).value_or(0));
      m_reply.headers.clear();
      m_isLineKept = false;
      return;
    }
    if (line.empty()) return;
    if (line.front() == ' ' || line.front() == '\t') return takeFolded(trimmed(line));
    const size_t colon = line.find(':');
    const std::string_view name = line.substr(0, colon);
    m_isLineKept = colon != std::string_view::npos && isToken(name) && !hasControl(line.substr(colon + 1));
    if (m_isLineKept) m_reply.headers.emplace_back(name, trimmed(line.substr(colon + 1)));
  }
  // A header that goes on in another line makes one line.
  void takeFolded(std::string_view text) {
    if (m_isLineKept && !hasControl(text)) m_reply.headers.back().second.append(1, ' ').append(text);
  }

  static size_t onBody(char* data, size_t size, size_t count, void* self) {
    return endingOnThrow([&] {
      return static_cast<Attempt*>(self)->takeBody({reinterpret_cast<const std::byte*>(data), size * count});
    });
  }
  size_t takeBody(std::span<const std::byte> bytes) {
    if (!m_isHeadGiven && !giveHead()) return 0;
    m_reply.bodyBytes += bytes.size();
    if (m_call.onBody && !m_call.onBody(bytes)) {
      m_isEnough = true;
      return 0;
    }
    return bytes.size();
  }
  // Trouble is kept back while there may be another try.
  bool giveHead() {
    m_isHeadGiven = true;
    if (!m_call.onHead || m_call.onHead(m_reply)) return true;
    m_isEnough = true;
    return false;
  }

  static size_t onSend(char* to, size_t size, size_t count, void* self) {
    auto& attempt = *static_cast<Attempt*>(self);
    const size_t bytes = std::min(size * count, attempt.m_call.body.size() - attempt.m_sent);
    if (bytes > 0) std::memcpy(to, attempt.m_call.body.data() + attempt.m_sent, bytes);
    attempt.m_sent += bytes;
    return bytes;
  }
  static int onSeek(void* self, curl_off_t offset, int origin) {
    auto& attempt = *static_cast<Attempt*>(self);
    if (origin != SEEK_SET || offset < 0) return CURL_SEEKFUNC_CANTSEEK;
    attempt.m_sent = std::min(static_cast<size_t>(offset), attempt.m_call.body.size());
    return CURL_SEEKFUNC_OK;
  }

  // Asked once a second at least, also while nothing comes.
  static int onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<Attempt*>(self)->m_isStopped ? 1 : 0;
  }

  CURL* const m_handle;
  const OriginCall& m_call;
  const Options& m_options;
  const std::atomic<bool>& m_isStopped;
  HeaderList m_headers;
  OriginReply m_reply;
  char m_error[CURL_ERROR_SIZE];
  size_t m_sent = 0;
  bool m_isLineKept = false;  // the last one
  bool m_isHeadGiven = false;
  bool m_isEnough = false;
};

Origin::Origin(std::shared_ptr<const Options> options, std::optional<Credentials> credentials) {
  static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (ready != CURLE_OK) throw std::runtime_error(curl_easy_strerror(ready));
  change(std::move(options), std::move(credentials));
}

Origin::~Origin() {
  const KxCriticalSectionLock lock(&m_lock);
  for (CURL* handle : m_handles) curl_easy_cleanup(handle);
}

void Origin::change(std::shared_ptr<const Options> options, std::optional<Credentials> credentials) {
  auto made = std::make_shared<const Settings>(Settings{std::move(options), std::move(credentials)});
  const KxCriticalSectionLock lock(&m_lock);
  m_settings = std::move(made);
}

std::shared_ptr<const Origin::Settings> Origin::settings() {
  const KxCriticalSectionLock lock(&m_lock);
  return m_settings;
}

void* Origin::takeHandle() {
  {
    const KxCriticalSectionLock lock(&m_lock);
    if (!m_handles.empty()) {
      CURL* const handle = m_handles.back();
      m_handles.pop_back();
      return handle;
    }
  }
  return curl_easy_init();
}

void Origin::giveBack(void* handle) {
  curl_easy_reset(handle);  // its connections stay
  const KxCriticalSectionLock lock(&m_lock);
  m_handles.push_back(handle);
}

// Longer with each try, and never the same for two who failed together.
void Origin::pause(unsigned attempt) {
  thread_local std::minstd_rand random{std::random_device{}()};
  const auto longest = std::min(FIRST_PAUSE * (1U << std::min(attempt, 10U)), LONGEST_PAUSE).count();
  const auto until =
      std::chrono::steady_clock::now() +
      std::chrono::milliseconds(std::uniform_int_distribution<long>(longest / 2, longest)(random));
  while (!m_isStopped && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

OriginReply Origin::call(const OriginCall& call) {
  const auto chosen = settings();
  const unsigned retries = call.mayRepeat ? chosen->options->originRetries : 0;
  for (unsigned attempt = 0;; ++attempt) {
    if (m_isStopped) return {.error = "the server stops"};
    const bool isLast = attempt >= retries;
    CURL* const handle = takeHandle();
    if (handle == nullptr) return {.error = "no memory for a request"};
    // A head that tells of trouble is not handed on while there may be another try.
    bool isHandedOn = false;
    OriginCall guarded = call;
    guarded.onHead = [&](const OriginReply& reply) {
      if (reply.isTrouble() && !isLast) return false;
      isHandedOn = true;
      return !call.onHead || call.onHead(reply);
    };
    OriginReply reply = Attempt(handle, guarded, *chosen, m_isStopped).run();
    giveBack(handle);
    ++m_figures.requests;
    m_figures.bytes += reply.bodyBytes;
    if (!reply.isTrouble()) return reply;
    ++m_figures.errors;
    if (isLast || isHandedOn) return reply;
    ++m_figures.retries;
    pause(attempt);
  }
}

}  // namespace diskcached
