// A question before what cannot be undone.
#pragma once

#include <string>

namespace diskcachectl {

// Puts a question to standard error and reads the answer from standard input; throws a Failure (bad input) for
// anything but "y" or "yes", also at the input's end.
void confirm(const std::string& question);

}  // namespace diskcachectl
