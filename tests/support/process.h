// Programs that a test starts, and that never outlive it.
#pragma once

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ObjectStore {

// Whether something comes true within the time that even a busy machine needs.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::seconds limit = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class Process {
 public:
  // Its output goes to a file.
  Process(const std::vector<std::string>& command, const std::string& output,
          std::vector<std::string> environment = {}) {
    // What a sanitizer is told reaches the program too, and nothing else of this environment.
    for (const std::string name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"})
      if (const char* const value = std::getenv(name.c_str())) environment.push_back(name + '=' + value);
    std::vector<char*> arguments, variables;
    for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
    for (const std::string& variable : environment) variables.push_back(const_cast<char*>(variable.c_str()));
    arguments.push_back(nullptr);
    variables.push_back(nullptr);
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    m_pid = fork();
    if (m_pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(file, STDOUT_FILENO);
      dup2(file, STDERR_FILENO);
      execvpe(arguments[0], arguments.data(), variables.data());
      _exit(127);
    }
    close(file);
  }
  ~Process() { (void)end(SIGKILL); }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void tell(int signal) const { kill(m_pid, signal); }
  // The exit status, or the negative signal, once it has ended.
  int wait() {
    (void)hasEnded(0);
    return *m_status;
  }
  bool hasEnded(int options = WNOHANG) {
    int status = 0;
    if (!m_status && waitpid(m_pid, &status, options) == m_pid)
      m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return m_status.has_value();
  }
  int end(int signal) {
    if (!m_status) tell(signal);
    return wait();
  }

 private:
  pid_t m_pid = -1;
  std::optional<int> m_status;
};

}  // namespace ObjectStore
