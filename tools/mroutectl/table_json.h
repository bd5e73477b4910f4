// JSON forms shared by the table subcommands (schema in the README).
#pragma once

#include <nlohmann/json.hpp>

#include <string>

#include "mroute/table/survey/table_survey.h"
#include "mroute/table/survey/value_codec.h"

namespace Mroutectl {

using Json = nlohmann::ordered_json;

// One line of JSON. Text read from a table or an entity may hold bytes that
// are not UTF-8 (a damaged file, a peer's bytes): they print as U+FFFD
// instead of failing the whole report.
inline std::string jsonText(const Json& j) {
  return j.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// A table's summary and health.
Json statJson(const Brume::Survey::TableStat& s);

// One entry: {"slot", "key", "text"} (and "bytes" in hex when its type has
// no codec).
Json entryJson(const Brume::Survey::ValueCodec* codec, const Brume::Survey::StoredEntry& e);

}  // namespace Mroutectl
