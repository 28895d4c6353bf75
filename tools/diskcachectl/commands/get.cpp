// diskcachectl get: reads a section of a segment.
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "commands/commands.h"
#include "common/options.h"
#include "common/output.h"
#include "look/knownCache.h"
#include "look/server.h"
#include "replay/cacheSession.h"

namespace diskcachectl::get {
namespace {

using namespace ObjectStore;
namespace fs = std::filesystem;

constexpr uint64_t CHUNK = uint64_t{8} << 20;

constexpr const char* HELP =
    R"(Writes one section's bytes to FILE, which appears whole or not at all, or to standard output. A server
may be running on the root; access times stay as they are.
Exit status: 0 success, 1 there is no such segment or section, or it is damaged, 2 bad input, 3 an error of
the cache or the system, or a section of 8 MiB or more was changed while it was read.

Example:
  diskcachectl get --root /var/cache/root --context data 0123abcd /tmp/section)";

struct Options : SegmentOptions {
  int32_t type = 0;
  std::string file = "-";

  bool isStdout() const { return file == "-"; }
};

// Where the bytes go. A file is built under another name beside it; FIFOs and devices are written to as they
// are.
class Target {
 public:
  explicit Target(const Options& options) : m_name(options.isStdout() ? "standard output" : options.file) {
    constexpr mode_t ANYBODY = 0666;
    if (options.isStdout()) {
      m_fd = STDOUT_FILENO;
      return;
    }
    std::error_code error;
    const fs::file_status status = fs::status(m_name, error);
    if (fs::exists(status) && !fs::is_regular_file(status)) {
      m_fd = open(m_name.c_str(), O_WRONLY | O_CLOEXEC);
      if (m_fd < 0) fail(m_name, errno);
      return;
    }
    // What a link points at, rather than the link, is replaced.
    m_path = fs::weakly_canonical(followed(m_name), error);
    if (error) fail(m_name, error.value());
    // Who could not read the file that it replaces shall not read this one.
    const auto old = static_cast<mode_t>(status.permissions() & fs::perms::all);
    create(fs::exists(status) ? old : ANYBODY);
    if (fs::exists(status)) (void)fchmod(m_fd, old);  // with what the mask has taken
  }
  ~Target() {
    if (m_fd > STDERR_FILENO) close(m_fd);
    if (!m_temporary.empty()) unlink(m_temporary.c_str());
  }
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  void write(const std::vector<Section>& sections) {
    const int rc = writeFully(m_fd, sections.front().data, sections.front().len);
    if (rc != 0) fail(m_name, rc);
  }
  void finish() {
    // Some file systems only now know that they are full.
    if (m_fd != STDOUT_FILENO && close(std::exchange(m_fd, -1)) != 0) fail(m_name, errno);
    if (m_temporary.empty()) return;
    if (rename(m_temporary.c_str(), m_path.c_str()) != 0) fail(m_name, errno);
    m_temporary.clear();
  }

 private:
  // The path behind links, also behind those to what is not there.
  static fs::path followed(fs::path path) {
    constexpr int MOST_LINKS = 40;  // of the system
    std::error_code error;
    for (int i = 0; i < MOST_LINKS && fs::is_symlink(path, error); ++i)
      path = path.parent_path() / fs::read_symlink(path);
    return path;
  }
  // A name that is taken was left over by another process.
  void create(mode_t mode) {
    for (int i = 0; m_fd < 0; ++i) {
      const fs::path path = m_path.parent_path() / fmt::format(".{}.{}.part", getpid(), i);
      m_fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | O_CREAT | O_EXCL, mode);
      if (m_fd < 0 && errno != EEXIST) fail(m_name, errno);
      if (m_fd >= 0) m_temporary = path;
    }
  }

  const std::string m_name;
  fs::path m_path;
  fs::path m_temporary;
  int m_fd = -1;
};

// Reading a section from one end to the other.
class Reader {
 public:
  Reader(DiskCache& cache, const Copy& copy, const Options& options)
      : m_cache(cache),
        m_copy(copy),
        m_options(options),
        m_buffer(std::make_unique_for_overwrite<unsigned char[]>(CHUNK)) {}

  // The bytes from `offset` on, as many as there are up to a chunk.
  std::vector<Section> read(uint64_t offset) {
    std::vector<Section> sections(1);
    Section& section = sections.front();
    section.type = m_options.type;
    section.off = offset;
    section.data = m_buffer.get();
    section.bufferSize = CHUNK;
    check(m_cache.readSections(m_copy.context, m_options.id, sections, false));
    if (section.status == ENOENT) {
      throw Failure(ExitStatus::CheckFailed,
                    fmt::format("{}: there is no section {}", m_copy.path, m_options.type));
    }
    if (section.len == 0) {
      // The end, or a front that cannot be read.
      uint64_t size = 0;
      check(m_cache.getSectionSize(size, m_copy.context, m_options.id, m_options.type, 0));
      if (size > offset) fail(m_copy.path, EIO);
    }
    return sections;
  }

 private:
  void check(const CZuError& error) {
    if (!error.IsError()) return;
    switch (RMErrorUtil::GetErrNo(error)) {
      case ENOENT: throw Failure(ExitStatus::CheckFailed, m_options.id + ": not in the cache");
      case EIO: {
        std::error_code ignored;  // a header that is cut short is no error of the system
        if (fs::file_size(m_copy.path, ignored) >= SEGMENT_HEADER_SIZE) fail(m_copy.path, error);
        [[fallthrough]];
      }
      case 0:
      case EINVAL:
        throw Failure(ExitStatus::CheckFailed, fmt::format("{}: damaged: {}", m_copy.path, error.AsString()));
      default: fail(m_copy.path, error);
    }
  }

  DiskCache& m_cache;
  const Copy& m_copy;
  const Options& m_options;
  const std::unique_ptr<unsigned char[]> m_buffer;
};

// Which file it is, and when it was changed.
auto stateOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) status = {};
  return std::tuple(status.st_dev, status.st_ino, status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
}

void run(Options options) {
  if (options.isJson && options.isStdout()) {
    throw Failure(ExitStatus::BadInput, "get: --json needs FILE (see --help)");
  }
  tellServer(options.root);
  options.volumes = KnownCache(options.root).choosePresent(options.volumes, Stranger::Accept);
  CacheSession session(options, CacheSession::Use::Look);
  const Copy copy = session.require(options).front();
  const auto state = stateOf(copy.path);
  Reader reader(session.cache(), copy, options);
  std::vector<Section> sections = reader.read(0);
  uint64_t bytes = sections.front().len;
  Target target(options);
  target.write(sections);
  while (sections.front().len == CHUNK) {
    sections = reader.read(bytes);
    target.write(sections);
    bytes += sections.front().len;
  }
  // Each chunk was read through an open of its own.
  if (bytes >= CHUNK && stateOf(copy.path) != state)
    throw Failure(ExitStatus::Error, copy.path + ": was changed while it was read");
  target.finish();
  if (!options.isJson) return;
  printJson({{"identifier", options.id},
             {"volume", copy.volume},
             {"path", copy.path},
             {"type", options.type},
             {"bytes", bytes}});
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command =
      addCommand(program, "get", "Reads a section of a segment", HELP, [options] { run(*options); });
  addSegmentOptions(*command, *options);
  makeVolumesOptional(*command);
  addSectionType(*command, options->type);
  command->add_option("FILE", options->file, "Where it goes; - for standard output, as without it")
      ->type_name("");
}

}  // namespace diskcachectl::get
