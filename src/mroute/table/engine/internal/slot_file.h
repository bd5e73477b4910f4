// Layout of the "slots" file and its header checks.
//
//   offset  width  field
//   0       8      magic "BRUMESLT"
//   8       u32    version (10)
//   12      u32    ember: incarnation id of the formatting writer
//   16      64     valueType: NUL-terminated, at most 63 characters
//   80      64     classType: same limit
//   144     u32    valueSize: bytes of the stored value wrapper
//   148     u32    slotSize: 16 + valueSize
//   152     u32    maxSlots: soft upper bound of numSlots
//   156     u32    config: the table's configuration flags (kConfig*)
//   160     u32    hash: checksum of valueType..config
//   164     u32    occupiedSlots
//   168     u32    freeSlots: head of the free list, kNoRef when empty
//   172     u32    reserved
//   176     8      numSlots: versioned ref, ref = slots in the array
//   184     S      lookaside slot
//   184+S   n * S  slot i at 184 + S + i * S
//
// Slot (S bytes): next (versioned ref, 8), status (u32), rhash (u32), value.
//
// Thread-safety: the header fields valueType..hash are written once at
// format time. occupiedSlots and freeSlots are modified only by the writer
// and read racily by readers (advisory). numSlots, the links and status words
// are stored atomically by the writer and loaded atomically by readers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "mroute/table/engine/internal/link.h"
#include "mroute/table/shm/versioned_ref.h"

namespace Brume {

// Configuration flags stored in the header's fourth configuration word
// (stored in the file: do not renumber).
inline constexpr uint32_t kConfigFixedCapacity = 0x1u;
inline constexpr uint32_t kConfigShrinkSlots = 0x2u;
inline constexpr uint32_t kConfigPruneConquer = 0x4u;

struct Slot {
  Mem::VersionedRef next;  // chain link, or free-list link of a free slot
  uint32_t status;         // kOccupied | kLookaside | update count << 2
  uint32_t rhash;          // bitReverse(hash(key)); chains sort by (rhash, key)
  // The value wrapper follows at offset 16.
  unsigned char* value() { return reinterpret_cast<unsigned char*>(this) + sizeof(Slot); }
  const unsigned char* value() const { return reinterpret_cast<const unsigned char*>(this) + sizeof(Slot); }
};

static_assert(sizeof(Slot) == 16);
static_assert(offsetof(Slot, next) == 0);
static_assert(offsetof(Slot, status) == 8);
static_assert(offsetof(Slot, rhash) == 12);

struct SlotTable {
  static constexpr char kMagic[8] = {'B', 'R', 'U', 'M', 'E', 'S', 'L', 'T'};
  static constexpr uint32_t kVersion = 10;
  static constexpr size_t kTypeNameSize = 64;

  struct Header {
    char magic[8];
    uint32_t version;
    uint32_t ember;
    char valueType[kTypeNameSize];
    char classType[kTypeNameSize];
    uint32_t valueSize;
    uint32_t slotSize;
    uint32_t maxSlots;
    uint32_t config;
    uint32_t hash;
    uint32_t occupiedSlots;
    uint32_t freeSlots;
    uint32_t reserved;
    Mem::VersionedRef numSlots;

    // The checksum of the fixed part: H(valueType) + H(classType) +
    // H(valueSize) + H(slotSize) + H(maxSlots) + H(config), modulo 2^32.
    uint32_t computeHash() const;

    // Runs the header checks in order; on the first failure returns false and
    // sets *why (traced when error tracing is on). fileSize is the size of the
    // mapped file, slotSize the instantiation's; ember 0 expects none.
    bool validate(size_t fileSize, uint32_t slotSize, uint32_t expectedEmber, std::string* why) const;
    // The checks of validate() that a writer killed mid-operation cannot make
    // fail: all but occupiedSlots and freeSlots, which recovery recomputes.
    bool validateFixed(size_t fileSize, uint32_t slotSize, uint32_t expectedEmber, std::string* why) const;

    bool check(size_t fileSize, uint32_t slotSize, uint32_t expectedEmber, bool counts, std::string* why) const;

    Slot* lookaside() { return reinterpret_cast<Slot*>(reinterpret_cast<unsigned char*>(this) + sizeof(Header)); }
    const Slot* lookaside() const {
      return reinterpret_cast<const Slot*>(reinterpret_cast<const unsigned char*>(this) + sizeof(Header));
    }
  };

  struct FormatParams {
    uint32_t ember;
    std::string_view valueType;
    std::string_view classType;
    uint32_t valueSize;
    uint32_t maxSlots;
    uint32_t config;
    uint32_t numSlots;
    const void* defaultValue;  // valueSize bytes: a default-constructed value
  };

  // Formats a fresh header, lookaside slot and numSlots free slots linked in
  // index order. A type name of 64 characters or more raises
  // Pavo::InvalidInitializeException before anything is written.
  // REQUIRES: base maps at least fileSize(valueSize + 16, numSlots) bytes and
  // no reader can see the file yet (it is new or being re-formatted).
  static void format(void* base, const FormatParams& params);

  // Formats slots [from, to) as fresh free slots holding defaultValue; slot
  // i's next is i + 1 and the last one's next is kNoRef. REQUIRES: from < to.
  static void formatSlots(void* base, uint32_t slotSize, uint32_t from, uint32_t to, const void* defaultValue);

  static constexpr size_t fixedSize(uint32_t slotSize) { return sizeof(Header) + slotSize; }
  static constexpr size_t fileSize(uint32_t slotSize, uint32_t numSlots) {
    return fixedSize(slotSize) + size_t{numSlots} * slotSize;
  }
  static Slot* slotAt(void* base, uint32_t slotSize, uint32_t i) {
    return reinterpret_cast<Slot*>(static_cast<unsigned char*>(base) + fixedSize(slotSize) + size_t{i} * slotSize);
  }
  static const Slot* slotAt(const void* base, uint32_t slotSize, uint32_t i) {
    return reinterpret_cast<const Slot*>(static_cast<const unsigned char*>(base) + fixedSize(slotSize) +
                                         size_t{i} * slotSize);
  }
};

static_assert(sizeof(SlotTable::Header) == 184);
static_assert(offsetof(SlotTable::Header, magic) == 0);
static_assert(offsetof(SlotTable::Header, version) == 8);
static_assert(offsetof(SlotTable::Header, ember) == 12);
static_assert(offsetof(SlotTable::Header, valueType) == 16);
static_assert(offsetof(SlotTable::Header, classType) == 80);
static_assert(offsetof(SlotTable::Header, valueSize) == 144);
static_assert(offsetof(SlotTable::Header, slotSize) == 148);
static_assert(offsetof(SlotTable::Header, maxSlots) == 152);
static_assert(offsetof(SlotTable::Header, config) == 156);
static_assert(offsetof(SlotTable::Header, hash) == 160);
static_assert(offsetof(SlotTable::Header, occupiedSlots) == 164);
static_assert(offsetof(SlotTable::Header, freeSlots) == 168);
static_assert(offsetof(SlotTable::Header, reserved) == 172);
static_assert(offsetof(SlotTable::Header, numSlots) == 176);
static_assert(alignof(SlotTable::Header) == 8);
static_assert(std::is_trivially_copyable_v<SlotTable::Header>);
static_assert(SlotTable::fixedSize(88) == 272 && SlotTable::fixedSize(184) == 368);

}  // namespace Brume
