#include "options/options.h"

#include <fmt/core.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <bit>
#include <charconv>
#include <limits>
#include <sstream>
#include <thread>

#include "common/units.h"

namespace diskcached {
namespace {

using ObjectStore::PruningMode;
using ObjectStore::Verify;
using std::chrono::seconds;

constexpr const char* ABOUT =
    R"(A read-through, and if told so write-back, HTTP cache in front of an object store or any HTTP server.

Every option may stand in the config file under its name without the dashes (volume = ["/disk1", "/disk2"]).
Credentials come from AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY and AWS_SESSION_TOKEN or from --credentials.

Example:
  diskcached --origin https://store.example/bucket --root /var/lib/diskcached --volume /disk1/cache
    --max-bytes 400G)";

[[noreturn]] void refuse(std::string_view name, std::string_view text, std::string_view expected) {
  throw BadOptions(fmt::format("--{}: \"{}\" is not {}", name, text, expected));
}

Address parseAddress(std::string_view name, const std::string& text) {
  const size_t colon = text.rfind(':');
  Address address;
  unsigned port = 0;
  if (colon != std::string::npos) {
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, port);
    if (error == std::errc() && stop == end && port <= std::numeric_limits<uint16_t>::max()) {
      address.host = text.substr(0, colon);
      address.port = static_cast<uint16_t>(port);
      if (address.host.size() > 2 && address.host.front() == '[' && address.host.back() == ']')
        address.host = address.host.substr(1, address.host.size() - 2);
    }
  }
  if (address.host.empty()) refuse(name, text, "ADDRESS:PORT");
  return address;
}

std::string parseOrigin(std::string text) {
  const bool hasScheme = text.starts_with("http://") || text.starts_with("https://");
  if (!hasScheme || text.find_first_of("?#@ ") != std::string::npos)
    refuse("origin", text, "http(s)://HOST[:PORT][/PATH]");
  while (text.ends_with('/')) text.pop_back();
  const size_t colon = text.find("://");
  if (colon == std::string::npos || text[colon + 3] == '/')
    refuse("origin", text, "http(s)://HOST[:PORT][/PATH]");
  return text;
}

// The texts that options are given as; each is checked under its name.
class Reader {
 public:
  explicit Reader(Options& options) : m_options(options) {
    addStore();
    addCache();
    addServing();
    addLimits();
    m_program.set_config("--config", "", "A file with options, one NAME = VALUE a line");
    m_program.allow_config_extras(false);
    m_program.set_version_flag("--version", "diskcached " DISKCACHE_VERSION);
    m_program.failure_message(
        [](const CLI::App*, const CLI::Error& error) { return std::string(error.what()); });
  }

  bool read(int argc, const char* const* argv) {
    try {
      m_program.parse(argc, argv);
    } catch (const CLI::ParseError& stop) {
      if (stop.get_exit_code() != 0) throw BadOptions(fmt::format("{} (see --help)", stop.what()));
      std::ostringstream text;
      m_program.exit(stop, text, text);
      fmt::print("{}", text.str());
      return false;
    }
    for (const auto& check : m_checks) check();
    return true;
  }

 private:
  template <typename T, typename Parse>
  void add(const std::string& name, T& value, std::string text, const std::string& help, Parse parse,
           bool isRequired = false) {
    const auto given = std::make_shared<std::string>(std::move(text));
    CLI::Option* const option = m_program.add_option("--" + name, *given, help);
    if (isRequired) {
      option->required();
    } else if (!given->empty()) {
      option->default_str(*given);
    }
    m_checks.emplace_back([given, name, &value, parse] { value = static_cast<T>(parse(name, *given)); });
  }
  void addSize(const std::string& name, auto& value, const std::string& text, const std::string& help,
               bool isRequired = false) {
    add(
        name, value, text, help,
        [](const std::string& itsName, const std::string& given) {
          try {
            return diskcachectl::parseSize(given);
          } catch (const std::invalid_argument& error) {
            throw BadOptions(fmt::format("--{}: {}", itsName, error.what()));
          }
        },
        isRequired);
  }
  void addSeconds(const std::string& name, seconds& value, const std::string& help,
                  bool isEverAllowed = false) {
    const auto parse = [isEverAllowed](const std::string& itsName, const std::string& given) {
      if (isEverAllowed && given == "immutable") return seconds::max();
      uint32_t number = 0;
      const char* const end = given.data() + given.size();
      const auto [stop, error] = std::from_chars(given.data(), end, number);
      const bool isRight = error == std::errc() && (stop == end || std::string_view(stop, end) == "s");
      if (!isRight)
        refuse(itsName, given,
               isEverAllowed ? "a number of seconds or \"immutable\"" : "a number of seconds");
      return seconds(number);
    };
    add(name, value, std::to_string(value.count()), help, parse);
  }
  template <typename T>
  void addChoice(const std::string& name, T& value, const std::string& text, const std::string& help,
                 std::vector<std::pair<std::string, T>> choices) {
    add(name, value, text, help, [choices](const std::string& itsName, const std::string& given) {
      std::string names;
      for (const auto& [choice, result] : choices) {
        if (choice == given) return result;
        names += (names.empty() ? "" : ", ") + choice;
      }
      refuse(itsName, given, "one of " + names);
    });
  }
  void addCount(const std::string& name, auto& value, unsigned least, const std::string& help) {
    m_program.add_option("--" + name, value, help)
        ->capture_default_str()
        ->check(CLI::Range(least, 1'000'000'000U));
  }

  void addStore() {
    const auto keep = [](const std::string&, const std::string& given) { return given; };
    add(
        "origin", m_options.origin, "", "The store: http(s)://HOST[:PORT][/BUCKET]",
        [](const std::string&, const std::string& given) { return parseOrigin(given); }, true);
    add("origin-ca", m_options.originCa, "", "Certificates that sign the store's, instead of the system's",
        keep);
    add("credentials", m_options.credentials, "", "A file of the owner's alone with the store's credentials",
        keep);
    add("region", m_options.region, m_options.region, "The region that signatures name", keep);
    addSeconds("origin-connect-timeout", m_options.originConnectTimeout,
               "Seconds for a connection to the store");
    addSeconds("origin-timeout", m_options.originTimeout, "Seconds in which the store sends nothing");
    addCount("origin-retries", m_options.originRetries, 0, "How often a failed request is made again");
    addCount("origin-connections", m_options.originConnections, 1, "Requests to the store at once");
  }
  void addCache() {
    m_program.add_option("--root", m_options.root, "A directory for the server's own files")->required();
    m_program.add_option("--volume", m_options.volumes, "A directory on each disk")->required();
    addSize("max-bytes", m_options.maxBytes, "", "What the cache may take on all disks (400G)", true);
    addSize("block-size", m_options.blockSize, "1M", "Bytes that are fetched and given up together");
    addSize("reserve", m_options.reserve, "0", "Bytes to leave free on each disk");
    addChoice<PruningMode>("mode", m_options.mode, "lru", "lru: exact order; random: starts at once",
                           {{"lru", PruningMode::Lru}, {"random", PruningMode::Random}});
    addChoice<Verify>("verify", m_options.verify, "once", "When bytes from disk are compared with their sums",
                      {{"always", Verify::Always}, {"once", Verify::Once}, {"never", Verify::Never}});
    m_program.add_flag("--replace-volumes", m_options.replaceVolumes, "An empty directory is a new disk");
    m_program.add_flag("--write-back", m_options.writeBack,
                       "Answer a PUT when it is safe here, and upload it later");
    addCount("uploads", m_options.uploads, 1, "Objects uploaded at once");
    addCount("index-entries", m_options.indexEntries, 1, "Objects whose versions are kept in memory");
  }
  void addServing() {
    const auto address = [](const std::string& name, const std::string& given) {
      return parseAddress(name, given);
    };
    add("listen", m_options.listen, "127.0.0.1:8080", "Where clients are served", address);
    add("admin", m_options.admin, "127.0.0.1:9090", "Where /metrics and the like are served", address);
    addSeconds("fresh-for", m_options.freshFor,
               "Seconds until an object is looked up again, or \"immutable\"", true);
    addSeconds("stale-if-error", m_options.staleIfError, "Seconds beyond which nothing stale is served");
    addSeconds("grace", m_options.grace, "Seconds to finish in when told to stop");
    m_program.add_option("--access-log", m_options.accessLog,
                         "A line of JSON for each request: a file, or -");
    m_program.add_option("--log-level", m_options.logLevel, "-1 errors, 0 notices ... 9")
        ->capture_default_str();
  }
  void addLimits() {
    addCount("io-threads", m_options.ioThreads, 0, "Threads for connections; 0: one a processor");
    addCount("disk-threads", m_options.diskThreads, 1, "Threads for disks");
    addCount("passing", m_options.passing, 1, "Requests passed through at once");
    addCount("max-connections", m_options.maxConnections, 1, "Clients at once");
    addSize("max-header-bytes", m_options.maxHeaderBytes, "16K", "Bytes of a request's head");
    addSize("max-url-bytes", m_options.maxUrlBytes, "8K", "Bytes of a request's target");
    addSize("max-upload", m_options.maxUpload, "5G", "Bytes of an upload");
    addSize("memory", m_options.memory, "256M", "Bytes of bodies in memory");
    addSeconds("request-timeout", m_options.requestTimeout, "Seconds for a request's head");
    addSeconds("idle-timeout", m_options.idleTimeout, "Seconds in which a client neither sends nor takes");
  }

  Options& m_options;
  CLI::App m_program{ABOUT, "diskcached"};
  std::vector<std::function<void()>> m_checks;
};

void check(Options& options) {
  if (!std::has_single_bit(options.blockSize) || options.blockSize < ObjectStore::MIN_BLOCK_SIZE ||
      options.blockSize > ObjectStore::MAX_BLOCK_SIZE) {
    throw BadOptions("--block-size: not a power of two from 64K to 256M");
  }
  if (options.maxBytes == 0) throw BadOptions("--max-bytes: 0 bytes hold nothing");
  if (options.memory < uint64_t{4} * options.blockSize) throw BadOptions("--memory: less than four blocks");
  if (options.ioThreads == 0) options.ioThreads = std::max(1U, std::thread::hardware_concurrency());
}

}  // namespace

std::vector<std::string> keepWhatNeedsRestart(const Options& running, Options& wanted) {
  std::vector<std::string> names;
  const auto keep = [&](const char* name, auto Options::*option) {
    if (wanted.*option == running.*option) return;
    wanted.*option = running.*option;
    names.emplace_back(name);
  };
  keep("origin", &Options::origin);
  keep("root", &Options::root);
  keep("volume", &Options::volumes);
  keep("block-size", &Options::blockSize);
  keep("reserve", &Options::reserve);
  keep("mode", &Options::mode);
  keep("verify", &Options::verify);
  keep("replace-volumes", &Options::replaceVolumes);
  keep("write-back", &Options::writeBack);
  keep("uploads", &Options::uploads);
  keep("index-entries", &Options::indexEntries);
  keep("listen", &Options::listen);
  keep("admin", &Options::admin);
  keep("io-threads", &Options::ioThreads);
  keep("disk-threads", &Options::diskThreads);
  keep("origin-connections", &Options::originConnections);
  keep("passing", &Options::passing);
  keep("memory", &Options::memory);
  return names;
}

std::unique_ptr<Options> readOptions(int argc, const char* const* argv) {
  auto options = std::make_unique<Options>();
  if (!Reader(*options).read(argc, argv)) return nullptr;
  check(*options);
  return options;
}

}  // namespace diskcached
