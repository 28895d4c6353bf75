// The set of volumes, the file that keeps their numbers, and the choice among them.
#include <sys/stat.h>

#include "diskcache/diskcacheLru.h"
#include "diskcache/diskcacheMigrator.h"
#include "diskcache/diskcacheSpace.h"
#include "diskcache/diskcacheVolume.h"
#include "tests/support/engineFixture.h"
#include "tests/support/faults.h"
#include "tests/support/smallFileSystem.h"

namespace ObjectStore {
namespace {

using namespace std::literals;
using Indexes = std::vector<VolIndex>;
using Change = int (DiskCache::*)(const std::string&);

class VolumeTest : public EngineTest {
 protected:
  VolumeTest() { options.volumes = 2, options.persistent = PersistentVolumes::Yes; }
  Indexes choose(size_t times) {
    Indexes chosen(times);
    for (VolIndex& index : chosen) index = Access::volumes(*cache).getNextVolWithSpace();
    return chosen;
  }
  const std::string m_info = dir / "root/volume_info";
  const std::string m_vol1 = dir / "vol1", m_vol2 = dir / "vol2", m_vol3 = dir / "vol3";
};

TEST_F(VolumeTest, IndexesGoUpThenFillGapsUntilNoneIsLeft) {
  std::list<VolIndex> used{2, 3, 65534};
  for (const int index : {65535, 1, 4, 5}) EXPECT_EQ(getUnusedIndex(used), index);
  EXPECT_EQ(used, (std::list<VolIndex>{1, 2, 3, 4, 5, 65534, 65535}));
  std::string all;
  for (int index = 1; index <= 65534; ++index) all += "d," + std::to_string(index) + '\n';
  start();
  writeFile(m_info, all);
  EXPECT_EQ(outcome(cache->addVolume(m_vol3)), "ENOSPC");
  EXPECT_EQ(Access::rotation(*cache), (Indexes{1, 2, 65535})) << "the first got the last one, and keeps it";
  EXPECT_EQ(log.takeTexts(LogLevel::Error), Texts{"Can't find unused volume index"});
}

TEST_F(VolumeTest, IndexesOutliveTheEngine) {
  start();
  put("abcdef", "text");
  std::ofstream(m_info, std::ios::app) << ",9\n";  // of no directory: left out, also of the scan
  cache = std::make_unique<DiskCache>(PersistentVolumes::Yes);
  const Texts dirs{m_vol3, m_vol2};
  ASSERT_EQ(outcome(cache->init(dir / "root", dirs, 90, 80, 95, 9, nullptr, PruningMode::Lru)), "success");
  EXPECT_TRUE(list().isInLru("abcdef", false)) << "of a volume that takes no new ones";
  EXPECT_EQ(get("abcdef"), "text");
  for (const char* bad : {"a,b", "a\nb,1"}) EXPECT_EQ(outcome(cache->addVolume(dir / bad)), "EINVAL");
  EXPECT_EQ(Access::rotation(*cache), (Indexes{3, 2}));
  EXPECT_EQ(readFile(m_info), m_vol1 + ",1\n" + m_vol2 + ",2\n" + m_vol3 + ",3\n");
}

TEST_F(VolumeTest, HostileVolumeFilesAreReadAsFarAsTheyGo) {
  start();
  const std::string longName(1 << 20, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {"/x , 3 \nA,7\nB,7\nd,2\nd,1", "d,1\nd,2\n/x ,3\nB,7\n"},
      {"a,-1\nb,65536\nc,99999999999999999999999\n", "b,0\nc,65535\n"},
      {"a,1\r\nb,\t+2x\n c,0x5\nd,e,4\n", "d,0\na,1\nb,2\n"},
      {"\n  \nnone%s\n,5\nx,", "x,0\n"},
      {"a\0b,1\0 2\n"s, "a\0b,1\n"s},
      {longName + ",9\n" + longName, longName + ",9\n"}};
  for (const auto& [content, saved] : cases) {
    cache->removeAllVolumes();
    writeFile(m_info, content);
    EXPECT_EQ(cache->addVolume(""), 0);
    EXPECT_EQ(readFile(m_info), saved);
  }
  EXPECT_TRUE(log.has(LogLevel::Info, "Bad volume file line: none%s"));
}

TEST_F(VolumeTest, AVolumeFileThatIsNoFileIsAnErrorAndOneThatStaysTheSameIsNotWritten) {
  start();
  const auto before = fs::last_write_time(m_info) - 1h;
  fs::last_write_time(m_info, before);
  EXPECT_EQ(fs::status(m_info).permissions(), fs::perms(0600));
  EXPECT_EQ(cache->addVolume(m_vol2), 0);
  EXPECT_TRUE(fs::last_write_time(m_info) == before);
  fs::remove(m_info);
  ASSERT_EQ(mkfifo(m_info.c_str(), 0600), 0);
  EXPECT_EQ(outcome(cache->addVolume(m_vol2)), "EINVAL");
  Access::volumes(*cache).moveVolume(1, m_vol3, RM_CODE_LOCATION);
  EXPECT_EQ(log.takeTexts(LogLevel::Error).size(), 3U) << "two for the addition, one for the move";
}

// A volume named again stands in the rotation again, and only the newest entry of one can be taken out.
TEST_F(VolumeTest, TheRotationFollowsEachChange) {
  constexpr Change add = &DiskCache::addVolume, drop = &DiskCache::removeVolume;
  constexpr Change disable = &DiskCache::disableNewSegments, enable = &DiskCache::enableNewSegments;
  const std::tuple<Change, std::string, Indexes> steps[] = {
      {add, m_vol3, {1, 2, 1, 2, 3}},    {disable, m_vol1, {1, 2, 2, 3}}, {enable, m_vol1, {1, 2, 2, 3, 1}},
      {enable, m_vol1, {1, 2, 2, 3, 1}}, {disable, m_vol2, {1, 2, 3, 1}}, {disable, m_vol2, {1, 2, 3, 1}},
      {drop, m_vol1, {1, 2, 3, 2, 3}},   {disable, m_vol3, {1, 2, 3, 2}}, {add, m_vol1, {1, 2, 3, 2, 2, 1}}};
  start();
  put("abcdef", "text");
  const uint64_t capacity = space().capacity();
  Indexes chosen;  // one after each change, all of which but enabling begin anew at the front
  for (const auto& [change, volume, rotation] : steps) {
    EXPECT_EQ((*cache.*change)(volume), 0);
    EXPECT_EQ(Access::rotation(*cache), rotation);
    chosen.push_back(choose(1).front());
  }
  EXPECT_EQ(chosen, (Indexes{1, 1, 2, 2, 1, 1, 1, 1, 1}));
  EXPECT_EQ(choose(7), (Indexes{2, 3, 2, 2, 1, 1, 2}));
  Volume printed;
  printed.dir = "/a", printed.free = 7;
  testing::internal::CaptureStdout();
  printFreeSpaceList({&printed});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "free space list\n/a free=7\n");
  for (const auto& [change, line] : {std::pair{drop, "Removing volume: nowhere"},
                                     {disable, "disable new segments: nowhere"},
                                     {enable, "enable new segments: nowhere"}}) {
    EXPECT_EQ(outcome((*cache.*change)("nowhere")), "ENOENT");
    EXPECT_TRUE(log.has(LogLevel::Info, line));
    EXPECT_EQ(log.takeTexts(LogLevel::Error), Texts{"Can't disable new segment nowhere"});
  }
  EXPECT_EQ((cache->removeAllVolumes(), choose(1)), Indexes{0});
  EXPECT_EQ(space().used() + space().segments(), 0U);
  EXPECT_TRUE(space().capacity() > capacity && readFile(m_info).starts_with(m_vol1 + ",1\n")) << "stay";
}

TEST_F(VolumeTest, NewSegmentsGoInTurnToWhatHasRoom) {
  const SmallFileSystem small(20);
  SKIP_WITHOUT(small);
  options.volumes = 3, options.persistent = PersistentVolumes::No, options.volumesIn = small.path();
  writeFile(small / "other", std::string(3 << 20, 'x'));
  start();
  EXPECT_EQ(std::pair(space().used(), space().capacity()), std::pair(9UL << 20, 60UL << 20));
  const uint64_t exact = fs::space(small.path()).available, full = exact + 1;
  const std::pair<std::vector<uint64_t>, Indexes> cases[] = {{{0, 0, 0}, {1, 2, 3, 1}},
                                                             {{exact, full, exact}, {1, 3, 1, 3}},
                                                             {{full, full, full}, {0, 0, 0, 0}},
                                                             {{0, 0, 0}, {1, 2, 3, 1}}};
  for (const auto& [reserves, chosen] : cases) {
    Access::volumes(*cache).initVolumes(Texts{});  // puts the cursor at the front
    const auto reserve = [&reserves = reserves](Volume& v) { v.reserved = reserves[v.index - 1U]; };
    for (VolIndex i = 1; i <= 3; ++i) Access::changeVolume(*cache, i, reserve);
    EXPECT_EQ(choose(4), chosen);
  }
  // A volume that cannot be asked ends every search until it is disabled and is not counted.
  put("abcdef", std::string(1 << 20, 'x'));
  fs::remove_all(volumes[2]);
  EXPECT_EQ(choose(2), (Indexes{0, 0}));
  EXPECT_TRUE(log.has(LogLevel::NoSpace, "Can't get free space for " + volumes[2] + " (2)"));
  EXPECT_EQ(cache->refreshCacheUtilizationData(), 0);
  EXPECT_EQ(log.takeTexts(LogLevel::Error),
            (Texts{"Can't get free bytes " + volumes[2] + " (2)",
                   "Error 2 getting updated volume size for " + volumes[2] + ", skipped"}));
  EXPECT_EQ(space().used(), 2 * ((20U << 20) - fs::space(small.path()).available));
  EXPECT_EQ(space().capacity(), 2U * 20 << 20);
  Access::changeVolume(*cache, 3, [](Volume& volume) { EXPECT_EQ(volume.total, 20U << 20) << "stays"; });
  EXPECT_EQ(cache->disableNewSegments(volumes[2]), 0);
  EXPECT_EQ(choose(2), (Indexes{1, 2}));
  const SmallFileSystem huge(17'000'003);  // whose reserve no float can tell exactly
  EXPECT_EQ(cache->addVolume(huge.path()), 0);
  EXPECT_TRUE(log.has(LogLevel::Info,
                      "Loaded volume " + huge.path() +
                          " index=4 allow=1 free=17825795145728 total=17825795145728 res=891289796608"));
}

// Whichever allocation fails, volumes, rotation, file and directories are as they were; repeated, it works.
TEST_F(VolumeTest, AChangeThatRunsOutOfMemoryChangesNothing) {
  DiskCacheContext other = makeContext(m_vol3 + std::string(100, 'x'));
  const std::function<int()> changes[] = {
      [&] { return cache->addVolume(other.dir); }, [&] { return cache->removeVolume(m_vol1); },
      [&] { return RMErrorUtil::GetErrNo(cache->registerContext(other)); },
      [&] { return cache->migrate(2, m_vol2, m_vol3); }};
  log.setLevel(LogLevel::Error - 1);
  start();
  const auto state = [&] {
    std::vector<Volume> records;
    cache->getVolumeStats(records);
    std::string text = readFile(m_info) +
                       std::to_string(space().used() + Access::migrator(*cache).generation()) +
                       outcome(cache->findPrunerCallback(other.dir, other.prunerCallback)) +
                       (fs::exists(dir / "root/migrate") ? " migrates" : "");
    for (const Volume& v : records)
      text += ' ' + v.dir + std::to_string(v.index) + (v.allow ? '+' : '-') + (v.listPos ? '!' : '?');
    for (const VolIndex index : Access::rotation(*cache)) text += ' ' + std::to_string(index);
    return text;
  };
  for (const auto& change : changes) {
    const std::string before = state();
    int rc = ENOMEM;
    for (size_t nth = 1; rc == ENOMEM; ++nth) {
      EXPECT_EQ(state(), before) << "after allocation " << nth - 1;
      const FailingNew failing(nth);
      rc = change();
    }
    EXPECT_EQ(rc, 0);
    EXPECT_NE(state(), before);
    EXPECT_NE(choose(1), Indexes{0});
  }
}

}  // namespace
}  // namespace ObjectStore
