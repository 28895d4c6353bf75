#include "replay/cacheSession.h"

#include <fmt/core.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <tuple>
#include <utility>

#include "common/identifier.h"
#include "common/options.h"
#include "common/output.h"
#include "look/volumeMove.h"

namespace diskcachectl {

using namespace ObjectStore;
namespace fs = std::filesystem;

namespace {

// In mode lru a list that every segment fits into, so that none has to be given up.
constexpr uint64_t MAX_ENTRIES = uint64_t{1} << 48;

std::string whyNoIdentifier(const std::string& id) {
  const std::string_view why = whyRefused(id);
  return why.empty() ? "" : fmt::format("\"{}\": {}", id, why);
}

bool isThere(const std::string& dir) {
  std::error_code ignored;
  return fs::is_directory(dir, ignored);
}

// The volumes that a root knows; says which lines of its file make no sense.
std::vector<KnownVolume> knownOf(const std::string& root) {
  VolumeFile file = readVolumeFile(root);
  for (const std::string& problem : file.problems) printError(problem);
  return std::move(file.volumes);
}

// The directories that are there, each once; the others are named. The cache tells volumes apart by their
// spelling: one that it knows gets that, so that it does not become another volume.
std::vector<std::string> presentOf(const std::vector<std::string>& dirs,
                                   const std::vector<KnownVolume>& known) {
  std::vector<std::string> spellings, present;
  for (const KnownVolume& volume : known) spellings.push_back(volume.dir);
  for (const std::string& dir : dirs) {
    std::error_code error;
    if (!fs::is_directory(dir, error)) {
      printError(fmt::format("{}: {}, left out", dir, error ? error.message() : std::strerror(ENOTDIR)));
      continue;
    }
    auto spelling = std::find_if(spellings.begin(), spellings.end(), [&](const std::string& spelled) {
      return fs::equivalent(spelled, dir, error);
    });
    if (spelling == spellings.end()) spelling = spellings.insert(spelling, fs::absolute(dir));
    if (std::find(present.begin(), present.end(), *spelling) == present.end()) present.push_back(*spelling);
  }
  if (present.empty()) throw Failure(ExitStatus::BadInput, "no volume is left");
  return present;
}

void refuseMigration(const std::string& root) {
  const auto migration = readMigration(root);
  if (!migration) return;
  if (migration->index == 0) throw Failure(ExitStatus::Error, root + "/migrate: makes no sense; remove it");
  throw Failure(
      ExitStatus::Error,
      fmt::format("{0}: volume {1} is moving, or was when its cache ended, from {2} to {3}: wait for "
                  "the server, or finish with \"migrate --index {1} --to {3}\"",
                  root, migration->index, migration->source, migration->destination));
}

// A directory of the process's own; gone with its object.
class PrivateRoot {
 public:
  PrivateRoot() : m_path(fs::temp_directory_path() / "diskcachectl.XXXXXX") {
    if (mkdtemp(m_path.data()) == nullptr) fail(m_path, errno);
  }
  ~PrivateRoot() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
  }
  PrivateRoot(const PrivateRoot&) = delete;
  PrivateRoot& operator=(const PrivateRoot&) = delete;

  const std::string& path() const { return m_path; }
  void writeVolumeFile(const std::vector<KnownVolume>& volumes) const {
    std::ofstream file(m_path + "/volume_info");
    for (const KnownVolume& volume : volumes) file << volume.dir << ',' << volume.index << '\n';
    if (!file.flush()) fail(m_path + "/volume_info", errno);
  }

 private:
  std::string m_path;
};

VolIndex nextIndex(const std::vector<KnownVolume>& volumes) {
  return static_cast<VolIndex>(volumes.empty() ? 1 : volumes.back().index + 1);
}

}  // namespace

std::string whyNoVolume(const std::string& dir) {
  const bool isLine = !dir.empty() && dir.find_first_of(",\n") == std::string::npos && dir.back() != ' ';
  return isLine ? "" : fmt::format("\"{}\" is empty, holds ',' or a line feed, or ends with a blank", dir);
}

void refuseOthersRoot(const std::string& root) {
  struct stat status {};
  if (stat(root.c_str(), &status) != 0 || status.st_uid == geteuid()) return;
  const passwd* user = getpwuid(status.st_uid);
  throw Failure(ExitStatus::BadInput,
                fmt::format("{}: belongs to user {}; run this as that user", root,
                            user != nullptr ? user->pw_name : std::to_string(status.st_uid)));
}

void makeDirectory(const std::string& dir) {
  std::error_code error;  // the cache's own would not name the directory
  if (fs::create_directories(dir, error)) fs::permissions(dir, fs::perms::owner_all, error);
  if (error) fail(dir, error.value());
}

CacheSession::CacheSession(const CacheOptions& options, Use use) {
  if (use == Use::Look || use == Use::Measure) {
    bringUpBeside(options, use);
  } else {
    bringUp(options, use);
  }
}

// The engine gets a root of its own, which it needs no longer once it runs.
void CacheSession::bringUpBeside(const CacheOptions& options, Use use) {
  const auto migration = readMigration(options.root);  // before the volumes, which its end changes
  std::vector<KnownVolume> known = knownOf(options.root);
  const std::vector<std::string> present = presentOf(options.volumes, known);
  for (const std::string& dir : present) {  // those that it does not know get indexes of no importance
    const bool isKnown = std::any_of(known.begin(), known.end(), [&](const auto& v) { return v.dir == dir; });
    if (!isKnown) known.push_back({nextIndex(known), dir});
  }
  const bool isMoving = migration && std::any_of(known.begin(), known.end(), [&](const KnownVolume& volume) {
                          return volume.index == migration->index && volume.dir == migration->source;
                        });
  if (use == Use::Look && isMoving) {
    known.push_back({nextIndex(known), migration->destination});
    m_places.push_back({known.back().index, migration->index, migration->destination});
  }
  for (const KnownVolume& volume : known) m_places.push_back({volume.index, volume.index, volume.dir});
  if (options.mode == PruningMode::Lru) {
    // One that is not there would keep the engine from starting.
    std::erase_if(known, [](const KnownVolume& volume) { return !isThere(volume.dir); });
  }

  const PrivateRoot root;
  root.writeVolumeFile(known);
  const CZuError error = m_cache.init(root.path(), use == Use::Measure ? present : std::vector<std::string>(),
                                      NEVER, NEVER, NEVER, MAX_ENTRIES, nullptr, options.mode);
  if (error.IsError()) fail(options.root, error);
}

void CacheSession::bringUp(const CacheOptions& options, Use use) {
  if (use == Use::Fill) makeDirectory(options.root);
  const std::vector<KnownVolume> known = knownOf(options.root);
  if (use != Use::Resume) refuseMigration(options.root);
  if (use == Use::Fill) {
    for (const std::string& dir : options.volumes) makeDirectory(dir);
  }
  const CZuError error = m_cache.init(options.root, presentOf(options.volumes, known), NEVER, NEVER, NEVER,
                                      MAX_ENTRIES, VolumeMove::CALLBACK, options.mode);
  if (error.IsError()) fail(options.root, error);
  for (const Volume& volume : volumes()) m_places.push_back({volume.index, volume.index, volume.dir});
}

std::vector<Volume> CacheSession::volumes() {
  std::vector<Volume> volumes;
  m_cache.getVolumeStats(volumes);
  std::erase_if(volumes, [](const Volume& volume) { return volume.dir.empty(); });
  return volumes;
}

std::vector<Copy> CacheSession::find(const SegmentOptions& segment) {
  std::vector<Copy> copies;
  for (const Place& place : m_places) {
    for (const std::string& dir : {segment.nonprunable, segment.context}) {
      if (dir.empty()) continue;
      Copy copy;
      copy.context.dir = dir;
      copy.context.volume = place.index;
      if (!m_cache.doesSegmentExist(copy.context, segment.id)) continue;
      copy.volume = place.volume;
      copy.directory = place.dir;
      copy.path = m_cache.guid2path(segment.id, place.index, dir);
      copies.push_back(copy);
    }
  }
  // A non-prunable file counts before the other of its volume, on whichever side of a migration it is.
  std::stable_sort(copies.begin(), copies.end(), [&](const Copy& a, const Copy& b) {
    return std::tuple(a.volume, a.context.dir == segment.context) <
           std::tuple(b.volume, b.context.dir == segment.context);
  });
  return copies;
}

std::vector<Copy> CacheSession::require(const SegmentOptions& segment) {
  std::vector<Copy> copies = find(segment);
  if (copies.empty()) throw Failure(ExitStatus::CheckFailed, segment.id + ": not in the cache");
  return copies;
}

void addCacheOptions(CLI::App& command, CacheOptions& options, bool manyVolumes) {
  addRoot(command, options.root)->required();
  addVolumes(command, options.volumes, manyVolumes)->required()->check(CLI::Validator(whyNoVolume, ""));
  addJson(command, options.isJson);
}

void addSegmentOptions(CLI::App& command, SegmentOptions& options) {
  addCacheOptions(command, options, false);
  command.add_option("--context", options.context, "The client's directory on the volumes")
      ->required()
      ->type_name("NAME")
      ->check(CLI::Validator(whyNotBelow, ""));
  command.add_option("--nonprunable", options.nonprunable, "Its directory of what pruning leaves alone")
      ->type_name("NAME")
      ->check(CLI::Validator(whyNotBelow, ""));
  command.add_option("IDENTIFIER", options.id, "The segment's name")
      ->required()
      ->type_name("")
      ->check(CLI::Validator(whyNoIdentifier, ""));
}

void addSectionType(CLI::App& command, int32_t& type) {
  command.add_option("--type", type, "Type of the section, 0 to 5")
      ->type_name("N")
      ->check(CLI::Range(0, MAX_SECTION_TYPE).description(""))
      ->capture_default_str();
}

void fail(const std::string& what, const CZuError& error) {
  throw Failure(ExitStatus::Error, fmt::format("{}: {}", what, error.AsString()));
}

void fail(const std::string& what, int error) {
  const bool isInput = error == ENOENT || error == ENOTDIR || error == EISDIR;
  throw Failure(isInput ? ExitStatus::BadInput : ExitStatus::Error,
                fmt::format("{}: {}", what, std::strerror(error)));
}

int writeFully(int fd, const void* data, uint64_t length) {
  const char* from = static_cast<const char*>(data);
  while (length > 0) {
    const ssize_t count = write(fd, from, length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    from += count;
    length -= static_cast<uint64_t>(count);
  }
  return 0;
}

}  // namespace diskcachectl
