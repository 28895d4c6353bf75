// diskcachectl put: stores a section of a segment.
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "commands/commands.h"
#include "common/identifier.h"
#include "common/options.h"
#include "common/output.h"
#include "look/knownCache.h"
#include "look/segmentDecoder.h"
#include "look/server.h"
#include "replay/cacheSession.h"
#include "support/file.h"

namespace diskcachectl::put {
namespace {

using namespace ObjectStore;

// What is held in memory, and written at once.
constexpr uint64_t CHUNK = uint64_t{256} << 20;
constexpr size_t SPOOL_BLOCK = size_t{1} << 20;

constexpr const char* HELP =
    R"(Stores FILE, or standard input, as one section: of a new segment, or in place of that section in one
that is there, whose other sections stay. Only a segment's last section can change its length; one of
type 5 cannot become shorter. Prints the file's path. Of a new cache the root and the volumes are made.
No server may be running on the root, which must be the caller's own. A put of more than 256 MiB that is killed leaves the front of it.
Exit status: 0 success, 1 the segment that is there is damaged, 2 bad input, 3 an error of the cache or the
system.

Example:
  diskcachectl put --root /var/cache/root --volume /var/cache/a --context data 0123abcd /tmp/section)";

struct Options : SegmentOptions {
  int32_t type = 0;
  bool isSynced = false;
  bool addsVolume = false;
  std::string file = "-";
};

// The bytes to store, a chunk at a time, and how many there will be. What a pipe gives beyond the first chunk
// goes to a temporary file, since the length decides whether anything is written at all.
class Input {
 public:
  explicit Input(const std::string& file)
      : m_name(file == "-" ? "standard input" : file),
        m_fd(file == "-" ? dup(STDIN_FILENO) : open(file.c_str(), O_RDONLY | O_CLOEXEC)),
        m_buffer(std::make_unique_for_overwrite<unsigned char[]>(CHUNK)) {
    struct stat status {};
    if (m_fd < 0 || fstat(m_fd, &status) != 0) fail(m_name, errno);
    m_filled = fill(m_buffer.get(), CHUNK);
    m_length = m_filled;
    if (m_filled < CHUNK) return;
    m_length += S_ISREG(status.st_mode) ? restOf(status) : spool();
  }
  ~Input() {
    if (m_fd >= 0) close(m_fd);
  }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  uint64_t length() const { return m_length; }
  // The chunk at hand; the first one to begin with.
  std::vector<Section> chunk(int32_t type, int32_t subType) const {
    std::vector<Section> sections(1);
    Section& section = sections.front();
    section.type = type;
    section.subType = subType;
    section.off = m_offset;
    section.len = section.bufferSize = m_filled;
    section.data = m_buffer.get();
    return sections;
  }
  // False at the end.
  bool next() {
    m_offset += m_filled;
    const uint64_t wanted = std::min(CHUNK, m_length - m_offset);
    m_filled = fill(m_buffer.get(), wanted);
    if (m_filled == wanted) return wanted > 0;
    throw Failure(ExitStatus::Error, m_name + ": became shorter while it was read");
  }

 private:
  uint64_t fill(unsigned char* buffer, uint64_t wanted) const {
    uint64_t filled = 0;
    while (filled < wanted) {
      const ssize_t got = read(m_fd, buffer + filled, wanted - filled);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) fail(m_name, errno);
      if (got == 0) break;
      filled += static_cast<uint64_t>(got);
    }
    return filled;
  }

  uint64_t restOf(const struct stat& status) const {
    const off_t at = lseek(m_fd, 0, SEEK_CUR);
    return status.st_size > at ? static_cast<uint64_t>(status.st_size - at) : 0;
  }

  uint64_t spool() {
    std::string path = std::filesystem::temp_directory_path() / "diskcachectl.XXXXXX";
    const int fd = mkostemp(path.data(), O_CLOEXEC);
    if (fd < 0) fail(path, errno);
    unlink(path.c_str());
    uint64_t length = 0;
    std::vector<unsigned char> block(SPOOL_BLOCK);
    while (const uint64_t got = fill(block.data(), block.size())) {
      if (const int rc = writeFully(fd, block.data(), got); rc != 0) fail(path, rc);
      length += got;
    }
    lseek(fd, 0, SEEK_SET);
    close(std::exchange(m_fd, fd));
    return length;
  }

  const std::string m_name;
  int m_fd;
  const std::unique_ptr<unsigned char[]> m_buffer;
  uint64_t m_filled = 0;
  uint64_t m_offset = 0;  // of the chunk at hand
  uint64_t m_length = 0;
};

void check(const CZuError& error, const std::string& what) {
  if (error.IsError()) fail(what, error);
}

// A section in the middle would grow over those behind it, and cutting it would cut them off.
void refuseUnfit(const SegmentLayout& layout, const Record& old, uint64_t length, const std::string& path) {
  if (length == old.front.len) return;
  const bool isLast = old.end() == layout.bytes;
  const bool canChange = length > old.front.len || layout.lastSection == old.front.type;
  if (isLast && canChange) return;
  throw Failure(
      ExitStatus::BadInput,
      fmt::format("{}: section {} has {} bytes and cannot get {}: {}", path, old.front.type, old.front.len,
                  length, isLast ? "this type never becomes shorter" : "others lie behind it"));
}

// A write that fails half-way would leave neither the old bytes nor the new. It fills holes as well; what it makes
// longer begins and ends within a block, and the file system may need one to find it by.
void refuseWithoutRoom(const SegmentLayout& layout, uint64_t growth, const FoundCopy& copy) {
  const uint64_t needed = growth + layout.bytes - std::min(layout.bytes, layout.allocated);
  const auto room = measure(copy.directory);
  if (needed != 0 && room && room->free < needed + 2 * room->block) fail(copy.path, ENOSPC);
}

SegmentLayout layoutOf(const std::string& path) {
  SegmentLayout layout;
  if (const int rc = decodeSegment(path, layout); rc != 0) fail(path, rc);
  if (layout.problems.empty()) return layout;
  throw Failure(ExitStatus::CheckFailed, fmt::format("{}: damaged: {}", path, layout.problems.front()));
}

uint64_t lengthOf(const Record* record) { return record == nullptr ? 0 : record->front.len; }

// Ends before anything is changed when the put cannot be done. The layout of the segment that is there, if any.
std::optional<SegmentLayout> prepare(Options& options, const Input& input) {
  std::error_code error;
  if (!std::filesystem::exists(options.root, error)) {
    if (options.volumes.empty())
      throw Failure(ExitStatus::BadInput, options.root + ": is new; give --volume");
    return std::nullopt;
  }
  const KnownCache known(options.root);
  known.refuseMove();
  const bool addsVolume = options.addsVolume || known.volumes.empty();
  options.volumes = known.choosePresent(options.volumes, addsVolume ? Stranger::Add : Stranger::Refuse);
  const auto copies = known.find(options.volumes, options.context, options.nonprunable, options.id);
  if (copies.empty()) return std::nullopt;
  const std::string& path = copies.front().path;
  SegmentLayout layout = layoutOf(path);
  const Record* old = layout.find(options.type);
  if (old != nullptr) refuseUnfit(layout, *old, input.length(), path);
  refuseWithoutRoom(layout, std::max(input.length(), lengthOf(old)) - lengthOf(old), copies.front());
  return layout;
}

void overwrite(CacheSession& session, const SegmentLayout& layout, const Copy& copy, const Options& options,
               Input& input) {
  DiskCache& cache = session.cache();
  const Record* old = layout.find(options.type);
  const uint64_t oldLength = lengthOf(old);
  // It may be known only: the engine appends where it knows of room.
  if (old == nullptr) cache.addVolume(copy.directory);
  const int32_t subType = old != nullptr ? old->front.subType : 0;
  do {
    const auto chunk = input.chunk(options.type, subType);
    check(cache.writeSections(copy.context, options.id, chunk, false, ForceDiskLoc::Default), copy.path);
  } while (input.next());
  if (oldLength <= input.length()) return;
  check(cache.truncateSection(copy.context, options.id, options.type, subType, input.length()), copy.path);
}

// What cannot be written whole is deleted again.
void create(CacheSession& session, const Options& options, Input& input) {
  DiskCache& cache = session.cache();
  DiskCacheContext context;
  context.dir = options.context;
  context.nonprunableDir = options.nonprunable;
  context.useNonPrunableDir = !options.nonprunable.empty();
  CZuError error = cache.createSegment(context, options.id, input.chunk(options.type, 0), false,
                                       context.useNonPrunableDir, false);
  const bool isAnothers = RMErrorUtil::IsErrNo(error, EEXIST);
  try {
    check(error, options.id);
    while (input.next()) {
      const auto chunk = input.chunk(options.type, 0);
      check(cache.writeSections(context, options.id, chunk, false, ForceDiskLoc::Default), options.id);
    }
  } catch (...) {
    // What is under way is the failure to tell of.
    if (!isAnothers) (void)cache.deleteSegment(context, options.id, false, false, Recycle::No);
    throw;
  }
}

void run(Options options) {
  if (const std::string_view why = whyNotNew(options.id); !why.empty())
    throw Failure(ExitStatus::BadInput, fmt::format("{}: {}", options.id, why));
  Input input(options.file);
  if (input.length() == 0) {
    throw Failure(ExitStatus::BadInput, options.file + ": empty; a section has at least 1 byte");
  }
  refuseOthersRoot(options.root);
  RootClaim claim(options.root);
  const auto layout = prepare(options, input);
  makeDirectory(options.root);
  claim.takeMade();
  CacheSession session(options, CacheSession::Use::Fill);
  if (layout) {
    overwrite(session, *layout, session.require(options).front(), options, input);
  } else {
    create(session, options, input);
  }
  const Copy copy = session.require(options).front();
  if (options.isSynced) check(session.cache().syncSegment(copy.context, options.id), copy.path);
  if (!options.isJson) {
    fmt::print("{}\n", printable(copy.path));
    return;
  }
  printJson({{"identifier", options.id},
             {"volume", copy.volume},
             {"path", copy.path},
             {"type", options.type},
             {"bytes", input.length()},
             {"created", !layout}});
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command =
      addCommand(program, "put", "Stores a section of a segment", HELP, [options] { run(*options); });
  addSegmentOptions(*command, *options);
  makeVolumesOptional(*command);
  addAddVolume(*command, options->addsVolume);
  addSectionType(*command, options->type);
  command->add_flag("--sync", options->isSynced, "Return when it is on disk for good");
  command->add_option("FILE", options->file, "Where it comes from; - for standard input, as without it")
      ->type_name("");
}

}  // namespace diskcachectl::put
