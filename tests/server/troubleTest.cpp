// What the server does when clients, disks or the store misbehave.
#include <atomic>
#include <future>
#include <list>

#include "tests/server/serverFixture.h"
#include "tests/support/smallFileSystem.h"

namespace diskcached {
namespace {

using ServerTroubleTest = ServerTest;

TEST_F(ServerTroubleTest, HostileRequestsAreRefusedAndEndTheConnection) {
  store.put("x", "x");
  start({"--max-header-bytes=2K", "--max-url-bytes=1K", "--max-upload=10K", "--request-timeout=1",
         "--idle-timeout=1"});
  const std::string get = "GET /x HTTP/1.1\r\nHost: h\r\n", put = "PUT /y HTTP/1.1\r\nHost: h\r\n";
  const std::string hidden = "GET /hidden HTTP/1.1\r\nHost: h\r\n\r\n";
  const std::string chunked = put + "Transfer-Encoding: chunked\r\n\r\n";
  const std::pair<std::string, std::string> cases[] = {
      {get + "Content-Length: 5\r\nContent-Length: 0\r\n\r\n" + hidden, "400"},
      {get + "\n" + hidden, "400"},
      {chunked + "5x\r\nabc", "400"},
      {chunked + "5\nhello\r\n0\r\n\r\n" + hidden, "400"},
      {chunked + "5;" + std::string(100'000, 'a'), "431"},
      {chunked + "1\r\nx\r\n0\r\nA: " + std::string(100'000, 'a'), "431"},
      {put + "Content-Length: 10241\r\n\r\n", "413"},
      {chunked + "2900\r\n" + std::string(0x2900, 'x') + "\r\n0\r\n\r\n", "413"},
      {"GET /" + std::string(1100, 'a') + " HTTP/1.1\r\nHost: h\r\n\r\n", "414"},
      {"GET /" + std::string(100'000, 'a'), "414"},
      {get + "A: " + std::string(3000, 'a') + "\r\n\r\n", "431"},
      {get + "Expect: wonders\r\n\r\n", "417"},
      {"GET /x HTTP/1.1\r\nHo", "408"},
      {put + "Content-Length: 10\r\n\r\nabc", "408"},
      {"GET /a/../x HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n", "400"},
      {"TRACE /x HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n", "405"},
      {get + "Connection: te\r\nConnection: close\r\n\r\n" + hidden, "200"},
  };
  for (const auto& [bytes, status] : cases) {
    const std::string got = RawClient(port).exchange(bytes);
    EXPECT_TRUE(got.starts_with("HTTP/1.1 " + status)) << bytes.substr(0, 200) << got;
    EXPECT_EQ(countOf("HTTP/1.1", got), 1U) << got;  // nothing that was hidden is answered
  }
  EXPECT_EQ(store.requests().find("hidden"), std::string::npos);
  const RawClient slow(port);
  slow.send(put + "Content-Length: 10000\r\n\r\n");
  auto answer = std::async(std::launch::async, [&] { return slow.receive(); });
  while (answer.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready) slow.send("x");
  EXPECT_TRUE(answer.get().starts_with("HTTP/1.1 408")) << "a byte now and then is not enough";
  EXPECT_EQ(this->get("/x").body, "x");
}

TEST_F(ServerTroubleTest, NothingButWholeHeadersIsPassedOn) {
  store.restart(
      "location /saw { add_header X-Saw '[$http_x_amz_acl$http_x_named$http_x_kept]'; }\n"
      "location /odd { add_header X-Kept kept; add_header 'X Bad' 1; add_header X-Cr \"b\\rInjected: c\"; "
      "}\n");
  store.put("odd", "odd");
  start();
  const std::string put =
      "PUT /saw HTTP/1.1\r\nHost: h\r\nConnection: close, x-named\r\nX-Named: n\r\nX-Kept: kept\r\n"
      "Transfer-Encoding: chunked\r\n\r\n1\r\nx\r\n0\r\nx-amz-acl: public-read\r\n\r\n";
  const std::string saw = RawClient(port).exchange(put);
  EXPECT_NE(saw.find("X-Saw: [kept]\r\n"), std::string::npos) << saw;
  const std::string odd = RawClient(port).exchange("GET /odd?q HTTP/1.0\r\n\r\n");
  EXPECT_NE(odd.find("X-Kept: kept\r\n"), std::string::npos) << odd;
  for (const char* dropped : {"X Bad", "Injected"}) EXPECT_EQ(odd.find(dropped), std::string::npos) << odd;
}

TEST_F(ServerTroubleTest, TheSlowKeepNobodyElseWaiting) {
  store.put("big", bytesOf("big", 32 << 20));
  start({"--passing=1", "--memory=1M"});
  const RawClient reader(port);
  reader.send("GET /big?pass HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_NE(reader.receive(), "");  // and takes no more
  std::list<RawClient> writers;
  while (writers.size() < 16)
    writers.emplace_back(port).send("PUT /w HTTP/1.1\r\nHost: h\r\nContent-Length: 2\r\n\r\nx");
  ASSERT_TRUE(eventually([&] { return metric("diskcached_client_uploads_total") == 16; }));
  EXPECT_EQ(get("/big").status, 200);
  EXPECT_EQ(put("/w", "w").status / 100, 2);
}

TEST_F(ServerTroubleTest, TooManyClientsAreTurnedAwayAndMemoryIsBounded) {
  store.put("big", bytesOf("big", 8 << 20));
  start({"--max-connections=20", "--memory=1M"});
  std::list<RawClient> slow;  // ask for much and take nothing
  while (slow.size() < 20) slow.emplace_back(port).send("GET /big HTTP/1.1\r\nHost: h\r\n\r\n");
  ASSERT_TRUE(eventually([&] { return metric("diskcached_connections") == 20; }));
  const std::string got = RawClient(port).exchange("GET /big HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_TRUE(got.starts_with("HTTP/1.1 503")) << got;
  EXPECT_NE(got.find("Retry-After: "), std::string::npos);
  EXPECT_LE(metric("diskcached_memory_bytes"), 1 << 20);
  slow.clear();
  ASSERT_TRUE(eventually([&] { return metric("diskcached_connections") == 0; }));
  EXPECT_EQ(get("/big").body, bytesOf("big", 8 << 20));
}

TEST_F(ServerTroubleTest, StaleAnswersStandInForAStoreThatIsDown) {
  store.restart(
      "location /strict { add_header Cache-Control must-revalidate; }\n"
      "location /fixed { add_header Cache-Control immutable; }\n");
  const std::vector<std::string> options{"--fresh-for=0", "--stale-if-error=1000", "--origin-retries=1"};
  start(options);
  for (const std::string name : {"kept", "strict", "fixed"}) fetch(name, "kept bytes");
  store.stop();
  for (const char* const when : {"before", "after a restart"}) {
    const Reply stale = get("/kept");
    EXPECT_EQ(stale.body, "kept bytes") << when;
    EXPECT_NE(stale.header("cache-status").find("stale-if-error"), std::string::npos) << stale.head;
    for (const char* const path : {"/strict", "/other"}) EXPECT_EQ(get(path).status, 502) << path << when;
    EXPECT_GT(metric("diskcached_origin_retries_total"), 0);
    server->end(SIGKILL);
    start(options);
  }
  server->end(SIGTERM);
  start({"--fresh-for=0", "--origin-retries=0"});
  EXPECT_EQ(get("/kept").status, 502);  // nobody said that stale answers are wanted
  EXPECT_EQ(get("/fixed").body, "kept bytes");
  store.start();
  EXPECT_EQ(get("/kept").body, "kept bytes");
}

TEST_F(ServerTroubleTest, AFullDiskAndAVolumeEmptiedBeneathItCostNoAnswer) {
  const ObjectStore::SmallFileSystem small(24);
  SKIP_WITHOUT(small);
  volume = small / "volume";
  start({"--max-bytes=100M"});
  for (int i = 0; i < 80; ++i) store.put(std::to_string(i), bytesOf(std::to_string(i), 700'000));
  const auto expectRight = [&](int first, int end) {
    for (int i = first; i < end; ++i)
      EXPECT_TRUE(get('/' + std::to_string(i)).body == bytesOf(std::to_string(i), 700'000)) << i;
  };
  expectRight(0, 60);                                           // 42 MB into 24
  std::ofstream(small / "other") << std::string(4 << 20, 'x');  // takes all that was left free
  expectRight(60, 80);
  EXPECT_TRUE(eventually([&] {  // the last block may still be on its way to disk
    std::error_code error;
    return fs::remove_all(volume + "/blocks", error), !error;
  }));
  for (int i = 0; i < 2; ++i) expectRight(70, 80);
  EXPECT_EQ(server->end(SIGTERM), 0);
}

// Each object changes again and again while clients read it: every answer is one version, whole.
TEST_F(ServerTroubleTest, ObjectsThatChangeAreNeverMixed) {
  const auto version = [](char letter) { return std::string(300'000 + static_cast<size_t>(letter), letter); };
  start({"--fresh-for=0"});
  std::atomic<bool> isOver{false};
  const auto publish = [&](char letter) {  // as a store does: at once
    store.put("new", version(letter));
    fs::rename(store.files + "/new", store.files + "/object");
  };
  publish('a');
  std::atomic<unsigned> read{0};
  std::vector<std::jthread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&] {
      HttpClient client(port);
      while (!isOver) {
        const Reply reply = client.ask("GET", "/object");
        if (reply.status != 200 || !reply.error.empty()) continue;  // it changed in the middle of an answer
        EXPECT_TRUE(reply.body == version(reply.body[0])) << "mixed";
        ++read;
      }
    });
  }
  for (char letter = 'b'; letter <= 'z'; ++letter) {
    publish(letter);
    EXPECT_TRUE(eventually([&, before = read.load()] { return read > before + 3; }));
  }
  isOver = true;
  readers.clear();
  EXPECT_EQ(get("/object").body, version('z'));
}

}  // namespace
}  // namespace diskcached
