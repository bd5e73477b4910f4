// Looking at shared-memory tables from outside: find them under a root,
// summarise one from its file headers, check its files deeply, and read its
// entries. Everything here is read-only: no file is written, no lock is
// taken and the writer is never disturbed, so an operator may survey a live
// table at any time.
//
// Tables are named "<mount path>/<name>" relative to the shared-memory root
// (shm_root.h), e.g. "routing/multicast/fib/route".
//
// Thread-safety: stateless functions; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mroute/table/shm/root_path.h"

namespace Brume::Survey {

// Why a table could not be looked at. Callers map these to their own
// reports (mroutectl: exit codes).
enum class Problem {
  none,
  badName,   // not "<mount path>/<name>", or a path that leaves the root
  notFound,  // no root directory, or no table directory with a slot file
  damaged,   // the files are there but fail their checks
};

// Every table directory (one holding a slot file) under `rootDir`, as
// "<mount path>/<name>", sorted. Empty when `rootDir` is not a directory.
std::vector<std::string> listTables(const std::string& rootDir);

// "" when the shared-memory root is a readable directory; otherwise one line
// saying what is wrong with it and where its path came from.
std::string rootProblem();

// The directory of `table` after the path checks of shm_root.h. Nothing,
// with *problem and *error (one line in the operator's words, naming the
// likely cause) set, when `table` is not a table name or has no slot file.
std::optional<Mem::RootPath> locateTable(const std::string& table, Problem* problem, std::string* error);

// Health of a table and its queue as its files show them.
struct TableStat {
  std::string table;
  std::string dir;
  bool readable = false;  // the slot file's header could be read
  std::string valueType;
  std::string classType;
  uint32_t valueSize = 0;
  uint32_t capacity = 0;  // slots in the array now
  uint32_t maxSlots = 0;
  uint32_t entries = 0;
  bool fixedCapacity = false;
  bool shrinks = false;
  uint32_t ember = 0;      // of the ember file; 0 when missing
  uint32_t fileEmber = 0;  // of the slot file
  // The process holding the writer lock: 0 none, -1 one answers on the
  // table's socket but its id is unknown.
  long writerPid = 0;
  // Readers connected as the writer last recorded them. A writer that died
  // leaves its last count behind: meaningful only while writerPid != 0.
  uint32_t readers = 0;
  // The notification queue: its current file, the newest sequence in it and
  // the oldest sequence a reader still needs (every reader has acknowledged
  // everything below it); newestSequence - oldestNeeded is the slowest
  // reader's lag.
  std::string queueFile;
  uint32_t queueEntries = 0;
  uint64_t queueCapacity = 0;
  uint64_t newestSequence = 0;
  uint64_t oldestNeeded = 0;
  // A slot-table shrink in progress holds back the queue (the corral).
  bool shrinking = false;
  bool corruptionReported = false;  // a reader left the corruption marker

  // The writer's health file. Its numbers are what the writer (and, for the
  // reader counters, each reader) claimed: displayed, never acted on.
  struct Reader {
    uint32_t pid = 0;
    std::string state;  // "connected", "gone", "dropped" (not acknowledging)
    uint64_t connectedNs = 0;
    uint64_t goneNs = 0;  // 0 while connected
    bool acked = false;
    uint64_t lastAck = 0;
    uint64_t restarts = 0;
    uint64_t lookasideReads = 0;
    uint64_t resyncs = 0;
  };
  struct Health {
    uint32_t writerPid = 0;
    uint64_t compactions = 0;
    uint64_t lastCompactionNs = 0;  // wall clock; 0 never
    uint64_t lastCompactionKept = 0;
    uint64_t corruptionReports = 0;
    uint64_t lastReportNs = 0;
    std::string lastReport;
    uint64_t readersDropped = 0;
    uint32_t unlisted = 0;  // connected readers without a record
    std::vector<Reader> readers;
  };
  std::optional<Health> health;  // none: no health file
  std::string healthProblem;     // why the file could not be read ("" when read)
};

// REQUIRES: `table` is "<mount path>/<name>" (as listTables gives them).
TableStat statTable(const std::string& table);

// The process holding the writer lock of the table in `dir` (see writerPid).
long writerPid(const std::string& dir);

// The deep check of a table's files: every header, then the free list and
// every hash chain (each slot once, counts against the header, each slot's
// key hash when the value type is registered, value_codec.h), and the
// notification queue's entries (ascending sequences, live positions unique).
// The files are copied into private memory first; when a writer runs, a
// copy with findings is taken and checked again (three times in all) before
// they are reported, since a copy taken while it writes can be torn.
// Each finding is one line prefixed with the file it concerns. Empty: sound.
std::vector<std::string> validateTable(const Mem::RootPath& root);

// The first failed header check of the slot and bucket files (every field a
// reader of the entries relies on), or "" when both are sound. Retried like
// validateTable while a writer runs.
std::string headerFinding(const Mem::RootPath& root);

}  // namespace Brume::Survey
