// What cannot be the identifier of a segment.
#pragma once

#include <climits>
#include <string_view>

#include "support/file.h"

namespace diskcachectl {

// Why the cache refuses an identifier, or the system a file of that name; empty when neither does.
inline std::string_view whyRefused(std::string_view id) {
  if (id.empty()) return "the identifier is empty";
  if (id.size() > NAME_MAX) return "the identifier is longer than 255 bytes";
  if (id.find('/') != std::string_view::npos) return "the identifier holds a '/'";
  if (id.find('\0') != std::string_view::npos) return "the identifier holds a zero byte";
  if (id == "." || id.substr(0, 2) == ".." || (id.size() >= 4 && id.substr(2, 2) == "..")) {
    return "the identifier would leave its directory";
  }
  return "";
}

// The same of a segment that is to be made.
inline std::string_view whyNotNew(std::string_view id) {
  const bool isUnfinished = id.ends_with(ObjectStore::RMFile::COPY_SUFFIX) || id.ends_with(".temp");
  return isUnfinished ? "the identifier ends like the cache's own unfinished files" : whyRefused(id);
}

}  // namespace diskcachectl
