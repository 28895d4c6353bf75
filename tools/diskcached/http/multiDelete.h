// The body of a request that deletes several objects. Pure functions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace diskcached {

// The keys that it lists: <Delete><Object><Key>a&amp;b</Key></Object>...</Delete>. None when one of them is
// written as no client does, for then the others are no help.
std::vector<std::string> keysToDelete(std::string_view xml);

}  // namespace diskcached
