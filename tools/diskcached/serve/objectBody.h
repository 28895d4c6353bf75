// The bytes of one version of an object, piece by piece: from a file where they lie verified, from memory
// while they come.
//
// Belongs to one I/O thread.
#pragma once

#include <memory>
#include <span>
#include <string>

#include "serve/exchange.h"

namespace diskcached {

// The bytes can't be had; the number says why (ESTALE: the store has another version).
struct BytesMissing : std::exception {
  explicit BytesMissing(int itsErrNo) : errNo(itsErrNo) {}
  const char* what() const noexcept override { return "the bytes can't be had"; }
  int errNo;
};

// Of the object: in memory, or in a file.
struct Piece {
  std::shared_ptr<const void> keeper;
  const std::byte* bytes = nullptr;
  int file = -1;  // when `bytes` is null
  uint64_t fileOffset = 0;
  uint64_t size = 0;
};

class ObjectBody {
 public:
  ObjectBody(Service& service, ClientStream& client, std::string key, ObjectInfoPointer info, uint64_t end)
      : m_service(service), m_client(client), m_key(std::move(key)), m_info(std::move(info)), m_end(end) {}

  // What is there at `offset`, at least a byte, as soon as it is. Throws BytesMissing, Overloaded.
  asio::awaitable<Piece> next(uint64_t offset);
  // The same, waiting for its turn rather than throwing Overloaded: part of the answer has been sent.
  asio::awaitable<Piece> nextPatiently(uint64_t offset);

  enum class Source { Cache, Store, OtherClient };
  Source source() const { return m_source; }  // of the first piece

 private:
  // The piece as the cache has it on disk; one of size 0 when it has not.
  asio::awaitable<Piece> fromDisk(uint64_t number, uint64_t offset);
  asio::awaitable<Piece> fromFetch(uint64_t number, uint64_t offset);
  bool isLikelyOnDisk(uint64_t number);
  void begin(uint64_t number);
  void beginAhead();

  Service& m_service;
  ClientStream& m_client;
  const std::string m_key;
  const ObjectInfoPointer m_info;
  const uint64_t m_end;  // of what is wanted
  uint64_t m_number = 0;
  std::shared_ptr<BlockFetch> m_fetch, m_ahead;  // of block m_number, and of the next one
  bool m_isMine = false;
  bool m_isWhole = false;  // it had come before it was asked for here
  bool m_hasBegun = false;
  bool m_hasMissed = false;  // the last fetch came from the store
  bool m_isRefused = false;  // what was fetched is not to be had from disk
  Source m_source = Source::Cache;
};

}  // namespace diskcached
