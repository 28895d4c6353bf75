// The date format of HTTP. Pure functions.
#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace diskcached {

// "Sun, 06 Nov 1994 08:49:37 GMT"
std::string formatHttpDate(std::time_t when);
// Reads that form only: who sends another is answered as if he had sent none.
std::optional<std::time_t> parseHttpDate(const std::string& text);

}  // namespace diskcached
