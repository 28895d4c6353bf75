// Start, configuration, the admin socket, signals.
#include <sys/stat.h>
#include <sys/un.h>

#include "tests/server/serverFixture.h"

namespace diskcached {
namespace {

struct ServerLifeTest : ServerTest {
  void reload(const std::string& text) const {
    writeFile(config, text);
    server->tell(SIGHUP);
  }
  const std::string config = dir / "config";
};

TEST_F(ServerLifeTest, WrongOptionsAreRefusedInOneLine) {
  writeFile(config, "fresh-fro = 5\n");
  writeFile(dir / "open", "aws_access_key_id = me\naws_secret_access_key = hush\n");
  chmod((dir / "open").c_str(), 0644);
  std::vector<std::pair<std::string, std::string>> cases = {
      {"--config=" + config, "fresh-fro"},
      {"--config=" + (dir / "missing.conf"), "missing.conf"},
      {"--access-log=" + (dir / "no/such/dir/log"), "--access-log"},
      {"--credentials=" + (dir / "open"), "can be read by others"},
  };
  for (const std::string option :
       {"--no-such-option=1", "--origin=ftp://x", "--max-bytes=lots", "--block-size=100000", "--listen=8080",
        "--listen=192.0.2.1:80", "--fresh-for=soon", "--mode=fast", "--memory=1K", "--max-connections=0"})
    cases.emplace_back(option, option.substr(0, option.find('=')));
  for (const auto& [option, message] : cases) {
    launch({option});
    EXPECT_EQ(server->wait(), 2) << option;
    const std::string said = logged();
    EXPECT_NE(said.find(message), std::string::npos) << option << ": " << said;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    EXPECT_EQ(said.find("hush"), std::string::npos);
  }
  EXPECT_FALSE(fs::exists(dir / "root"));
}

TEST_F(ServerLifeTest, ReadsItsConfigurationAnewWhenTold) {
  const std::string log = dir / "access.log";
  writeFile(config, "fresh-for = \"immutable\"\n");
  store.put("x", "one");
  start({"--config=" + config});
  EXPECT_EQ(get("/x").body, "one");
  store.put("x", "changed");
  const auto reloadUntil = [&](const std::string& text, const std::string& said) {
    const size_t before = logged().size();
    reload(text);
    EXPECT_TRUE(eventually([&] { return logged().find(said, before) != std::string::npos; })) << logged();
  };
  reloadUntil("fresh = 1\n", "stays as it was");
  reloadUntil("fresh-for = 0\naccess-log = \"" + (dir / "no/such/log") + "\"\n", "stays as it was");
  fetch("y", "y");
  EXPECT_TRUE(get("/y").isHit());
  for (int i = 0; i < 2; ++i)
    reloadUntil("fresh-for = 0\naccess-log = \"" + log + "\"\nio-threads = 7\n", "was read anew");
  EXPECT_EQ(countOf("--io-threads takes effect at the next start", logged()), 2U) << logged();
  EXPECT_EQ(get("/x").body, "one");  // what was fresh for ever stays so
  fetch("z", "z");
  EXPECT_NE(get("/z").header("cache-status").find("fwd=stale"), std::string::npos);
  ASSERT_TRUE(eventually([&] { return readFile(log).find("\"/z\"") != std::string::npos; }));
  const std::string lines = readFile(log);
  const auto line = nlohmann::json::parse(lines.substr(0, lines.find('\n')));
  EXPECT_EQ(line["target"], "/x");
  EXPECT_EQ(line["status"], 200);
  EXPECT_EQ(line["bytes"], 3);
}

TEST_F(ServerLifeTest, ChangesItsBoundWhenTold) {
  const auto used = [&] { return metric("diskcache_client_used_bytes"); };
  writeFile(config, "max-bytes = \"1G\"\n");
  start({"--config=" + config, "--max-bytes="});
  for (int i = 0; i < 20; ++i) {
    const std::string name = "o" + std::to_string(i);
    fetch(name, bytesOf(name, 60'000));
  }
  EXPECT_TRUE(eventually([&] { return used() > 20 * 60'000; })) << used();
  reload("max-bytes = \"512K\"\n");
  EXPECT_TRUE(eventually([&] { return used() <= 512 << 10; })) << used();
  EXPECT_GE(used(), 60'000);  // no more is given up than must be
  EXPECT_EQ(logged().find("next start"), std::string::npos);
}

TEST_F(ServerLifeTest, TheAdminSocketTellsAndPurges) {
  start();
  for (const std::string name : {"p/a", "p/b", "q"}) {
    fetch(name, name);
    EXPECT_TRUE(get('/' + name).isHit());
  }
  for (const auto& [target, status] :
       {std::pair{"/healthz", 200}, {"/readyz", 200}, {"/nothing", 404}, {"/purge?prefix=p", 405}})
    EXPECT_EQ(admin(target).status, status) << target;
  EXPECT_EQ(admin("/purge", "POST").status, 400);
  EXPECT_EQ(HttpClient(adminPort).ask("POST", "/purge?prefix=", {"Origin: http://page"}).status, 403);
  const auto status = nlohmann::json::parse(admin("/status").body);
  EXPECT_EQ(status["state"], "ready");
  EXPECT_EQ(status["index_entries"], 3);
  for (const char* name :
       {"diskcached_objects_total{result=\"hit\"}", "diskcache_segments",
        "diskcached_objects_total{result=\"miss\"}", "diskcache_client_stored_blocks_total"})
    EXPECT_TRUE(eventually([&] { return metric(name) == 3; })) << name << ": kept after it was sent";
  EXPECT_EQ(nlohmann::json::parse(admin("/purge?prefix=p%2F", "POST").body)["purged"], 2);
  EXPECT_FALSE(get("/p/a").isHit());
  EXPECT_TRUE(get("/q").isHit());
}

TEST_F(ServerLifeTest, FinishesItsAnswersWhenToldToStopAndTellsTheManager) {
  const std::string path = dir / "notify", content = bytesOf("big", 8 << 20);
  const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(manager, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  environment = {"NOTIFY_SOCKET=" + path};
  const auto isTold = [&](const std::string& what) {
    return eventually([&] {
      std::array<char, 256> text;
      const ssize_t got = recv(manager, text.data(), text.size(), 0);
      return got > 0 && std::string_view(text.data(), static_cast<size_t>(got)) == what;
    });
  };
  store.put("big", content);
  start();
  EXPECT_TRUE(isTold("READY=1"));
  const RawClient busy(port), idle(port);
  busy.send("GET /big HTTP/1.1\r\nHost: h\r\n\r\n");
  std::string got = busy.receive();
  server->tell(SIGTERM);
  EXPECT_TRUE(isTold("STOPPING=1"));
  EXPECT_EQ(idle.receive(), "");
  got += busy.receiveAll();
  EXPECT_TRUE(got.ends_with(content));
  EXPECT_EQ(server->wait(), 0);
  EXPECT_FALSE(RawClient(port).isConnected());
  close(manager);
}

TEST_F(ServerLifeTest, CutsOffWhatIsUnderWayAtTheEndOfTheGrace) {
  store.put("big", bytesOf("big", 32 << 20));
  start({"--grace=1", "--write-back", "--origin-timeout=600"});
  const RawClient reader(port), writer(port);
  reader.send("GET /big?pass HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_NE(reader.receive(), "");  // and takes no more
  store.tell(SIGSTOP);
  EXPECT_EQ(put("/staged", "x").status, 200);
  writer.send("PUT /through HTTP/1.1\r\nHost: h\r\nIf-Match: x\r\nContent-Length: 1\r\n\r\nx");
  ASSERT_TRUE(eventually([&] { return metric("diskcached_client_uploads_total") == 2; }));
  server->tell(SIGTERM);
  ASSERT_TRUE(eventually([&] { return server->hasEnded(); }));
  EXPECT_EQ(server->wait(), 0);
}

}  // namespace
}  // namespace diskcached
