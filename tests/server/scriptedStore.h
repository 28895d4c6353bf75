// A store in the test's own process that answers as a test wants, for what nginx does not do.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/server/serverFixture.h"

namespace diskcached {

class ScriptedStore {
 public:
  struct Request {
    std::string method, target, range, body;
  };
  using Send = std::function<void(std::string_view)>;
  // Sends an answer; the connection ends with it. Called by several threads.
  using Script = std::function<void(const Request&, const Send&)>;

  explicit ScriptedStore(Script script)
      : m_script(std::move(script)), m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    (void)bind(m_fd, reinterpret_cast<const sockaddr*>(&address), size);
    (void)listen(m_fd, 100);
    (void)getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &size);
    origin = "--origin=http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    m_acceptor = std::thread([this] { acceptAll(); });
  }
  ~ScriptedStore() {
    shutdown(m_fd, SHUT_RDWR);
    m_acceptor.join();
    for (std::thread& thread : m_threads) thread.join();
    close(m_fd);
  }
  ScriptedStore(const ScriptedStore&) = delete;
  ScriptedStore& operator=(const ScriptedStore&) = delete;

  // The answer to a GET or HEAD of an object.
  static std::string answer(const Request& request, const std::string& headers, const std::string& body,
                            const std::string& status = "200 OK") {
    return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n" + headers + "\r\n" + (request.method == "HEAD" ? "" : body);
  }

  std::string origin;  // the option that names it

 private:
  void acceptAll() {
    for (int fd = accept(m_fd, nullptr, nullptr); fd >= 0; fd = accept(m_fd, nullptr, nullptr))
      m_threads.emplace_back([this, fd] { serve(fd); });
  }
  void serve(int fd) const {
    std::string got;
    const auto receive = [&] {
      char bytes[4096];
      const ssize_t size = recv(fd, bytes, sizeof bytes, 0);
      got.append(bytes, size > 0 ? static_cast<size_t>(size) : 0);
      return size > 0;
    };
    while (got.find("\r\n\r\n") == std::string::npos && receive()) continue;
    const size_t end = got.find("\r\n\r\n"), length = got.find("Content-Length: "), space = got.find(' ');
    const size_t body = length < end ? std::stoul(got.substr(length + 16)) : 0;
    while (end != std::string::npos && got.size() < end + 4 + body && receive()) continue;
    if (end != std::string::npos) {
      const size_t range = got.find("Range: ");
      m_script(
          {got.substr(0, space), got.substr(space + 1, got.find(' ', space + 1) - space - 1),
           range < end ? got.substr(range + 7, got.find('\r', range) - range - 7) : "", got.substr(end + 4)},
          [fd](std::string_view text) {
            while (!text.empty()) {
              const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
              if (sent <= 0) return;
              text.remove_prefix(static_cast<size_t>(sent));
            }
          });
    }
    close(fd);
  }

  const Script m_script;
  const int m_fd;
  std::thread m_acceptor;
  std::vector<std::thread> m_threads;  // the acceptor's until it has ended
};

}  // namespace diskcached
