// What the log calls the steps that the engine's operations share: whoever reads it knows them as operations
// of the engine, whichever component takes them.
//
// Internal.
#pragma once

#include "support/error.h"

// The place of a step's line: DC_LOG_AT(DC_STEP(loadVolumeInfo), level, ...).
#define DC_STEP(step) (::ObjectStore::RMCodeLocation{__FILE__, ::ObjectStore::engineStep::step, __LINE__})

namespace ObjectStore::engineStep {

inline constexpr const char* autoOpenSegment =
    "ObjectStore::AutoOpenSegment::AutoOpenSegment(ObjectStore::DiskCache&, const ObjectStore::guid_t&)";
inline constexpr const char* delayWriteToSegment = "void ObjectStore::DiskCache::delayWriteToSegment()";
inline constexpr const char* addToLru =
    "ObjectStore::CZuError ObjectStore::DiskcacheLRU::addToLru(const guid_t&, ObjectStore::VolIndex, const "
    "std::string&)";
inline constexpr const char* addVolume = "int ObjectStore::DiskCache::addVolume(const std::string&)";
inline constexpr const char* clearCache = "ObjectStore::CZuError ObjectStore::DiskCache::clearCache()";
inline constexpr const char* disableNewSegments =
    "int ObjectStore::DiskCache::disableNewSegments(const std::string&)";
inline constexpr const char* enableNewSegments =
    "int ObjectStore::DiskCache::enableNewSegments(const std::string&)";
inline constexpr const char* getNextVolWithSpace =
    "ObjectStore::VolIndex ObjectStore::DiskCache::getNextVolWithSpace()";
inline constexpr const char* initVolumes =
    "int ObjectStore::DiskCache::initVolumes(const std::vector<std::__cxx11::basic_string<char> >&)";
inline constexpr const char* loadVolumeInfo = "int ObjectStore::DiskCache::loadVolumeInfo()";
inline constexpr const char* refreshCacheUtilizationData =
    "int ObjectStore::DiskCache::refreshCacheUtilizationData()";
inline constexpr const char* removeAllVolumes = "int ObjectStore::DiskCache::removeAllVolumes()";
inline constexpr const char* removeVolume = "int ObjectStore::DiskCache::removeVolume(const std::string&)";
inline constexpr const char* saveVolumeInfo = "int ObjectStore::DiskCache::saveVolumeInfo()";
inline constexpr const char* appendSection =
    "ObjectStore::CZuError ObjectStore::DiskCache::appendSection(int, ObjectStore::VolIndex, const "
    "ObjectStore::Section&)";
inline constexpr const char* findSection =
    "ObjectStore::CZuError ObjectStore::DiskCache::findSection(bool*, uint64_t*, int, const "
    "ObjectStore::SegmentHeader&)";
inline constexpr const char* modifySection =
    "ObjectStore::CZuError ObjectStore::DiskCache::modifySection(int, const ObjectStore::Section&, "
    "uint64_t, ObjectStore::KxCriticalSection&)";
inline constexpr const char* readSegmentHeader =
    "ObjectStore::CZuError ObjectStore::DiskCache::readSegmentHeader(ObjectStore::SegmentHeader&, int)";
inline constexpr const char* readSegmentHeaderFromStream =
    "ObjectStore::CZuError ObjectStore::DiskCache::readSegmentHeader(ObjectStore::SegmentHeader&, FILE*)";
inline constexpr const char* writeSegmentHeader =
    "ObjectStore::CZuError ObjectStore::DiskCache::writeSegmentHeader(int)";
inline constexpr const char* writeSegmentHeaderToStream =
    "ObjectStore::CZuError ObjectStore::DiskCache::writeSegmentHeader(FILE*)";
inline constexpr const char* scanDirForSegments =
    "int ObjectStore::DiskCache::scanDirForSegments(const std::string&, ObjectStore::VolIndex, "
    "const std::string&)";
inline constexpr const char* scanSegmentsIntoLru =
    "ObjectStore::CZuError ObjectStore::DiskCache::scanSegmentsIntoLru()";
inline constexpr const char* copyOverrideSegment =
    "ObjectStore::CZuError ObjectStore::DiskCache::copyOverrideSegment(const "
    "ObjectStore::DiskCacheContext&, const ObjectStore::guid_t&, bool)";
inline constexpr const char* deleteSegmentInternal =
    "ObjectStore::CZuError ObjectStore::DiskCache::deleteSegmentInternal(const std::string&)";

}  // namespace ObjectStore::engineStep
