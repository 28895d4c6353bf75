// Named objects of an object store, kept on local disks: read-through, and write-back when told so.
//
//   ObjectCache cache({.root = "/var/cache/app", .volumes = {"/disk1/cache"}, .maxBytes = 400'000'000'000});
//   if (CZuError error = cache.open(); error.IsError()) ...
//   auto got = cache.read("bucket/key", etag, offset, buffer, [&](uint64_t from, std::span<std::byte> to) {
//     return store.get("bucket/key", from, to);  // an OriginAnswer
//   });
//
// Objects are kept in blocks; a key in one version is an object, so a changed object is another one and the old
// one ages out. Bytes are right or there is an error. Trouble with the disks is counted and logged and never the
// caller's: he then gets the origin's bytes. docs/client.md says what is promised, and how to size.
//
// Threads: open(), close() and the destructor run alone; anything else may be called by any thread between
// them. Callbacks run in the thread that called, but for an Upload, which a flush worker runs; they may use the
// cache, but not open or close it, and an Origin or `admit` nothing of the object that is being fetched. No lock is
// held while one runs.
//
// Errors carry a system error number and name the key. EBADF: not open. EINVAL: an argument that makes no sense.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "client/blockTrailer.h"
#include "client/objectCacheMetrics.h"
#include "diskcache/diskcacheTypes.h"
#include "support/error.h"
#include "support/export.h"

namespace ObjectStore {

// Whether bytes from disk are compared with their checksums, 64 KiB by 64 KiB. Those that are kept in memory
// (ObjectCacheOptions::maxHotBytes) were compared when they were read for that, but for Never, and not again.
enum class Verify {
  Always,  // each time: a chunk that is asked for in part is read whole
  Once,    // the first time in this process; after its descriptor was closed that is known of the last 65,536
           // blocks (fewer when some fall on one place) that were read whole
  Never,   // the trailer only, when the block is opened
};

// What an admission predicate decides on.
struct Admission {
  std::string_view key;
  std::string_view version;
  uint64_t objectSize;  // bytes
  unsigned
      uses;  // misses of this object within the window, this one included; may be too high, never too low
};

struct StartProgress {
  const std::string& volume;
  uint64_t blocks;  // found so far, on all volumes
};

struct ObjectCacheOptions {
  std::string root{};                  // a directory for the cache's own files; made if missing
  std::vector<std::string> volumes{};  // directories on the disks, in any order; made if missing
  uint64_t maxBytes = 0;               // mode Lru: what blocks may take on disk; 0 is no bound but the disks'
  // Mode Lru: how many blocks may be prunable, 5 or more; 0 is no bound. Mode Random: how many of those used last
  // pruning leaves alone, 5 or more; 0 is 1,024, or a sixteenth of small disks.
  uint64_t maxBlocks = 0;
  PruningMode mode = PruningMode::Lru;
  uint32_t blockSize = 4 << 20;  // a power of two from 64 KiB to 256 MiB
  uint64_t reserve = 0;          // bytes to leave free on each volume's file system, if more than its 5 %
  uint64_t reserveFiles = 0;     // the same in inodes
  Verify verify = Verify::Always;
  size_t hotBlocks = 0;  // descriptors to keep open; 0 is a quarter of RLIMIT_NOFILE, at most 4096
  // Memory for the bytes of blocks of up to 16 KiB among those, read again and again; 0, or 17 KiB and more.
  uint64_t maxHotBytes = 64 << 20;
  uint64_t maxFetch = 32 << 20;                   // bytes in one request to the origin; at least a block
  unsigned prefetchBlocks = 0;                    // fetched beyond what was asked for, on sequential reads
  std::chrono::seconds maxAge{0};                 // older blocks are misses; 0 is no limit
  std::function<bool(const Admission&)> admit{};  // empty admits all
  std::chrono::seconds useWindow{3600};           // of Admission::uses
  int highWatermark = 90;  // mode Random, percent of the file systems: when pruning begins,
  int lowWatermark = 80;   // and where it ends
  bool replaceVolumes =
      false;  // an empty directory in place of a known volume is a new disk, not an unmounted one
  std::function<void(const StartProgress&)> onProgress{};  // during open(), every 4,096 blocks
};

// What an origin tells: an error, or the object's size and metadata. The bytes [from, from + to.size()) that the
// object has are in `to`.
struct OriginAnswer {
  CZuError error{};
  uint64_t objectSize = 0;
  Metadata metadata{};
};

// One request to the origin.
class OriginRequest {
 public:
  const uint64_t from;            // offset in the object
  const std::span<std::byte> to;  // reaches beyond the object's end when its size is not known yet

  // If the origin likes to: the first `bytes` of `to` are there. Whoever waits for a block that is whole by now
  // gets it at once.
  virtual void arrived(uint64_t bytes, uint64_t objectSize, const Metadata& metadata) = 0;

 protected:
  OriginRequest(uint64_t offset, std::span<std::byte> buffer) : from(offset), to(buffer) {}
  ~OriginRequest() = default;
};

// A reference to a callable, (uint64_t from, std::span<std::byte> to) or (OriginRequest&), that returns an
// OriginAnswer. It lives as long as the call it is an argument of. An exception counts as EIO.
class Origin {
 public:
  template <typename F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, Origin>)
      Origin(F&& function)  // NOLINT(bugprone-forwarding-reference-overload): the requirement says so
      : m_function(const_cast<void*>(static_cast<const void*>(std::addressof(function)))),
        m_call([](void* f, OriginRequest& request) -> OriginAnswer {
          auto& callable = *static_cast<std::remove_reference_t<F>*>(f);
          if constexpr (std::is_invocable_v<F&, OriginRequest&>) {
            return callable(request);
          } else {
            return callable(request.from, request.to);
          }
        }) {}
  OriginAnswer operator()(OriginRequest& request) const { return m_call(m_function, request); }

 private:
  void* m_function;
  OriginAnswer (*m_call)(void*, OriginRequest&);
};

struct ReadOptions {
  // When to stop waiting for another thread's fetch (ETIMEDOUT); this thread's own fetch is not cut short.
  std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
};

struct ReadResult {
  CZuError error{};
  size_t bytes = 0;  // read; less than asked for only at the object's end, and before an error
  uint64_t objectSize = 0;
  std::shared_ptr<const Metadata> metadata{};
  uint32_t hits = 0;     // blocks from memory or disk,
  uint32_t misses = 0;   // asked of the origin by this call,
  uint32_t joined = 0;   // and by another thread's
  uint32_t damaged = 0;  // of the misses: blocks that were there, but not right

  explicit operator bool() const { return !error.IsError(); }
};

// A part of a cached block's file, to be sent with sendfile or mapped: bytes [offset, offset + length) of the object.
// Copies may be used by any thread, also after the cache was closed or the block given up; its space on disk comes
// back when the last copy of `hold` goes.
struct PinnedBlock {
  CZuError error{};         // ENOENT: read() the range instead
  int fd = -1;              // open while `hold` lives, and shared: not to be closed, nor its position used
  uint64_t fileOffset = 0;  // where the bytes begin in the file
  uint64_t length = 0;      // bytes; 0 behind the object's end
  uint64_t objectSize = 0;
  std::shared_ptr<const Metadata> metadata{};
  std::shared_ptr<const void> hold{};

  explicit operator bool() const { return !error.IsError(); }
};

// A staged object, as an Upload sees it.
class StagedObject {
 public:
  std::string key;
  std::string version;
  uint64_t size = 0;
  Metadata metadata;
  std::chrono::system_clock::time_point stagedAt;

  // Fills `out` from `offset`; the range must lie within the object. Checked like any read. ENOENT, also for an
  // empty range, once the object is staged no more: it was given up, or uploaded.
  virtual CZuError read(uint64_t offset, std::span<std::byte> out) const = 0;

 protected:
  ~StagedObject() = default;
};
using Upload = std::function<CZuError(const StagedObject&)>;

struct StagedStatus {
  uint64_t objects = 0;
  uint64_t bytes = 0;
  std::chrono::seconds oldest{0};  // age
};

class DISKCACHE_EXPORT ObjectCache {
 public:
  explicit ObjectCache(ObjectCacheOptions options);
  ~ObjectCache();
  ObjectCache(const ObjectCache&) = delete;
  ObjectCache& operator=(const ObjectCache&) = delete;

  // Takes root and volumes and finds what is on them. EBUSY: another process or cache has the root, a volume
  // belongs to another cache or was moved to another directory, or a volume's move is not finished; EEXIST: one
  // volume given twice; EINVAL: options that make no sense, or staged objects of another block size; EMFILE,
  // ENFILE, ENOMEM: staged objects that can't be looked at for want of these. After an error the cache is closed.
  CZuError open();
  // Ends the flush workers, each after the upload it is at, and gives root and volumes back.
  void close();

  // Reads bytes [offset, offset + out.size()) of an object into `out`, from memory or disk where they are, else
  // from `origin`, which is asked once however many threads wait. What of `out` lies behind the bytes returned may
  // have been written to, too. An empty `out` asks for size and metadata only.
  // Only the origin's error is the caller's, but for ETIMEDOUT; ESTALE when the origin gives the object another
  // size than the cache knows for this version; ENOMEM.
  ReadResult read(std::string_view key, std::string_view version, uint64_t offset, std::span<std::byte> out,
                  Origin origin, const ReadOptions& options = {});
  // Size and metadata of an object whose first block is cached; ENOENT otherwise. The origin is not asked.
  ReadResult describe(std::string_view key, std::string_view version);
  // Holds the block with the byte at `offset` open for who moves the bytes himself: at most `length` of them, never
  // more than the block has. Counts as a hit and as use. Their checksums are compared now unless that was done
  // before in this process, but for Verify::Never; what becomes of them on disk afterwards is not noticed. ENOENT
  // when the block is not cached, can't be read or is damaged: read() gets the bytes then, and mends it. EINVAL for
  // an offset that no object has. The origin is not asked.
  PinnedBlock pin(std::string_view key, std::string_view version, uint64_t offset,
                  uint64_t length = UINT64_MAX);
  // Forgets an object's blocks up to `objectSize`; those staged stay.
  void drop(std::string_view key, std::string_view version, uint64_t objectSize);

  // Returns when the object is durable on disk, in the place that pruning leaves alone; it can be read at once.
  // Success when it is staged already and can be read: what of it is damaged is written again, and one that only waits
  // for its release is staged anew. On an error (ENOSPC, those of the disk; EBUSY: a volume is moved) nothing of it is
  // left, but one that was staged before stays, damaged as it was; EIO, too, while some of it can't be read, maybe for
  // want of descriptors; ESTALE: it is staged with another size.
  CZuError stage(std::string_view key, std::string_view version, std::span<const std::byte> bytes,
                 const Metadata& metadata = {});
  // Gives a staged object up: once this has returned success no upload of it is handed out, also after a kill or a
  // power cut, and its blocks are gone. An upload under way is not waited for; what it still reads is ENOENT, and how it
  // ends counts no more. So that it does not end at the store after this, the Upload and who calls this have to
  // share a lock. ENOENT when it is not staged, or no longer. After the disk's errors it is staged as before,
  // unless only making its end durable failed.
  CZuError discardStaged(std::string_view key, std::string_view version);
  // What is staged, of one key or of all, the oldest first. The objects live until close().
  std::vector<std::shared_ptr<const StagedObject>> stagedObjects(std::optional<std::string_view> key = {});
  // Starts `parallel` workers that hand each staged object, oldest first, to `upload` and then make it prunable.
  // One that fails is tried again after 1 s, 2 s, ... up to 64 s. With 0 workers: one pass in this thread over those
  // that are due; the first error of an upload is returned. EALREADY when workers run.
  CZuError flush(Upload upload, unsigned parallel);
  StagedStatus staged();
  // Waits until nothing is staged; false when `deadline` came first.
  bool drained(std::chrono::steady_clock::time_point deadline);

  // Another bound, as ObjectCacheOptions::maxBytes, until close(); blocks beyond it are given up before this returns.
  // Mode Random has none: it does nothing there.
  void setMaxBytes(uint64_t bytes);

  // Moves a volume to another directory, which is made if missing, and returns when that has ended; everything but
  // stage() goes on meanwhile. From then on the volume is known by `destination`, also to the next open(), which
  // refuses the old directory. What is left there is of no use: remove it. A kill in between leaves a root that open()
  // refuses: finish with "diskcachectl migrate". After an error the volume is where it was: EBUSY: something is staged,
  // or another volume is moved; ENOENT: it is none, or not there; EINVAL: a destination that no volume may have, or in
  // a volume, or a link or device among the volume's files; ENOTEMPTY: files lie at the destination; those of the
  // disks, also of the source, which is written to (EROFS). EIO may also say that the destination's disk went as the
  // move ended: what the volume held are misses then.
  CZuError moveVolume(const std::string& volume, const std::string& destination);

  ObjectCacheMetrics metrics();
  // Appends the metrics in Prometheus' text format, every name with the prefix "diskcache_client_", and once
  // open() was called the engine's (DiskCache::renderMetrics).
  void renderMetrics(std::string& out);

 private:
  struct State;
  const std::unique_ptr<State> m_state;
};

}  // namespace ObjectStore
