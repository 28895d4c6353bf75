#include "diskcache/guidHash.h"

#include <unistd.h>

#include <chrono>
#include <random>

namespace ObjectStore {

GuidHash::GuidHash() {
  if (getentropy(m_secret.data(), sizeof m_secret) == 0) return;
  // A system without entropy: what differs from process to process is better than what is known.
  std::mt19937_64 random(static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                         reinterpret_cast<uintptr_t>(this) ^ static_cast<uint64_t>(getpid()) << 32);
  for (uint64_t& word : m_secret) word = random();
}

}  // namespace ObjectStore
