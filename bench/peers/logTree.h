// The operations of the two log-structured peers, whose interfaces are alike: `Api` names their types.
#pragma once

#include <cstring>

#include "../frame.h"
#include "../store.h"

namespace bench {

template <typename Api>
class LogTreeSession : public Session {
 public:
  LogTreeSession(typename Api::DB& db, const typename Api::ReadOptions& reading, const Guids& guids)
      : m_db(db), m_reading(reading), m_guids(guids) {}

  void create(size_t segment, Bytes payload, bool isSynced) override { put(segment, payload, isSynced); }
  bool read(size_t segment, uint64_t offset, Buffer out) override {
    const auto value = Api::get(m_db, m_reading, m_guids[segment], m_value);
    const bool isFound = value.size() >= offset + out.size();
    if (isFound) std::memcpy(out.data(), value.data() + offset, out.size());
    return isFound;
  }
  void overwrite(size_t segment, Bytes payload) override { put(segment, payload, false); }
  void remove(size_t segment) override {
    require(m_db.Delete(typename Api::WriteOptions(), m_guids[segment]).ok(), "Delete");
  }

 private:
  void put(size_t segment, Bytes payload, bool isSynced) {
    typename Api::WriteOptions writing;
    writing.sync = isSynced;
    const typename Api::Slice value(reinterpret_cast<const char*>(payload.data()), payload.size());
    require(m_db.Put(writing, m_guids[segment], value).ok(), "Put");
  }

  typename Api::DB& m_db;
  const typename Api::ReadOptions& m_reading;
  const Guids& m_guids;
  typename Api::Value m_value;  // kept between calls, as a client's loop would
};

template <typename Api>
class LogTreeStore : public Store {
 public:
  LogTreeStore(const std::string& dir, const typename Api::Options& options,
               const typename Api::ReadOptions& reading, const Guids& guids)
      : m_reading(reading), m_guids(guids) {
    typename Api::DB* db = nullptr;
    const auto status = Api::DB::Open(options, dir + "/tree", &db);
    require(status.ok(), "Open");
    m_db.reset(db);
  }
  std::unique_ptr<Session> session() override {
    return std::make_unique<LogTreeSession<Api>>(*m_db, m_reading, m_guids);
  }
  void settle() override { Api::settle(*m_db); }

 private:
  typename Api::ReadOptions m_reading;
  const Guids& m_guids;
  std::unique_ptr<typename Api::DB> m_db;
};

}  // namespace bench
