// diskcachectl top: the rates of a live server.
#ifdef DISKCACHECTL_PATH
#include <array>
#include <atomic>

#include "tests/support/scriptedServer.h"
#include "tests/support/toolFixture.h"

namespace ObjectStore {
namespace {

using nlohmann::json;

// Answers with the pages, one after the other, the last one again and again; with 503 in place of an empty one.
class PageServer {
 public:
  explicit PageServer(std::vector<std::string> pages) : m_pages(std::move(pages)) {}
  std::string url() const { return m_server.url() + "/metrics"; }

 private:
  const std::vector<std::string> m_pages;
  std::atomic<size_t> m_next = 0;
  const ScriptedServer m_server{[this](const auto& request, const auto& send) {
    const std::string& page = m_pages[std::min(m_next++, m_pages.size() - 1)];
    send(ScriptedServer::answer(request, "", page, page.empty() ? "503 Unavailable" : "200 OK"));
  }};
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
  const PageServer empty({""});
  expectFailure("top --count 1 " + empty.url(), 3, "HTTP status 503");
  expectFailure("top --count 1 ftp://127.0.0.1/", 2, "ftp://127.0.0.1/");
}

}  // namespace
}  // namespace ObjectStore
#endif
