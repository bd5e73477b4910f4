// The rows of the bit-index allocator's two shared tables, read straight
// from their files (read-only), for `mroutectl bitmap`.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "mroute/bitmapper/records.h"
#include "mroute/table/shm/root_path.h"

namespace Mroutectl {

// The table names under an allocator's mount path.
inline constexpr const char* kBitIndexMapName = "bitIndexMap";
inline constexpr const char* kWaitlistMapName = "waitlistMap";

// Every row, sorted by key. False with *error set (one line) when the table
// cannot be read or is damaged.
bool readRows(const Mem::RootPath& root, std::vector<BitMapper::BitIndexMap>* rows, std::string* error);
bool readRows(const Mem::RootPath& root, std::vector<BitMapper::WaitlistMap>* rows, std::string* error);

}  // namespace Mroutectl
