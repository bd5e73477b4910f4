#include "mroute/route/route.h"

#include <ostream>
#include <sstream>

#include "mroute/entity/kiv/text_form.h"

namespace Brume::Multicast::Fib {
namespace {

constexpr std::string_view kBitmapNames[OifBitmap::kWords] = {"oifBitmap1", "oifBitmap2", "oifBitmap3",
                                                              "oifBitmap4", "oifBitmap5", "oifBitmap6",
                                                              "oifBitmap7", "oifBitmap8"};

// The route difference keeps an interface only where the two routes disagree,
// preferring the side that has one.
Orvet::IntfId differing(Orvet::IntfId mine, Orvet::IntfId theirs) {
  if (mine == theirs) return Orvet::IntfId();
  return mine.isNull() ? theirs : mine;
}

Orvet::IntfId masked(Orvet::IntfId mask, Orvet::IntfId theirs) {
  return mask.isNull() ? Orvet::IntfId() : theirs;
}

}  // namespace

std::string Route::brumeString() const {
  std::ostringstream os;
  os << "[" << key_.pretty() << "] F 0x" << std::hex << routeFlags_.value() << " 0x" << iifFlags_.value()
     << std::dec << " I " << iif_ << " N " << notify_ << " S " << fastdrop_ << " F " << iifFrr_ << " O";
  for (unsigned w = OifBitmap::kWords; w-- > 0;) {
    os << " 0x" << std::hex << oifBitmap_.word(static_cast<uint8_t>(w));
  }
  os << std::dec << " max " << maxOifIndex_ << " ver " << version_ << " priority " << routePriority_;
  return os.str();
}

Route Route::operator^(const Route& other) const {
  Route r(key_);
  for (uint8_t w = 0; w < OifBitmap::kWords; ++w)
    r.oifBitmap_.wordIs(w, oifBitmap_.word(w) ^ other.oifBitmap_.word(w));
  // Both words are in range, so their exclusive or is too.
  r.routeFlags_ = RouteFlags(routeFlags_.value() ^ other.routeFlags_.value());
  r.iifFlags_ = IifFlags(iifFlags_.value() ^ other.iifFlags_.value());
  r.iif_ = differing(iif_, other.iif_);
  r.notify_ = differing(notify_, other.notify_);
  r.fastdrop_ = differing(fastdrop_, other.fastdrop_);
  r.iifFrr_ = differing(iifFrr_, other.iifFrr_);
  r.maxOifIndex_ = OifIndex(511);
  return r;
}

Route Route::operator&(const Route& other) const {
  Route r(key_);
  for (uint8_t w = 0; w < OifBitmap::kWords; ++w)
    r.oifBitmap_.wordIs(w, oifBitmap_.word(w) & other.oifBitmap_.word(w));
  r.iif_ = masked(iif_, other.iif_);
  if (!iif_.isNull()) r.iifFlags_ = other.iifFlags_;
  r.notify_ = masked(notify_, other.notify_);
  r.fastdrop_ = masked(fastdrop_, other.fastdrop_);
  r.iifFrr_ = masked(iifFrr_, other.iifFrr_);
  r.routeFlags_ = other.routeFlags_;
  r.version_ = other.version_;
  r.maxOifIndex_ = OifIndex(511);
  return r;
}

Route Route::fromText(std::string_view text) {
  Kiv::ValueReader reader(text, kTypeName);
  Route r(reader.field<IpGenRouteKey>("key"));
  r.iif_ = reader.field<Orvet::IntfId>("iif");
  r.iifFrr_ = reader.field<Orvet::IntfId>("iifFrr");
  r.notify_ = reader.field<Orvet::IntfId>("notify");
  r.fastdrop_ = reader.field<Orvet::IntfId>("fastdrop");
  r.notifyProgrammable_ = reader.field<bool>("notifyProgrammable");
  r.routeFlags_ = reader.field<RouteFlags>("routeFlags");
  r.iifFlags_ = reader.field<IifFlags>("iifFlags");
  r.rpaId_ = reader.field<RpaIndex>("rpaId");
  r.maxOifIndex_ = reader.field<OifIndex>("maxOifIndex");
  r.routePriority_ = reader.field<RoutePriority>("routePriority");
  r.version_ = reader.field<uint32_t>("version");
  for (uint8_t w = 0; w < OifBitmap::kWords; ++w)
    r.oifBitmap_.wordIs(w, reader.field<uint64_t>(kBitmapNames[w]));
  reader.end();
  return r;
}

std::ostream& operator<<(std::ostream& os, const Route& route) {
  Kiv::ValueWriter writer(os, Route::kTypeName);
  writer.field("key", route.key())
      .field("iif", route.iif())
      .field("iifFrr", route.iifFrr())
      .field("notify", route.notify())
      .field("fastdrop", route.fastdrop())
      .field("notifyProgrammable", route.notifyProgrammable())
      .field("routeFlags", route.routeFlags())
      .field("iifFlags", route.iifFlags())
      .field("rpaId", route.rpaId())
      .field("maxOifIndex", route.maxOifIndex())
      .field("routePriority", route.routePriority())
      .field("version", route.version());
  for (uint8_t w = 0; w < OifBitmap::kWords; ++w) writer.field(kBitmapNames[w], route.oifBitmap(w));
  writer.end();
  return os;
}

}  // namespace Brume::Multicast::Fib
