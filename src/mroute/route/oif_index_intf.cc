#include "mroute/route/oif_index_intf.h"

#include <ostream>
#include <sstream>

#include "mroute/entity/kiv/text_form.h"

namespace Brume::Multicast::Fib {

std::string OifIndexIntf::brumeString() const {
  std::ostringstream os;
  os << "OifIndex " << key_ << " Intf " << intf_ << " RC: " << refCount_;
  return os.str();
}

size_t OifIndexIntf::hash() const {
  return (key_.hash() * 31 + std::hash<Orvet::IntfId>()(intf_)) * 31 + refCount_;
}

void OifIndexIntf::write(RecordWriter& out) const {
  out.u16(key_.value());
  out.u64(intf_.value());
  out.u32(refCount_);
}

OifIndexIntf OifIndexIntf::read(RecordReader& in) {
  OifIndex key(in.u16());
  Orvet::IntfId intf = Orvet::IntfId::fromValue(in.u64());
  uint32_t refCount = in.u32();
  return OifIndexIntf(key, intf, refCount);
}

OifIndexIntf OifIndexIntf::read(std::span<const uint8_t> bytes) {
  RecordReader in(bytes);
  return read(in);
}

OifIndexIntf OifIndexIntf::fromText(std::string_view text) {
  Kiv::ValueReader reader(text, kTypeName);
  auto key = reader.field<OifIndex>("key");
  auto intf = reader.field<Orvet::IntfId>("intf");
  auto refCount = reader.field<uint32_t>("refCount");
  reader.end();
  return OifIndexIntf(key, intf, refCount);
}

std::ostream& operator<<(std::ostream& os, const OifIndexIntf& v) {
  Kiv::ValueWriter(os, OifIndexIntf::kTypeName)
      .field("key", v.key())
      .field("intf", v.intf())
      .field("refCount", v.refCount())
      .end();
  return os;
}

}  // namespace Brume::Multicast::Fib
