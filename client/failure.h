// Failures of the client library: logged where they are found, and returned with the same text.
#pragma once

#include "support/log.h"

#define DC_CLIENT_FAIL(errNo, ...)                 \
  (DC_LOG(LogLevel::Error, "Error: " __VA_ARGS__), \
   RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, (errNo), __VA_ARGS__))
