#include "look/volumeFile.h"

#include <fmt/format.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <system_error>

#include "common/failure.h"
#include "common/units.h"
#include "look/looking.h"

namespace diskcachectl {
namespace {

using ObjectStore::VolIndex;

// The engine's share, in its single precision: the table shall show the engine's figure to the byte.
constexpr float RESERVE_PERCENTAGE = 5.0F;

std::string_view takeLine(std::string_view& text) {
  const size_t end = text.find('\n');
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return line;
}

// 0 for anything but a whole index.
VolIndex parseIndex(std::string_view text) {
  VolIndex index = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), index);
  return error == std::errc() && end == text.data() + text.size() ? index : VolIndex{0};
}

// Whether the file is there; its content, if so.
bool readOwnFile(const std::string& root, const char* name, std::string& content) {
  std::error_code error;
  if (!std::filesystem::is_directory(root, error)) {
    const char* why = error ? std::strerror(error.value()) : "Not a directory";
    throw Failure(ExitStatus::BadInput, fmt::format("{}: {}", root, why));
  }
  const std::string path = fmt::format("{}/{}", root, name);
  const int rc = readWholeFile(path, content);
  if (rc == ENOENT) return false;
  if (rc != 0) throw Failure(ExitStatus::BadInput, fmt::format("{}: {}", path, std::strerror(rc)));
  return true;
}

}  // namespace

VolumeFile readVolumeFile(const std::string& root) {
  VolumeFile file;
  std::string content;
  file.isThere = readOwnFile(root, "volume_info", content);
  std::map<VolIndex, std::string> volumes;  // of one index the last counts, as in the cache
  size_t number = 0;
  for (std::string_view rest = content; !rest.empty();) {
    std::string_view line = takeLine(rest);
    ++number;
    while (!line.empty() && line.back() == ' ') line.remove_suffix(1);
    const size_t comma = line.find(',');
    const auto index = comma == std::string_view::npos ? VolIndex{0} : parseIndex(line.substr(comma + 1));
    if (index == 0 || comma == 0) {
      file.problems.push_back(
          fmt::format("{}/volume_info:{}: no directory,index: \"{}\"", root, number, line));
    } else if (!volumes.insert_or_assign(index, line.substr(0, comma)).second) {
      file.problems.push_back(fmt::format("{}/volume_info:{}: index {} again", root, number, index));
    }
  }
  for (const auto& [index, dir] : volumes) file.volumes.push_back({index, dir});
  return file;
}

std::optional<Migration> readMigration(const std::string& root) {
  std::string content;
  if (!readOwnFile(root, "migrate", content)) return std::nullopt;
  std::string_view rest = content;
  const VolIndex index = parseIndex(takeLine(rest));
  const std::string source(takeLine(rest));
  const std::string destination(takeLine(rest));
  if (source.empty() || destination.empty()) return Migration{0, source, destination};
  return Migration{index, source, destination};
}

std::optional<Room> measure(const std::string& dir) {
  struct statvfs status {};
  if (statvfs((dir + "/.").c_str(), &status) != 0) return std::nullopt;
  Room room{status.f_blocks * status.f_frsize,
            status.f_bavail * status.f_frsize,
            0,
            status.f_files,
            status.f_favail,
            status.f_frsize};
  room.reserve = static_cast<uint64_t>(static_cast<float>(room.total) * RESERVE_PERCENTAGE / 100.0F);
  return room;
}

std::vector<std::string> Room::limits() const {
  std::vector<std::string> names;
  if (free < block) {
    names.emplace_back("bytes");
  } else if (free < reserve) {
    names.emplace_back("reserve");
  }
  if (inodes != 0 && freeInodes == 0) names.emplace_back("inodes");
  return names;
}

std::string roomHeading() {
  return fmt::format("{:>10} {:>10} {:>10} {:>12}  {:<12}", "TOTAL", "FREE", "RESERVE", "FREE INODES",
                     "ROOM");
}

std::string roomColumns(const std::optional<Room>& room) {
  if (!room) return fmt::format("{0:>10} {0:>10} {0:>10} {0:>12}  {1:<12}", "-", "no");
  const std::string inodes = room->inodes == 0 ? "-" : formatCount(room->freeInodes);
  const std::string left = room->hasRoom() ? "yes" : fmt::format("no: {}", fmt::join(room->limits(), ", "));
  return fmt::format("{:>10} {:>10} {:>10} {:>12}  {:<12}", formatSize(room->total), formatSize(room->free),
                     formatSize(room->reserve), inodes, left);
}

nlohmann::ordered_json asJson(const std::optional<Room>& room) {
  using nlohmann::ordered_json;
  const auto figure = [&](uint64_t Room::*field) {
    return room ? ordered_json((*room).*field) : ordered_json();
  };
  return {{"total", figure(&Room::total)},
          {"free", figure(&Room::free)},
          {"reserve", figure(&Room::reserve)},
          {"inodes", figure(&Room::inodes)},
          {"free_inodes", figure(&Room::freeInodes)},
          {"has_room", room && room->hasRoom()},
          {"limits", room ? ordered_json(room->limits()) : ordered_json()}};
}

}  // namespace diskcachectl
