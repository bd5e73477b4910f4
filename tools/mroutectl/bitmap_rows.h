// The rows of the bit-index allocator's two shared tables, read straight
// from their files (read-only), for `mroutectl bitmap` and `mroutectl dump`.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "mroute/bitmapper/records.h"
#include "mroute/table/shm/root_path.h"

namespace Mroutectl {

// The table names under an allocator's mount path.
inline constexpr const char* kBitIndexMapName = "bitIndexMap";
inline constexpr const char* kWaitlistMapName = "waitlistMap";

bool isBitMapperRowType(std::string_view valueType);

// Every row, sorted by key. False with *error set (one line) when the table
// cannot be read or is damaged.
bool readRows(const Mem::RootPath& root, std::vector<BitMapper::BitIndexMap>* rows, std::string* error);
bool readRows(const Mem::RootPath& root, std::vector<BitMapper::WaitlistMap>* rows, std::string* error);

// `mroutectl dump` of either table: a count line, then each row's text form.
// REQUIRES: isBitMapperRowType(valueType).
int dumpBitMapperRows(const Mem::RootPath& root, std::string_view valueType, const std::string& table,
                      std::ostream& out, std::ostream& err);

}  // namespace Mroutectl
