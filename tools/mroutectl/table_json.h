// JSON forms shared by the table subcommands (schema in the README).
#pragma once

#include <nlohmann/json.hpp>

#include "mroute/table/inspect/table_inspect.h"
#include "mroute/table/inspect/value_codec.h"

namespace Mroutectl {

using Json = nlohmann::ordered_json;

// A table's summary and health.
Json statJson(const Brume::Inspect::TableStat& s);

// One entry: {"slot", "key", "text"} (and "bytes" in hex when its type has
// no codec).
Json entryJson(const Brume::Inspect::ValueCodec* codec, const Brume::Inspect::StoredEntry& e);

}  // namespace Mroutectl
