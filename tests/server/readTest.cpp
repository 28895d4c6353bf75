// Reading through the server: right bytes, whatever is asked for and whatever happens meanwhile.
#include <atomic>
#include <thread>

#include "http/target.h"
#include "tests/server/serverFixture.h"

namespace diskcached {
namespace {

struct ServerReadTest : ServerTest {
  // Many clients ask for files, or for parts of them; answers are right, or not there if the server may end.
  void load(unsigned clients, size_t requests, bool mayEnd = false) const {
    std::vector<std::jthread> threads;
    for (unsigned c = 0; c < clients; ++c) {
      threads.emplace_back([&, c] {
        std::mt19937 random(c);
        HttpClient client(port);
        for (size_t i = 0; i < requests / clients && !HasFailure(); ++i) {
          auto [name, expected] = files[random() % files.size()];
          std::vector<std::string> headers;
          if (!expected.empty() && random() % 3 != 0) {
            const size_t from = random() % expected.size(), to = from + random() % (expected.size() - from);
            headers.push_back("Range: bytes=" + std::to_string(from) + "-" + std::to_string(to));
            expected = expected.substr(from, to - from + 1);
          }
          const Reply reply = client.ask("GET", '/' + encodePath(name), headers);
          const bool isAnswered = reply.status == (headers.empty() ? 200 : 206) && reply.error.empty();
          EXPECT_TRUE(isAnswered || mayEnd) << name << ": status " << reply.status << ' ' << reply.error;
          EXPECT_TRUE(reply.body == expected || !isAnswered) << name << ": wrong bytes";
        }
      });
    }
  }
  std::vector<std::pair<std::string, std::string>> files;  // names and contents
};

TEST_F(ServerReadTest, ManyClientsGetEveryByteAlsoAfterRestartAndKill) {
  std::mt19937 random(1);
  for (size_t i = 0; i < 2000; ++i) {
    const std::string name = "d" + std::to_string(i % 50) + "/file " + std::to_string(i);
    const size_t bits = random() % 18;
    const size_t size = i % 400 == 7 ? 3'000'000 + random() % 100'000 : random() % (size_t{1} << bits);
    files.emplace_back(name, bytesOf(name, size));
    store.put(name, files.back().second);
  }
  start();
  load(64, 6400);
  EXPECT_EQ(server->end(SIGTERM), 0);
  start();
  std::thread killer([&] {
    eventually([&] { return metric("diskcached_answers_total{status=\"2xx\"}") > 500; });
    server->end(SIGKILL);
  });
  load(16, 6400, true);  // requests fail when it dies, but give no wrong bytes
  killer.join();
  // Without the index the blocks are found by what the store says, and damaged ones are fetched again.
  fs::remove(dir / "root/diskcached.index");
  size_t number = 0;
  for (const auto& entry : fs::recursive_directory_iterator(volume + "/blocks")) {
    std::string bytes = entry.is_regular_file() ? readFile(entry.path()) : "";
    if (bytes.size() < 300 || ++number % 10 != 0) continue;
    bytes[160] ^= 1;
    writeFile(entry.path(), bytes);
  }
  start();
  load(64, 3200);
  EXPECT_GT(metric("diskcached_objects_total{result=\"hit\"}"), 1000);
  EXPECT_GT(metric("diskcache_client_damaged_blocks_total"), 50);
  EXPECT_LT(metric("diskcache_client_misses_total"), 400);
  EXPECT_EQ(server->end(SIGTERM), 0);
}

TEST_F(ServerReadTest, AHerdOnAColdObjectCostsTheStoreOneObject) {
  const std::string content = bytesOf("cold", 5'000'000);
  store.put("cold", content);
  start();
  std::atomic<unsigned> right{0};
  {
    std::vector<std::jthread> clients;
    for (int i = 0; i < 100; ++i) clients.emplace_back([&] { right += get("/cold").body == content; });
  }
  EXPECT_EQ(right, 100U);
  std::istringstream requests(store.requests());
  uint64_t sent = 0, bytes = 0;
  for (std::string method, path, status; requests >> method >> path >> status >> bytes;) sent += bytes;
  EXPECT_EQ(sent, content.size());
}

// The store gives 256 KiB a second: the first bytes must be there long before the last.
TEST_F(ServerReadTest, AMissStreamsWhileItIsFetched) {
  const std::string content = bytesOf("slow", 600'000);
  store.put("slow", content);
  store.restart("limit_rate 256k;");
  start({"--block-size=1M"});
  const RawClient client(port);
  client.send("GET /slow HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n");
  std::string got = client.receive();
  while (got.find("\r\n\r\n") + 4 >= got.size()) got += client.receive();
  EXPECT_EQ(metric("diskcache_client_stored_blocks_total"), 0);  // the block has not even come whole
  got += client.receiveAll();
  EXPECT_TRUE(got.ends_with(content));
}

TEST_F(ServerReadTest, AnswersRangesAndConditionsByTheBook) {
  const std::string content = bytesOf("object.txt", 100'000);
  store.put("object.txt", content);
  const fs::path file = store.files + "/object.txt";
  last_write_time(file, last_write_time(file) - std::chrono::seconds(10));
  start();
  const Reply whole = get("/object.txt");
  const std::string etag = whole.header("etag"), date = whole.header("last-modified");
  ASSERT_FALSE(etag.empty());
  EXPECT_EQ(whole.header("content-type"), "text/plain");
  const std::tuple<std::string, std::vector<std::string>, long, size_t, size_t> cases[] = {
      {"GET", {"Range: bytes=0-0"}, 206, 0, 1},
      {"GET", {"Range: bytes=65530-65545"}, 206, 65530, 16},
      {"GET", {"Range: bytes=99999-"}, 206, 99999, 1},
      {"GET", {"Range: bytes=99990-200000"}, 206, 99990, 10},
      {"GET", {"Range: bytes=-7"}, 206, 99993, 7},
      {"GET", {"Range: bytes=-200000"}, 206, 0, 100'000},
      {"GET", {"Range: bytes=100000-"}, 416, 0, 0},
      {"GET", {"Range: bytes=-0"}, 416, 0, 0},
      {"GET", {"Range: bytes=0-1,5-6"}, 200, 0, 100'000},
      {"GET", {"Range: bytes=5-2"}, 200, 0, 100'000},
      {"GET", {"Range: bytes=1-2", "If-Range: " + etag}, 206, 1, 2},
      {"GET", {"Range: bytes=1-2", "If-Range: \"other\""}, 200, 0, 100'000},
      {"GET", {"If-None-Match: \"a,b\", W/" + etag}, 304, 0, 0},
      {"GET", {"If-None-Match: *"}, 304, 0, 0},
      {"GET", {"If-None-Match: \"other\"", "If-Modified-Since: " + date}, 200, 0, 100'000},
      {"GET", {"If-Modified-Since: " + date}, 304, 0, 0},
      {"GET", {"If-Modified-Since: Thu, 01 Jan 1970 00:00:00 GMT"}, 200, 0, 100'000},
      {"GET", {"If-Modified-Since: yesterday"}, 200, 0, 100'000},
      {"GET", {"If-Match: \"other\""}, 412, 0, 0},
      {"GET", {"If-Match: " + etag, "Range: bytes=3-4"}, 206, 3, 2},
      {"GET", {"If-Unmodified-Since: Thu, 01 Jan 1970 00:00:00 GMT"}, 412, 0, 0},
      {"HEAD", {}, 200, 0, 100'000},
      {"HEAD", {"Range: bytes=10-19"}, 206, 10, 10},
  };
  for (const auto& [method, headers, status, from, size] : cases) {
    const Reply reply = ask(method, "/object.txt", headers);
    SCOPED_TRACE(headers.empty() ? method : headers.back());
    EXPECT_EQ(reply.status, status);
    EXPECT_EQ(reply.body, method == "HEAD" ? "" : content.substr(from, size));
    EXPECT_TRUE(reply.isHit()) << reply.head;
    const std::string part = std::to_string(from) + '-' + std::to_string(from + size - 1);
    const std::string range = status == 206 ? "bytes " + part + "/100000" : "";
    EXPECT_EQ(reply.header("content-range"), status == 416 ? "bytes */100000" : range);
    EXPECT_EQ(reply.header("etag"), status == 412 || status == 416 ? "" : etag);
    EXPECT_TRUE(status != 200 || reply.header("content-length") == "100000") << reply.head;
  }
  EXPECT_TRUE(get("/object.txt?x-id=GetObject").isHit());  // as some clients name what they do
  EXPECT_FALSE(get("/object.txt?x-id=PutObject").isHit());
}

TEST_F(ServerReadTest, ServesOddKeysAndRequestsInARow) {
  start();
  for (const std::string name : {"a:b", "plus+sign", "100%", "ä ö", "q?m", "hash#tag", "quote\"d",
                                 "back\\slash", "(par[en]{s})", "!$&;='*,@^`|<>~"}) {
    store.put(name, bytesOf(name, 1000));
    for (const bool isHit : {false, true}) {
      const Reply reply = get('/' + encodePath(name));
      EXPECT_EQ(reply.body, bytesOf(name, 1000)) << name;
      EXPECT_EQ(reply.isHit(), isHit) << name;
    }
  }
  store.put("empty", "");
  const std::string got = RawClient(port).exchange(
      "GET /a:b HTTP/1.1\r\nHost: h\r\n\r\nHEAD http://h/%61%3ab HTTP/1.1\r\nHost: h\r\n\r\n\r\n"
      "GET /empty HTTP/1.1\r\nHost: h\r\n\r\nGET /plus+sign HTTP/1.0\r\n\r\n");
  EXPECT_EQ(countOf("HTTP/1.1 200 OK", got), 4U) << got;
  EXPECT_TRUE(got.ends_with(bytesOf("plus+sign", 1000)));
}

}  // namespace
}  // namespace diskcached
