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

// Those that are about one connection and never passed on.
inline bool isHopByHop(std::string_view name) {
  for (const std::string_view hop : {"connection", "keep-alive", "proxy-authenticate", "proxy-authorization",
                                     "te", "trailer", "transfer-encoding", "upgrade", "proxy-connection"}) {
    if (equalsIgnoringCase(name, hop)) return true;
  }
  return false;
}

}  // namespace diskcached
