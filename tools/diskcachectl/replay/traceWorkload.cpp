// A recorded row of requests, and made-up bytes for them.
#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <deque>
#include <fstream>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/failure.h"
#include "common/identifier.h"
#include "replay/workload.h"
#include "workload/mixing.h"

namespace diskcachectl {
namespace {

class TraceWorkload : public Workload {
 public:
  TraceWorkload(const std::string& path, bool byId) : m_byId(byId) {
    std::ifstream file(path);
    if (!file) throw Failure(ExitStatus::BadInput, fmt::format("{}: {}", path, std::strerror(errno)));
    errno = 0;
    uint64_t number = 0;
    for (std::string line; std::getline(file, line);) {
      ++number;
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.starts_with('#')) continue;
      const std::string why = take(line);
      if (!why.empty()) throw Failure(ExitStatus::BadInput, fmt::format("{}:{}: {}", path, number, why));
    }
    if (file.bad()) throw Failure(ExitStatus::BadInput, fmt::format("{}: {}", path, std::strerror(errno)));
    if (m_requests.empty()) throw Failure(ExitStatus::BadInput, path + ": holds no request");
  }

  uint64_t defaultLength() const override { return m_requests.size(); }
  Request request(uint64_t n) const override { return m_requests[n % m_requests.size()]; }
  uint32_t objects() const override { return static_cast<uint32_t>(m_ids.size()); }
  uint32_t largest() const override { return std::ranges::max(m_requests, {}, &Request::size).size; }
  std::string identifier(uint32_t object) const override { return m_ids[object]; }

  // `from` is a multiple of a word's size: a block's begin.
  void fetch(const Request& request, uint64_t from, std::span<std::byte> to) const override {
    const uint64_t first = workload::mix(m_ids[request.object], request.size) + from / sizeof(uint64_t);
    to = to.first(std::min<uint64_t>(to.size(), request.size - from));
    for (size_t at = 0; at < to.size(); at += sizeof(uint64_t)) {
      const uint64_t word = workload::mix(first + at / sizeof(word));
      std::memcpy(to.data() + at, &word, std::min(sizeof(word), to.size() - at));
    }
  }

 private:
  // Adds a line's request; returns why it cannot.
  std::string take(std::string_view line) {
    const size_t comma = line.find(',');
    if (comma == std::string_view::npos) return "there is no comma (expected: id,size)";
    const std::string_view id = line.substr(0, comma);
    const std::string_view text = line.substr(comma + 1, line.find(',', comma + 1) - comma - 1);

    uint64_t size = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), size);
    if (error == std::errc::invalid_argument || end != text.data() + text.size()) {
      return fmt::format("the size \"{}\" is no number of bytes", text);
    }
    if (error != std::errc() || size > MAX_OBJECT_SIZE) {
      return fmt::format("the size is over {} bytes", MAX_OBJECT_SIZE);
    }
    if (size == 0) return "the size is 0";

    auto known = m_objectOfId.find(id);
    if (known == m_objectOfId.end()) {
      if (const std::string_view why = whyRefused(id); !why.empty()) return std::string(why);
      m_ids.emplace_back(id);
      known = m_objectOfId.emplace(m_ids.back(), static_cast<uint32_t>(m_ids.size() - 1)).first;
      if (m_byId) m_firstSizes.push_back(static_cast<uint32_t>(size));
    }
    if (m_byId) size = m_firstSizes[known->second];
    m_requests.push_back({known->second, static_cast<uint32_t>(size)});
    return "";
  }

  const bool m_byId;
  std::vector<Request> m_requests;
  std::vector<uint32_t> m_firstSizes;  // by object, where they count
  std::deque<std::string> m_ids;       // by object; never moved, so that the map below can view them
  std::unordered_map<std::string_view, uint32_t> m_objectOfId;
};

}  // namespace

std::unique_ptr<Workload> makeTraceWorkload(const std::string& path, bool byId) {
  return std::make_unique<TraceWorkload>(path, byId);
}

}  // namespace diskcachectl
