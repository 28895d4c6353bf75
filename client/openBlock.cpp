#include "client/openBlock.h"

#include <sys/uio.h>
#include <unistd.h>
#define XXH_STATIC_LINKING_ONLY  // for a state of the hash's on the stack
#include <xxhash.h>

#include <algorithm>
#include <array>

namespace ObjectStore {

namespace {

// Reads as many bytes as asked for or says why not.
BytesAre outcomeOf(ssize_t got, size_t wanted) {
  if (got < 0) return BytesAre::Unreadable;
  return static_cast<size_t>(got) == wanted ? BytesAre::Right : BytesAre::Damaged;
}

// Bytes in memory in up to three pieces, taken from the front.
class Pieces {
 public:
  explicit Pieces(std::array<std::span<const std::byte>, 3> pieces) : m_pieces(pieces) {}
  uint64_t checksumOfNext(size_t size) {
    while (m_at < m_pieces.size() && m_pieces[m_at].empty()) ++m_at;
    if (m_at < m_pieces.size() && m_pieces[m_at].size() >= size) return checksumOf(take(size));
    XXH3_state_t state;
    XXH3_64bits_reset(&state);
    while (size > 0 && m_at < m_pieces.size()) {
      const auto part = take(std::min(size, m_pieces[m_at].size()));
      XXH3_64bits_update(&state, part.data(), part.size());
      size -= part.size();
      if (m_pieces[m_at].empty()) ++m_at;
    }
    return XXH3_64bits_digest(&state);
  }

 private:
  std::span<const std::byte> take(size_t size) {
    const auto front = m_pieces[m_at].first(size);
    m_pieces[m_at] = m_pieces[m_at].subspan(size);
    return front;
  }

  std::array<std::span<const std::byte>, 3> m_pieces;
  size_t m_at = 0;
};

}  // namespace

OpenBlock::OpenBlock(int fd, uint64_t offset, const BlockId& id, guid_t name, BlockTrailer&& trailer)
    : m_id(id),
      m_fd(fd),
      m_offset(offset),
      m_metadata(std::make_shared<const Metadata>(std::move(trailer.metadata))),
      m_trailer(std::move(trailer)),
      m_name(std::move(name)),
      m_verified(m_trailer.checksums.size()),
      m_unverified(m_verified.size()) {}

OpenBlock::~OpenBlock() { ::close(m_fd); }

BytesAre OpenBlock::read(uint64_t from, std::span<std::byte> out, Verify verify, bool isThere) {
  if (out.empty()) return BytesAre::Right;
  const uint64_t first = from / CHUNK_SIZE, last = (from + out.size() - 1) / CHUNK_SIZE;
  if (verify == Verify::Never || (verify == Verify::Once && isVerified(first, last)))
    return isThere ? BytesAre::Right : readPlain(from, out);
  const BytesAre result = readVerified(from, out, first, last, isThere);
  if (result == BytesAre::Right && m_unverified.load(std::memory_order_relaxed) > 0)
    markVerified(first, last);
  return result;
}

BytesAre OpenBlock::check(uint64_t from, uint64_t size, Verify verify) {
  if (size == 0 || verify == Verify::Never) return BytesAre::Right;
  thread_local std::array<std::byte, CHUNK_SIZE> bytes;
  for (uint64_t chunk = from / CHUNK_SIZE; chunk * CHUNK_SIZE < from + size; ++chunk) {
    if (isVerified(chunk, chunk)) continue;
    const uint64_t begin = chunk * CHUNK_SIZE;
    const std::span<std::byte> all(bytes.data(), std::min(CHUNK_SIZE, m_trailer.payloadSize - begin));
    if (const BytesAre result = readVerified(begin, all, chunk, chunk, false); result != BytesAre::Right)
      return result;
    markVerified(chunk, chunk);
  }
  return BytesAre::Right;
}

void OpenBlock::markVerified(uint64_t firstChunk, uint64_t lastChunk) {
  for (uint64_t chunk = firstChunk; chunk <= lastChunk; ++chunk) {
    if (!m_verified[chunk].exchange(true, std::memory_order_relaxed))
      m_unverified.fetch_sub(1, std::memory_order_relaxed);
  }
}

bool OpenBlock::isNewlyVerified() {
  return m_unverified.load(std::memory_order_relaxed) == 0 &&
         !m_isVerificationTold.load(std::memory_order_relaxed) &&
         !m_isVerificationTold.exchange(true, std::memory_order_relaxed);
}

void OpenBlock::setVerified() {
  if (!m_verified.empty()) markVerified(0, m_verified.size() - 1);
  m_isVerificationTold.store(true, std::memory_order_relaxed);
}

bool OpenBlock::isVerified(uint64_t firstChunk, uint64_t lastChunk) const {
  for (uint64_t chunk = firstChunk; chunk <= lastChunk; ++chunk) {
    if (!m_verified[chunk].load(std::memory_order_relaxed)) return false;
  }
  return true;
}

// A read that a disk's error cuts short says why only when it is gone on with.
BytesAre OpenBlock::readPlain(uint64_t from, std::span<std::byte> out) const {
  ssize_t got = 0;
  do {
    got = pread(m_fd, out.data(), out.size(), static_cast<off_t>(m_offset + from));
    if (got == static_cast<ssize_t>(out.size())) return BytesAre::Right;
    from += static_cast<uint64_t>(std::max<ssize_t>(got, 0));
    out = out.subspan(static_cast<size_t>(std::max<ssize_t>(got, 0)));
  } while (got > 0);
  return outcomeOf(got, out.size());
}

// What lies before and behind the range in its first and last chunk goes to a buffer beside it.
BytesAre OpenBlock::readVerified(uint64_t from, std::span<std::byte> out, uint64_t firstChunk,
                                 uint64_t lastChunk, bool isThere) const {
  thread_local std::array<std::byte, 2 * CHUNK_SIZE> beside;
  const uint64_t begin = firstChunk * CHUNK_SIZE;
  const uint64_t end = std::min((lastChunk + 1) * CHUNK_SIZE, m_trailer.payloadSize);
  const std::span<std::byte> before(beside.data(), from - begin);
  const std::span<std::byte> behind(beside.data() + CHUNK_SIZE, end - from - out.size());
  BytesAre result = BytesAre::Right;
  if (before.empty() && behind.empty()) {
    if (!isThere) result = readPlain(from, out);
  } else {
    const std::array<iovec, 3> parts{
        {{before.data(), before.size()}, {out.data(), out.size()}, {behind.data(), behind.size()}}};
    const ssize_t got =
        preadv(m_fd, parts.data(), static_cast<int>(parts.size()), static_cast<off_t>(m_offset + begin));
    result = outcomeOf(got, end - begin);
  }
  if (result != BytesAre::Right) return result;
  Pieces pieces({before, out, behind});
  for (uint64_t chunk = firstChunk; chunk <= lastChunk; ++chunk) {
    const uint64_t size = std::min(CHUNK_SIZE, end - chunk * CHUNK_SIZE);
    if (pieces.checksumOfNext(size) != m_trailer.checksums[chunk]) return BytesAre::Damaged;
  }
  return result;
}

}  // namespace ObjectStore
