// Internal: listing a volume's top-level directories.
#pragma once

#include <string>
#include <vector>

namespace ObjectStore {

// Appends the names in a directory, files and directories alike, in the order the system gives them; 0 or a
// system error number, which is logged.
int readChildren(std::vector<std::string>& out, const std::string& dir);

}  // namespace ObjectStore
