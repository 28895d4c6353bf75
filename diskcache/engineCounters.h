// What an engine counts for DiskCache::renderMetrics beside its Stats.
//
// Internal. Relaxed atomics: any thread may read them.
#pragma once

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "support/atomicCounter.h"
#include "support/error.h"

namespace ObjectStore {

enum class WriteOperation : size_t { Create, Write, Replace };
enum class WriteOutcome : size_t { Done, NoRoom, Failed };
inline constexpr std::array WRITE_OPERATIONS{"create", "write", "replace"};
inline constexpr std::array WRITE_OUTCOMES{"done", "no_room", "failed"};

struct EngineCounters {
  // Changed under the recency list's lock only, so that a touch needs no locked instruction for them.
  RelaxedAtomic<uint64_t> listHits{0};
  RelaxedAtomic<uint64_t> listMisses{0};
  RelaxedAtomic<uint64_t> givenUp{0};

  std::array<std::array<KxAtomicU64_t, WRITE_OUTCOMES.size()>, WRITE_OPERATIONS.size()> writes;
};

// Counts one write when it ends: as failed, unless `ends` has been told how it went.
class CountedWrite {
 public:
  CountedWrite(EngineCounters& counters, WriteOperation operation)
      : m_outcomes(counters.writes[static_cast<size_t>(operation)]) {}
  ~CountedWrite() { m_outcomes[static_cast<size_t>(m_outcome)]++; }
  CountedWrite(const CountedWrite&) = delete;
  CountedWrite& operator=(const CountedWrite&) = delete;

  CZuError ends(CZuError error) {
    if (!error.IsError()) m_outcome = WriteOutcome::Done;
    if (RMErrorUtil::IsErrNo(error, ENOSPC)) m_outcome = WriteOutcome::NoRoom;
    return error;
  }

 private:
  std::array<KxAtomicU64_t, WRITE_OUTCOMES.size()>& m_outcomes;
  WriteOutcome m_outcome = WriteOutcome::Failed;
};

}  // namespace ObjectStore
