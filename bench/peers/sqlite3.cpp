// sqlite3: one table, a blob a row, a connection a thread, a transaction an operation.
#include <sqlite3.h>

#include <cstring>

#include "../frame.h"
#include "../store.h"

namespace bench {

namespace {

constexpr int WAIT_MS = 10'000;  // for the other thread's transaction
const std::string WRITE_AHEAD = "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;";
const std::string MEMORY_MAP = "PRAGMA mmap_size=2147483648;";

class Statement {
 public:
  Statement(sqlite3* db, const char* text) {
    require(sqlite3_prepare_v3(db, text, -1, SQLITE_PREPARE_PERSISTENT, &m_statement, nullptr) == SQLITE_OK,
            text);
  }
  ~Statement() { sqlite3_finalize(m_statement); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  void bind(int at, const std::string& text) {
    sqlite3_bind_text(m_statement, at, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
  }
  void bind(int at, Bytes blob) {
    sqlite3_bind_blob64(m_statement, at, blob.data(), blob.size(), SQLITE_STATIC);
  }
  // Whether there is a row; end() when it has been looked at.
  bool step() {
    const int rc = sqlite3_step(m_statement);
    require(rc == SQLITE_ROW || rc == SQLITE_DONE, sqlite3_errstr(rc));
    return rc == SQLITE_ROW;
  }
  void end() { sqlite3_reset(m_statement); }
  void run() {
    step();
    end();
  }
  Bytes blob() const {
    return {static_cast<const unsigned char*>(sqlite3_column_blob(m_statement, 0)),
            static_cast<size_t>(sqlite3_column_bytes(m_statement, 0))};
  }
  sqlite3_int64 number() const { return sqlite3_column_int64(m_statement, 0); }

 private:
  sqlite3_stmt* m_statement = nullptr;
};

class Connection {
 public:
  Connection(const std::string& file, const std::string& settings) {
    require(sqlite3_open(file.c_str(), &m_db) == SQLITE_OK, "sqlite3_open");
    sqlite3_busy_timeout(m_db, WAIT_MS);
    execute(settings.c_str());
  }
  ~Connection() { sqlite3_close(m_db); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void execute(const char* text) {
    require(sqlite3_exec(m_db, text, nullptr, nullptr, nullptr) == SQLITE_OK, text);
  }
  sqlite3* db() { return m_db; }

 private:
  sqlite3* m_db = nullptr;
};

class SqliteSession : public Session {
 public:
  SqliteSession(const std::string& file, const std::string& settings, const Guids& guids)
      : m_guids(guids), m_connection(file, settings) {}

  void create(size_t segment, Bytes payload, bool isSynced) override {
    if (isSynced != m_isSynced) {
      m_connection.execute(isSynced ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
      m_isSynced = isSynced;
    }
    m_insert.bind(1, m_guids[segment]);
    m_insert.bind(2, payload);
    m_insert.run();
  }
  bool read(size_t segment, uint64_t offset, Buffer out) override {
    return offset == 0 ? readFront(segment, out) : readRange(segment, offset, out);
  }
  void overwrite(size_t segment, Bytes payload) override {
    m_update.bind(1, m_guids[segment]);
    m_update.bind(2, payload);
    m_update.run();
  }
  void remove(size_t segment) override {
    m_delete.bind(1, m_guids[segment]);
    m_delete.run();
  }

 private:
  bool readFront(size_t segment, Buffer out) {
    m_select.bind(1, m_guids[segment]);
    const bool isFound = m_select.step() && m_select.blob().size() >= out.size();
    if (isFound) std::memcpy(out.data(), m_select.blob().data(), out.size());
    m_select.end();
    return isFound;
  }
  // A SELECT would load the blob whole.
  bool readRange(size_t segment, uint64_t offset, Buffer out) {
    m_locate.bind(1, m_guids[segment]);
    const bool isFound = m_locate.step();
    const sqlite3_int64 row = isFound ? m_locate.number() : 0;
    m_locate.end();
    if (!isFound) return false;
    sqlite3_blob* blob = nullptr;
    const int rc = sqlite3_blob_open(m_connection.db(), "main", "segment", "payload", row, 0, &blob);
    require(rc == SQLITE_OK, "sqlite3_blob_open");
    const int read =
        sqlite3_blob_read(blob, out.data(), static_cast<int>(out.size()), static_cast<int>(offset));
    sqlite3_blob_close(blob);
    return read == SQLITE_OK;
  }

  const Guids& m_guids;
  Connection m_connection;
  bool m_isSynced = false;
  Statement m_insert{m_connection.db(), "INSERT INTO segment VALUES (?1, ?2)"};
  Statement m_select{m_connection.db(), "SELECT payload FROM segment WHERE guid = ?1"};
  Statement m_locate{m_connection.db(), "SELECT rowid FROM segment WHERE guid = ?1"};
  Statement m_update{m_connection.db(), "UPDATE segment SET payload = ?2 WHERE guid = ?1"};
  Statement m_delete{m_connection.db(), "DELETE FROM segment WHERE guid = ?1"};
};

class SqliteStore : public Store {
 public:
  SqliteStore(const std::string& dir, std::string settings, const Guids& guids)
      : m_file(dir + "/segments.db"), m_settings(std::move(settings)), m_guids(guids) {
    Connection(m_file, m_settings).execute("CREATE TABLE segment (guid TEXT PRIMARY KEY, payload BLOB)");
  }
  std::unique_ptr<Session> session() override {
    return std::make_unique<SqliteSession>(m_file, m_settings, m_guids);
  }
  void settle() override { Connection(m_file, m_settings).execute("PRAGMA wal_checkpoint(TRUNCATE)"); }

 private:
  std::string m_file;
  std::string m_settings;
  const Guids& m_guids;
};

StoreMaker makerOf(const std::string& settings) {
  return [settings](const std::string& dir, const Guids& guids) {
    return std::make_unique<SqliteStore>(dir, settings, guids);
  };
}

const std::string VERSION = std::string(SQLITE_VERSION) + ", a transaction an operation, ";
[[maybe_unused]] const bool IS_ADDED =
    addPeer({"sqlite3", VERSION + "write-ahead log, synchronous=NORMAL (FULL for a synced create)",
             makerOf(WRITE_AHEAD)}) &&
    addPeer({"sqlite3+", "the same with mmap_size=2 GiB", makerOf(WRITE_AHEAD + MEMORY_MAP)});

}  // namespace

}  // namespace bench
