// Results by name, so that a mismatch reads well: "success", "ENOSPC", ...
#pragma once

#include <cstring>
#include <string>

#include "support/error.h"

namespace ObjectStore {

inline std::string outcome(int errNo) {
  if (errNo == 0) return "success";
  const char* name = strerrorname_np(errNo);
  return name ? name : "error " + std::to_string(errNo);
}
inline std::string outcome(const CZuError& error) {
  if (!error.IsError()) return "success";
  const int errNo = RMErrorUtil::GetErrNo(error);
  return errNo == 0 ? "error 0" : outcome(errNo);
}

}  // namespace ObjectStore
