#include "mroute/entity/replication/wire.h"

namespace Kiv::NboAttrLog {

const char* recordTypeName(RecordType t) {
  switch (t) {
    case RecordType::hello: return "hello";
    case RecordType::attr: return "attr";
    case RecordType::member: return "member";
    case RecordType::transaction: return "transaction";
    case RecordType::orphan: return "orphan";
    case RecordType::bookmark: return "bookmark";
    case RecordType::answer: return "answer";
    case RecordType::synced: return "synced";
  }
  return "unknown";
}

}  // namespace Kiv::NboAttrLog
