#include "mroute/table/engine/internal/slot_file.h"

#include <cstring>
#include <sstream>

#include "mroute/runtime/error.h"
#include "mroute/table/shm/brume_hash.h"
#include "mroute/table/shm/brume_trace.h"

namespace Brume {

namespace {

uint32_t wordHash(uint32_t w) { return bytesHash(&w, sizeof w); }

void copyName(char (&dst)[SlotTable::kTypeNameSize], std::string_view name) {
  std::memset(dst, 0, sizeof dst);
  std::memcpy(dst, name.data(), name.size());
}

}  // namespace

uint32_t SlotTable::Header::computeHash() const {
  return bytesHash(valueType, sizeof valueType) + bytesHash(classType, sizeof classType) + wordHash(valueSize) +
         wordHash(slotSize) + wordHash(maxSlots) + wordHash(config);
}

bool SlotTable::Header::validate(size_t fileSize, uint32_t wantSlotSize, uint32_t expectedEmber,
                                 std::string* why) const {
  return check(fileSize, wantSlotSize, expectedEmber, true, why);
}

bool SlotTable::Header::validateFixed(size_t fileSize, uint32_t wantSlotSize, uint32_t expectedEmber,
                                      std::string* why) const {
  return check(fileSize, wantSlotSize, expectedEmber, false, why);
}

bool SlotTable::Header::check(size_t fileSize, uint32_t wantSlotSize, uint32_t expectedEmber, bool counts,
                              std::string* why) const {
  std::ostringstream os;
  const size_t fixed = fixedSize(wantSlotSize);
  if (fileSize < fixed) {
    os << "SlotTable::Header::validate() bad header file size: " << fileSize << " wanted:" << fixed;
    return validationFailed(why, os);
  }
  if (std::memcmp(magic, kMagic, sizeof kMagic) != 0) {
    uint64_t m;
    std::memcpy(&m, magic, sizeof m);
    os << "SlotTable::Header::validate() bad magic: 0x" << std::hex << m;
    return validationFailed(why, os);
  }
  if (version != kVersion) {
    os << "SlotTable::Header::validate() bad version: " << version;
    return validationFailed(why, os);
  }
  if (expectedEmber != 0 && ember != expectedEmber) {
    os << "SlotTable::validate() bad ember:0x" << std::hex << ember << " wanted:0x" << expectedEmber;
    return validationFailed(why, os);
  }
  const uint32_t computed = computeHash();
  if (hash != computed) {
    os << "SlotTable::Header::validate() checksum fail: " << hash << " != " << computed;
    return validationFailed(why, os);
  }
  if (slotSize != wantSlotSize || valueSize + sizeof(Slot) != slotSize) {
    os << "SlotTable::Header::validate() bad slotSize: " << slotSize << " wanted:" << wantSlotSize;
    return validationFailed(why, os);
  }
  // Mutable fields: the writer may be changing them under a reader; the
  // reader validates a snapshot and re-checks links as it goes.
  const uint32_t n = numSlots.load().ref;
  const uint32_t occupied = loadRelaxed(occupiedSlots);
  const uint32_t free = loadRelaxed(freeSlots);
  if (counts && occupied > n) {
    os << "SlotTable::Header::validate() bad occupiedSlots: " << occupied << " num slots: " << n;
    return validationFailed(why, os);
  }
  if (counts && free >= n && free != kNoRef) {
    os << "SlotTable::Header::validate() bad freeSlots: " << free << " slots: " << n;
    return validationFailed(why, os);
  }
  const size_t needed = SlotTable::fileSize(wantSlotSize, n);
  if (fileSize < needed) {
    os << "SlotTable::Header::validate() bad shmem size:" << fileSize << " wanted:" << needed << " for " << n
       << " slots";
    return validationFailed(why, os);
  }
  return true;
}

void SlotTable::format(void* base, const FormatParams& p) {
  if (p.valueType.size() >= kTypeNameSize) {
    std::ostringstream os;
    os << "SlotTable::Header() value typename " << p.valueType << " exceeds " << kTypeNameSize << " characters";
    throw Pavo::InvalidInitializeException(os.str());
  }
  if (p.classType.size() >= kTypeNameSize) {
    std::ostringstream os;
    os << "SlotTable::Header() class typename: " << p.classType << " exceeds " << kTypeNameSize << " characters";
    throw Pavo::InvalidInitializeException(os.str());
  }
  auto* h = static_cast<Header*>(base);
  const uint32_t slotSize = p.valueSize + static_cast<uint32_t>(sizeof(Slot));
  // Not yet valid while being formatted: the magic is written last.
  std::memset(h->magic, 0, sizeof h->magic);
  h->version = kVersion;
  h->ember = p.ember;
  copyName(h->valueType, p.valueType);
  copyName(h->classType, p.classType);
  h->valueSize = p.valueSize;
  h->slotSize = slotSize;
  h->maxSlots = p.maxSlots;
  h->config = p.config;
  storeRelaxed(h->occupiedSlots, 0);
  storeRelaxed(h->freeSlots, p.numSlots > 0 ? 0 : kNoRef);
  h->numSlots.init(0, p.numSlots);
  Slot* look = h->lookaside();
  look->next.init(0, kNoRef);
  storeRelaxed(look->status, 0);
  storeRelaxed(look->rhash, 0);
  std::memcpy(look->value(), p.defaultValue, p.valueSize);
  if (p.numSlots > 0) formatSlots(base, slotSize, 0, p.numSlots, p.defaultValue);
  h->hash = h->computeHash();
  std::memcpy(h->magic, kMagic, sizeof kMagic);
}

void SlotTable::formatSlots(void* base, uint32_t slotSize, uint32_t from, uint32_t to, const void* defaultValue) {
  for (uint32_t i = from; i < to; ++i) {
    Slot* s = slotAt(base, slotSize, i);
    s->next.init(0, i + 1 < to ? i + 1 : kNoRef);
    storeRelaxed(s->status, 0);
    storeRelaxed(s->rhash, 0);
    std::memcpy(s->value(), defaultValue, slotSize - sizeof(Slot));
  }
}

}  // namespace Brume
