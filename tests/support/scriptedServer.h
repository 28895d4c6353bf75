// An HTTP server in the test's own process that answers as a test wants.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace ObjectStore {

inline sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A socket bound to a port that was free.
inline int bindLoopback(uint16_t& port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  (void)bind(fd, reinterpret_cast<const sockaddr*>(&address), size);
  (void)getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  port = ntohs(address.sin_port);
  return fd;
}

// As far as the peer takes it.
inline void sendAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent <= 0) return;
    text.remove_prefix(static_cast<size_t>(sent));
  }
}

class ScriptedServer {
 public:
  struct Request {
    std::string method, target, range, body;
  };
  using Send = std::function<void(std::string_view)>;
  // Sends an answer; the connection ends with it. Called by several threads.
  using Script = std::function<void(const Request&, const Send&)>;

  explicit ScriptedServer(Script script) : m_script(std::move(script)), m_fd(bindLoopback(m_port)) {
    (void)listen(m_fd, 100);
    m_acceptor = std::thread([this] {
      for (int fd = accept(m_fd, nullptr, nullptr); fd >= 0; fd = accept(m_fd, nullptr, nullptr))
        m_threads.emplace_back([this, fd] { serve(fd); });
    });
  }
  ~ScriptedServer() {
    shutdown(m_fd, SHUT_RDWR);
    m_acceptor.join();
    for (std::thread& thread : m_threads) thread.join();
    close(m_fd);
  }
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port); }
  // The answer to a GET or HEAD of an object.
  static std::string answer(const Request& request, const std::string& headers, const std::string& body,
                            const std::string& status = "200 OK") {
    return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n" + headers + "\r\n" + (request.method == "HEAD" ? "" : body);
  }

 private:
  void serve(int fd) const {
    std::string got;
    const auto receive = [&] {
      char bytes[4096];
      const ssize_t size = recv(fd, bytes, sizeof bytes, 0);
      got.append(bytes, size > 0 ? static_cast<size_t>(size) : 0);
      return size > 0;
    };
    while (got.find("\r\n\r\n") == std::string::npos && receive()) continue;
    const size_t end = got.find("\r\n\r\n");
    const auto valueOf = [&](const std::string& name) {
      const size_t at = got.find("\r\n" + name + ": "), from = at + name.size() + 4;
      return at < end ? got.substr(from, got.find('\r', from) - from) : "";
    };
    const size_t length = std::strtoul(valueOf("Content-Length").c_str(), nullptr, 10);
    while (end != std::string::npos && got.size() < end + 4 + length && receive()) continue;
    if (end != std::string::npos) {
      Request request{.method = {}, .target = {}, .range = valueOf("Range"), .body = got.substr(end + 4)};
      std::istringstream(got) >> request.method >> request.target;
      m_script(request, [fd](std::string_view text) { sendAll(fd, text); });
    }
    close(fd);
  }

  const Script m_script;
  uint16_t m_port = 0;
  const int m_fd;
  std::thread m_acceptor;
  std::vector<std::thread> m_threads;  // the acceptor's until it has ended
};

}  // namespace ObjectStore
