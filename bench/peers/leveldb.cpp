// leveldb: a log-structured tree with its values inside.
#include <leveldb/db.h>

#include "logTree.h"

namespace bench {

namespace {

struct LevelApi {
  using DB = leveldb::DB;
  using Options = leveldb::Options;
  using ReadOptions = leveldb::ReadOptions;
  using WriteOptions = leveldb::WriteOptions;
  using Slice = leveldb::Slice;
  using Value = std::string;

  static std::string_view get(DB& db, const ReadOptions& reading, const std::string& guid, Value& value) {
    return db.Get(reading, guid, &value).ok() ? std::string_view(value) : std::string_view();
  }
  static void settle(DB& db) { db.CompactRange(nullptr, nullptr); }
};

const std::string SETTINGS = std::to_string(leveldb::kMajorVersion) + '.' +
                             std::to_string(leveldb::kMinorVersion) + ", defaults (sync for a synced create)";
[[maybe_unused]] const bool IS_ADDED =
    addPeer({"leveldb", SETTINGS, [](const std::string& dir, const Guids& guids) {
               leveldb::Options options;
               options.create_if_missing = true;
               return std::make_unique<LogTreeStore<LevelApi>>(dir, options, leveldb::ReadOptions(), guids);
             }});

}  // namespace

}  // namespace bench
