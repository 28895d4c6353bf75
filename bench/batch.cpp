#include "batch.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <latch>
#include <thread>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

double microsecondsOf(Clock::duration time) {
  return std::chrono::duration<double, std::micro>(time).count();
}

double threadCpuMicroseconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

struct Share {
  std::vector<double> single;
  Clock::time_point begin;
  Clock::time_point end;
  double cpu = 0;
};

// Every `step`th segment from `first` on.
Share work(Session& session, const std::vector<size_t>& order, size_t first, size_t step, size_t bytes,
           const Operation& operation, std::latch& start) {
  std::vector<unsigned char> buffer(bytes);
  Share share;
  share.single.reserve(order.size());
  start.arrive_and_wait();
  const double cpuBefore = threadCpuMicroseconds();
  share.begin = share.end = Clock::now();
  for (size_t i = first; i < order.size(); i += step) {
    operation(session, order[i], buffer);
    const Clock::time_point now = Clock::now();
    share.single.push_back(microsecondsOf(now - share.end));
    share.end = now;
  }
  share.cpu = threadCpuMicroseconds() - cpuBefore;
  return share;
}

Timing sumOf(const std::vector<Share>& shares, size_t operations) {
  Timing timing;
  Clock::time_point begin = shares.front().begin;
  Clock::time_point end = shares.front().end;
  std::vector<double> single;
  for (const Share& share : shares) {
    begin = std::min(begin, share.begin);
    end = std::max(end, share.end);
    timing.cpu += share.cpu / static_cast<double>(operations);
    single.insert(single.end(), share.single.begin(), share.single.end());
  }
  timing.wall = microsecondsOf(end - begin) / static_cast<double>(operations);
  timing.p50 = medianOf(single);
  timing.p99 = quantileOf(single, 0.99);
  timing.p999 = quantileOf(single, 0.999);
  return timing;
}

}  // namespace

double quantileOf(std::vector<double>& values, double share) {
  const auto place = values.begin() + static_cast<ptrdiff_t>(share * static_cast<double>(values.size()));
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

Timing timeBatch(const std::vector<std::unique_ptr<Session>>& sessions, size_t threads,
                 const std::vector<size_t>& order, size_t bytes, const Operation& operation) {
  std::vector<Share> shares(threads);
  std::latch start(static_cast<std::ptrdiff_t>(threads));
  const auto take = [&](size_t i) {
    shares[i] = work(*sessions[i], order, i, threads, bytes, operation, start);
  };
  {
    std::vector<std::jthread> others;
    for (size_t i = 1; i < threads; ++i) others.emplace_back(take, i);
    take(0);
  }
  return sumOf(shares, order.size());
}

}  // namespace bench
