// Failures of the client library: logged where they are found, and returned with the same text.
#pragma once

#include <cerrno>

#include "support/log.h"

namespace ObjectStore {

// What passes by itself: who took it for a disk's word would leave staged objects out, or give them up.
inline bool isOfThisProcess(int errNo) { return errNo == EMFILE || errNo == ENFILE || errNo == ENOMEM; }

}  // namespace ObjectStore

#define DC_CLIENT_FAIL(errNo, ...)                 \
  (DC_LOG(LogLevel::Error, "Error: " __VA_ARGS__), \
   RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, (errNo), __VA_ARGS__))
