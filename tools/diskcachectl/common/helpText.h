// Help that fits the terminal, and the nearest word to a mistyped one.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace diskcachectl {

// $COLUMNS, or what the terminal on standard output says, or 100.
size_t terminalWidth();

// Help as the argument parser writes it, with lines no longer than `width` where words allow: paragraphs are filled,
// descriptions of options go on under their beginning, examples stay as they are.
std::string wrapped(const std::string& help, size_t width);

// The word that takes the fewest changes of a letter; `words` is not empty.
std::string nearest(std::string_view word, const std::vector<std::string>& words);

}  // namespace diskcachectl
