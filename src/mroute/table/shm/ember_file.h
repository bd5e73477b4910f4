// The ember file (the identity of the writer incarnation that formatted a
// table's files) and the "corruption-detected" marker, both in the table's
// root directory.
//
// The ember file holds one u32 in host byte order. Readers validate the slot
// and bucket headers against it, so files of another incarnation are refused.
// The marker holds the text of the finding that made a reader give up; the
// writer removes it after its next successful attach.
//
// Thread-safety: functions over files; any thread.
#pragma once

#include <cstdint>
#include <string>

#include "mroute/table/shm/shm_file.h"
#include "mroute/table/shm/root_path.h"

namespace Brume {

inline constexpr const char* kSlotFileName = "slots";
inline constexpr const char* kBucketFileName = "buckets";
inline constexpr const char* kEmberFileName = "ember";
inline constexpr const char* kCorruptionMarkerName = "corruption-detected";

// This process's incarnation identifier: non-zero, drawn once per process.
uint32_t processEmberId();

// False when the file is missing, unreadable, of the wrong size or holds 0.
bool readEmber(Mem::ShmFs& fs, const Mem::RootPath& root, uint32_t* ember);
// The same for a table directory already resolved (RootPath::dir()).
bool readEmberIn(Mem::ShmFs& fs, const std::string& directory, uint32_t* ember);
bool writeEmber(Mem::ShmFs& fs, const Mem::RootPath& root, uint32_t ember, std::string* error);

// Best effort: a reader that cannot write the marker still raises its error.
void writeCorruptionMarker(Mem::ShmFs& fs, const Mem::RootPath& root, const std::string& finding);
bool removeCorruptionMarker(Mem::ShmFs& fs, const Mem::RootPath& root);
bool corruptionMarkerPresent(Mem::ShmFs& fs, const Mem::RootPath& root);

}  // namespace Brume
