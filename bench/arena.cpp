#include "arena.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>

#include "cacheStore.h"
#include "clientStore.h"
#include "floor.h"

using ObjectStore::PruningMode;
using ObjectStore::Verify;

namespace bench {

namespace {

constexpr size_t WINDOW_STEP = 64;
constexpr size_t WINDOWS = 1021;

std::vector<unsigned char> makeNoise(size_t bytes) {
  std::vector<unsigned char> noise(bytes);
  std::mt19937_64 random(bytes);
  std::generate(noise.begin(), noise.end(), [&random] { return static_cast<unsigned char>(random()); });
  return noise;
}

Contender cacheWith(const std::string& name, const CacheOptions& options) {
  return {name, true, [name, options](const std::string& dir, const Guids& guids) {
            return makeCache(dir, name, guids, options);
          }};
}

Contender clientWith(const std::string& name, const ClientOptions& options) {
  const auto make = [options](const std::string& dir, const Guids& guids) {
    return makeClient(dir, guids, options);
  };
  return {name, false, make, true};
}

}  // namespace

std::vector<Contender> contenders() {
  std::vector<Contender> all = {
      {"floor", true, makeFloor},
      cacheWith("diskcache", {}),
      cacheWith("touching", {.isTouching = true}),
      {"again", true, makeFloor},
      cacheWith("random", {.mode = PruningMode::Random}),
      cacheWith("counters", {.watch = Watch::Counters}),
      cacheWith("log", {.watch = Watch::Log}),
      clientWith("memory", {.verify = Verify::Always, .isInMemory = true}),
      clientWith("hot", {}),
      clientWith("hot+", {.verify = Verify::Always}),
      clientWith("cold", {.isHot = false}),
      clientWith("cold+", {.verify = Verify::Always, .isHot = false}),
  };
  for (const Peer& peer : peers()) all.push_back({peer.name, false, peer.make, false});
  return all;
}

Arena::Arena(const std::string& parent, size_t bytes, size_t segments, bool isForReading)
    : m_dir(parent),
      m_bytes(bytes),
      m_guids(makeGuids(segments)),
      m_noise(makeNoise(bytes + WINDOWS * WINDOW_STEP)) {
  for (const Contender& contender : contenders()) {
    if (contender.isForReading && !isForReading) continue;
    std::string dir = m_dir.path();
    if (!contender.isOnVolume) dir += '/' + contender.name;
    std::filesystem::create_directories(dir);
    Lane& lane =
        m_lanes.emplace_back(Lane{contender.name, contender.isOnVolume, contender.make(dir, m_guids), {}});
    const size_t threads = isForReading ? MAX_READERS : MAX_WRITERS;
    for (size_t i = 0; i < threads; ++i) lane.sessions.push_back(lane.store->session());
  }
}

Bytes Arena::payloadOf(size_t segment) const {
  return Bytes(m_noise).subspan(segment % WINDOWS * WINDOW_STEP, m_bytes);
}

void Arena::create(Lane& lane) {
  for (size_t i = 0; i < segments(); ++i) lane.sessions[0]->create(i, payloadOf(i), false);
}

void Arena::check(Lane& lane, size_t shift) {
  std::vector<unsigned char> found(m_bytes);
  for (const auto& session : lane.sessions) {
    for (size_t i = 0; i < segments(); ++i) {
      const bool isRight =
          session->read(i, 0, found) && std::memcmp(found.data(), payloadOf(i + shift).data(), m_bytes) == 0;
      require(isRight, ("wrong bytes: " + lane.name).c_str());
    }
  }
}

void Arena::remove(Lane& lane) {
  std::vector<unsigned char> found(m_bytes);
  for (size_t i = 0; i < segments(); ++i) lane.sessions[0]->remove(i);
  require(!lane.sessions[0]->read(0, 0, found), ("still there: " + lane.name).c_str());
}

void Arena::fill() {
  create(m_lanes.front());  // for all on the volume
  for (Lane& lane : m_lanes) {
    if (!lane.isOnVolume) create(lane);
    lane.store->settle();
    check(lane);
  }
  syncDisk(m_dir.path());
}

}  // namespace bench
