#include "mroute/table/queue/internal/conquer_file.h"

#include <cstring>
#include <sstream>

#include "mroute/table/shm/brume_trace.h"

namespace Brume {

bool ConquerTable::validate(const void* base, size_t mappedSize, uint32_t expectedEmber, std::string* why) {
  std::ostringstream os;
  if (base == nullptr || mappedSize < sizeof(Header)) {
    os << "ConquerTable::validate() bad header file size:" << mappedSize << " wanted:" << sizeof(Header);
    return validationFailed(why, os);
  }
  const Header& h = *header(base);
  if (std::memcmp(h.magic, kMagic, sizeof kMagic) != 0) {
    uint64_t m;
    std::memcpy(&m, h.magic, sizeof m);
    os << "ConquerTable::validate() bad magic:0x" << std::hex << m;
    return validationFailed(why, os);
  }
  if (h.version != kVersion) {
    os << "ConquerTable::validate() bad version:" << h.version;
    return validationFailed(why, os);
  }
  if (expectedEmber != 0 && h.ember != expectedEmber) {
    os << "ConquerTable::validate() bad ember:0x" << std::hex << h.ember << " wanted:0x" << expectedEmber;
    return validationFailed(why, os);
  }
  const uint32_t n = h.notifications.load().ref;
  if (mappedSize < fileSize(n)) {
    os << "ConquerTable::validate() bad shmem size:" << mappedSize << " wanted:" << fileSize(n) << " for " << n
       << " notifications";
    return validationFailed(why, os);
  }
  const uint32_t table = conquer::loadCurrentTable(h);
  if (table >= 2) {
    os << "ConquerTable::validate() bad tableId:" << table;
    return validationFailed(why, os);
  }
  return true;
}

void ConquerTable::format(void* base, uint32_t ember, uint32_t notifications, uint32_t tableId,
                          uint32_t version) {
  Header* h = header(base);
  std::memcpy(h->magic, kMagic, sizeof kMagic);
  h->version = kVersion;
  h->ember = ember;
  conquer::storeMinSeq(*h, 0);
  h->numReaders = 0;
  h->reserved0[0] = h->reserved0[1] = 0;
  conquer::storeRelaxed64(h->corralStart, 0);
  conquer::storeRelaxed64(h->corralEnd, 0);
  conquer::storeCurrentPos(*h, 0);
  h->reserved1 = 0;
  conquer::storeCurrentTable(*h, tableId);
  h->notifications.init(version, notifications);
  MROUTE_TRACE(brumeTrace(), kTraceSize,
               "ConquerTable::Header() magic:" << std::string(h->magic, sizeof h->magic) << " version:" << h->version
                                               << " ember:0x" << std::hex << h->ember << std::dec
                                               << " numReaders:" << h->numReaders << " currentTable:" << tableId
                                               << " notifications:" << notifications << " currentPos:" << 0
                                               << " corralStart:" << 0 << " corralEnd:" << 0);
}

}  // namespace Brume
