// Errors, log lines, configuration values, locks, events, threads and counters.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <functional>
#include <future>
#include <optional>
#include <thread>

#include "support/atomicCounter.h"
#include "support/config.h"
#include "support/event.h"
#include "support/lock.h"
#include "support/perfCounters.h"
#include "support/thread.h"
#include "tests/support/faults.h"
#include "tests/support/logCapture.h"
#include "tests/support/tempDir.h"

namespace ObjectStore {
namespace {

using namespace std::chrono_literals;

constexpr RMCodeLocation INNER{"inner.cpp", "void inner()", 7};
constexpr RMCodeLocation OUTER{"outer.cpp", "int outer(char)", 11};

TEST(ErrorTest, KeepsItsNumberAndShowsTheNewestMessageFirst) {
  EXPECT_FALSE(RMErrorUtil::IsErrNo(CZuError(), 0)) << "a success carries no number";
  const CZuError shortTransfer = RMErrorUtil::ErrorErrNo(INNER, 0);
  EXPECT_TRUE(RMErrorUtil::IsErrNo(shortTransfer, 0));
  EXPECT_EQ(shortTransfer.AsString(), "no system error (0)");

  CZuError error = RMErrorUtil::ErrorErrNo(INNER, ENOENT, "Can't find [%s]", "a%sb");
  CZuError copy = error;
  copy.Push(OUTER, "Can't scan %d", 3);
  EXPECT_FALSE(copy.Success().IsError());
  EXPECT_EQ(error.AsString(EErrorOutputFormat::Detailed),
            "Can't scan 3 [outer.cpp:11 int outer(char)]: Can't find [a%sb] [inner.cpp:7 void inner()]: "
            "No such file or directory (2)");
}

// The first and the last of each run of characters that act on a terminal, and their neighbours that do not.
constexpr const char* CONTROLS =
    "\u0080\u009f\u00a0\u061b\u061c\u200d\u200e\u200f\u2010\u2029\u202a\u202e\u202f\u2065\u2066\u2069\u206a"
    "\xe2\x80";
const std::string ESCAPED =
    "\\xc2\\x80\\xc2\\x9f\u00a0\u061b\\xd8\\x9c\u200d\\xe2\\x80\\x8e\\xe2\\x80\\x8f\u2010\u2029\\xe2\\x80\\xa"
    "a"
    "\\xe2\\x80\\xae\u202f\u2065\\xe2\\x81\\xa6\\xe2\\x81\\xa9\u206a\xe2\x80";

TEST(LogTest, DefaultWriterKeepsOneLineALine) {
  const TempDir dir;
  const std::string path = dir / "cache.log";
  const auto begin = std::chrono::floor<std::chrono::microseconds>(std::chrono::system_clock::now());
  setenv("TZ", "UTC-5", 1);  // stamps are in UTC all the same
  tzset();
  {
    FileLogWriter writer(LogLevel::Error, path);
    errno = ENOSPC;
    writer.write(LogLevel::Error, "void f(int)", 12, 0, 0, "[%s%s]", "a\nb\x1b\x7f\t\xc3\xa9", CONTROLS);
    FaultPlan plan;
    plan.fail("write", 1, EIO);
    writer.write(LogLevel::Error, "void f(int)", 13, 0, 0, "lost");
    EXPECT_EQ(errno, ENOSPC) << "code that logs before it reports must not lose the number";
  }
  FileLogWriter(LogLevel::Error, path).write(9, "g()", 3, 0, 0, "%s", std::string(100000, '\n').c_str());

  unsetenv("TZ");
  tzset();
  const std::string text = readFile(path);
  const std::string first = " -1 void f(int):12 [a\\x0ab\\x1b\\x7f\\x09\xc3\xa9" + ESCAPED + "]\n";
  const size_t second = 27 + first.size();
  EXPECT_EQ(text.substr(27, first.size()), first) << "behind the time";
  std::tm utc{};
  const char* const fraction = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S.", &utc);
  ASSERT_TRUE(fraction && fraction - text.c_str() == 20) << text.substr(0, 27);
  EXPECT_EQ(text.substr(20, 7).find_first_not_of("0123456789"), 6U);
  EXPECT_EQ(text[26], 'Z');
  const std::chrono::sys_time<std::chrono::microseconds> stamp(timegm(&utc) * 1s + std::stoi(fraction) * 1us);
  EXPECT_TRUE(stamp >= begin && stamp <= std::chrono::system_clock::now()) << text.substr(0, 27);
  EXPECT_EQ(text.substr(second + 27, 14), "  9 g():3 \\x0a");
  EXPECT_EQ(text.substr(text.size() - 9), "\\x0a\\x0a\n") << "cut, but not within a character";
  EXPECT_LE(text.size() - second, 16U << 10);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));
}

unsigned long lookUp(const char* name) { return getRegistryValue<unsigned long>(name, 77, 0, 10); }

TEST(ConfigTest, TextsBecomeNumbers) {
  LogCapture log;
  // The bounds are the caller's to apply, and the buffer holds 31 characters.
  const std::pair<std::string, unsigned long> cases[] = {{" \t 42abc", 42},
                                                         {"+7", 7},
                                                         {"-1", ~0UL},
                                                         {std::string(28, ' ') + "12345", 123},
                                                         {"18446744073709551616", 77},
                                                         {"", 77},
                                                         {"- 1", 77},
                                                         {"%s%n", 77}};
  for (const auto& [text, value] : cases) {
    ConfigStore::set(CONFIG_SECTION, "n", text);
    EXPECT_EQ(lookUp("n"), value) << '[' << text << ']';
    const std::string line = "-1 Error: Can't parse [n]: [" + text + ']';
    EXPECT_EQ(log.takeTexts(), Texts(value == 77, line));
  }
}

TEST(ConfigTest, ValuesBelongToAnInstanceUntilTheyAreUnset) {
  const std::string before = KXPI_Focus::getFocus();
  EXPECT_EQ(before, "Instance001");
  for (const char* name : {"n", "m"}) ConfigStore::set(CONFIG_SECTION, name, "1");
  KXPI_Focus::setProcessFocus("Instance002");
  ConfigStore::set(CONFIG_SECTION, "n", "2");
  EXPECT_EQ(lookUp("n"), 2U);
  ConfigStore::unset(CONFIG_SECTION, "n");
  EXPECT_EQ(lookUp("n"), 77U);
  KXPI_Focus::setProcessFocus(before);
  EXPECT_EQ(lookUp("n"), 1U);
  ConfigStore::unset(CONFIG_SECTION, "n");
  EXPECT_EQ(lookUp("n") + lookUp("m"), 78U);
  ConfigStore::clear();
  EXPECT_EQ(lookUp("m"), 77U);
}

TEST(ConfigTest, FilesAreTakenWholeOrNotAtAll) {
  LogCapture log;
  const TempDir dir;
  const std::string path = dir / "cache.conf";
  std::string error;
  writeFile(path, "# comment\r\n; another = 1\n\n [~Wolk] \n a = 1 \nb=x = y\n[other]\na=5\n[~Wolk]\nc = 3");
  ASSERT_EQ(ConfigStore::loadFile(path, error), 0) << error;
  EXPECT_EQ(lookUp("c"), 3U);
  lookUp("b");
  EXPECT_TRUE(log.has(LogLevel::Error, "Error: Can't parse [b]: [x = y]"));

  const std::pair<int, const char*> bad[] = {{1, "a = 2\n"},  // below no section
                                             {3, "[~Wolk]\na = 2\nnonsense\n"},
                                             {3, "[~Wolk]\na = 2\n = 2\n"},
                                             {1, "[~Wolk\n"},
                                             {3, "[]\n\na = 2"}};
  for (const auto& [line, content] : bad) {
    writeFile(path, content);
    EXPECT_EQ(ConfigStore::loadFile(path, error), EINVAL) << content;
    EXPECT_EQ(error.rfind(path + ':' + std::to_string(line) + ": ", 0), 0U) << error;
    EXPECT_EQ(lookUp("a"), 1U);
  }
  EXPECT_EQ(ConfigStore::loadFile(dir / "missing", error), ENOENT);
  EXPECT_EQ(error, dir / "missing: No such file or directory");
}

TEST(EventTest, IsLatchedAndResetsItself) {
  KxEvent event(true);
  EXPECT_TRUE(event.wait(0)) << "it is made set";
  event.set();
  EXPECT_TRUE(event.wait(0)) << "a signal before the wait counts";
  EXPECT_FALSE(event.wait(1)) << "two signals before the wait are one";
  std::thread setter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    event.set();
  });
  EXPECT_TRUE(event.wait(~0UL)) << "no wait is too long";
  setter.join();
}

void* waitForEnd(void* end) {
  static_cast<KxEvent*>(end)->wait(60'000);
  return nullptr;
}

TEST(ThreadTest, RunsOneFunctionAtATime) {
  KxEvent end(false);
  KXThread thread;
  bool timedOut = false;
  FaultPlan plan;
  plan.fail("thread", 1, EAGAIN);
  EXPECT_FALSE(thread.createThread(waitForEnd, &end));
  EXPECT_EQ(thread.getLastError(), "Resource temporarily unavailable");
  ASSERT_TRUE(thread.createThread(waitForEnd, &end)) << thread.getLastError();
  EXPECT_FALSE(thread.createThread(waitForEnd, &end)) << "there is one already";
  thread.joinThread(1, &timedOut);
  EXPECT_TRUE(timedOut && thread.threadInProgress());
  end.set();
  while (thread.threadInProgress()) std::this_thread::yield();
  EXPECT_TRUE(thread.createThread(waitForEnd, &end)) << "in place of one that ended and was not joined";
  end.set();
  thread.joinThread(60'000, &timedOut);
  EXPECT_FALSE(timedOut);
}

// As many as it is made, and no more: the sum, the mean and the longest of two timings belong together.
TEST(CountersTest, EachStopAddsItsOwnTimeOnItsOwnThread) {
  LogCapture log;
  ThrdPerfCounter perf;
  perf.enable(true);
  perf.StartPerfCounter("stopped elsewhere", PERF_OPEN);
  std::thread([&] { perf.StopPerfCounter("", PERF_OPEN, 0); }).join();
  EXPECT_TRUE(perf.table().empty());
  perf.StopPerfCounter("", PERF_OPEN, 0);
  perf.StopPerfCounter("", PERF_OPEN, 0);                                        // a second stop has no start
  perf.StartPerfCounter("", PERF_CLOSE), perf.enable(false), perf.enable(true);  // it was off in between
  perf.StopPerfCounter("", PERF_CLOSE, 0);
  EXPECT_EQ(log.takeTexts(), Texts{});
  perf.logEachStop(true);
  constexpr std::chrono::nanoseconds LONG = std::chrono::milliseconds(4);
  for (const auto pause : {LONG, LONG / 4}) {
    for (const int id : {PERF_OPEN, 0}) perf.StartPerfCounter("", id);
    std::this_thread::sleep_for(pause);
    for (const int id : {0, PERF_OPEN}) perf.StopPerfCounter("", id, 0);
  }
  const auto rows = perf.table();
  ASSERT_EQ(rows.size(), 2U);
  EXPECT_EQ(rows[0].name + rows[1].name, "backupinitDiskCacheOpen") << "in order of number";
  EXPECT_EQ(rows[0].count, 2U);
  EXPECT_EQ(rows[1].count, 3U);
  for (const auto& row : rows) {
    EXPECT_GE(row.maxNs, static_cast<uint64_t>(LONG.count()));
    EXPECT_GE(row.totalNs, row.maxNs + static_cast<uint64_t>(LONG.count()) / 4);
    EXPECT_DOUBLE_EQ(row.meanNs, static_cast<double>(row.totalNs) / static_cast<double>(row.count));
  }
  const Texts lines = log.takeTexts(LogLevel::Notice);
  ASSERT_EQ(lines.size(), 8U) << "each stop tells of every counter";
  EXPECT_TRUE(lines[0].starts_with("For All The Files: backupinit count=1 total_ns=")) << lines[0];
  perf._LogPerfCounters("one", 0);
  const Texts one = log.takeTexts(LogLevel::Notice);
  ASSERT_EQ(one.size(), 1U);
  EXPECT_EQ(one[0], "one: backupinit count=2 total_ns=" + std::to_string(rows[0].totalNs) +
                        " mean_ns=" + one[0].substr(one[0].find("mean_ns=") + 8));
}

bool isFree(KxCriticalSection& section) {
  auto entered = std::async(std::launch::async, [&] { const KxCriticalSectionLock once(&section); });
  return entered.wait_for(LONGEST_WAIT) == std::future_status::ready;
}
// Whether `take` comes back only after another thread has given the lock up.
bool waitsFor(KxCriticalSection& section, const std::function<void()>& take) {
  std::promise<void> isHeld;
  std::atomic<bool> isGivenUp = false;
  const std::jthread other([&] {
    const KxCriticalSectionLock lock(&section);
    isHeld.set_value();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    isGivenUp = true;
  });
  isHeld.get_future().wait();
  take();
  return isGivenUp;
}
// The analysis does not follow a guard whose lock changes.
void handOver(KxCriticalSection& from, KxCriticalSection& to) DC_NO_THREAD_SAFETY_ANALYSIS {
  KxCriticalSectionLock moving(&from);
  EXPECT_TRUE(waitsFor(to, [&]() DC_NO_THREAD_SAFETY_ANALYSIS { moving.resetCriticalSection(&to); }));
  EXPECT_TRUE(isFree(from));
  std::optional<KxCriticalSectionUnlock> open(to);
  EXPECT_TRUE(isFree(to));
  EXPECT_TRUE(waitsFor(to, [&] { open.reset(); })) << "held again";
  moving.resetCriticalSection(nullptr);
  EXPECT_TRUE(isFree(to));
}

TEST(LockTest, AGuardHoldsWhatItWasGivenLastAndLeavesItOnce) {
  KxCriticalSection first, second;
  const KxCriticalSectionLock nothing(nullptr);
  handOver(first, second);
  EXPECT_TRUE(isFree(first) && isFree(second));
}

TEST(CountersTest, LoseNoUpdate) {
  ThrdPerfCounter perf;
  KxAtomicU64_t counter;
  g_object_store_counter = &perf;
  g_object_store_enable_perf = true;
  { const TimeFunction ignored("not enabled yet", PERF_SEEK); }
  perf.enable(true);
  const auto work = [&] {
    for (int i = 0; i < 5000; ++i) {
      counter += 10;
      counter -= KxAtomicU64_t(6);
      const TimeFunction timer("test", PERF_DISK_WRITE);
    }
  };
  std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counter.value(), 3U * 5000 * 4);
  OBJECT_STORE_START_PERF_COUNTER("outside the table", NUM_PERF_COUNTERS);
  g_object_store_enable_perf = false;
  g_object_store_counter = nullptr;
  ASSERT_EQ(perf.table().size(), 1U);
  EXPECT_EQ(perf.table()[0].name + std::to_string(perf.table()[0].count), "DiskCacheDiskWrite15000");
}

}  // namespace
}  // namespace ObjectStore
