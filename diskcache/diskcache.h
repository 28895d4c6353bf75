// A local, size-bounded disk cache of an object store's segments.
//
// A segment is a file of typed sections, named by its identifier, on one of several directories ("volumes").
// A client makes one DiskCache, calls init() once, registers a DiskCacheContext for each of its directory
// trees and then creates, reads, writes and deletes segments. The engine owns its threads, locks and files;
// buffers, contexts and identifiers stay the caller's.
//
// Threads: init() and the destructor run alone; in between any thread may call any operation. Work that
// changes one segment is serialised by that segment's lock; readers take none and see what the file holds at
// that moment. Sections are overwritten in place beside each other; who appends, truncates, copies or moves
// waits for those who came before, and who comes later waits for it. OpenSegmentInfo tells what becomes of a
// lock that the caller holds meanwhile. Operations that write may make their caller wait up to a second while
// the cache is over its high watermark (create, write, markDirty, moveToPrunable).
//
// Errors: segment operations return a CZuError that carries a system error number; volume operations return
// that number as an int, 0 for success. Every failure is logged where it is found. Nothing done before one is
// undone unless said otherwise. In every segment operation an identifier that could leave its directory is
// EINVAL (see guid_t), a volume that is not known holds no segment and takes none (ENOENT), and failed memory
// is ENOMEM. An operation says where one leaves a descriptor open for the life of the process.
//
// The recency list: createSegment, writeSections, replaceSegment, truncateSection, syncSegment, markDirty,
// moveToPrunable, readAllSections and readCompleteSection touch a segment before anything else, readSections
// on demand; no other does unasked. A touch enters a segment that the list does not know, so a miss does too
// and may push another one out; in mode Lru, where the list is full, it asks the client about the oldest and
// fails with ENOSPC when that is refused. A failure afterwards leaves the entry, and so does deleteSegment.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "diskcache/diskcacheTypes.h"
#include "support/error.h"
#include "support/export.h"

namespace ObjectStore {

struct DiskCacheState;

class DISKCACHE_EXPORT DiskCache {
 public:
  explicit DiskCache(PersistentVolumes persistent);
  // Stops and joins the migrator's and the pruner's threads; a migration cut short ends as failed (EINTR).
  // Segments still open are not closed.
  ~DiskCache();
  DiskCache(DiskCache&&) = delete;

  // ---- Set-up -----------------------------------------------------------------------------------------
  // Brings the engine into service on a root directory (for its own files, made if missing) and volumes.
  // Watermarks are in percent of all volumes' capacity, in no checked range or order. `maxLruEntries` bounds
  // the recency list, at least 5. PruningMode tells what is started and given up; docs/operations.md how to
  // choose the bounds. A migration left by a killed process is resumed, and `migrationCallback` (may be null)
  // told its end. Errors: those of the failing step (EINVAL for a volume name that the volume file cannot
  // hold, for a thread that cannot be had or a "migrate" file that makes no sense, ENOSPC for no index left,
  // those of the system). Steps done before a failure stay done. The root directory is locked for other
  // engines (flock) until this one is destroyed; one that finds it locked says so in the log and goes on.
  CZuError init(const std::string& rootDir, const std::vector<std::string>& volumeDirs, int highWM, int lowWM,
                int alarmWM, uint64_t maxLruEntries, MigrationCB migrationCallback, PruningMode mode);
  // Whether another engine, of this process or another, held the root directory at init(): two on the same
  // volumes account for space wrongly and undo each other's work.
  bool isRootShared() const;
  // Removes every segment and everything else below the volumes. The volumes' own directories stay, with
  // owner and mode; one that is missing is made. Open segments, the recency list, contexts and the segment
  // count stay. A migration is ended first, as by the destructor: hold no segment's lock. On an error the
  // volumes of higher index are untouched; ENOTEMPTY when other threads go on filling a volume for long.
  CZuError clearCache();
  // Adds a reference to the directory `ctx.dir`; the first registration's callback is the one that counts.
  // With one volume, sets ctx.volume. While registered, ctx.nonprunableDir is left alone by the pruner also
  // where it lies in a registered directory. Always succeeds but for memory.
  CZuError registerContext(DiskCacheContext& ctx);
  // Takes the reference away; ENOENT when ctx.dir is not registered. When it was the last one, the callback
  // does not run any more on return and is not called until the directory is registered again: one that runs
  // on another thread is waited for, so hold no lock that it takes; on its own thread it is not.
  CZuError unregisterContext(DiskCacheContext& ctx);
  // The callback registered for a directory; ENOENT when there is none.
  CZuError findPrunerCallback(const std::string& dir, PrunerCallback& out);

  // ---- Creating, writing, deleting --------------------------------------------------------------------
  // Section tells what may be written (EINVAL, EFBIG), guid_t how a new segment may be named (EINVAL,
  // ENAMETOOLONG). No room is ENOSPC, whichever write found none; each counts in "DC.errOutOfSpace", and in
  // mode Random the pruner is woken. It gives up segments only when the cache is over its high watermark:
  // keep that below 95 %, where volumes begin to refuse new segments. A link, FIFO or device in a segment's
  // place is an error, here and in reading, and is left as it is, but by replaceSegment and deleteSegment.

  // Makes a new segment of these sections, on the next volume with room, and stores that volume in
  // ctx.volume: give each call that may run beside another a context object of its own, also a callback.
  // `sync`: on disk on return. `nonPrune`: in the non-prunable directory, when the context has one. `spare`
  // is not used. EEXIST when anything is at the segment's path, in either of its places when the context has
  // two. A failure may leave a partly written file behind: delete the segment before creating it again. So
  // may a kill, and that file reads back with success, sections empty or missing, as the header points at a
  // record before it is there; doesSegmentExist finds it. A last section that proves the others (a magic
  // number, a checksum) tells a whole segment from such a one.
  CZuError createSegment(DiskCacheContext& ctx, const guid_t& guid, const std::vector<Section>& sections,
                         bool sync, bool nonPrune, bool spare);
  // Writes into a segment that is there (else ENOENT): in place where it has the section, appended where it
  // has not. A section grows when written beyond its end, which overwrites a record behind it: extend only
  // the last one. EINVAL when the stored sub-type differs, with the data already written.
  CZuError writeSections(const DiskCacheContext& ctx, const guid_t& guid,
                         const std::vector<Section>& sections, bool sync, ForceDiskLoc force);
  // Replaces a segment whole by way of a temporary file: a reader sees the old or the new. Not synced, and
  // the space counters do not change.
  CZuError replaceSegment(const DiskCacheContext& ctx, const guid_t& guid,
                          const std::vector<Section>& sections);
  // Makes the section of `type`, the last of the file (else EEXIST), `size` bytes long and of sub-type `sub`.
  // A size that is refused (EINVAL, EFBIG) leaves the section as it was. "Last" looks at types 0 to 4 only: a
  // section of type 5 behind it is cut off or overwritten, and one of type 5 itself is never the last. EEXIST
  // leaves the descriptor open: know the order of your sections. Do not call it with a size above 0 for a
  // section that is not there: the record front then lands on the header and the segment is lost to readers.
  // The space counters do not change.
  CZuError truncateSection(const DiskCacheContext& ctx, guid_t guid, int32_t type, int32_t sub,
                           uint64_t size);
  // Flushes the segment's copies to disk; ENOENT only when a context with two places has neither.
  CZuError syncSegment(const DiskCacheContext& ctx, const guid_t& guid);
  // Removes the segment's copies, or moves them to the volume's directory "recycle". `nonPrun` leaves the
  // regular copy alone, `prun` the non-prunable one. A missing copy is success.
  CZuError deleteSegment(const DiskCacheContext& ctx, const guid_t& guid, bool nonPrun, bool prun,
                         Recycle recycle);
  // Grants every request.
  bool checkAccess(const DiskCacheContext& ctx, const guid_t& guid, const unsigned int& mode,
                   void* const& arg);

  // ---- Reading ----------------------------------------------------------------------------------------
  // ENOENT when the segment is not cached, EINVAL when its file is damaged, EIO when it is cut within its
  // header, the number 0 when it is cut within a payload. A read beside a createSegment or writeSections of
  // the same segment may return fewer bytes or sections with success, or some old and some new bytes; one
  // beside replaceSegment never does.

  // Fills each section from `off` of the stored section of its type, at most `bufferSize` bytes, and sets
  // `len` to the bytes read. A section that is not there gets len 0 and status 2, and is no error; one whose
  // record's front cannot be read gets len 0 as well, and no status: clear `status` before each call.
  // `updateLru`: the segment counts as used. The descriptor stays open when the record found is of another
  // type (EINVAL): a damaged file, to be deleted.
  CZuError readSections(const DiskCacheContext& ctx, const guid_t& guid, std::vector<Section>& sections,
                        bool updateLru);
  // Reads every section, in file order, into `sections`, which must be empty (EINVAL). A section cut within
  // its front ends the list early with success; a section of length 0 is an error.
  CZuError readAllSections(const DiskCacheContext& ctx, const guid_t& guid, std::vector<SectionV>& sections);
  // Reads one section whole; ENOENT when the segment has none of this type. That leaves the descriptor open,
  // and so does a type that none can have or a record of another type (EINVAL): ask getSectionSize first,
  // which closes it always, or use readSections.
  CZuError readCompleteSection(const DiskCacheContext& ctx, const guid_t& guid, int32_t type,
                               std::vector<unsigned char>& data);
  // The stored length of a section in bytes; ENOENT when there is none of this type.
  CZuError getSectionSize(uint64_t& size, const DiskCacheContext& ctx, const guid_t& guid, int32_t type,
                          int32_t sub);
  bool doesSegmentExist(const DiskCacheContext& ctx, const guid_t& guid);

  // ---- For clients with a way of their own to the bytes ------------------------------------------------
  // Only giveUpOldest calls the client back, only openSection works on a file; none counts in Stats.

  // Opens a segment for reading (O_CLOEXEC) and sets each place to where the stored section of its type lies,
  // for pread, sendfile or mmap. A segment of a payload and a last section that fits into its place's `data`
  // is opened in three calls. On success the descriptor in `fd` is the caller's to close; on failure it is
  // -1. The recency list is not touched. A section that is not there gets `found` false and is no error.
  // ENOENT when the segment is not cached (no error line: a client may ask so), EINVAL for a damaged file or
  // none that is regular, ELOOP for a link, EIO for one cut within its header or a record's front.
  CZuError openSection(int& fd, std::vector<SectionPlace>& places, const DiskCacheContext& ctx,
                       const guid_t& guid);
  // Makes a segment that the recency list knows the most recently used one; false when it knows none.
  bool touch(const guid_t& guid);
  // On which volume the recency list knows a segment; false, and `volume` as it was, when it knows none.
  bool findVolume(const guid_t& guid, VolIndex& volume);
  // Enters a segment on ctx.volume as the most recently used one, as creating it does: a known one keeps its
  // volume. For segments that the start-up scan did not see. ENOSPC when a full list could not make room.
  CZuError remember(const DiskCacheContext& ctx, const guid_t& guid);
  void countFound(uint64_t segments);  // such segments, for renderMetrics
  // Takes a segment out of the recency list; its file stays.
  void forget(const guid_t& guid);
  // Asks the callbacks about the `n` least recently used segments, oldest first, as a full list does in mode
  // Lru: the list's lock is held while one decides. `given` counts those given up, which leave the list. The
  // first refusal ends it with ENOSPC: that segment becomes the most recently used one, so the next call asks
  // about the next-oldest. Fewer than `n` are success when the list is empty. ENOSPC within a callback.
  CZuError giveUpOldest(uint64_t n, uint64_t& given);

  // ---- Override copies --------------------------------------------------------------------------------
  // A copy in the context's non-prunable directory overrides the one in its own, and pruning leaves it alone.

  // Makes sure that the segment has one, by copying or, with `move`, by renaming. Nothing to copy is success.
  CZuError markDirty(const DiskCacheContext& ctx, const guid_t& guid, bool move);
  // Gives the protection up: the copy replaces the one in the context's own directory.
  CZuError moveToPrunable(const DiskCacheContext& ctx, const guid_t& guid);
  // What markDirty does but for the recency list, for a caller that serialises access to the segment itself:
  // with the segment's lock (segInfoFromHandle) where its volume may be migrated meanwhile.
  CZuError copyOverrideSegment(const DiskCacheContext& ctx, const guid_t& guid, bool move);
  // The path of the copy to use; "" for an identifier that is refused or a volume that is not known.
  std::string getOverriddenSegment(const DiskCacheContext& ctx, const guid_t& guid);
  CZuError setSparseFileAttribute(const DiskCacheContext& ctx, const guid_t& guid);  // does nothing

  // ---- Keeping a segment open -------------------------------------------------------------------------
  // An open segment is left alone by the pruner. A descriptor is 1 to 4294967294; 0 means failure.
  unsigned openSegment(guid_t guid);
  void closeSegment(unsigned desc);
  bool IsSegmentOpened(guid_t guid);
  // By position in the table; ENOMEM, or EINVAL when the table refuses the entry.
  CZuError openSegment(SegmentHandle& handle, guid_t guid);
  void closeSegment(SegmentHandle handle);
  OpenSegmentInfo* segInfoFromHandle(const SegmentHandle& handle);

  // ---- Volumes ----------------------------------------------------------------------------------------
  // Directories compare byte for byte. Results: 0 or a system error number. ENOMEM from addVolume,
  // removeVolume and enableNewSegments leaves the volumes and "volume_info" as they were.
  //
  // addVolume and removeVolume put the other volumes into the rotation, and count their space, once more:
  // call refreshCacheUtilizationData after each. removeVolume and disableNewSegments take one place of a
  // volume out: where it has several, new segments go on coming to it. docs/operations.md tells how to stop
  // that.
  int addVolume(const std::string& dir);
  // Stops using a volume; it keeps its index. Every other known volume is enabled, also one that was
  // disabled. ENOENT for a directory that is not known.
  int removeVolume(const std::string& dir);
  // Forgets all volumes; "volume_info" stays as it is.
  int removeAllVolumes();
  // Whether new segments may go to a volume; ENOENT for a directory that is not known.
  int disableNewSegments(const std::string& dir);
  int enableNewSegments(const std::string& dir);
  // Appends a copy of every volume's record, in order of index.
  void getVolumeStats(std::vector<Volume>& out);
  // Measures every enabled volume and sets the space counters by it; 0. Between two measurements they drift
  // (docs/operations.md tells by what). The pruner measures whenever it wakes, at least every
  // "DiskCachePrunerTimeout" minutes; in mode Lru nobody does: call it now and then if watermarks matter there.
  int refreshCacheUtilizationData();
  // Copies a volume's directories to a new place with four threads and then points the volume there. Returns
  // when the threads run, which waits for the work on segments that is under way: hold no segment's lock. 0,
  // EEXIST while a migration runs, EINVAL before init() and where that could not resume one, for arguments that
  // make no sense or when the file "migrate" cannot be written, or the number for a source that cannot be listed:
  // then "migrate" stays and fails the next init() too, until it is removed. docs/operations.md tells what is left.
  int migrate(VolIndex vol, const std::string& source, const std::string& destination);

  // ---- Watching and steering --------------------------------------------------------------------------
  bool isOverLowWatermark();
  bool isOverHighWatermark();
  bool isOverAlarmWatermark();
  // Percent; in no checked range or order. Always succeeds.
  CZuError updateWatermarks(int high, int low, int alarm);
  CZuError getCurrentWatermarks(int& high, int& low, int& alarm);
  // While set, createSegment fails with ENOSPC: exercises a client's handling of a full cache.
  void setOutOfSpace(bool flag);
  // Sets the keys "DC.PruningMode", "DC.HighWM", ... (docs/operations.md) in `out`; sizes in bytes.
  void getStatus(std::map<std::string, std::string>& out);
  // Sets "DC.numPruned", "DC.delayMs" and "DC.errOutOfSpace"; reading resets nothing.
  void getCounters(std::map<std::string, std::string>& out);
  // Appends these and more (docs/operations.md) in Prometheus' text format; names begin with "diskcache_".
  void renderMetrics(std::string& out);
  // The directory part of an identifier ("abcdef" gives "ab/cd") and a segment's full path.
  static std::string guid2dir(const guid_t& guid);
  std::string guid2path(const guid_t& guid, VolIndex volume, const std::string& dir);

 private:
  friend struct DiskCacheTestAccess;

  const std::unique_ptr<DiskCacheState> m_state;
};

// Flushes one file to disk; a missing one is ENOENT and logged at level 5 only.
DISKCACHE_EXPORT CZuError syncFname(const std::string& path);

}  // namespace ObjectStore
