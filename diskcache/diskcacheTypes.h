// The records that a client of the cache fills in or gets back, and the choices it makes.
//
// Plain values: each belongs to whoever made it, and none is safe to change on one thread while another uses
// it.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "diskcache/segmentFormat.h"
#include "diskcache/segmentGate.h"
#include "support/atomicCounter.h"
#include "support/export.h"
#include "support/lock.h"

namespace ObjectStore {

// A segment's identifier; also its file's name. Never empty, without '/' and NUL, and with no directory level
// ("..") among its first characters. That of a new segment has at most 255 bytes and does not end in ".temp"
// or ".copying", which are unfinished files.
using guid_t = std::string;

// The object store's identifier lengths in characters: whole, of an extent, and the least. The cache itself
// takes identifiers of any length.
inline constexpr int GUID_CHAR_SIZE = 44;
inline constexpr int GUID_CHAR_SIZE_EXTENT = 40;
inline constexpr int GUID_CHAR_SIZE_MIN = 32;

// A segment lies two directory levels below its context's directory, two characters of its identifier each.
inline constexpr int32_t NUM_DIR_LEVELS = 2;
inline constexpr int32_t NUM_CHARS_PER_DIR_LEVEL = 2;

// Number of a volume; 0 means "no volume" and is never given out.
using VolIndex = uint16_t;

enum class PersistentVolumes : int32_t {
  No = 0,   // indexes live as long as the engine
  Yes = 1,  // indexes are kept in the file "volume_info" of the root directory
};

enum class PruningMode : int32_t {
  // A pruner thread walks the directories when space runs short. Segments are given up for bytes only, and
  // never those that are in the recency list.
  Random = 0,
  // The segments on disk are scanned into the recency list; when it is full it gives up its least recently
  // used one, and never one for bytes.
  Lru = 1,
};

// Where writeSections writes when the context has a non-prunable directory.
enum class ForceDiskLoc : int32_t {
  Default = 0,      // as the context's flags say
  NonPrunable = 1,  // in the non-prunable directory, after copying the segment there
  Prunable = 2,     // in the context's own directory
};

enum class Recycle : int32_t {
  No = 0,
  Yes = 1,  // deleteSegment moves the file to the volume's directory "recycle"
};

// Asked with (context directory, segment path, identifier); gives the segment up, normally by
// DiskCache::deleteSegment, and returns whether it did. Called from the pruner's thread, or from any thread
// that adds to a full recency list, then with the list's lock held: it must not wait for another thread that
// uses the cache (clearCache and migrate may). Its context is an object of its own, with the segment's volume
// set. It must not throw (a throw counts as false) and must not destroy the engine.
using PrunerCallback =
    std::function<bool(const std::string& dir, const std::string& path, const std::string& guid)>;

// Told once how a migration ended: error 0 for success, otherwise a system error number. Called from a
// migration thread, or where none could be started from within migrate() or init(); must not throw and must
// not destroy the engine.
using MigrationCB = void (*)(int error, const std::string& source, const std::string& destination);

// One directory tree of a client. The client fills it in, registers it and passes it to every operation: the
// same values, but to createSegment an object that no other thread uses meanwhile.
struct DiskCacheContext {
  std::string dir;             // relative to a volume's root; prunable segments; the key of registration
  std::string nonprunableDir;  // likewise; segments that pruning leaves alone; may be empty
  bool useNonPrunableDir = false;
  bool moveOnWrite = false;       // writes go to a non-prunable copy, made first
  PrunerCallback prunerCallback;  // may be empty
  // Set by registerContext when there is one volume, and by every createSegment. With several volumes the
  // client keeps the volume of each segment and sets it before it works on the segment.
  VolIndex volume = 0;
  bool registered = false;
};

// One section in a buffer of the caller's. It is written from its `len` bytes at `data`, to position `off` of
// its payload; `len` is at least 1 and at most `bufferSize`, `type` is 0 to 5: otherwise EINVAL; above
// 2,147,479,552, which is what the system writes at once, EFBIG.
struct Section : SectionDesc {
  uint64_t off = 0;               // position in the payload at which the data belongs, or reading starts
  unsigned char* data = nullptr;  // never written to by the writing operations
  uint64_t bufferSize = 0;        // bytes at `data`
  // Set to 2 (ENOENT) by a read of a section that is not there, and by nothing else: also not back to 0.
  uint32_t status = 0;
};

// One section with its own payload.
struct SectionV : SectionDesc {
  std::vector<unsigned char> data;
};

// Where a section's payload lies in its segment's file: within it, as long as it was when this was found out.
struct SectionPlace {
  int32_t type = 0;     // the one asked for
  int32_t subType = 0;  // as stored
  uint64_t offset = 0;  // bytes from the start of the file
  uint64_t len = 0;     // bytes
  bool found = false;
  // Where the front of the payload may be put on the way, because it costs no call of its own there; what lies
  // behind the first `read` bytes may be overwritten.
  unsigned char* data = nullptr;
  uint64_t bufferSize = 0;  // bytes at `data`
  uint64_t read = 0;        // bytes put there: often all that fit, maybe none
};

// A directory that holds segments, as known to the engine.
struct Volume {
  std::string dir;  // exactly as the client gave it
  VolIndex index = 0;
  bool allow = false;     // takes new segments
  KxAtomicU64_t free;     // bytes free on its file system when last measured
  uint64_t total = 0;     // bytes of its file system when last measured
  uint64_t reserved = 0;  // bytes that must stay free
  // Its place in the engine's rotation; none when it stands in no rotation. Of no use outside the engine.
  std::optional<std::list<Volume*>::iterator> listPos;
};

// Counters of an engine. The first two change under the recency list's lock, the others from any thread.
struct Stats {
  uint64_t lruHits = 0;
  uint64_t lruMisses = 0;
  KxAtomicU64_t numPruned;      // segments handed to a callback by the pruner
  KxAtomicU64_t delayMs;        // milliseconds that writers were made to wait
  KxAtomicU64_t errOutOfSpace;  // writes refused for lack of space, whichever of an operation's it was

  void clear() { *this = Stats(); }
};

// Sets the map's entry under prefix + key to the decimal text of a value, or to a text.
DISKCACHE_EXPORT void pushStat(std::map<std::string, std::string>& stats, const std::string& key,
                               uint64_t value, const std::string& prefix);
DISKCACHE_EXPORT void pushStat(std::map<std::string, std::string>& stats, const std::string& key,
                               const std::string& value, const std::string& prefix);

// One open segment, shared by all who work on it. Whoever waits in an operation for others that work on the
// segment and holds its lock already, however often, has none of its entries meanwhile, and all of them after
// it.
struct OpenSegmentInfo {
  int32_t refCount = 1;    // guarded by the table's lock
  KxCriticalSection lock;  // held for all work on the segment's file but the bytes written in place
  SegmentGate gate DC_GUARDED_BY(lock);
};

// A position in the table of open segments; valid until its last close.
using SegmentHandle = std::map<guid_t, OpenSegmentInfo*>::iterator;

}  // namespace ObjectStore
