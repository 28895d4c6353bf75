// How a subcommand ends early, and the exit statuses of all of them.
#pragma once

#include <stdexcept>
#include <string>

namespace diskcachectl {

// In rising order: a command that met several ends with the last of them.
enum class ExitStatus {
  Success = 0,
  CheckFailed = 1,  // wrong bytes, damage, a segment that is not there
  BadInput = 2,     // usage, or input that cannot be used
  Error = 3,        // the cache or the system reported an error
};

// Thrown by a subcommand; main prints the text as one line on standard error and exits with the status.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& text) : std::runtime_error(text), m_status(status) {}
  // For a command that has said everything already.
  explicit Failure(ExitStatus status) : Failure(status, "") {}
  ExitStatus status() const { return m_status; }

 private:
  ExitStatus m_status;
};

}  // namespace diskcachectl
