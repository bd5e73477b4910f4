#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <bit>
#include <cstring>
#include <vector>

#include "mroute/table/engine/internal/bucket_file.h"
#include "mroute/table/engine/internal/slot_file.h"
#include "mroute/table/engine/internal/validator.h"
#include "mroute/table/survey/table_survey.h"
#include "mroute/table/survey/value_codec.h"
#include "mroute/table/queue/internal/conquer_file.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/shm/shm_file.h"

namespace Brume::Survey {
namespace {

// A private copy of one file, 8-byte aligned like its mapping would be.
struct Snapshot {
  std::vector<uint64_t> words;
  size_t size = 0;
  std::string error;  // why it could not be read; empty when read

  const void* base() const { return words.data(); }

  bool read(const std::string& path) {
    // Neither follows a link nor waits on a FIFO put in the file's place.
    const int fd = Mem::systemShmFs().open(path.c_str(), O_RDONLY, 0);
    if (fd < 0) {
      error = std::string("cannot open: ") + std::strerror(errno);
      return false;
    }
    struct stat st {};
    bool ok = ::fstat(fd, &st) == 0;
    if (ok && !S_ISREG(st.st_mode)) {
      error = "not a regular file: another process put something else in its place";
      ::close(fd);
      return false;
    }
    if (ok) {
      size = static_cast<size_t>(st.st_size);
      words.assign((size + 7) / 8, 0);
      auto* p = reinterpret_cast<char*>(words.data());
      size_t got = 0;
      while (ok && got < size) {
        const ssize_t n = ::read(fd, p + got, size - got);
        if (n > 0) {
          got += static_cast<size_t>(n);
        } else if (n == 0) {
          size = got;  // shrank while read
          break;
        } else if (errno != EINTR) {
          ok = false;
        }
      }
    }
    if (!ok) error = std::string("cannot read: ") + std::strerror(errno);
    ::close(fd);
    return ok;
  }
};

// Notification queue entries of the current file, read-only: the writer's
// own entry check less the positions only it remembers. Fills positions
// (slot -> position of its live entry).
void checkQueue(const Snapshot (&q)[2], uint32_t numSlots, std::vector<uint32_t>* positions, uint32_t* size,
                std::vector<std::string>* findings) {
  const uint32_t cur = conquer::loadCurrentTable(*ConquerTable::header(q[0].base()));
  const uint32_t other = conquer::loadCurrentTable(*ConquerTable::header(q[1].base()));
  if (cur != other) {
    findings->push_back("conquer: the two files disagree on the current one (" + std::to_string(cur) +
                        " and " + std::to_string(other) + ")");
    return;
  }
  const Snapshot& f = q[cur];
  const auto* h = ConquerTable::header(f.base());
  const uint32_t pos = conquer::loadCurrentPos(*h);
  const uint64_t cap = h->notifications.loadRelaxed().ref;
  const std::string name = ConquerTable::kFileNames[cur];
  if (pos > cap || pos > ConquerTable::entriesIn(f.size)) {
    findings->push_back(name + ": currentPos " + std::to_string(pos) + " beyond its " + std::to_string(cap) +
                        " entries");
    return;
  }
  positions->assign(numSlots, kNoRef);
  *size = pos;
  uint64_t prev = 0;
  for (uint32_t p = 0; p < pos; ++p) {
    const ConquerTable::Entry& e = *ConquerTable::entry(f.base(), p);
    const uint64_t seq = conquer::loadSequence(e);
    const uint32_t slot = conquer::loadSlot(e);
    std::string what;
    if (seq <= prev) {
      what = "sequence " + std::to_string(seq) + " not above " + std::to_string(prev);
    } else if (slot != ConquerTable::kTombstone && slot < numSlots && (*positions)[slot] != kNoRef) {
      what = "slot " + std::to_string(slot) + " also live at position " + std::to_string((*positions)[slot]);
    }
    if (!what.empty()) {
      findings->push_back(name + ": position " + std::to_string(p) + ": " + what);
      return;
    }
    // An entry of a slot that a shrink removed stays until it is pruned, as
    // the writer allows; it names no live slot.
    if (slot != ConquerTable::kTombstone && slot < numSlots) (*positions)[slot] = p;
    prev = seq;
  }
}

std::vector<std::string> checkOnce(const Mem::RootPath& root) {
  std::vector<std::string> findings;
  uint32_t ember = 0;
  if (!readEmber(Mem::systemShmFs(), root, &ember)) findings.push_back("ember: missing or empty");
  std::string why;

  Snapshot slots;
  bool slotsOk = false;
  const SlotTable::Header* sh = nullptr;
  if (!slots.read(root.file(kSlotFileName))) {
    findings.push_back("slots: " + slots.error);
  } else if (slots.size < sizeof(SlotTable::Header)) {
    findings.push_back("slots: shorter than its header");
  } else {
    sh = static_cast<const SlotTable::Header*>(slots.base());
    slotsOk = sh->validate(slots.size, sh->slotSize, ember, &why);
    if (!slotsOk) findings.push_back("slots: " + why);
  }

  Snapshot buckets;
  bool bucketsOk = false;
  const BucketTable::Header* bh = nullptr;
  if (!buckets.read(root.file(kBucketFileName))) {
    findings.push_back("buckets: " + buckets.error);
  } else if (buckets.size < sizeof(BucketTable::Header)) {
    findings.push_back("buckets: shorter than its header");
  } else {
    bh = static_cast<const BucketTable::Header*>(buckets.base());
    bucketsOk = bh->validate(buckets.size, ember, &why);
    if (!bucketsOk) {
      findings.push_back("buckets: " + why);
    } else if (!std::has_single_bit(bh->numBuckets.loadRelaxed().ref)) {
      findings.push_back("buckets: numBuckets " + std::to_string(bh->numBuckets.loadRelaxed().ref) +
                         " is not a power of two");
      bucketsOk = false;
    }
  }

  Snapshot queue[2];
  bool queueOk = true;
  for (int i = 0; i < 2; ++i) {
    const std::string name = ConquerTable::kFileNames[i];
    if (!queue[i].read(root.file(name))) {
      findings.push_back(name + ": " + queue[i].error);
      queueOk = false;
    } else if (!ConquerTable::validate(queue[i].base(), queue[i].size, ember, &why)) {
      findings.push_back(name + ": " + why);
      queueOk = false;
    }
  }

  if (slotsOk && bucketsOk) {
    const uint32_t numSlots = sh->numSlots.loadRelaxed().ref;
    NotificationView view;
    std::vector<uint32_t> positions;
    const size_t before = findings.size();
    if (queueOk) checkQueue(queue, numSlots, &positions, &view.size, &findings);
    const bool withQueue = queueOk && findings.size() == before;
    if (withQueue) view.positionOf = [&positions](uint32_t slot) { return positions[slot]; };
    const std::string_view type(sh->valueType, strnlen(sh->valueType, sizeof sh->valueType));
    const ValueCodec* codec = findValueCodec(type, sh->valueSize);
    Validator validator(sh, sh->slotSize, bh, withQueue ? &view : nullptr,
                        codec ? codec->rhash : nullptr);
    if (!validator.validate(&why)) findings.push_back("chains: " + why);
  }
  if (corruptionMarkerPresent(Mem::systemShmFs(), root)) {
    findings.push_back("marker: a reader reported corruption (corruption-detected is present)");
  }
  return findings;
}

// The header checks of the slot and bucket files alone.
std::string headerFindingOnce(const Mem::RootPath& root) {
  uint32_t ember = 0;
  readEmber(Mem::systemShmFs(), root, &ember);
  std::string why;
  Snapshot slots;
  if (!slots.read(root.file(kSlotFileName))) return "slots: " + slots.error;
  if (slots.size < sizeof(SlotTable::Header)) return "slots: shorter than its header";
  const auto* sh = static_cast<const SlotTable::Header*>(slots.base());
  if (!sh->validate(slots.size, sh->slotSize, ember, &why)) return "slots: " + why;
  Snapshot buckets;
  if (!buckets.read(root.file(kBucketFileName))) return "buckets: " + buckets.error;
  if (buckets.size < sizeof(BucketTable::Header)) return "buckets: shorter than its header";
  const auto* bh = static_cast<const BucketTable::Header*>(buckets.base());
  if (!bh->validate(buckets.size, ember, &why)) return "buckets: " + why;
  return "";
}

}  // namespace

std::string headerFinding(const Mem::RootPath& root) {
  std::string finding = headerFindingOnce(root);
  for (int attempt = 1; attempt < 3 && !finding.empty() && writerPid(root.dir()) != 0; ++attempt) {
    ::usleep(50 * 1000);
    finding = headerFindingOnce(root);
  }
  return finding;
}

std::vector<std::string> validateTable(const Mem::RootPath& root) {
  std::vector<std::string> findings = checkOnce(root);
  if (findings.empty() || writerPid(root.dir()) == 0) return findings;
  // A running writer may have changed the files while they were copied.
  for (int attempt = 1; attempt < 3 && !findings.empty(); ++attempt) {
    ::usleep(50 * 1000);
    findings = checkOnce(root);
  }
  return findings;
}

}  // namespace Brume::Survey
