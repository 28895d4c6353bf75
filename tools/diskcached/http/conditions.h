// Requests that want an answer only if an object is, or is not, what they know. Pure functions.
#pragma once

#include <string_view>

namespace diskcached {

struct Conditions {
  std::string_view ifMatch{}, ifNoneMatch{}, ifModifiedSince{}, ifUnmodifiedSince{}, ifRange{};
};

enum class Verdict { Proceed, NotModified, Failed };

// For GET and HEAD, in the order in which the conditions count.
Verdict judge(const Conditions& conditions, std::string_view etag, std::string_view lastModified);
// Whether a range may be answered with a part: If-Range names just this version, or is not there.
bool mayAnswerPart(std::string_view ifRange, std::string_view etag, std::string_view lastModified);

}  // namespace diskcached
