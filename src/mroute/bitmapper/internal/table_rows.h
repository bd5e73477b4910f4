// Walking a shared table that the allocator writes, one row at a time.
//
// Rows come by value in the table's own order, so the walker may change the
// table between two steps (deleting the row it stands on included, once it
// has the next one). A Pavo::CorruptionDetectedException met on the way is
// handed to the table's own corruption handling with its message and ends
// the walk, as if the table had no further rows.
//
// Thread-safety: the event loop of the table's writer front.
#pragma once

#include <optional>
#include <string>

#include "mroute/kivbrume/kiv_brume_map.h"
#include "mroute/runtime/error.h"
#include "mroute/table/brume_map_base.h"

namespace BitMapper::internal {

// What a reader does on finding a table corrupt: leaves the finding in the
// table's "corruption-detected" marker, which sends the writer front's
// mounter to validate the table on the event loop (and raise to the owner
// when it fails).
void corruptionDetected(const Brume::BrumeMapBase& front, const std::string& what);

// The first row (prev null) or the row after *prev; nullopt at the end, for
// a table that is not mounted as writer, and after a corruption report.
template <class K, class V>
std::optional<V> tableRow(KivBrume::KivBrumeMap<K, V>& table, const K* prev) {
  auto* front = table.front();
  if (front == nullptr || front->writer() == nullptr) return std::nullopt;
  try {
    const auto* s = prev == nullptr ? front->writer()->first() : front->writer()->next(*prev);
    return s != nullptr ? std::optional<V>(s->value) : std::nullopt;
  } catch (const Pavo::CorruptionDetectedException& e) {
    corruptionDetected(*front, e.what());
    return std::nullopt;
  }
}

template <class K, class V>
std::optional<V> firstRow(KivBrume::KivBrumeMap<K, V>& table) {
  return tableRow<K, V>(table, nullptr);
}

template <class K, class V>
std::optional<V> rowAfter(KivBrume::KivBrumeMap<K, V>& table, const K& key) {
  return tableRow<K, V>(table, &key);
}

}  // namespace BitMapper::internal
