// lmdb: one memory-mapped B+ tree, a transaction an operation.
#include <lmdb.h>

#include <cstring>

#include "../frame.h"
#include "../store.h"

namespace bench {

namespace {

constexpr size_t MAP_BYTES = size_t{2} << 30;  // address space, not disk

void requireLmdb(int rc, const char* what) { require(rc == 0, rc == 0 ? what : mdb_strerror(rc)); }

MDB_val valueOf(const void* data, size_t size) { return {size, const_cast<void*>(data)}; }

class LmdbSession : public Session {
 public:
  LmdbSession(MDB_env* env, MDB_dbi db, const Guids& guids) : m_env(env), m_db(db), m_guids(guids) {
    requireLmdb(mdb_txn_begin(m_env, nullptr, MDB_RDONLY, &m_reader), "mdb_txn_begin");
    mdb_txn_reset(m_reader);
  }
  ~LmdbSession() override { mdb_txn_abort(m_reader); }
  LmdbSession(const LmdbSession&) = delete;
  LmdbSession& operator=(const LmdbSession&) = delete;

  void create(size_t segment, Bytes payload, bool isSynced) override {
    put(segment, payload, MDB_NOOVERWRITE);
    if (isSynced) requireLmdb(mdb_env_sync(m_env, 1), "mdb_env_sync");
  }
  bool read(size_t segment, uint64_t offset, Buffer out) override {
    requireLmdb(mdb_txn_renew(m_reader), "mdb_txn_renew");
    MDB_val key = keyOf(segment);
    MDB_val value;
    const int rc = mdb_get(m_reader, m_db, &key, &value);
    const bool isFound = rc == 0 && value.mv_size >= offset + out.size();
    if (isFound) std::memcpy(out.data(), static_cast<unsigned char*>(value.mv_data) + offset, out.size());
    mdb_txn_reset(m_reader);
    return isFound;
  }
  void overwrite(size_t segment, Bytes payload) override { put(segment, payload, 0); }
  void remove(size_t segment) override {
    write([&](MDB_txn* txn) {
      MDB_val key = keyOf(segment);
      return mdb_del(txn, m_db, &key, nullptr);
    });
  }

 private:
  MDB_val keyOf(size_t segment) const { return valueOf(m_guids[segment].data(), m_guids[segment].size()); }

  template <typename Change>
  void write(Change&& change) {
    MDB_txn* txn = nullptr;
    requireLmdb(mdb_txn_begin(m_env, nullptr, 0, &txn), "mdb_txn_begin");
    requireLmdb(change(txn), "change");
    requireLmdb(mdb_txn_commit(txn), "mdb_txn_commit");
  }
  void put(size_t segment, Bytes payload, unsigned flags) {
    write([&](MDB_txn* txn) {
      MDB_val key = keyOf(segment);
      MDB_val value = valueOf(payload.data(), payload.size());
      return mdb_put(txn, m_db, &key, &value, flags);
    });
  }

  MDB_env* m_env;
  MDB_dbi m_db;
  const Guids& m_guids;
  MDB_txn* m_reader = nullptr;
};

class LmdbStore : public Store {
 public:
  LmdbStore(const std::string& dir, const Guids& guids) : m_guids(guids) {
    requireLmdb(mdb_env_create(&m_env), "mdb_env_create");
    requireLmdb(mdb_env_set_mapsize(m_env, MAP_BYTES), "mdb_env_set_mapsize");
    requireLmdb(mdb_env_open(m_env, dir.c_str(), MDB_NOSYNC | MDB_NOTLS, 0600), "mdb_env_open");
    MDB_txn* txn = nullptr;
    requireLmdb(mdb_txn_begin(m_env, nullptr, 0, &txn), "mdb_txn_begin");
    requireLmdb(mdb_dbi_open(txn, nullptr, 0, &m_db), "mdb_dbi_open");
    requireLmdb(mdb_txn_commit(txn), "mdb_txn_commit");
  }
  ~LmdbStore() override { mdb_env_close(m_env); }
  LmdbStore(const LmdbStore&) = delete;
  LmdbStore& operator=(const LmdbStore&) = delete;

  std::unique_ptr<Session> session() override { return std::make_unique<LmdbSession>(m_env, m_db, m_guids); }

 private:
  const Guids& m_guids;
  MDB_env* m_env = nullptr;
  MDB_dbi m_db = 0;
};

const std::string SETTINGS = std::to_string(MDB_VERSION_MAJOR) + '.' + std::to_string(MDB_VERSION_MINOR) +
                             '.' + std::to_string(MDB_VERSION_PATCH) +
                             ", a transaction an operation, read-only map, MDB_NOSYNC (mdb_env_sync after a "
                             "synced create)";
[[maybe_unused]] const bool IS_ADDED =
    addPeer({"lmdb", SETTINGS, [](const std::string& dir, const Guids& guids) {
               return std::make_unique<LmdbStore>(dir, guids);
             }});

}  // namespace

}  // namespace bench
