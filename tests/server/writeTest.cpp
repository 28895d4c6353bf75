// PUT and DELETE, through to the store and staged before it.
#include "tests/server/serverFixture.h"
#include "tests/support/smallFileSystem.h"

namespace diskcached {
namespace {

using ServerWriteTest = ServerTest;

TEST_F(ServerWriteTest, ChangesGoThroughToTheStoreAndAreSeenAtOnce) {
  start();
  HttpClient client(port);
  const std::string sizes[] = {"", "short", bytesOf("first", 3'000'000)};
  for (const bool isChunked : {false, true}) {
    for (const std::string& content : sizes) {
      const std::string path = "/dir/object-" + std::to_string(content.size());
      const std::string full = content + (isChunked ? "chunked" : "");
      client.isChunked = isChunked;
      EXPECT_EQ(client.put(path, full).status / 100, 2);
      EXPECT_EQ(readFile(store.files + path), full);
      EXPECT_EQ(client.get(path).body, full);
      EXPECT_TRUE(client.get(path).isHit() || full.empty());
    }
  }
  for (const auto& [method, status] : {std::pair{"DELETE", 204}, {"GET", 404}, {"DELETE", 404}})
    EXPECT_EQ(client.ask(method, "/dir/object-5").status, status) << method;
  store.stop();
  EXPECT_EQ(client.put("/dir/lost", "x").status, 502);
}

TEST_F(ServerWriteTest, WhatIsNoObjectIsPassedThroughUncached) {
  std::filesystem::create_directories(store.files + "/list");
  store.put("list/a", "a");
  store.restart("location /list { autoindex on; }");
  start();
  for (int i = 0; i < 2; ++i) {
    const Reply listing = get("/list/?list-type=2");
    EXPECT_NE(listing.body.find("href=\"a\""), std::string::npos);
    EXPECT_NE(listing.header("cache-status").find("fwd=bypass"), std::string::npos);
  }
  EXPECT_EQ(HttpClient(port).ask("MKCOL", "/list/new/").status, 405);  // the store's word
  store.put("kept", "kept");
  EXPECT_EQ(get("/kept").body, "kept");
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(HttpClient(port).ask("POST", "/kept").status, 405);
    EXPECT_TRUE(get("/kept").isHit());  // nothing was changed
  }
}

TEST_F(ServerWriteTest, StagedObjectsSurviveKillsAndReachTheStore) {
  const std::string content = bytesOf("staged", 1'000'000);
  const std::vector<std::string> options = {"--write-back", "--origin-retries=0", "--grace=20"};
  start(options);
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
  server->end(SIGKILL);
  start(options);
  expectVisible();
  store.start();
  ASSERT_TRUE(eventually([&] { return metric("diskcache_client_staged_objects") == 0; }))
      << admin("/status").body;
  EXPECT_EQ(readFile(store.files + "/a:b/staged"), content);
  EXPECT_EQ(readFile(store.files + "/a:b/twice"), "new");
  EXPECT_EQ(get("/a:b/staged").body, content);
  EXPECT_EQ(put("/last", content).status, 200);
  EXPECT_EQ(server->end(SIGTERM), 0);  // and uploads what is left
  EXPECT_EQ(readFile(store.files + "/last"), content);
}

TEST_F(ServerWriteTest, AnUploadUnderWayKeepsNoChangeOfTheKeyWaiting) {
  start({"--write-back", "--origin-timeout=600"});
  store.freeze();
  const auto began = std::chrono::steady_clock::now();
  for (const char last : {'1', '2', '3', '4', '5'})
    EXPECT_EQ(put("/key", std::string(100'000, last)).status, 200);  // the first are uploaded meanwhile
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(20));
  store.thaw();
  ASSERT_TRUE(eventually([&] { return metric("diskcache_client_staged_objects") == 0; }));
  EXPECT_EQ(readFile(store.files + "/key"), std::string(100'000, '5'));
  EXPECT_EQ(get("/key").body, std::string(100'000, '5'));
}

TEST_F(ServerWriteTest, ADeletedObjectDoesNotComeBackByItsUpload) {
  start({"--write-back", "--origin-retries=0"});
  store.stop();
  ASSERT_EQ(put("/gone", "x").status, 200);
  ASSERT_TRUE(eventually([&] { return metric("diskcache_client_failed_uploads_total") > 0; }));
  store.start();
  EXPECT_EQ(HttpClient(port).ask("DELETE", "/gone").status, 204);
  server->end(SIGKILL);
  start({"--write-back", "--origin-retries=0"});
  ASSERT_TRUE(eventually([&] { return metric("diskcache_client_staged_objects") == 0; }));
  EXPECT_FALSE(std::filesystem::exists(store.files + "/gone"));
  EXPECT_EQ(get("/gone").status, 404);
}

TEST_F(ServerWriteTest, WhatCannotBeStagedIsRefused) {
  const ObjectStore::SmallFileSystem small(16);
  SKIP_WITHOUT(small);
  volume = small / "volume";
  start({"--write-back", "--max-bytes=2M"});
  store.stop();
  for (const auto& [path, status] : {std::pair{"/o1", 200}, {"/o2", 200}, {"/o3", 507}})
    EXPECT_EQ(put(path, bytesOf(path, 900'000)).status, status) << path;
  for (const char* path : {"/o1", "/o2"}) EXPECT_EQ(get(path).body, bytesOf(path, 900'000));
}

}  // namespace
}  // namespace diskcached
