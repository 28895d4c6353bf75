// Requests of a test: by libcurl, or byte by byte.
#pragma once

#include <curl/curl.h>

#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/scriptedServer.h"

namespace diskcached {

struct Reply {
  long status = 0;
  std::string head, body, error;

  std::string header(const std::string& name) const {
    const char* const line = strcasestr(head.c_str(), ("\n" + name + ": ").c_str());
    const std::string rest = line ? line + name.size() + 3 : "";
    return rest.substr(0, rest.find('\r'));
  }
  bool isHit() const { return header("cache-status").find("; hit") != std::string::npos; }
};

// One connection, kept. Used by one thread.
class HttpClient {
 public:
  explicit HttpClient(uint16_t port) : m_port(port), m_curl(curl_easy_init()) {}
  ~HttpClient() { curl_easy_cleanup(m_curl); }
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  Reply ask(const std::string& method, const std::string& path, const std::vector<std::string>& headers = {},
            const std::string& body = "") {
    curl_easy_reset(m_curl);
    Reply reply;
    curl_slist* list = curl_slist_append(nullptr, "Content-Type:");  // none of libcurl's own
    for (const std::string& header : headers) list = curl_slist_append(list, header.c_str());
    curl_easy_setopt(m_curl, CURLOPT_URL, ("http://127.0.0.1:" + std::to_string(m_port) + path).c_str());
    curl_easy_setopt(m_curl, CURLOPT_PROXY, "");
    curl_easy_setopt(m_curl, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(m_curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(m_curl, CURLOPT_TIMEOUT, 60L);
    curl_easy_setopt(m_curl, CURLOPT_HTTPHEADER, list);
    curl_easy_setopt(m_curl, CURLOPT_CUSTOMREQUEST, method.c_str());
    if (method == "HEAD") curl_easy_setopt(m_curl, CURLOPT_NOBODY, 1L);
    if (method == "PUT" || !body.empty()) {
      curl_easy_setopt(m_curl, CURLOPT_POSTFIELDS, body.data());
      curl_easy_setopt(m_curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    }
    curl_easy_setopt(m_curl, CURLOPT_WRITEFUNCTION, &HttpClient::onReply);
    curl_easy_setopt(m_curl, CURLOPT_WRITEDATA, &reply.body);
    curl_easy_setopt(m_curl, CURLOPT_HEADERFUNCTION, &HttpClient::onReply);
    curl_easy_setopt(m_curl, CURLOPT_HEADERDATA, &reply.head);
    const CURLcode code = curl_easy_perform(m_curl);
    if (code != CURLE_OK) reply.error = curl_easy_strerror(code);
    curl_easy_getinfo(m_curl, CURLINFO_RESPONSE_CODE, &reply.status);
    curl_slist_free_all(list);
    return reply;
  }

 private:
  static size_t onReply(char* data, size_t size, size_t count, void* part) {
    static_cast<std::string*>(part)->append(data, size * count);
    return size * count;
  }

  const uint16_t m_port;
  CURL* const m_curl;
};

// A bare connection, for what no client sends.
class RawClient {
 public:
  explicit RawClient(uint16_t port) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in address = ObjectStore::loopback(port);
    timeval patience{.tv_sec = 20, .tv_usec = 0};
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    m_isConnected = connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawClient() { close(m_fd); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool isConnected() const { return m_isConnected; }
  void send(std::string_view text) const { ObjectStore::sendAll(m_fd, text); }
  // What comes next; empty at the end.
  std::string receive() const {
    std::array<char, 64 << 10> bytes;
    const ssize_t got = recv(m_fd, bytes.data(), bytes.size(), 0);
    return {bytes.data(), got > 0 ? static_cast<size_t>(got) : 0};
  }
  // All until the server ends the connection.
  std::string receiveAll() const {
    std::string all;
    for (std::string piece = receive(); !piece.empty(); piece = receive()) all += piece;
    return all;
  }
  // Sends all, and receives until the end.
  std::string exchange(std::string_view text) const {
    send(text);
    return receiveAll();
  }

 private:
  const int m_fd;
  bool m_isConnected = false;
};

}  // namespace diskcached
