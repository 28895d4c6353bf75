// diskcachectl warm: fills a cache before its server starts.
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/blockTrailer.h"
#include "client/descriptor.h"
#include "client/objectCache.h"
#include "client/volumeMarkers.h"
#include "commands/commands.h"
#include "common/failure.h"
#include "common/identifier.h"
#include "common/options.h"
#include "common/output.h"
#include "common/progress.h"
#include "common/units.h"
#include "look/knownCache.h"
#include "look/looking.h"
#include "look/server.h"
#include "replay/cacheSession.h"

namespace diskcachectl::warm {
namespace {

using namespace ObjectStore;
namespace fs = std::filesystem;

constexpr const char* HELP =
    R"(Fills a cache from files before its server starts. With --context each file becomes a segment of one section, of type 0, called like the file; without it an object in a cache of named objects, whose key is the path below --from. A list has a line for each file: the name or key, a tab, the file, and for objects a tab and the version. What is cached is left as it is. --rate bounds the bytes that are read in a second.

Block size and bound must be those that the server uses; without a bound the disks are one. Objects go to every volume that the root knows, whatever --volume says of those: it names the volumes of a new cache, or with --add-volume another. While one is away nothing is stored. The root must be the caller's own.

Exit status: 0 success, 1 files were left out, 2 bad input, 3 an error of the cache or the system, or a server runs.

Example:
  diskcachectl warm --root /var/cache/root --volume /var/cache/a --from /srv/objects --rate 100MiB)";

constexpr uint64_t MAX_SEGMENT = 0x7ffff000;  // what the system writes at once

struct Options : CacheOptions {
  std::string context;
  std::string from;
  std::string list;
  std::string version;
  uint64_t rate = 0;
  uint64_t maxBytes = 0;
  uint64_t blockSize = 4 << 20;
  bool addsVolume = false;
};

struct Item {
  std::string name;
  std::string file;
  std::string version;
};

std::vector<Item> itemsOfDirectory(const Options& options) {
  std::vector<Item> items;
  std::error_code error;
  fs::recursive_directory_iterator entry(options.from, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    std::error_code ignored;  // of what is gone meanwhile; a link may lead nowhere
    if (entry->is_symlink(ignored) || !entry->is_regular_file(ignored)) continue;
    const fs::path name =
        options.context.empty() ? entry->path().lexically_relative(options.from) : entry->path().filename();
    items.push_back({name, entry->path(), options.version});
  }
  if (error) fail(options.from, error.value());
  std::sort(items.begin(), items.end(), [](const Item& a, const Item& b) { return a.file < b.file; });
  return items;
}

std::vector<Item> itemsOfList(const Options& options) {
  std::vector<Item> items;
  std::ifstream file(options.list);
  if (!file) fail(options.list, errno);
  uint64_t number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (line.empty() || line.front() == '#') continue;
    const size_t first = line.find('\t');
    if (first == std::string::npos || first == 0) {
      throw Failure(ExitStatus::BadInput,
                    fmt::format("{}:{}: expected: a name, a tab, a file", options.list, number));
    }
    const size_t second = line.find('\t', first + 1);
    items.push_back({line.substr(0, first), line.substr(first + 1, second - first - 1),
                     second == std::string::npos ? options.version : line.substr(second + 1)});
  }
  if (file.bad()) fail(options.list, errno);
  return items;
}

// Where what is to be cached comes from.
class Source {
 public:
  // With its access time, which only the owner of a file may leave alone.
  explicit Source(const std::string& path) : m_file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    struct stat status {};
    if (m_file.fd < 0 || fstat(m_file.fd, &status) != 0) m_error = errno;
    if (m_error == 0 && !S_ISREG(status.st_mode)) m_error = EINVAL;
    m_size = static_cast<uint64_t>(status.st_size);
  }
  int error() const { return m_error; }
  uint64_t size() const { return m_size; }
  // Fills the front of `to` with what there is from `from` on; a system error number or 0.
  int read(uint64_t from, std::span<std::byte> to) const {
    const uint64_t wanted = std::min<uint64_t>(to.size(), m_size - std::min(from, m_size));
    const ssize_t got = readFully(m_file.fd, to.data(), wanted, static_cast<off_t>(from));
    if (got < 0) return errno;
    return static_cast<uint64_t>(got) == wanted ? 0 : EIO;  // it became shorter
  }

 private:
  const Descriptor m_file;
  int m_error = 0;
  uint64_t m_size = 0;
};

enum class Outcome { Stored, Known };

// A cache that takes files. Throws a Failure for what would meet the next file too.
class Target {
 public:
  Target() = default;
  virtual ~Target() = default;
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;
  virtual Outcome store(const Item& item, const Source& source) = 0;
};

class Segments : public Target {
 public:
  explicit Segments(const Options& options)
      : m_options(options), m_session(options, CacheSession::Use::Fill) {}

  Outcome store(const Item& item, const Source& source) override {
    if (const std::string_view why = whyNotNew(item.name); !why.empty())
      throw Failure(ExitStatus::CheckFailed, std::string(why));
    if (source.size() == 0 || source.size() > MAX_SEGMENT)
      throw Failure(ExitStatus::CheckFailed, "its size fits no section");
    SegmentOptions segment;
    segment.context = m_options.context;
    segment.id = item.name;
    if (!m_session.find(segment).empty()) return Outcome::Known;
    m_bytes.resize(source.size());
    if (const int rc = source.read(0, m_bytes); rc != 0)
      throw Failure(ExitStatus::CheckFailed, std::strerror(rc));
    std::vector<Section> sections(1);
    sections.front().len = sections.front().bufferSize = m_bytes.size();
    sections.front().data = reinterpret_cast<unsigned char*>(m_bytes.data());
    DiskCacheContext context;
    context.dir = m_options.context;
    const CZuError error = m_session.cache().createSegment(context, item.name, sections, false, false, false);
    if (!error.IsError()) return Outcome::Stored;
    // What could not be written whole is deleted again; the failure to tell of is the first.
    (void)m_session.cache().deleteSegment(context, item.name, false, false, Recycle::No);
    fail(item.name, error);
  }

 private:
  const Options& m_options;
  CacheSession m_session;
  std::vector<std::byte> m_bytes;
};

class Objects : public Target {
 public:
  explicit Objects(const Options& options)
      : m_cache({.root = options.root,
                 .volumes = options.volumes,
                 .maxBytes = options.maxBytes,
                 .blockSize = static_cast<uint32_t>(options.blockSize)}),
        m_buffer(options.blockSize) {
    if (const CZuError error = m_cache.open(); error.IsError()) fail(options.root, error);
    if (m_cache.metrics().absentVolumes > 0)
      throw Failure(ExitStatus::Error, options.root + ": a volume can't be read");
  }

  Outcome store(const Item& item, const Source& source) override {
    const auto origin = [&source](uint64_t from, std::span<std::byte> to) {
      OriginAnswer answer{.objectSize = source.size()};
      if (const int rc = source.read(from, to); rc != 0) {
        answer.error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, rc);
      }
      return answer;
    };
    uint64_t refused = refusals();
    auto outcome = Outcome::Known;
    uint64_t at = 0;
    do {
      const ReadResult got = m_cache.read(item.name, item.version, at, m_buffer, origin);
      if (got.error.IsError()) throw Failure(ExitStatus::CheckFailed, got.error.AsString());
      if (got.misses > 0) outcome = Outcome::Stored;
      at += m_buffer.size();
    } while (at < source.size());
    if (std::exchange(refused, refusals()) != refused) fail(item.name, ENOSPC);
    return outcome;
  }

 private:
  uint64_t refusals() {
    const ObjectCacheMetrics metrics = m_cache.metrics();
    return metrics.refusedForRoom + metrics.refusedByDisk + metrics.diskErrors;
  }

  ObjectCache m_cache;
  std::vector<std::byte> m_buffer;
};

// Keeps what was read within a rate.
class Throttle {
 public:
  explicit Throttle(uint64_t bytesPerSecond) : m_rate(static_cast<double>(bytesPerSecond)) {}
  void took(uint64_t bytes) {
    m_bytes += static_cast<double>(bytes);
    if (m_rate > 0) std::this_thread::sleep_until(m_start + std::chrono::duration<double>(m_bytes / m_rate));
  }

 private:
  const double m_rate;
  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
  double m_bytes = 0;
};

void warm(const Options& options, const std::vector<Item>& items, Target& target) {
  Throttle throttle(options.rate);
  std::optional<Progress> progress("warm");
  uint64_t stored = 0, known = 0, leftOut = 0, bytes = 0;
  for (size_t i = 0; i < items.size(); ++i) {
    progress->show(i, items.size());
    const Source source(items[i].file);
    try {
      if (source.error() != 0) throw Failure(ExitStatus::CheckFailed, std::strerror(source.error()));
      if (target.store(items[i], source) == Outcome::Known) {
        ++known;
        continue;
      }
      ++stored;
      bytes += source.size();
      throttle.took(source.size());
    } catch (const Failure& failure) {
      if (failure.status() != ExitStatus::CheckFailed) throw;
      ++leftOut;
      printError(fmt::format("{}: {}, left out", items[i].file, failure.what()));
    }
  }
  progress.reset();  // wiped before the result comes
  if (options.isJson) {
    printJson({{"stored", stored}, {"known", known}, {"left_out", leftOut}, {"bytes", bytes}});
  } else {
    fmt::print("{} stored ({}), {} were there, {} left out\n", formatCount(stored), formatSize(bytes),
               formatCount(known), formatCount(leftOut));
  }
  if (leftOut != 0) throw Failure(ExitStatus::CheckFailed);
}

// An object cache forgets in "volume_info" the volumes that it is not opened with, and those that are away.
void takeAllVolumes(const KnownCache& known, Options& options) {
  const std::vector<std::string> given = std::exchange(options.volumes, {});
  std::error_code error;
  for (const KnownVolume& volume : known.volumes) {
    options.volumes.push_back(volume.dir);
    if (!known.isObjectCache || fs::exists(fs::path(volume.dir) / VOLUME_MARKER, error)) continue;
    throw Failure(ExitStatus::Error, volume.dir + ": has no marker of the cache: is the disk mounted?");
  }
  options.volumes.insert(options.volumes.end(), given.begin(), given.end());
}

// The volumes; ends before anything is changed when there is no use in going on.
void prepare(Options& options) {
  std::error_code error;
  if (!fs::exists(options.root, error)) {
    if (options.volumes.empty())
      throw Failure(ExitStatus::BadInput, options.root + ": is new; give --volume");
    for (std::string& volume : options.volumes) volume = fs::absolute(volume);
    return;
  }
  const KnownCache known(options.root);
  known.refuseMove();
  if (options.context.empty()) takeAllVolumes(known, options);
  const bool addsVolume = options.addsVolume || known.volumes.empty();
  options.volumes = known.choosePresent(options.volumes, addsVolume ? Stranger::Add : Stranger::Refuse);
}

void run(Options options) {
  if (options.from.empty() == options.list.empty()) {
    throw Failure(ExitStatus::BadInput, "warm: one of --from and --list is required (see --help)");
  }
  const std::vector<Item> items = options.from.empty() ? itemsOfList(options) : itemsOfDirectory(options);
  refuseOthersRoot(options.root);
  RootClaim claim(options.root);
  prepare(options);
  makeDirectory(options.root);
  claim.takeMade();
  std::unique_ptr<Target> target;
  if (options.context.empty()) {
    claim.passOnClient();
    target = std::make_unique<Objects>(options);
  } else {
    target = std::make_unique<Segments>(options);
  }
  warm(options, items, *target);
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "warm", "Fills a cache before its server starts", HELP,
                                 [options] { run(*options); });
  addCacheOptions(*command, *options, true);
  makeVolumesOptional(*command);
  addAddVolume(*command, options->addsVolume);
  command->add_option("--context", options->context, "Make segments, in this directory of the volumes")
      ->type_name("NAME")
      ->check(CLI::Validator(whyNotBelow, ""));
  const auto addSize = [command](const char* name, uint64_t& value, const char* description) {
    return command->add_option(name, value, description)
        ->type_name("SIZE")
        ->transform(CLI::Validator(sizeToNumber, ""));
  };
  CLI::Option* from =
      command->add_option("--from", options->from, "Take the files below a directory, or")->type_name("DIR");
  command->add_option("--list", options->list, "those of a list")->type_name("FILE")->excludes(from);
  command->add_option("--version", options->version, "The objects' version where a list tells none")
      ->type_name("TEXT");
  addSize("--rate", options->rate, "At most so many bytes in a second (50MiB)");
  addSize("--max-bytes", options->maxBytes, "What objects may take on disk");
  addSize("--block-size", options->blockSize, "Of objects (default: 4MiB)")
      ->check(CLI::Range(MIN_BLOCK_SIZE, MAX_BLOCK_SIZE).description(""));
}

}  // namespace diskcachectl::warm
