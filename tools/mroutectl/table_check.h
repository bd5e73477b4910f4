// The checks behind `mroutectl validate`: every file's header checks, then
// the deep check the writer runs when it attaches (the free list and every
// hash chain walked, each slot marked once, counts compared with the header,
// each slot's rhash recomputed from its key for route tables), and the
// notification queue's entries (ascending sequences, live positions unique).
//
// Nothing is written. The files are copied into private memory first and the
// checks run on the copy, so a live writer is never disturbed and the deep
// check never follows a link that changes under it. A copy taken while the
// writer is busy can be torn: when a writer is running, a table with findings
// is copied and checked again (three times in all) before they are reported.
//
// Thread-safety: stateless; any thread.
#pragma once

#include <string>
#include <vector>

#include "mroute/table/shm/root_path.h"

namespace Mroutectl {

// Each finding is one line, prefixed with the file it concerns. Empty: sound.
std::vector<std::string> checkTable(const Mem::RootPath& root);

// The first failed header check of the slot and bucket files (every field a
// reader of the entries relies on: sizes, magic, version, ember, checksum
// over the type names and sizes), or empty when both are sound.
std::string headerFinding(const Mem::RootPath& root);

}  // namespace Mroutectl
