// Requests that want an answer only if an object is, or is not, what they know. Pure functions.
#pragma once

#include <ctime>
#include <string_view>

namespace diskcached {

struct Conditions {
  std::string_view ifMatch{}, ifNoneMatch{}, ifModifiedSince{}, ifUnmodifiedSince{}, ifRange{};
};

enum class Verdict { Proceed, NotModified, Failed };

// For GET and HEAD, in the order in which the conditions count.
Verdict judge(const Conditions& conditions, std::string_view etag, std::string_view lastModified);
// Whether a range may be answered with a part: If-Range names just this version, or is not there. A date does so
// if it was over when the object was looked at: within it there may have been several versions.
bool mayAnswerPart(std::string_view ifRange, std::string_view etag, std::string_view lastModified,
                   std::time_t lookedAt);

}  // namespace diskcached
