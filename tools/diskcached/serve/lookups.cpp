#include "serve/lookups.h"

namespace diskcached {

using ObjectStore::KxCriticalSectionLock;

namespace {

// How long a store that was found in trouble is left alone while there is something stale to serve.
constexpr std::chrono::seconds LEAVE_ALONE(2);
// How long an object that may not be stored is remembered as such.
constexpr std::chrono::seconds REMEMBER_UNSTORABLE(60);

}  // namespace

asio::awaitable<Found> Lookups::find(std::string key, std::shared_ptr<const Options> options) {
  const Clock::time_point now = Clock::now();
  if (ObjectInfoPointer info = m_index.find(key)) {
    if (info->isFresh(now)) co_return Found{std::move(info)};
    if (now < info->leaveAloneUntil) co_return Found{.info = std::move(info), .isStale = true};
  }
  const Pending pending = join(key, options);
  const State state = co_await pending->when([](const State& it) { return it.isDone; });
  if (state.isOverloaded) throw Overloaded();
  co_return *state.found;
}

Lookups::Pending Lookups::join(const std::string& key, const std::shared_ptr<const Options>& options) {
  const auto pending = std::make_shared<Look>(m_index.ticket(key));
  std::function<void()> look = [this, key, options, pending] {  // made before anybody can wait for it
    State state{.isDone = true};
    try {
      state.found = std::make_shared<const Found>(ask(key, pending->ticket, *options));
    } catch (const std::exception&) {
      state.isOverloaded = true;  // no memory
    }
    end(key, pending, std::move(state));
  };
  {
    const KxCriticalSectionLock lock(&m_lock);
    Pending& entry = m_pending[key];
    if (entry && entry->ticket == pending->ticket) return entry;
    entry = pending;
  }
  if (!m_workers.post(std::move(look))) end(key, pending, {.isDone = true, .isOverloaded = true});
  return pending;
}

void Lookups::end(const std::string& key, const Pending& pending, State state) {
  {
    const KxCriticalSectionLock lock(&m_lock);
    if (const auto found = m_pending.find(key); found != m_pending.end() && found->second == pending)
      m_pending.erase(found);
  }
  pending->change([&](State& now) {
    now = state;
    return true;
  });
}

// What the cache holds of an object that was known before a restart; null when that is nothing.
ObjectInfoPointer Lookups::recall(const std::string& key, const ObjectInfo& remembered,
                                  const Options& options) {
  if (remembered.version.empty()) return nullptr;
  const ObjectStore::ReadResult found = m_cache.describe(key, remembered.version);
  if (!found || found.objectSize != remembered.size) return nullptr;
  auto info = std::make_shared<ObjectInfo>(
      describeObject(*found.metadata, found.objectSize, options, remembered.checkedAt));
  if (info->version != remembered.version) return nullptr;  // stored without its headers
  info->isStaged = remembered.isStaged;
  info->mayStore = info->mayStore || info->isStaged;
  return info;
}

Found Lookups::ask(const std::string& key, uint64_t ticket, const Options& options) {
  ObjectInfoPointer known = m_index.find(key);
  if (known && known->isRemembered) {
    known = recall(key, *known, options);
    if (known && known->isFresh(Clock::now())) {
      (void)m_index.putFound(key, known, ticket);
      return {.info = std::move(known)};
    }
  }
  ++m_stats.lookups;
  OriginCall call;
  call.method = "HEAD";
  call.key = key;
  OriginReply reply = m_origin.call(call);
  if (reply.isTrouble()) return troubled(key, std::move(known), std::move(reply), ticket, options);
  std::optional<ObjectInfo> info;
  const Clock::time_point now = Clock::now();
  if (reply.status == 200) info = describeObject(reply.headers, options, now);
  if (!info) {
    (void)m_index.putFound(key, nullptr, ticket);
    return {.reply = std::move(reply), .isAsked = true};
  }
  info->isWithoutRanges = known && known->version == info->version && known->isWithoutRanges;
  if (info->isWithoutRanges) info->forbidParts(options);
  if (!info->mayStore) info->freshUntil = std::min(info->freshUntil, now + REMEMBER_UNSTORABLE);
  auto made = std::make_shared<const ObjectInfo>(std::move(*info));
  // Changed by a client meanwhile: what he has made is newer than what was seen.
  if (!m_index.putFound(key, made, ticket)) {
    if (ObjectInfoPointer newer = m_index.find(key)) made = std::move(newer);
  }
  return {.info = std::move(made), .reply = std::move(reply), .isAsked = true, .wasKnown = known != nullptr};
}

void Lookups::noteWithoutRanges(const std::string& key, const std::string& version, const Options& options) {
  const uint64_t ticket = m_index.ticket(key);
  const ObjectInfoPointer known = m_index.find(key);
  if (!known || known->version != version || known->isStaged) return;
  auto noted = std::make_shared<ObjectInfo>(*known);
  noted->isWithoutRanges = true;
  noted->forbidParts(options);
  noted->freshUntil = std::min(noted->freshUntil, Clock::now() + REMEMBER_UNSTORABLE);
  (void)m_index.putFound(key, std::move(noted), ticket);
}

Found Lookups::troubled(const std::string& key, ObjectInfoPointer known, OriginReply reply, uint64_t ticket,
                        const Options& options) {
  const Clock::time_point now = Clock::now();
  if (!known || !known->mayStore || !known->mayServeStale || now - known->freshUntil > options.staleIfError)
    return {.reply = std::move(reply), .isAsked = true};
  auto left = std::make_shared<ObjectInfo>(*known);
  left->leaveAloneUntil = std::min(now + LEAVE_ALONE, known->freshUntil + options.staleIfError);
  (void)m_index.putFound(key, left, ticket);
  return {.info = std::move(left), .reply = std::move(reply), .isAsked = true, .isStale = true};
}

}  // namespace diskcached
