// Headers as an origin or a client sent them.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http/text.h"

namespace diskcached {

using Headers = std::vector<std::pair<std::string, std::string>>;

// The first value under a name in any case; empty when there is none.
inline std::string_view headerOf(const Headers& headers, std::string_view name) {
  for (const auto& [itsName, value] : headers) {
    if (equalsIgnoringCase(itsName, name)) return value;
  }
  return {};
}

// All values under a name, with commas.
inline std::string valuesOf(const Headers& headers, std::string_view name) {
  std::string all;
  for (const auto& [itsName, value] : headers) {
    if (equalsIgnoringCase(itsName, name)) all += (all.empty() ? "" : ",") + value;
  }
  return all;
}

// Whether a name is one of a list with commas.
inline bool isListed(std::string_view list, std::string_view name) {
  while (!list.empty()) {
    const size_t comma = std::min(list.find(','), list.size());
    if (equalsIgnoringCase(trimmed(list.substr(0, comma)), name)) return true;
    list.remove_prefix(std::min(comma + 1, list.size()));
  }
  return false;
}

// Those that are about one connection and never passed on, also what its `connection` header names.
inline bool isHopByHop(std::string_view name, std::string_view connection) {
  if (isListed(connection, name)) return true;
  for (const std::string_view hop : {"connection", "keep-alive", "proxy-authenticate", "proxy-authorization",
                                     "te", "trailer", "transfer-encoding", "upgrade", "proxy-connection"}) {
    if (equalsIgnoringCase(name, hop)) return true;
  }
  return false;
}

}  // namespace diskcached
