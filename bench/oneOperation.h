// One warm call of each operation on 4 KiB, for strace and callgrind, whose counts repeat exactly.
#pragma once

#include <string>

namespace bench {

// Creates, reads, overwrites and deletes on a contender; 0, or 2 when there is none of this name. A trace
// shows a write of the operation's name to descriptor 2 before the call that counts and of "end" behind it;
// callgrind collects inside the function `measured` alone.
int runOne(const std::string& parent, const std::string& contender);

}  // namespace bench
