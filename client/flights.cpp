#include "client/flights.h"

#include "client/waitable.h"

namespace ObjectStore {

std::unique_ptr<Flights::Flight> Flights::startLocked(const BlockId& block) {
  auto flight = std::make_unique<Flight>(*this, block);
  try {
    m_flights.emplace(block, flight->m_promise.get_future().share());
  } catch (...) {
    flight->m_flights = nullptr;  // there is nothing to end
    throw;
  }
  return flight;
}

Flights::Joined Flights::join(const BlockId& block) {
  const KxCriticalSectionLock lock(&m_lock);
  Joined joined;
  if (const auto found = m_flights.find(block); found != m_flights.end()) {
    joined.landing = found->second;
  } else {
    joined.mine = startLocked(block);
  }
  return joined;
}

std::unique_ptr<Flights::Flight> Flights::tryStart(const BlockId& block) {
  const KxCriticalSectionLock lock(&m_lock);
  return m_flights.contains(block) ? nullptr : startLocked(block);
}

std::unique_ptr<Flights::Flight> Flights::take(const BlockId& block) {
  const KxCriticalSectionLock lock(&m_lock);
  Waitable waitable{m_lock};
  while (m_flights.contains(block)) m_ended.wait(waitable);
  return startLocked(block);
}

void Flights::end(Flight& flight) {
  {
    const KxCriticalSectionLock lock(&m_lock);
    m_flights.erase(flight.m_block);
    m_ended.notify_all();
  }
  if (flight.m_landed) return;
  static const auto onDisk = std::make_shared<const Landed>(Landed{.error = {}, .isOnDisk = true});
  flight.m_promise.set_value(onDisk);
}

}  // namespace ObjectStore
