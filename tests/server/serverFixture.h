// diskcached as a process in front of nginx as a process, both on free ports of loopback.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "tests/server/httpClient.h"
#include "tests/support/process.h"
#include "tests/support/tempDir.h"

namespace diskcached {

namespace fs = std::filesystem;
using ObjectStore::eventually;
using ObjectStore::Process;
using ObjectStore::readFile;
using ObjectStore::ScriptedServer;
using ObjectStore::TempDir;
using ObjectStore::writeFile;

// Bytes that tell object and place.
inline std::string bytesOf(std::string_view name, size_t size) {
  std::string bytes(size, '\0');
  std::minstd_rand random(static_cast<unsigned>(std::hash<std::string_view>()(name)));
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() >> 8); });
  return bytes;
}

inline size_t countOf(std::string_view part, std::string_view text) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// Files of a directory over HTTP, also to be written.
class Store {
 public:
  explicit Store(const TempDir& dir) : m_dir(dir / "nginx"), files(dir / "files") {
    fs::create_directories(m_dir);
    fs::create_directories(files);
    for (start(); m_process->hasEnded(); start()) port = 0;  // somebody else has taken it
  }

  void start() {
    if (port == 0) close(ObjectStore::bindLoopback(port));
    std::string text =
        "daemon off; master_process off; pid nginx.pid;\nevents { worker_connections 2048; }\nhttp {\n"
        "log_format short '$request_method $request_uri $status $body_bytes_sent';\n"
        "access_log access.log short; client_max_body_size 1g; keepalive_requests 1000000;\n"
        "types { text/plain txt; } default_type application/octet-stream;\n";
    for (const char* name : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
      text += std::string(name) + "_temp_path " + m_dir + "/tmp-" + name + ";\n";
    text += "server { listen 127.0.0.1:" + std::to_string(port) + "; root " + files +
            ";\ndav_methods PUT DELETE; create_full_put_path on;\n" + m_extra + "}\n}\n";
    writeFile(m_dir + "/nginx.conf", text);
    m_process =
        std::make_unique<Process>(std::vector<std::string>{"/usr/sbin/nginx", "-p", m_dir, "-e",
                                                           m_dir + "/error.log", "-c", m_dir + "/nginx.conf"},
                                  m_dir + "/output");
    eventually([&] { return m_process->hasEnded() || RawClient(port).isConnected(); });
  }
  void stop() { m_process->end(SIGKILL); }
  // After SIGSTOP connections stay, and nothing is answered until SIGCONT.
  void tell(int signal) const { m_process->tell(signal); }
  void restart(const std::string& withLines) {
    stop();
    m_extra = withLines;
    start();
  }
  void put(const std::string& name, const std::string& content) const {
    writeFile(files + '/' + name, content);
  }
  // The requests that came, "METHOD PATH STATUS BYTES" a line.
  std::string requests() const { return readFile(m_dir + "/access.log"); }

  uint16_t port = 0;

 private:
  const std::string m_dir;
  std::string m_extra;  // lines of the configuration
  std::unique_ptr<Process> m_process;

 public:
  const std::string files;
};

struct ServerTest : ::testing::Test {
  // An option of `more` takes the place of the usual one; with nothing behind its '=' it is not given at all.
  void launch(const std::vector<std::string>& more = {}) {
    std::vector<std::string> all = {DISKCACHED_PATH,
                                    "--origin=http://127.0.0.1:" + std::to_string(store.port),
                                    "--root=" + (dir / "root"),
                                    "--volume=" + volume,
                                    "--max-bytes=1G",
                                    "--block-size=64K",
                                    "--listen=127.0.0.1:0",
                                    "--admin=127.0.0.1:0",
                                    "--memory=64M"};
    for (const std::string& option : more) {
      const std::string name = option.substr(0, option.find('='));
      std::erase_if(all, [&](const std::string& usual) { return usual.starts_with(name + '='); });
      if (!option.ends_with('=')) all.push_back(option);
    }
    server.reset();
    fs::remove(dir / "log");
    server = std::make_unique<Process>(all, dir / "log", environment);
  }
  void start(const std::vector<std::string>& more = {}) {
    launch(more);
    ASSERT_TRUE(
        eventually([&] { return logged().find("admin on") != std::string::npos || server->hasEnded(); }));
    const std::string log = logged();
    const size_t serving = log.find(" on 127.0.0.1:"), admin = log.find("admin on 127.0.0.1:");
    ASSERT_NE(admin, std::string::npos) << log;
    port = static_cast<uint16_t>(std::stoul(log.substr(serving + 14)));
    adminPort = static_cast<uint16_t>(std::stoul(log.substr(admin + 19)));
  }
  // What the server has said since it was launched.
  std::string logged() const { return readFile(dir / "log"); }

  Reply ask(const std::string& method, const std::string& path, const std::vector<std::string>& headers = {},
            const std::string& body = "") const {
    return HttpClient(port).ask(method, path, headers, body);
  }
  Reply get(const std::string& path, const std::vector<std::string>& headers = {}) const {
    return ask("GET", path, headers);
  }
  Reply put(const std::string& path, const std::string& body,
            const std::vector<std::string>& headers = {}) const {
    return ask("PUT", path, headers, body);
  }
  // Puts an object into the store, and reads it through the server.
  void fetch(const std::string& name, const std::string& content) const {
    store.put(name, content);
    EXPECT_TRUE(get('/' + name).body == content) << name;
  }
  Reply admin(const std::string& target, const std::string& method = "GET") const {
    return HttpClient(adminPort).ask(method, target);
  }
  double metric(const std::string& name) const {
    const std::string text = '\n' + admin("/metrics").body;
    const size_t at = text.find('\n' + name + ' ');
    return at == std::string::npos ? -1 : std::stod(text.substr(at + name.size() + 2));
  }

  const TempDir dir;
  Store store{dir};
  std::string volume = dir / "volume";
  std::vector<std::string> environment;
  std::unique_ptr<Process> server;
  uint16_t port = 0, adminPort = 0;
};

}  // namespace diskcached
