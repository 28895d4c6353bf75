// Figures of diskcachectl: hit curves of traces, and the rates of a live server.
#ifdef DISKCACHECTL_PATH
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <initializer_list>
#include <random>
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

struct LiveToolTest : ToolTest {
  // A trace with popular objects, loops and, if asked for, objects that are replaced by others of another size.
  void writeTrace(size_t requests, unsigned objects, bool hasReplaced, double skew = 3) {
    std::mt19937 random(7);
    std::string text = "# id,size\n";
    for (size_t i = 0; i < requests; ++i) {
      const double share = std::pow(static_cast<double>(random() % 100'000) / 100'000, skew);
      const unsigned object =
          i % 3 == 0 ? static_cast<unsigned>(i) % (objects / 4) : static_cast<unsigned>(share * objects);
      const unsigned size = 100 + object % 400 + (hasReplaced && random() % 30 == 0 ? 1 : 0);
      text += "object-" + std::to_string(object) + ',' + std::to_string(size) + ",x\n";
    }
    writeFile(dir / "trace", text);
  }
  const std::string trace = "--trace " + (dir / "trace ");
};

TEST_F(LiveToolTest, ACurveIsWhatReplayFindsAtEachSize) {
  for (const bool hasReplaced : {false, true}) {
    writeTrace(4000, 300, hasReplaced);
    const json curve = parsed("curve " + trace);
    EXPECT_EQ(curve["requests"], 4000);
    EXPECT_EQ(curve["points"].size(), curve["objects"]);
    EXPECT_EQ(curve.size(), 3U);
    for (const size_t entries : std::initializer_list<size_t>{5, 17, 60, 150, 290}) {
      for (const char* name : {"root", "v"}) std::filesystem::remove_all(dir / name);
      ASSERT_EQ(run("replay --json - --root " + (dir / "root --volume ") + (dir / "v ") + trace +
                    "--max-entries " + std::to_string(entries)),
                0)
          << err;
      const json& point = curve["points"][entries - 1];
      EXPECT_EQ(point["entries"], entries);
      EXPECT_EQ(point["hit_ratio"], json::parse(out)["hit_ratio"]) << entries;
    }
  }
}

// The bytes of a point are those of the smallest cache, bounded in bytes, that finds as much.
TEST_F(LiveToolTest, TheBytesOfAPointAreTheLeastThatDo) {
  writeTrace(2000, 80, false);
  std::vector<std::pair<std::string, size_t>> asked;
  std::istringstream lines(readFile(dir / "trace"));
  for (std::string line; std::getline(lines, line);) {
    if (line[0] == '#') continue;
    const size_t comma = line.find(',');
    asked.emplace_back(line.substr(0, comma), std::stoul(line.substr(comma + 1)));
  }
  const auto hitsWith = [&](size_t bound) {
    std::vector<std::pair<std::string, size_t>> recent;  // newest last
    size_t hits = 0, bytes = 0;
    for (const auto& object : asked) {
      const auto found = std::find(recent.begin(), recent.end(), object);
      if (found != recent.end()) {
        ++hits;
        bytes -= object.second;
        recent.erase(found);
      }
      recent.push_back(object);
      bytes += object.second;
      for (; bytes > bound; recent.erase(recent.begin())) bytes -= recent.front().second;
    }
    return hits;
  };
  const json curve = parsed("curve " + trace + "--points 7");
  ASSERT_GE(curve["points"].size(), 5U);
  for (const json& point : curve["points"]) {
    const auto hits = static_cast<size_t>(std::lround(point["hit_ratio"].get<double>() * 2000));
    if (hits == 0) continue;
    EXPECT_GE(hitsWith(point["bytes"]), hits) << point;
    EXPECT_LT(hitsWith(point["bytes"].get<size_t>() - 1), hits) << point;
  }
}

TEST_F(LiveToolTest, ASampleTellsItsError) {
  writeTrace(300'000, 30'000, false, 1.5);  // its loops make a step in the curve
  const json exact = parsed("curve " + trace);
  const json sample = parsed("curve --sample 0.25 " + trace);
  const size_t at = err.find("at most ");
  ASSERT_NE(at, std::string::npos) << err;
  const double told = std::stod(err.substr(at + 8)) / 100;
  EXPECT_LT(told, 0.15);
  EXPECT_EQ(sample["requests"], 300'000);
  for (const json& point : sample["points"]) {
    const size_t entries = std::min(point["entries"].get<size_t>(), exact["objects"].get<size_t>());
    if (entries < 40) continue;  // ten of the sample: distances are too coarse below
    EXPECT_NEAR(point["hit_ratio"].get<double>(), exact["points"][entries - 1]["hit_ratio"].get<double>(),
                2 * told)
        << point;
  }
}

TEST_F(LiveToolTest, CurvesAreDrawnAndBadTracesRefused) {
  writeTrace(500, 40, false);
  ASSERT_EQ(run("curve " + trace + "--picture " + (dir / "curve.svg")), 0) << err;
  EXPECT_NE(out.find("HIT RATIO"), std::string::npos);
  const std::string svg = readFile(dir / "curve.svg");
  EXPECT_EQ(svg.substr(0, 5), "<svg ");
  EXPECT_NE(svg.find("</svg>"), std::string::npos);
  if (std::system("command -v gnuplot >/dev/null 2>&1") == 0) {
    ASSERT_EQ(run("curve " + trace + "--picture " + (dir / "curve.png")), 0) << err;
    EXPECT_EQ(readFile(dir / "curve.png").substr(1, 3), "PNG");
  } else {
    expectFailure("curve " + trace + "--picture " + (dir / "curve.png"), 2, "needs gnuplot");
  }
  writeFile(dir / "ids", "ab1,5\nab1,7\n");
  EXPECT_EQ(parsed("curve --trace " + (dir / "ids"))["points"][0]["hit_ratio"], 0);
  EXPECT_EQ(parsed("curve --by-id --trace " + (dir / "ids"))["points"][0]["hit_ratio"], 0.5);
  const std::pair<std::string, std::string> refusals[] = {
      {"ab1\n", ":1: there is no comma"},
      {"ab1,5\nab2,x\n", ":2: the size \"x\" is no number"},
      {"ab1,0\n", "the size is 0"},
      {"a/b,1\n", "holds a '/'"},
      {"# nothing\n", "holds no request"}};
  for (const auto& [text, why] : refusals) {
    writeFile(dir / "trace", text);
    expectFailure("curve " + trace, 2, why);
  }
  expectFailure("curve --trace " + (dir / "none"), 2, "No such file");
  expectFailure("curve --sample 2 " + trace, 2, "no share");
}

TEST_F(LiveToolTest, TopShowsTheRatesOfALiveServer) {
  const std::string before =
      "# HELP x y\n"
      "diskcache_client_hits_total{from=\"table\"} 100\ndiskcache_client_hits_total{from=\"disk\"} 0\n"
      "diskcache_client_misses_total 10\n"
      "diskcache_client_read_bytes_total{from=\"disk\"} "
      "0\ndiskcache_client_read_bytes_total{from=\"origin\"} 0\n"
      "diskcache_client_evicted_age_seconds_sum 50\ndiskcache_client_evicted_age_seconds_count 5\n"
      "diskcache_volume_free_bytes{index=\"1\",directory=\"/a }\\\"b\"} 5000\n"
      "diskcache_volume_reserved_bytes{index=\"1\",directory=\"/a }\\\"b\"} 1000\n";
  const std::string after =
      "diskcache_client_hits_total{from=\"table\"} 150\ndiskcache_client_hits_total{from=\"disk\"} 40\n"
      "diskcache_client_misses_total 20\n"
      "diskcache_client_read_bytes_total{from=\"disk\"} "
      "1e9\ndiskcache_client_read_bytes_total{from=\"origin\"} 0\n"
      "diskcache_client_evicted_age_seconds_sum 350\ndiskcache_client_evicted_age_seconds_count 8\n"
      "diskcache_volume_free_bytes{index=\"1\",directory=\"/a }\\\"b\"} 5000\n"
      "diskcache_volume_reserved_bytes{index=\"1\",directory=\"/a }\\\"b\"} 1000\n";
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

TEST_F(LiveToolTest, HelpFitsTheWidth) {
  for (const char* command : {"", "ls", "replay", "prune", "migrate"}) {
    ASSERT_EQ(std::system(
                  ("COLUMNS=60 " DISKCACHECTL_PATH " " + std::string(command) + " --help >" + (dir / "help"))
                      .c_str()),
              0);
    std::istringstream lines(readFile(dir / "help"));
    for (std::string line; std::getline(lines, line) && line != "Example:";)
      EXPECT_LE(line.size(), 60U) << command << ": " << line;
  }
}

}  // namespace
}  // namespace ObjectStore
#endif
