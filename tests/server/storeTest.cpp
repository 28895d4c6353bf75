// What clients get from stores of other habits, and what such stores are asked for.
#include <cstring>
#include <map>
#include <mutex>

#include "client/objectCache.h"
#include "http/range.h"
#include "tests/server/scriptedStore.h"

namespace diskcached {
namespace {

using Request = ScriptedStore::Request;
using Send = ScriptedStore::Send;

// An object that a store names by these headers.
struct Content {
  std::string headers, body;
};

class ServerStoreTest : public ServerTest {
 protected:
  std::string answerTo(const Request& request) {
    const std::lock_guard lock(m_lock);
    const auto found = objects.find(request.target);
    if (request.method == "PUT")
      objects[request.target] = {"ETag: \"" + request.body + "\"\r\n", request.body};
    if (request.method == "PUT") return ScriptedStore::answer(request, "", "");
    if (found == objects.end()) return ScriptedStore::answer(request, "", "", "404 Not Found");
    const auto& [headers, body] = found->second;
    const RangeChoice choice = chooseRange(request.range, body.size());
    if (choice.kind != RangeChoice::Part) return ScriptedStore::answer(request, headers, body);
    const auto [from, size] = choice.range;
    return ScriptedStore::answer(request,
                                 headers + "Content-Range: bytes " + std::to_string(from) + '-' +
                                     std::to_string(from + size - 1) + '/' + std::to_string(body.size()) +
                                     "\r\n",
                                 body.substr(from, size), "206 Partial Content");
  }
  void set(const std::string& target, Content content) {
    const std::lock_guard lock(m_lock);
    objects[target] = std::move(content);
  }
  void erase(const std::string& target) {
    const std::lock_guard lock(m_lock);
    objects.erase(target);
  }
  Reply post(const std::string& path, const std::string& body) const {
    return HttpClient(port).ask("POST", path, {}, &body);
  }

  std::map<std::string, Content> objects;

 private:
  std::mutex m_lock;
};

TEST_F(ServerStoreTest, ALookBegunBeforeAChangeTellsNobodyWhoCameAfterIt) {
  std::atomic<bool> isHolding{false}, isHeld{false}, isReleased{false};
  ScriptedStore scripted([&](const Request& request, const Send& send) {
    const std::string answer = answerTo(request);
    if (request.method == "HEAD" && isHolding.exchange(false)) {
      isHeld = true;
      eventually([&] { return isReleased.load(); }, std::chrono::seconds(5));
    }
    send(answer);
  });
  set("/k", {"ETag: \"1\"\r\n", "old"});
  set("/other", {"ETag: \"1\"\r\n", "other"});
  start({scripted.origin, "--index-entries=1"});
  EXPECT_EQ(get("/k").body, "old");
  EXPECT_EQ(get("/other").body, "other");  // the index has forgotten k, whose block is on disk
  isHolding = true;
  std::thread early([&] { (void)get("/k"); });
  ASSERT_TRUE(eventually([&] { return isHeld.load(); }));
  EXPECT_EQ(put("/k", "new").status, 200);
  EXPECT_EQ(get("/k").body, "new");
  isReleased = true;
  early.join();
}

TEST_F(ServerStoreTest, ChangesOfOtherKindsAreSeenOnceTheyAreAnswered) {
  std::atomic<bool> isReleased{false};
  ScriptedStore scripted([&](const Request& request, const Send& send) {
    if (request.method != "POST") return send(answerTo(request));
    const std::string answer = ScriptedStore::answer(request, "", std::string(1000, ' '));
    if (request.target.ends_with("?delete=")) {
      for (const char* const key : {"/b/a%26b", "/b/%C3%A4%3C", "/b/left"}) erase(key);
      return send(answer);
    }
    set("/whole", {"ETag: \"2\"\r\n", "second"});
    send(std::string_view(answer).substr(0, answer.size() - 500));
    eventually([&] { return isReleased.load(); }, std::chrono::seconds(5));
    send(std::string_view(answer).substr(answer.size() - 500));
  });
  set("/whole", {"ETag: \"1\"\r\n", "first"});
  start({scripted.origin, "--fresh-for=immutable"});
  EXPECT_EQ(get("/whole").body, "first");
  const RawClient raw(port);
  raw.send("POST /whole?uploadId=1 HTTP/1.1\r\nHost: h\r\nContent-Length: 1\r\nConnection: close\r\n\r\nx");
  EXPECT_TRUE(raw.receive().starts_with("HTTP/1.1 200"));
  EXPECT_EQ(get("/whole").body, "second");
  isReleased = true;
  raw.receiveAll();
  EXPECT_EQ(get("/whole").body, "second");

  const char* const keys[] = {"/b/a%26b", "/b/%C3%A4%3C", "/b/left"};
  for (const char* const key : keys) set(key, {"ETag: \"1\"\r\n", "here"});
  for (const char* const key : keys) EXPECT_EQ(get(key).body, "here") << key;
  EXPECT_EQ(post("/b?delete", "<Delete><Object>what is this?</Object></Delete>").status, 400);
  for (const char* const key : keys) EXPECT_TRUE(get(key).isHit()) << key;
  EXPECT_EQ(post("/b?delete",
                 "<?xml version=\"1.0\"?><s:Delete><s:Object><s:Key>a&amp;b</s:Key></s:Object>"
                 "<Object><Key>&#228;&lt;</Key><VersionId>1</VersionId></Object>"
                 "<Object><Key>left</Key></Object></s:Delete>")
                .status,
            200);
  for (const char* const key : keys) EXPECT_EQ(get(key).status, 404) << key;
}

TEST_F(ServerStoreTest, WhatNamesNoBytesForCertainIsNeverMixedFromTwoVersions) {
  const std::string date = "Last-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\n", weak = "ETag: W/\"1\"\r\n";
  ScriptedStore scripted([&](const Request& request, const Send& send) { send(answerTo(request)); });
  start({scripted.origin, "--fresh-for=immutable"});
  const struct {
    const char* path;
    std::string headers;
    size_t size;
    bool isCached;
  } cases[] = {{"/weak", weak, 200'000, false},
               {"/weak-block", weak, 60'000, true},
               {"/dated", date, 200'000, false},
               {"/dated-block", date, 60'000, true},
               {"/both", weak + date, 65'537, false}};
  for (const auto& c : cases) {
    set(c.path, {c.headers, std::string(c.size, 'a')});
    EXPECT_EQ(get(c.path, {"Range: bytes=0-9"}).body.substr(0, 10), "aaaaaaaaaa") << c.path;
    set(c.path, {c.headers, std::string(c.size, 'b')});
    EXPECT_TRUE(get(c.path).body == std::string(c.size, c.isCached ? 'a' : 'b')) << c.path;
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
  std::istringstream asked(store.requests());
  unsigned large = 0, ofSmall = 0;
  for (std::string line; std::getline(asked, line);) {
    large += line.starts_with("GET /large ");
    ofSmall += line.starts_with("GET /small ");
  }
  EXPECT_EQ(large, 5U);  // one a request, after one that was cut short
  EXPECT_EQ(ofSmall, 1U);
}

TEST_F(ServerStoreTest, BlocksWithoutHeadersAreFoundAgainToo) {
  store.put("warmed", "warm bytes");
  start({"--fresh-for=immutable"});
  const std::string etag = HttpClient(port).ask("HEAD", "/warmed").header("etag");
  EXPECT_EQ(server->end(SIGTERM), 0);
  {
    ObjectStore::ObjectCache cache(
        {.root = dir / "root", .volumes = {volume}, .maxBytes = 1 << 30, .blockSize = 64 << 10});
    ASSERT_FALSE(cache.open().IsError());
    ASSERT_TRUE(cache.read("warmed", etag, 0, {}, [](uint64_t, std::span<std::byte> to) {
      std::memcpy(to.data(), "warm bytes", 10);
      return ObjectStore::OriginAnswer{.error = {}, .objectSize = 10, .metadata = {}};
    }));
  }
  start({"--fresh-for=immutable"});
  for (const char* const how : {"fwd=miss", "hit"}) {
    const Reply reply = get("/warmed");
    EXPECT_EQ(reply.body, "warm bytes");
    EXPECT_NE(reply.header("cache-status").find(how), std::string::npos) << reply.header("cache-status");
    EXPECT_EQ(reply.header("etag"), etag);
  }
}

TEST_F(ServerStoreTest, WhatTheStoreSaysOfFreshnessComesFirst) {
  const std::string tag = "ETag: \"1\"\r\n", old = "Expires: Sun, 06 Nov 1994 08:49:37 GMT\r\n";
  ScriptedStore scripted([&](const Request& request, const Send& send) { send(answerTo(request)); });
  start({scripted.origin, "--fresh-for=immutable"});
  const struct {
    const char* path;
    std::string headers;
    int least, most;  // of the seconds that a second answer is fresh; -1: it was looked up again
  } cases[] = {{"/age", "Cache-Control: max-age=1000\r\nAge: 900\r\n", 40, 100},
               {"/too-old", "Cache-Control: max-age=100\r\nAge: 100\r\n", -1, -1},
               {"/odd-age", "Cache-Control: max-age=1000\r\nAge: -1\r\n", 940, 1000},
               {"/expired", old, -1, -1},
               {"/both", old + "Cache-Control: max-age=1000\r\n", 940, 1000}};
  for (const auto& c : cases) {
    set(c.path, {tag + c.headers, "x"});
    EXPECT_EQ(get(c.path).body, "x");
    const std::string how = cacheStatus(c.path);
    const size_t at = how.find("ttl=");
    const int seconds = at == std::string::npos ? -1 : std::stoi(how.substr(at + 4));
    EXPECT_GE(seconds, c.least) << c.path << ": " << how;
    EXPECT_LE(seconds, c.most) << c.path << ": " << how;
    EXPECT_EQ(how.find("hit") != std::string::npos, c.least > 0) << c.path << ": " << how;
  }
}

TEST_F(ServerStoreTest, AnswersToChangesAreWholeOrNone) {
  ScriptedStore scripted([&](const Request& request, const Send& send) {
    if (request.target == "/cut")
      return send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\nConnection: close\r\n\r\nten bytes.");
    send(ScriptedStore::answer(request, "", std::string(request.target == "/long" ? 65'537 : 65'536, 'x')));
  });
  start({scripted.origin, "--origin-retries=0"});
  EXPECT_EQ(put("/right", "x").body.size(), 65'536U);
  for (const char* const path : {"/cut", "/long"}) {
    EXPECT_EQ(put(path, "x").status, 502) << path;
    EXPECT_EQ(HttpClient(port).ask("DELETE", path).status, 502) << path;
  }
}

TEST_F(ServerStoreTest, SignaturesInTargetsReachNeitherStoreNorLog) {
  const std::string log = dir / "access.log";
  ScriptedStore scripted([&](const Request& request, const Send& send) {
    send(ScriptedStore::answer(request, "", request.target));
  });
  start({scripted.origin, "--access-log=" + log});
  EXPECT_EQ(
      get("/x?X-Amz-Signature=hush&versionId=7&X-Amz-Credential=me%2Fus&x-amz-security-token=hush").body,
      "/x?versionId=7");
  EXPECT_EQ(get("/x?AWSAccessKeyId=me&Signature=hush&Expires=1").body, "/x");
  EXPECT_EQ(get("/x?Expires=1&prefix=Signature%3D").body, "/x?Expires=1&prefix=Signature%3D");
  ASSERT_TRUE(eventually([&] { return readFile(log).find("prefix") != std::string::npos; }));
  EXPECT_EQ(readFile(log).find("hush"), std::string::npos) << readFile(log);
  EXPECT_NE(readFile(log).find("\"/x?versionId=7\""), std::string::npos) << readFile(log);
}

TEST_F(ServerStoreTest, HeadsOfAnswersAndRequestsAreByTheBook) {
  ScriptedStore scripted([&](const Request& request, const Send& send) {
    send(ScriptedStore::answer(request, "", "", "409 Any Words"));
  });
  start({scripted.origin, "--io-threads=1"});
  EXPECT_TRUE(RawClient(port)
                  .exchange("GET /x HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n")
                  .starts_with("HTTP/1.1 409 Conflict\r\n"));
  const RawClient kept(port), cut(port);
  kept.send("GET /x HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
  EXPECT_NE(kept.receive().find("Connection: keep-alive\r\n"), std::string::npos);
  EXPECT_NE(kept.exchange("GET /x HTTP/1.0\r\n\r\n").find("Connection: close\r\n"), std::string::npos);
  cut.send("\r");
  EXPECT_EQ(get("/x").status, 409);  // by then the one thread has seen the half line
  cut.send("\nGET /x HTTP/1.0\r\n\r\n");
  EXPECT_TRUE(cut.receiveAll().starts_with("HTTP/1.1 409"));
}

}  // namespace
}  // namespace diskcached
