// What clients get from stores of other habits, and what such stores are asked for.
#include <atomic>
#include <map>
#include <mutex>

#include "http/range.h"
#include "tests/server/serverFixture.h"

namespace diskcached {
namespace {

using Request = ScriptedServer::Request;
using Send = ScriptedServer::Send;

// Headers of an object that a store names by them, and its bytes.
using Content = std::pair<std::string, std::string>;

struct ServerStoreTest : ServerTest {
  std::string answerTo(const Request& request) {
    const std::lock_guard lock(m_lock);
    const auto found = m_objects.find(request.target);
    if (request.method == "PUT")
      m_objects[request.target] = {"ETag: \"" + request.body + "\"\r\n", request.body};
    if (request.method == "PUT") return ScriptedServer::answer(request, "", "");
    if (found == m_objects.end()) return ScriptedServer::answer(request, "", "", "404 Not Found");
    const auto& [headers, body] = found->second;
    const RangeChoice choice = chooseRange(request.range, body.size());
    if (choice.kind != RangeChoice::Part) return ScriptedServer::answer(request, headers, body);
    const auto [from, size] = choice.range;
    const std::string part = std::to_string(from) + '-' + std::to_string(from + size - 1);
    const std::string range = "Content-Range: bytes " + part + '/' + std::to_string(body.size()) + "\r\n";
    return ScriptedServer::answer(request, headers + range, body.substr(from, size), "206 Partial Content");
  }
  void set(const std::string& target, Content content) {
    const std::lock_guard lock(m_lock);
    m_objects[target] = std::move(content);
  }
  // The server in front of a store of this script.
  void startBefore(std::vector<std::string> options, ScriptedServer::Script script) {
    m_scripted = std::make_unique<ScriptedServer>(std::move(script));
    options.push_back("--origin=" + m_scripted->url());
    start(options);
  }
  std::atomic<bool> isReleased{false};

 private:
  std::mutex m_lock;
  std::map<std::string, Content> m_objects;
  std::unique_ptr<ScriptedServer> m_scripted;
};

TEST_F(ServerStoreTest, ALookBegunBeforeAChangeTellsNobodyWhoCameAfterIt) {
  std::atomic<bool> isHolding{false}, isHeld{false};
  startBefore({"--index-entries=1"}, [&](const Request& request, const Send& send) {
    const std::string answer = answerTo(request);
    if (request.method == "HEAD" && isHolding.exchange(false)) {
      isHeld = true;
      eventually([&] { return isReleased.load(); }, std::chrono::seconds(5));
    }
    send(answer);
  });
  set("/k", {"ETag: \"1\"\r\n", "old"});
  set("/other", {"ETag: \"1\"\r\n", "other"});
  EXPECT_EQ(get("/k").body, "old");
  EXPECT_EQ(get("/other").body, "other");  // the index has forgotten k, whose block is on disk
  isHolding = true;
  const std::jthread early([&] { (void)get("/k"); });
  ASSERT_TRUE(eventually([&] { return isHeld.load(); }));
  EXPECT_EQ(put("/k", "new").status, 200);
  EXPECT_EQ(get("/k").body, "new");
  isReleased = true;
}

TEST_F(ServerStoreTest, ChangesOfOtherKindsAreSeenOnceTheyAreAnswered) {
  const char* const keys[] = {"/b/a%26b", "/b/left", "/whole"};
  startBefore({"--fresh-for=immutable"}, [&](const Request& request, const Send& send) {
    if (request.method != "POST") return send(answerTo(request));
    const std::string answer = ScriptedServer::answer(request, "", std::string(1000, ' '));
    for (const char* const key : keys) set(key, {"ETag: \"2\"\r\n", "second"});
    send(std::string_view(answer).substr(0, answer.size() - 500));
    eventually([&] { return isReleased.load(); }, std::chrono::seconds(5));
    send(std::string_view(answer).substr(answer.size() - 500));
  });
  for (const char* const key : keys) set(key, {"ETag: \"1\"\r\n", "first"});
  for (const char* const key : keys) EXPECT_EQ(get(key).body, "first");
  const RawClient raw(port);
  raw.send("POST /whole?uploadId=1 HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\nConnection: close\r\n\r\nx");
  EXPECT_TRUE(raw.receive().starts_with("HTTP/1.1 200"));
  EXPECT_EQ(get("/whole").body, "second");
  isReleased = true;
  raw.receiveAll();
  EXPECT_EQ(get("/whole").body, "second");

  const std::string left = "<s:Object><s:Key>left</s:Key></s:Object>", odd = "<Object>what is this?</Object>";
  EXPECT_EQ(ask("POST", "/b?delete", {}, "<Delete>" + odd + "</Delete>").status, 400);
  for (const char* const key : {keys[0], keys[1]}) EXPECT_EQ(get(key).body, "first") << key;
  const std::string both = "<s:Delete><s:Object><s:Key>a&amp;b</s:Key></s:Object>" + left + "</s:Delete>";
  EXPECT_EQ(ask("POST", "/b?delete", {}, both).status, 200);
  for (const char* const key : keys) EXPECT_EQ(get(key).body, "second") << key;
}

TEST_F(ServerStoreTest, WhatNamesNoBytesForCertainIsNeverMixedFromTwoVersions) {
  const std::string date = "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\n", weak = "ETag: W/\"1\"\r\n";
  startBefore({"--fresh-for=immutable"}, [&](auto& request, auto& send) { send(answerTo(request)); });
  const std::tuple<const char*, std::string, size_t, bool> cases[] = {{"/weak", weak, 200'000, false},
                                                                      {"/weak-block", weak, 60'000, true},
                                                                      {"/dated", date, 200'000, false},
                                                                      {"/dated-block", date, 60'000, true},
                                                                      {"/both", weak + date, 65'537, false}};
  for (const auto& [path, headers, size, isCached] : cases) {
    set(path, {headers, std::string(size, 'a')});
    EXPECT_EQ(get(path, {"Range: bytes=0-9"}).body.substr(0, 10), "aaaaaaaaaa") << path;
    set(path, {headers, std::string(size, 'b')});
    EXPECT_TRUE(get(path).body == std::string(size, isCached ? 'a' : 'b')) << path;
  }
}

// It sends the whole object whatever is asked for, so that a block must not be asked for at a time.
TEST_F(ServerStoreTest, AStoreThatKnowsNoRangesIsNotAskedForAnObjectBlockByBlock) {
  store.restart("max_ranges 0;");
  const std::string content = bytesOf("large", 8 << 20), small = bytesOf("small", 64 << 10);
  store.put("large", content);
  store.put("small", small);
  start({"--fresh-for=0"});
  for (const char* const range : {"A: b", "A: b", "A: b", "Range: bytes=8388000-"})
    EXPECT_TRUE(get("/large", {range}).body == content);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(get("/small").body == small);
  EXPECT_EQ(countOf("GET /large ", store.requests()), 5U);  // one a request, after one that was cut short
  EXPECT_EQ(countOf("GET /small ", store.requests()), 1U);
}

TEST_F(ServerStoreTest, WhatTheStoreSaysOfFreshnessComesFirst) {
  const std::string tag = "ETag: \"1\"\r\n", old = "Expires: Sun, 06 Nov 1994 08:49:37 GMT\r\n";
  const std::string control = tag + "Cache-Control: ";
  startBefore({"--fresh-for=immutable"}, [&](auto& request, auto& send) { send(answerTo(request)); });
  const struct {
    const char* path;
    std::string headers;
    const char* second;  // in the Cache-Status of a second answer
    int least, most;     // of the seconds that it is fresh
  } cases[] = {{"/age", control + "max-age=1000\r\nAge: 900\r\n", "hit", 40, 100},
               {"/odd-age", control + "max-age=1000\r\nAge: -1\r\n", "hit", 940, 1000},
               {"/both", old + control + "max-age=1000\r\n", "hit", 940, 1000},
               {"/shared", control + "max-age=1, s-maxage=1000\r\n", "hit", 940, 1000},
               {"/asked", control + "max-age=100, no-cache\r\n", "fwd=stale", 0, 0},
               {"/too-old", control + "max-age=100\r\nAge: 100\r\n", "fwd=stale", 0, 0},
               {"/expired", tag + old, "fwd=stale", 0, 0},
               {"/never", control + "no-store\r\n", "fwd=bypass", 0, 0},
               {"/mine", control + "private, max-age=100\r\n", "fwd=bypass", 0, 0},
               {"/nobody", "", "fwd=bypass", 0, 0}};
  for (const auto& c : cases) {
    set(c.path, {c.headers, "x"});
    EXPECT_EQ(get(c.path).body, "x");
    const std::string how = get(c.path).header("cache-status");
    EXPECT_NE(how.find(c.second), std::string::npos) << c.path << ": " << how;
    const size_t at = how.find("ttl=");
    const int seconds = at == std::string::npos ? 0 : std::stoi(how.substr(at + 4));
    EXPECT_TRUE(c.least <= seconds && seconds <= c.most) << c.path << ": " << how;
    set(c.path, {"ETag: \"2\"\r\n", "second"});
    EXPECT_EQ(get(c.path).body, c.most == 0 ? "second" : "x") << c.path;
  }
}

TEST_F(ServerStoreTest, AnswersToChangesAreWholeOrNone) {
  startBefore({"--origin-retries=0"}, [](const Request& request, const Send& send) {
    if (request.target == "/cut")
      return send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\nConnection: close\r\n\r\nten bytes.");
    send(ScriptedServer::answer(request, "", std::string(request.target == "/long" ? 65'537 : 65'536, 'x')));
  });
  EXPECT_EQ(put("/right", "x").body.size(), 65'536U);
  for (const char* const path : {"/cut", "/long"}) {
    EXPECT_EQ(put(path, "x").status, 502) << path;
    EXPECT_EQ(ask("DELETE", path).status, 502) << path;
  }
}

TEST_F(ServerStoreTest, SignaturesInTargetsReachNeitherStoreNorLog) {
  const std::string log = dir / "access.log";
  startBefore({"--access-log=" + log}, [](const Request& request, const Send& send) {
    send(ScriptedServer::answer(request, "", request.target));
  });
  EXPECT_EQ(get("/x?X-Amz-Signature=hush&versionId=7&X-Amz-Credential=me&x-amz-security-token=hush").body,
            "/x?versionId=7");
  EXPECT_EQ(get("/x?AWSAccessKeyId=me&Signature=hush&Expires=1").body, "/x");
  EXPECT_EQ(get("/x?Expires=1&prefix=Signature%3D").body, "/x?Expires=1&prefix=Signature%3D");
  ASSERT_TRUE(eventually([&] {  // a line may come after its answer, and so after the next one's
    const std::string lines = readFile(log);
    return std::count(lines.begin(), lines.end(), '\n') == 3;
  }));
  EXPECT_EQ(readFile(log).find("hush"), std::string::npos) << readFile(log);
  EXPECT_NE(readFile(log).find("\"/x?versionId=7\""), std::string::npos) << readFile(log);
}

}  // namespace
}  // namespace diskcached
