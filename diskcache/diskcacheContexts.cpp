#include "diskcache/diskcacheContexts.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace ObjectStore {

namespace {

bool isSameOrBelow(std::string_view dir, std::string_view top) {
  return dir.starts_with(top) && (dir.size() == top.size() || top.empty() || dir[top.size()] == '/');
}

}  // namespace

// Counts a callback as running while it lives. Registered under the lock that the look-up was made under: a
// directory that is unregistered afterwards waits for it.
class DiskCacheContexts::RunningCall {
 public:
  RunningCall(DiskCacheContexts& contexts, const std::string& dir) DC_REQUIRES(contexts.m_lock)
      : m_contexts(contexts), m_call{dir, contexts.m_nextCall++, std::this_thread::get_id()} {
    contexts.m_calls.push_back(&m_call);
  }
  ~RunningCall() {
    const KxCriticalSectionLock lock(&m_contexts.m_lock);
    std::erase(m_contexts.m_calls, &m_call);
    m_contexts.m_callEnded.notify_all();
  }
  RunningCall(const RunningCall&) = delete;
  RunningCall& operator=(const RunningCall&) = delete;

 private:
  DiskCacheContexts& m_contexts;
  const Call m_call;
};

std::string DiskCacheContexts::relativeDir(const std::string& dir) {
  std::string name = std::filesystem::path('/' + dir).lexically_normal().string();
  while (name.ends_with('/')) name.pop_back();
  return name.empty() ? name : name.substr(1);
}

uint32_t DiskCacheContexts::add(const DiskCacheContext& ctx) {
  const std::string nonPrunable = ctx.nonprunableDir.empty() ? "" : relativeDir(ctx.nonprunableDir);
  PrunerCallback callback = ctx.prunerCallback;
  const KxCriticalSectionLock lock(&m_lock);
  const auto [entry, added] = m_registrations.try_emplace(ctx.dir);
  Registration& registration = entry->second;
  try {
    if (!ctx.nonprunableDir.empty()) registration.nonPrunableDirs.push_back(nonPrunable);
  } catch (...) {
    if (added) m_registrations.erase(entry);
    throw;
  }
  if (added) registration.callback.swap(callback);
  return ++registration.refCount;
}

bool DiskCacheContexts::remove(const DiskCacheContext& ctx, uint32_t& left) {
  const std::string nonPrunable = relativeDir(ctx.nonprunableDir);
  decltype(m_registrations)::node_type removed;  // outlives the lock: it holds what the client gave
  const KxCriticalSectionLock lock(&m_lock);
  const auto found = m_registrations.find(ctx.dir);
  if (found == m_registrations.end()) return false;
  left = --found->second.refCount;
  std::vector<std::string>& kept = found->second.nonPrunableDirs;
  const auto named = std::find(kept.begin(), kept.end(), nonPrunable);
  if (!ctx.nonprunableDir.empty() && named != kept.end()) kept.erase(named);
  if (left == 0) removed = m_registrations.extract(found);
  return true;
}

void DiskCacheContexts::waitForCallbacks(const std::string& dir) {
  const KxCriticalSectionLock lock(&m_lock);
  const bool isOwn = std::any_of(m_calls.begin(), m_calls.end(), [&](const Call* call) {
    return call->dir == dir && call->thread == std::this_thread::get_id();
  });
  if (isOwn) return;
  // Only for those that run by now: who registers the directory anew may have it called all the time.
  const uint64_t before = m_nextCall;
  m_lock.waitWithoutAnyEntry(m_callEnded,
                             [&]() DC_NO_THREAD_SAFETY_ANALYSIS { return !isRunning(dir, before); });
}

bool DiskCacheContexts::isRunning(const std::string& dir, uint64_t before) {
  return std::any_of(m_calls.begin(), m_calls.end(),
                     [&](const Call* call) { return call->number < before && call->dir == dir; });
}

CZuError DiskCacheContexts::find(const std::string& dir, PrunerCallback& out) {
  const KxCriticalSectionLock lock(&m_lock);
  return findLocked(dir, out, RM_CODE_LOCATION);
}

CZuError DiskCacheContexts::findLocked(const std::string& dir, PrunerCallback& out,
                                       const RMCodeLocation& where) {
  const auto found = m_registrations.find(dir);
  if (found == m_registrations.end()) {
    return RMErrorUtil::ErrorErrNo(where, ENOENT, "Can't find [%s]", dir.c_str());
  }
  out = found->second.callback;
  return {};
}

CZuError DiskCacheContexts::ask(bool& givenUp, const std::string& dir, const std::string& path,
                                const guid_t& guid) {
  PrunerCallback callback;
  KxCriticalSectionLock lock(&m_lock);
  CZuError error = findLocked(dir, callback, RM_CODE_LOCATION);
  if (!error.IsError() && !callback) {
    error = RMErrorUtil::ErrorErrNo(RM_CODE_LOCATION, ENOENT, "Can't find [%s]", dir.c_str());
  }
  if (error.IsError()) return error;
  const RunningCall running(*this, dir);
  lock.resetCriticalSection(nullptr);
  const PrunerCallback own = std::move(callback);  // goes before the call counts as ended, with all it holds
  givenUp = own(dir, path, guid);
  return {};
}

std::vector<std::pair<std::string, PrunerCallback>> DiskCacheContexts::callbacks() {
  const PrunerCallback asking = [this](const std::string& dir, const std::string& path, const guid_t& guid) {
    bool givenUp = false;
    return !ask(givenUp, dir, path, guid).IsError() && givenUp;
  };
  std::vector<std::pair<std::string, PrunerCallback>> out;
  const KxCriticalSectionLock lock(&m_lock);
  for (const auto& [dir, registration] : m_registrations)
    out.emplace_back(dir, registration.callback ? asking : PrunerCallback());
  return out;
}

bool DiskCacheContexts::isNonPrunable(std::string_view dir) {
  const KxCriticalSectionLock lock(&m_lock);
  for (const auto& [name, registration] : m_registrations) {
    for (const std::string& kept : registration.nonPrunableDirs) {
      if (isSameOrBelow(dir, kept)) return true;
    }
  }
  return false;
}

}  // namespace ObjectStore
