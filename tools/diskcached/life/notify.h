// What the service manager is told, if one listens.
#pragma once

#include <string_view>

namespace diskcached {

// "READY=1", "STOPPING=1", ... to the socket that NOTIFY_SOCKET names. Nothing happens without one.
void notifyManager(std::string_view state);

}  // namespace diskcached
