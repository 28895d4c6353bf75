// PUT and DELETE, through to the store and staged before it.
#include "tests/server/serverFixture.h"
#include "tests/support/smallFileSystem.h"

namespace diskcached {
namespace {

struct ServerWriteTest : ServerTest {
  std::vector<std::string> writeBack = {"--write-back", "--origin-retries=0", "--grace=20"};

  void restart(int signal) {
    server->end(signal);
    start(writeBack);
  }
  // All that was staged, and the store has these bytes.
  void expectUploaded(const std::string& path, const std::string& bytes) const {
    EXPECT_TRUE(eventually([&] { return metric("diskcache_client_staged_objects") == 0; }))
        << admin("/status").body;
    EXPECT_EQ(readFile(store.files + path), bytes);
  }
};

TEST_F(ServerWriteTest, ChangesGoThroughToTheStoreAndAreSeenAtOnce) {
  start();
  const std::string sizes[] = {"", "short", bytesOf("first", 3'000'000)};
  for (const bool isChunked : {false, true}) {
    for (const std::string& content : sizes) {
      const std::string path = "/dir/object-" + std::to_string(content.size());
      const std::string full = content + (isChunked ? "chunked" : "");
      EXPECT_EQ(put(path, full, {isChunked ? "Transfer-Encoding: chunked" : "A: b"}).status / 100, 2);
      EXPECT_EQ(readFile(store.files + path), full);
      EXPECT_EQ(get(path).body, full);
      EXPECT_TRUE(get(path).isHit() || full.empty());
    }
  }
  for (const auto& [method, status] : {std::pair{"DELETE", 204}, {"GET", 404}, {"DELETE", 404}})
    EXPECT_EQ(ask(method, "/dir/object-5").status, status) << method;
  store.stop();
  EXPECT_EQ(put("/dir/lost", "x").status, 502);
}

TEST_F(ServerWriteTest, WhatIsNoObjectIsPassedThroughUncached) {
  store.restart("location /list { autoindex on; }");
  start();
  for (const char* const name : {"a", "b"}) {
    store.put("list/" + std::string(name), name);
    const Reply listing = get("/list/?list-type=2");
    EXPECT_NE(listing.body.find("href=\"" + std::string(name)), std::string::npos) << listing.body;
    EXPECT_NE(listing.header("cache-status").find("fwd=bypass"), std::string::npos) << listing.head;
  }
  EXPECT_EQ(ask("MKCOL", "/list/new/").status, 405);  // the store's word
  fetch("kept", "kept");
  EXPECT_EQ(ask("POST", "/kept").status, 405);
  EXPECT_TRUE(get("/kept").isHit()) << "nothing was changed";
}

TEST_F(ServerWriteTest, StagedObjectsSurviveKillsAndReachTheStore) {
  const std::string content = bytesOf("staged", 1'000'000);
  start(writeBack);
  store.stop();
  const Reply staged = put("/a:b/staged", content, {"Content-Type: text/odd", "x-amz-meta-colour: red"});
  ASSERT_EQ(staged.status, 200);
  for (const char* text : {"old", "new"}) EXPECT_EQ(put("/a:b/twice", text).status, 200);
  const auto expectVisible = [&] {
    const Reply got = get("/a:b/staged");
    EXPECT_EQ(got.body, content);
    EXPECT_EQ(got.header("etag"), staged.header("etag"));
    EXPECT_EQ(got.header("content-type"), "text/odd");
    EXPECT_EQ(got.header("x-amz-meta-colour"), "red");
    EXPECT_EQ(get("/a:b/twice").body, "new");
  };
  expectVisible();
  restart(SIGKILL);
  expectVisible();
  store.start();
  expectUploaded("/a:b/staged", content);
  expectUploaded("/a:b/twice", "new");
  EXPECT_EQ(get("/a:b/staged").body, content);
  EXPECT_EQ(put("/last", content).status, 200);
  EXPECT_EQ(server->end(SIGTERM), 0);  // and uploads what is left
  EXPECT_EQ(readFile(store.files + "/last"), content);
}

TEST_F(ServerWriteTest, AnUploadUnderWayKeepsNoChangeOfTheKeyWaiting) {
  start({"--write-back", "--origin-timeout=600"});
  store.tell(SIGSTOP);
  const auto began = std::chrono::steady_clock::now();
  for (const char last : {'1', '2', '3', '4', '5'})
    EXPECT_EQ(put("/key", std::string(100'000, last)).status, 200);  // the first are uploaded meanwhile
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(20));
  store.tell(SIGCONT);
  expectUploaded("/key", std::string(100'000, '5'));
  EXPECT_EQ(get("/key").body, std::string(100'000, '5'));
}

TEST_F(ServerWriteTest, WhatWasDeletedDoesNotComeBackAndWhatIsUnreadableForAWhileDoes) {
  start(writeBack);
  for (const int signal : {SIGKILL, SIGTERM}) {
    store.restart("if ($request_method = PUT) { return 503; }");
    const std::string bytes = "staged before " + std::to_string(signal);
    for (const char* const path : {"/gone", "/k"}) ASSERT_EQ(put(path, bytes).status, 200);
    EXPECT_EQ(ask("DELETE", "/gone").status, 204);
    EXPECT_EQ(get("/gone").status, 404);
    EXPECT_EQ(ask("DELETE", "/k", {"If-Match: x"}).status, 503) << "the store cannot judge it yet";
    fs::rename(volume + "/staged", dir / "aside");
    EXPECT_EQ(get("/k").status, 503);
    fs::rename(dir / "aside", volume + "/staged");
    EXPECT_EQ(get("/k").body, bytes);
    store.restart("");
    restart(signal);
    expectUploaded("/k", bytes);
    EXPECT_FALSE(fs::exists(store.files + "/gone")) << signal;
    EXPECT_EQ(get("/gone").status, 404) << signal;
  }
}

TEST_F(ServerWriteTest, OnlyASuccessfulChangeGivesUpWhatIsStaged) {
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"PUT", "?tagging", "A: b"},
      {"POST", "", "A: b"},
      {"POST", "?uploadId=1", "A: b"},
      {"PUT", "", "If-Match: \"x\""},
      {"PUT", "", "If-None-Match: *"},
      {"PUT", "", "x-amz-acl: private"},
      {"PUT", "", "x-amz-copy-source: /x"},
      {"PUT", "", "Content-Range: bytes 0-4/9"},
      {"DELETE", "", "A: b"}};
  start(writeBack);
  store.restart("if ($args) { return 404; } if ($request_method !~ GET|HEAD) { return 503; }");
  std::vector<std::string> paths;
  for (const auto& [method, query, header] : cases) {
    const std::string& path = paths.emplace_back("/k" + std::to_string(paths.size()));
    EXPECT_EQ(put(path, path).status, 200);
    EXPECT_GE(ask(method, path + query, {header}, "other").status, 400);
    EXPECT_EQ(get(path).body, path) << method << query << header;
  }
  const std::string list = "<Delete><Object><Key>k0</Key></Object></Delete>";
  EXPECT_EQ(ask("POST", "/?delete", {}, list).status, 503);
  restart(SIGKILL);
  for (const std::string& path : paths) EXPECT_EQ(get(path).body, path);
  store.restart("");
  for (const std::string& path : paths) expectUploaded(path, path);
}

TEST_F(ServerWriteTest, WhatReplacesAStagedObjectIsWhatTheStoreGets) {
  const std::pair<std::string, std::string> cases[] = {
      {"newer", "x-amz-meta-n: 2"}, {"old", "x-amz-meta-n: 2"}, {"newer", "x-amz-acl: private"}};
  start(writeBack);
  store.restart("if ($http_x_amz_meta_n = 1) { return 503; }");
  for (const auto& [bytes, header] : cases) {
    for (const int signal : {0, SIGKILL}) {
      fs::remove(store.files + "/k");
      ASSERT_EQ(put("/k", "old", {"x-amz-meta-n: 1"}).status, 200);
      EXPECT_EQ(put(signal == 0 ? "/k" : "/k?X-Amz-Signature=x", bytes, {header}).status / 100, 2);
      EXPECT_NE(get("/k").header("x-amz-meta-n"), "1");
      if (signal != 0) restart(signal);
      expectUploaded("/k", bytes);
      EXPECT_EQ(get("/k").body, bytes) << header;
    }
  }
}

// As a kill leaves them that comes before the older one is given up.
TEST_F(ServerWriteTest, OfTwoStagedOfAKeyTheOlderOneWaitsForTheOther) {
  start(writeBack);
  store.restart("if ($request_method = PUT) { return 503; }");
  ASSERT_EQ(put("/k", "old").status, 200);
  fs::copy(volume + "/staged", dir / "aside", fs::copy_options::recursive);
  const time_t second = time(nullptr);
  EXPECT_TRUE(eventually([&] { return time(nullptr) > second; }))
      << "which tells the newer one after a restart";
  ASSERT_EQ(put("/k", std::string(100'000, 'n')).status, 200);
  server->end(SIGKILL);
  for (const auto& entry : fs::recursive_directory_iterator(volume + "/staged")) {
    if (!entry.path().string().ends_with("00000000")) continue;  // the first block
    std::string bytes = readFile(entry.path());
    bytes.back() ^= 1;
    writeFile(entry.path(), bytes);
  }
  fs::copy(dir / "aside", volume + "/staged", fs::copy_options::recursive);
  store.restart("");
  start(writeBack);
  EXPECT_TRUE(eventually([&] { return metric("diskcache_client_failed_uploads_total") >= 2; }));
  EXPECT_FALSE(fs::exists(store.files + "/k"));
  EXPECT_EQ(get("/k").status, 503);
  EXPECT_EQ(put("/k", "right").status, 200);
  expectUploaded("/k", "right");
}

TEST_F(ServerWriteTest, ARootThatWasFullForAMomentCostsNoStagedObject) {
  const ObjectStore::SmallFileSystem small(16);
  SKIP_WITHOUT(small);
  writeBack.push_back("--root=" + (small / "root"));
  start(writeBack);
  store.restart("if ($request_method = PUT) { return 503; }");
  fetch("k", "the store's");
  std::ofstream(small / "other") << std::string(17 << 20, 'x');
  for (int i = 0; i < 60; ++i) fetch(std::string(100, 'n') + std::to_string(i), "x");
  EXPECT_NE(logged().find("can't be written"), std::string::npos);
  EXPECT_EQ(put("/k", "first").status, 507);
  fs::remove(small / "other");
  for (const char* bytes : {"first", "second"}) ASSERT_EQ(put("/k", bytes).status, 200);
  restart(SIGKILL);
  EXPECT_EQ(get("/k").body, "second");
  store.restart("");
  expectUploaded("/k", "second");
}

TEST_F(ServerWriteTest, ABodyThatIsNotTheOneOfItsDigestsChangesNothing) {
  const std::string md5 = "Content-MD5: ", sha = "x-amz-content-sha256: ", zeros(64, '0');
  const std::string itsMd5 = md5 + "df2YmYFQmVh3fN/Nxm4htQ==";
  const std::string itsSha = sha + "771824de42287642fa0fbe0b568b80cc3290e29b7d3cd6efbc7b1b8eb1037b04";
  const std::tuple<std::vector<std::string>, long, std::string> cases[] = {
      {{md5 + "1B2M2Y8AsgTpgAmY7PhCfg=="}, 400, "BadDigest"},
      {{md5 + "1B2M2Y8AsgTpgAmY7PhCfg"}, 400, "InvalidDigest"},
      {{itsMd5, md5 + "1B2M2Y8AsgTpgAmY7PhCfg=="}, 400, "BadDigest"},
      {{itsSha.substr(0, 80)}, 400, "InvalidDigest"},
      {{itsMd5, sha + zeros}, 400, "XAmzContentSHA256Mismatch"},
      {{itsSha, sha + "STREAMING-UNSIGNED-PAYLOAD-TRAILER"}, 501, "NotImplemented"},
      {{"Content-Encoding: gzip, AWS-chunked"}, 501, "NotImplemented"},
      {{"x-amz-decoded-content-length: 6"}, 501, "NotImplemented"},
  };
  for (const std::string name : {"whole", "part", "staged"}) {
    const std::string target = '/' + name + (name == "part" ? "?partNumber=1&uploadId=1" : "");
    start(name == "staged" ? std::vector<std::string>{"--write-back"} : std::vector<std::string>());
    store.put(name, "old");
    for (const auto& [headers, status, code] : cases) {
      const Reply reply = put(target, "a body", headers);
      EXPECT_EQ(reply.status, status) << headers.back();
      EXPECT_NE(reply.body.find("<Code>" + code + "</Code>"), std::string::npos) << reply.body;
      EXPECT_EQ(store.requests().find('/' + name), std::string::npos) << headers.back();
    }
    EXPECT_EQ(readFile(store.files + '/' + name), "old");
    EXPECT_EQ(put(target, "a body", {itsMd5, itsSha}).status / 100, 2);
    EXPECT_EQ(put(target, "a body", {sha + "UNSIGNED-PAYLOAD"}).status / 100, 2);
    EXPECT_EQ(server->end(SIGTERM), 0);  // and uploads what was accepted
    EXPECT_EQ(readFile(store.files + '/' + name), "a body");
  }
}

}  // namespace
}  // namespace diskcached
