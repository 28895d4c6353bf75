#include "origin/objectFetch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "http/range.h"

namespace diskcached {
namespace {

constexpr unsigned MOST_BREAKS = 3;

class PartFetch {
 public:
  PartFetch(Origin& origin, const std::string& key, const ObjectInfo& info, uint64_t from,
            std::span<std::byte> to, const std::function<void(std::span<const std::byte>)>& onBytes)
      : m_origin(origin), m_key(key), m_info(info), m_from(from), m_to(to), m_onBytes(onBytes) {}

  FetchOutcome run() {
    const std::string_view tag = m_info.header("etag");
    const bool isStrong = !tag.empty() && !tag.starts_with("W/");
    for (unsigned breaks = 0; breaks < MOST_BREAKS; ++breaks) {
      const size_t before = m_got;
      const OriginReply reply = ask();
      if (m_got == m_to.size()) return {};
      if (m_errNo != 0) return {m_errNo, m_error};
      // The rest may be that of other bytes, where the version does not tell these apart.
      if (m_got == before || !isStrong) return failure(reply);
    }
    return {EIO, "the store breaks off again and again"};
  }

 private:
  OriginReply ask() {
    OriginCall call;
    call.key = m_key;
    const uint64_t first = m_from + m_got;
    if (first > 0 || m_to.size() < m_info.size) call.range = {{first, m_from + m_to.size() - 1}};
    m_isTaken = false;
    call.onHead = [this](const OriginReply& reply) { return takeHead(reply); };
    call.onBody = [this](std::span<const std::byte> bytes) { return takeBody(bytes); };
    return m_origin.call(call);
  }

  bool takeHead(const OriginReply& reply) {
    const uint64_t first = m_from + m_got;
    if (reply.status == 404 || reply.status == 410 || reply.status == 412 || reply.status == 416)
      return stop(ESTALE, "the object has gone");
    if (reply.status == 401 || reply.status == 403) return stop(EACCES, "the store refuses");
    if (reply.status != 200 && reply.status != 206)
      return true;  // trouble, of which there is no body to take
    if (versionOf(cachedHeaders(reply.headers), m_info.size) != m_info.version)
      return stop(ESTALE, "the object has another version");
    // Block by block, such an object would cost itself for each of its blocks.
    if (reply.status == 200 && m_to.size() < m_info.size)
      return stop(ENOTSUP, "the store knows no ranges of the object");
    m_skip = first;
    if (reply.status == 206) {
      const auto range = parseContentRange(headerOf(reply.headers, "content-range"));
      if (!range || range->from != first)
        return stop(EIO, "the store sends another range than was asked for");
      if (range->total && *range->total != m_info.size) return stop(ESTALE, "the object has another size");
      m_skip = 0;
    } else if (const auto size = parseNumber(headerOf(reply.headers, "content-length"));
               size && *size != m_info.size) {
      return stop(ESTALE, "the object has another size");
    }
    m_isTaken = true;
    return true;
  }

  // A store that knows no ranges sends the object from its start.
  bool takeBody(std::span<const std::byte> bytes) {
    if (!m_isTaken) return false;
    const size_t skipped = std::min<uint64_t>(m_skip, bytes.size());
    m_skip -= skipped;
    bytes = bytes.subspan(skipped);
    bytes = bytes.first(std::min(bytes.size(), m_to.size() - m_got));
    if (!bytes.empty()) {
      std::memcpy(m_to.data() + m_got, bytes.data(), bytes.size());
      m_got += bytes.size();
      m_onBytes(bytes);
    }
    return m_got < m_to.size() ||
           m_from + m_got == m_info.size;  // the end is let come: the connection lives on
  }

  bool stop(int errNo, const char* why) {
    m_errNo = errNo;
    m_error = why;
    return false;
  }

  FetchOutcome failure(const OriginReply& reply) const {
    if (reply.isTimeout) return {ETIMEDOUT, reply.error};
    if (!reply.error.empty()) return {EIO, reply.error};
    return {EIO, "the store answers " + std::to_string(reply.status)};
  }

  Origin& m_origin;
  const std::string& m_key;
  const ObjectInfo& m_info;
  const uint64_t m_from;
  const std::span<std::byte> m_to;
  const std::function<void(std::span<const std::byte>)>& m_onBytes;
  size_t m_got = 0;
  uint64_t m_skip = 0;
  bool m_isTaken = false;
  int m_errNo = 0;
  std::string m_error;
};

}  // namespace

FetchOutcome fetchPart(Origin& origin, const std::string& key, const ObjectInfo& info, uint64_t from,
                       std::span<std::byte> to,
                       const std::function<void(std::span<const std::byte>)>& onBytes) {
  return PartFetch(origin, key, info, from, to, onBytes).run();
}

}  // namespace diskcached
