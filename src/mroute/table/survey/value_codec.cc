#include "mroute/table/survey/value_codec.h"

#include <map>
#include <mutex>

#include "mroute/table/engine/internal/link.h"
#include "mroute/table/engine/internal/slot_file.h"
#include "mroute/table/survey/table_survey.h"
#include "mroute/table/shm/shm_file.h"

namespace Brume::Survey {
namespace {

std::map<std::string, ValueCodec, std::less<>>& codecs() {
  static std::map<std::string, ValueCodec, std::less<>> all;
  return all;
}

// Copies of one slot taken while its status changed each time: the writer
// rewrites it faster than it can be copied. Past this many, the read fails
// instead of spinning.
constexpr int kSlotReadAttempts = 1000;

}  // namespace

void registerValueCodec(ValueCodec codec) {
  std::string name = codec.typeName;
  codecs()[std::move(name)] = std::move(codec);
}

const ValueCodec* findValueCodec(std::string_view typeName, uint32_t size) {
  const auto it = codecs().find(typeName);
  return it != codecs().end() && it->second.size == size ? &it->second : nullptr;
}

std::string hexText(const unsigned char* bytes, size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t b = 0; b < size; ++b) {
    out += b == 0 ? "" : (b % 32 == 0 ? "\n" : " ");
    out += kDigits[bytes[b] >> 4];
    out += kDigits[bytes[b] & 15];
  }
  return out;
}

bool readEntries(const Mem::RootPath& root, std::vector<StoredEntry>* entries, std::string* error) {
  // Nothing of a header is used before every field of it was checked.
  if (std::string damage = headerFinding(root); !damage.empty()) {
    *error = std::move(damage);
    return false;
  }
  Mem::ShmFile f;
  if (!f.open(root.file(kSlotFileName), Mem::ShmAccess::readOnly) || f.fileSize() <= 0 ||
      !f.map(static_cast<size_t>(f.fileSize()))) {
    *error = "slots: " + f.error();
    return false;
  }
  const auto* h = reinterpret_cast<const SlotTable::Header*>(f.base());
  // The array may have grown since the header check: read only what this
  // mapping holds.
  const uint32_t n = h->numSlots.load().ref;
  if (f.mappedSize() < sizeof(SlotTable::Header) || SlotTable::fileSize(h->slotSize, n) > f.mappedSize()) {
    *error = "slots: the file is shorter than its header says";
    return false;
  }
  const uint32_t valueSize = h->valueSize;
  const Slot* lookaside = h->lookaside();
  for (uint32_t i = 0; i < n; ++i) {
    const Slot* s = SlotTable::slotAt(f.base(), h->slotSize, i);
    StoredEntry e{i, ValueBytes(valueSize)};
    // A consistent copy: the status word is the same before and after, and
    // while LOOKASIDE is set the writer rewrites the slot, so the lookaside
    // copy serves. The same protocol as the table's reader (its rule R1: the
    // copy's loads stay before the re-check).
    bool settled = false;  // copied whole, or found free
    for (int attempt = 0; attempt < kSlotReadAttempts && !settled; ++attempt) {
      const uint32_t before = loadAcquire(s->status);
      if ((before & kOccupied) == 0) {
        settled = true;
        break;
      }
      const Slot* from = (before & kLookaside) ? lookaside : s;
      copyFromShared(e.bytes.data(), from->value(), valueSize);
      Mem::acquireFence();
      if (loadRelaxed(s->status) == before) {
        entries->push_back(std::move(e));
        settled = true;
      }
    }
    if (!settled) {
      *error = "slots: slot " + std::to_string(i) + " changed on every one of " +
               std::to_string(kSlotReadAttempts) + " reads";
      return false;
    }
  }
  return true;
}

}  // namespace Brume::Survey
