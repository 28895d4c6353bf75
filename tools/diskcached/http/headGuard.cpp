#include "http/headGuard.h"

#include <algorithm>

#include "http/text.h"

namespace diskcached {
namespace {

// The lines of a head, each without its end.
class Lines {
 public:
  explicit Lines(std::string_view head) : m_rest(head) {}
  std::string_view next() {
    const size_t end = std::min(m_rest.find("\r\n"), m_rest.size());
    const std::string_view line = m_rest.substr(0, end);
    m_rest.remove_prefix(std::min(end + 2, m_rest.size()));
    return line;
  }

 private:
  std::string_view m_rest;
};

Refusal refusalOfRequestLine(std::string_view line, bool& isOld) {
  const size_t first = line.find(' '), last = line.rfind(' ');
  if (first == std::string_view::npos || first == last || !isToken(line.substr(0, first)) ||
      line.find(' ', first + 1) != last || last == first + 1) {
    return {400, "the request line is not METHOD TARGET VERSION"};
  }
  const std::string_view version = line.substr(last + 1);
  isOld = version == "HTTP/1.0";
  if (version != "HTTP/1.1" && !isOld)
    return version.starts_with("HTTP/") ? Refusal{505, "only HTTP/1.0 and HTTP/1.1 are spoken here"}
                                        : Refusal{400, "the request line names no version"};
  return {};
}

struct Seen {
  unsigned hosts = 0, lengths = 0, codings = 0;
};

Refusal refusalOfField(std::string_view line, Seen& seen) {
  if (line.front() == ' ' || line.front() == '\t') return {400, "a header goes on in a second line"};
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos || !isToken(line.substr(0, colon)))
    return {400, "a header's name is not one word before a colon"};
  const std::string_view name = line.substr(0, colon), value = trimmed(line.substr(colon + 1));
  if (hasControl(value)) return {400, "a header holds a control character"};
  if (equalsIgnoringCase(name, "host") && ++seen.hosts > 1) return {400, "two hosts"};
  if (equalsIgnoringCase(name, "content-length")) {
    if (++seen.lengths > 1) return {400, "two lengths"};
    const bool isNumber = !value.empty() && value.size() <= 19 &&
                          value.find_first_not_of("0123456789") == std::string_view::npos;
    if (!isNumber) return {400, "a length that is no number"};
  }
  if (equalsIgnoringCase(name, "transfer-encoding")) {
    if (++seen.codings > 1) return {400, "two transfer codings"};
    if (!equalsIgnoringCase(value, "chunked")) return {501, "a transfer coding other than chunked"};
  }
  return {};
}

}  // namespace

HeadEnd findHeadEnd(std::string_view bytes, size_t from) {
  size_t at = from > 3 ? from - 3 : 0;
  while ((at = bytes.find('\n', at)) != std::string_view::npos) {
    if (at == 0 || bytes[at - 1] != '\r') return {0, true};
    if (at >= 3 && bytes[at - 2] == '\n') return {at + 1, false};
    ++at;
  }
  return {};
}

Refusal refusalOf(std::string_view head) {
  Lines lines(head);
  bool isOld = false;
  const std::string_view requestLine = lines.next();
  if (hasControl(requestLine)) return {400, "the request line holds a control character"};
  if (const Refusal refusal = refusalOfRequestLine(requestLine, isOld); refusal.status != 0) return refusal;
  Seen seen;
  for (std::string_view line = lines.next(); !line.empty(); line = lines.next()) {
    if (const Refusal refusal = refusalOfField(line, seen); refusal.status != 0) return refusal;
  }
  if (seen.lengths > 0 && seen.codings > 0) return {400, "a length beside a transfer coding"};
  if (isOld && seen.codings > 0) return {400, "a transfer coding in HTTP/1.0"};
  if (!isOld && seen.hosts == 0) return {400, "no host"};
  return {};
}

}  // namespace diskcached
