#include "look/knownCache.h"

#include <fmt/core.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <tuple>
#include <utility>

#include "common/failure.h"
#include "common/output.h"
#include "diskcache/diskcache.h"

namespace diskcachectl {

namespace fs = std::filesystem;

namespace {

bool isThere(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

// Directories are one when they are the same place; those that are not there compare by their spelling.
bool isSame(const std::string& a, const std::string& b) {
  std::error_code error;
  return fs::path(a).lexically_normal() == fs::path(b).lexically_normal() || fs::equivalent(a, b, error);
}

}  // namespace

std::string segmentPath(const std::string& volume, const std::string& context, const std::string& id) {
  const std::string levels = ObjectStore::DiskCache::guid2dir(id);
  return fmt::format("{}/{}/{}{}{}", volume, context, levels, levels.empty() ? "" : "/", id);
}

std::string canonicalPath(const std::string& path) {
  std::error_code error;
  const fs::path real = fs::weakly_canonical(path, error);
  return error ? path : real.native();
}

std::string_view belowVolume(const std::vector<std::string>& volumes, std::string_view path) {
  for (std::string_view volume : volumes) {
    if (volume == "/") volume = "";
    if (!path.starts_with(volume)) continue;
    const std::string_view below = path.substr(volume.size());
    if (below.empty()) return below;
    if (below.front() == '/') return below.substr(1);
  }
  return path;
}

KnownCache::KnownCache(std::string rootDir) : root(std::move(rootDir)) {
  migration = readMigration(root);  // before the volumes, which its end changes
  VolumeFile file = readVolumeFile(root);
  for (const std::string& problem : file.problems) printError(problem);
  volumes = std::move(file.volumes);
  isObjectCache = isThere(root + "/client.volumes");
}

std::vector<std::string> KnownCache::choose(const std::vector<std::string>& given, Stranger stranger) const {
  std::vector<std::string> chosen;
  const auto add = [&chosen](const std::string& dir) {
    if (std::find(chosen.begin(), chosen.end(), dir) == chosen.end()) chosen.push_back(dir);
  };
  for (const std::string& dir : given) {
    const auto known = std::find_if(volumes.begin(), volumes.end(),
                                    [&](const KnownVolume& volume) { return isSame(volume.dir, dir); });
    if (known == volumes.end() && stranger == Stranger::Refuse) {
      throw Failure(ExitStatus::BadInput,
                    fmt::format("{}: no volume of the cache {} (--add-volume makes it one)", dir, root));
    }
    add(known == volumes.end() ? fs::absolute(dir).native() : known->dir);
  }
  if (given.empty()) {
    for (const KnownVolume& volume : volumes) add(volume.dir);
  }
  if (chosen.empty()) throw Failure(ExitStatus::BadInput, root + ": knows no volume; give --volume");
  return chosen;
}

std::vector<std::string> KnownCache::choosePresent(const std::vector<std::string>& given,
                                                   Stranger stranger) const {
  std::vector<std::string> present = choose(given, stranger);
  std::erase_if(present, [&](const std::string& dir) {
    std::error_code error;
    const bool isKnown =
        std::any_of(volumes.begin(), volumes.end(), [&](const auto& v) { return v.dir == dir; });
    if (fs::is_directory(dir, error) || (stranger == Stranger::Add && !isKnown)) return false;
    printError(fmt::format("{}: {}, left out", dir, error ? error.message() : std::strerror(ENOTDIR)));
    return true;
  });
  if (present.empty()) throw Failure(ExitStatus::BadInput, "no volume is left");
  return present;
}

void KnownCache::refuseMove() const {
  if (!migration) return;
  if (migration->index == 0) throw Failure(ExitStatus::Error, root + "/migrate: makes no sense; remove it");
  throw Failure(
      ExitStatus::Error,
      fmt::format("{0}: volume {1} is moving, or was when its cache ended, from {2} to {3}: wait for the "
                  "server, or finish with \"migrate --index {1} --to {3}\"",
                  root, migration->index, migration->source, migration->destination));
}

std::vector<FoundCopy> KnownCache::find(const std::vector<std::string>& dirs, const std::string& context,
                                        const std::string& nonprunable, const std::string& id) const {
  std::vector<KnownVolume> places;
  if (migration && migration->index != 0) places.push_back({migration->index, migration->destination});
  places.insert(places.end(), volumes.begin(), volumes.end());
  for (const std::string& dir : dirs) {
    const bool isKnown =
        std::any_of(places.begin(), places.end(), [&](const auto& place) { return place.dir == dir; });
    if (!isKnown) places.push_back({0, dir});
  }
  std::vector<FoundCopy> copies;
  for (const KnownVolume& place : places) {
    for (const std::string& name : {nonprunable, context}) {
      if (name.empty()) continue;
      const std::string path = segmentPath(place.dir, name, id);
      if (isThere(path)) copies.push_back({place.index, place.dir, name, path});
    }
  }
  const auto rank = [&](const FoundCopy& copy) {
    return std::tuple(copy.volume == 0, copy.volume, copy.context == context);
  };
  std::stable_sort(copies.begin(), copies.end(),
                   [&](const FoundCopy& a, const FoundCopy& b) { return rank(a) < rank(b); });
  return copies;
}

}  // namespace diskcachectl
