// diskcachectl top: the rates of a live server.
#ifdef DISKCACHECTL_PATH
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "tests/support/toolFixture.h"

namespace ObjectStore {
namespace {

using nlohmann::json;

// Answers each connection's requests with the pages, one after the other, the last one again and again.
class PageServer {
 public:
  explicit PageServer(std::vector<std::string> pages) : m_pages(std::move(pages)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* any = reinterpret_cast<sockaddr*>(&address);
    if (bind(m_socket, any, size) != 0 || listen(m_socket, 4) != 0 || getsockname(m_socket, any, &size) != 0)
      throw std::runtime_error("cannot listen");
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { serve(); });
  }
  ~PageServer() {
    shutdown(m_socket, SHUT_RDWR);
    m_thread.join();
    close(m_socket);
  }
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;
  std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port) + "/metrics"; }

 private:
  void serve() {
    for (int fd; (fd = accept(m_socket, nullptr, nullptr)) >= 0; close(fd)) {
      char request[4096];
      while (recv(fd, request, sizeof(request), 0) > 0) {
        const std::string& page = m_pages[std::min(m_next++, m_pages.size() - 1)];
        const std::string status = page.empty() ? "503 Unavailable" : "200 OK";
        const std::string answer =
            "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(page.size()) + "\r\n\r\n" + page;
        if (send(fd, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) break;
      }
    }
  }

  const int m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  uint16_t m_port = 0;
  const std::vector<std::string> m_pages;
  size_t m_next = 0;
  std::thread m_thread;
};

using LiveToolTest = ToolTest;

TEST_F(LiveToolTest, TopShowsTheRatesOfALiveServer) {
  // A page with these counters: hits from table and disk, misses, bytes from disk, ages and number of the evicted.
  const auto page = [](const std::array<const char*, 6>& values) {
    const char* const names[] = {
        "hits_total{from=\"table\"}",      "hits_total{from=\"disk\"}", "misses_total",
        "read_bytes_total{from=\"disk\"}", "evicted_age_seconds_sum",   "evicted_age_seconds_count"};
    std::string text = "# HELP x y\ndiskcache_client_read_bytes_total{from=\"origin\"} 0\n";
    for (size_t i = 0; i < values.size(); ++i)
      text += std::string("diskcache_client_") + names[i] + ' ' + values[i] + '\n';
    return text + "diskcache_volume_free_bytes{index=\"1\",directory=\"/a }\\\"b\"} 5000\n" +
           "diskcache_volume_reserved_bytes{index=\"1\",directory=\"/a }\\\"b\"} 1000\n";
  };
  const std::string before = page({"100", "0", "10", "0", "50", "5"});
  const std::string after = page({"150", "40", "20", "1e9", "350", "8"});
  {
    const PageServer server({before, after});
    ASSERT_EQ(run("top --json --interval 0.05 --count 2 " + server.url()), 0) << err;
    const json first = json::parse(out.substr(0, out.find('\n')));
    EXPECT_DOUBLE_EQ(first["hit_ratio"], 0.9);
    EXPECT_GT(first["disk_bytes_per_s"], 1e6);
    EXPECT_EQ(first["origin_bytes_per_s"], 0.0);
    EXPECT_DOUBLE_EQ(first["evicted_age_s"], 100.0);
    EXPECT_EQ(first["delay_ratio"], nullptr) << "the page does not tell";
    EXPECT_EQ(first["room"], (json{{"/a }\"b", 4000.0}}));
    EXPECT_EQ(json::parse(out.substr(out.find('\n')))["hit_ratio"], nullptr) << "nothing was asked for";
  }
  {
    const PageServer server({before, "", after});
    ASSERT_EQ(run("top --interval 0.05 --count 2 " + server.url()), 0) << err;
    EXPECT_NE(err.find("HTTP status 503"), std::string::npos) << err;
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2) << "a heading, and a line for the page that came";
    EXPECT_NE(out.find(" 90.0 "), std::string::npos) << out;
  }
  {
    const PageServer server({before, after});
    const std::string shown = onTerminal("top --interval 0.05 --count 1 " + server.url());
    EXPECT_EQ(shown.find("\033[H\033[2J"), 0U) << "it begins with an empty screen";
    const std::pair<const char*, const char*> rows[] = {{"hit ratio, %", "90.0"},
                                                        {"age of the evicted", "1 min"},
                                                        {"writers delayed, %", "-"},
                                                        {"/a }\"b", "3.9 KiB"}};
    for (const auto& [name, value] : rows) {
      const size_t row = shown.find(name);
      ASSERT_NE(row, std::string::npos) << name << '\n' << shown;
      const size_t begin = shown.rfind('\n', row) + 1;
      EXPECT_NE(shown.substr(begin, shown.find('\r', row) - begin).find(value), std::string::npos) << name;
    }
  }
  const PageServer empty({""});
  expectFailure("top --count 1 " + empty.url(), 3, "HTTP status 503");
  expectFailure("top --count 1 ftp://127.0.0.1/", 2, "ftp://127.0.0.1/");
}

}  // namespace
}  // namespace ObjectStore
#endif
