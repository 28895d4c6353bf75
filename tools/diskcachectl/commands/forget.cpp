// diskcachectl forget: takes a volume out of the volume file.
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "commands/commands.h"
#include "common/failure.h"
#include "common/options.h"
#include "common/output.h"
#include "look/knownCache.h"
#include "look/server.h"
#include "replay/cacheSession.h"

namespace diskcachectl::forget {
namespace {

constexpr const char* HELP =
    R"(Takes a volume, given by directory or, all digits, by index, out of the root's file "volume_info", so that a disk that is lost no longer fails the start. What lies on it stays; the other volumes keep their indexes, until a cache of named objects numbers its volumes anew, as it does at every start. A server that is still told to use the directory makes it a volume again, with another index.

Exit status: 0 success, 2 there is no such volume, 3 an error of the system, a move of a volume that is not finished, or a server runs.

Example:
  diskcachectl forget --root /var/cache/root /mnt/lost)";

struct Options {
  std::string root;
  std::string volume;
  bool isJson = false;
};

std::string_view withoutSlashes(std::string_view path) {
  return path.substr(0, path.find_last_not_of('/') + 1);
}

// In place of the old one, whole or not at all, for the same owner.
void replaceFile(const std::string& path, const std::string& text) {
  struct stat old {};
  if (stat(path.c_str(), &old) != 0) fail(path, errno);
  const std::string temporary = path + ".new";
  const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) fail(temporary, errno);
  const bool isOwned = fchown(fd, old.st_uid, old.st_gid) == 0 || (old.st_uid == geteuid());
  int rc = isOwned && fchmod(fd, old.st_mode & 07777) == 0 ? 0 : errno;
  if (rc == 0) rc = writeFully(fd, text.data(), text.size());
  if (rc == 0 && fsync(fd) != 0) rc = errno;
  close(fd);
  if (rc == 0 && rename(temporary.c_str(), path.c_str()) != 0) rc = errno;
  if (rc == 0) return;
  unlink(temporary.c_str());
  fail(path, rc);
}

void run(const Options& options) {
  const RootClaim claim(options.root);
  const KnownCache known(options.root);
  known.refuseMove();
  std::error_code ignored;
  const bool isIndex = options.volume.find_first_not_of("0123456789") == std::string::npos;
  // Two volumes of one place are told apart by how they are written.
  const auto isWritten = [&](const KnownVolume& volume) {
    if (isIndex) return std::to_string(volume.index) == options.volume;
    return withoutSlashes(volume.dir) == withoutSlashes(options.volume);
  };
  const auto isSamePlace = [&](const KnownVolume& volume) {
    return !isIndex && std::filesystem::equivalent(volume.dir, options.volume, ignored);
  };
  auto volume = std::find_if(known.volumes.begin(), known.volumes.end(), isWritten);
  if (volume == known.volumes.end())
    volume = std::find_if(known.volumes.begin(), known.volumes.end(), isSamePlace);
  if (volume == known.volumes.end()) {
    throw Failure(ExitStatus::BadInput,
                  fmt::format("{}: no volume of the cache {}", options.volume, options.root));
  }
  std::string text;
  for (const KnownVolume& other : known.volumes) {
    if (other.index != volume->index) text += fmt::format("{},{}\n", other.dir, other.index);
  }
  replaceFile(options.root + "/volume_info", text);
  if (options.isJson) return printJson({{"index", volume->index}, {"directory", volume->dir}});
  fmt::print("volume {} is forgotten: {}\n", volume->index, printable(volume->dir));
}

}  // namespace

void add(CLI::App& program) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = addCommand(program, "forget", "Takes a lost volume out of what a cache knows", HELP,
                                 [options] { run(*options); });
  addRoot(*command, options->root)->required();
  command->add_option("VOLUME", options->volume, "Its directory, or its index: all digits")
      ->required()
      ->type_name("");
  addJson(*command, options->isJson);
}

}  // namespace diskcachectl::forget
