// rocksdb: a log-structured tree with its values in blob files.
#include <rocksdb/db.h>
#include <rocksdb/options.h>
#include <rocksdb/version.h>

#include "logTree.h"

namespace bench {

namespace {

struct RocksApi {
  using DB = rocksdb::DB;
  using Options = rocksdb::Options;
  using ReadOptions = rocksdb::ReadOptions;
  using WriteOptions = rocksdb::WriteOptions;
  using Slice = rocksdb::Slice;
  using Value = rocksdb::PinnableSlice;

  static std::string_view get(DB& db, const ReadOptions& reading, const std::string& guid, Value& value) {
    value.Reset();
    if (!db.Get(reading, db.DefaultColumnFamily(), guid, &value).ok()) return {};
    return {value.data(), value.size()};
  }
  static void settle(DB& db) {
    require(db.Flush(rocksdb::FlushOptions()).ok(), "Flush");
    require(db.CompactRange(rocksdb::CompactRangeOptions(), nullptr, nullptr).ok(), "CompactRange");
  }
};

std::unique_ptr<Store> make(const std::string& dir, const Guids& guids, bool isTuned) {
  rocksdb::Options options;
  options.create_if_missing = true;
  options.enable_blob_files = true;
  rocksdb::ReadOptions reading;
  options.allow_mmap_reads = isTuned;
  reading.verify_checksums = !isTuned;
  return std::make_unique<LogTreeStore<RocksApi>>(dir, options, reading, guids);
}

const std::string SETTINGS = rocksdb::GetRocksVersionAsString(true) +
                             ", blob files for all values, otherwise defaults (sync for a synced create)";
[[maybe_unused]] const bool IS_ADDED =
    addPeer({"rocksdb", SETTINGS,
             [](const std::string& dir, const Guids& guids) { return make(dir, guids, false); }}) &&
    addPeer({"rocksdb+", "the same with allow_mmap_reads and verify_checksums=false",
             [](const std::string& dir, const Guids& guids) { return make(dir, guids, true); }});

}  // namespace

}  // namespace bench
