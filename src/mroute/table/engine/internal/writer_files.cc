#include "mroute/table/engine/internal/writer_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "mroute/runtime/error.h"
#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/shm/ember_file.h"
#include "mroute/table/engine/internal/slot_recovery.h"
#include "mroute/table/engine/internal/validator.h"

namespace Brume {

namespace {

SlotParams slotParams(const TableConfig& c, uint32_t valueSize, const void* defaultValue) {
  if (c.initialSize == 0) {
    throw Pavo::InvalidInitializeException("BrumeMap::init() 0 is not a valid initialization size");
  }
  SlotParams p;
  p.name = c.name;
  p.valueType = c.valueType;
  p.classType = c.classType;
  p.valueSize = valueSize;
  p.defaultValue = defaultValue;
  p.initialSlots = c.initialSize;
  p.maxSlots = std::max(c.maxSize, c.initialSize);
  p.minSlots = std::max<uint32_t>(1, std::min(c.minSize, c.initialSize));
  p.config = (c.fixedCapacity ? kConfigFixedCapacity : 0) | (c.shrinkSlots ? kConfigShrinkSlots : 0) |
             (c.pruneConquer ? kConfigPruneConquer : 0);
  return p;
}

bool isPowerOfTwo(uint32_t n) { return n != 0 && (n & (n - 1)) == 0; }

}  // namespace

WriterFiles::WriterFiles(const Mem::RootPath& root, const TableConfig& config, uint32_t valueSize,
                         const void* defaultValue, std::function<uint32_t(const unsigned char*)> rhashOf,
                         Mem::ShmFs& fs)
    : root_(root),
      config_(config),
      rhashOf_(std::move(rhashOf)),
      fs_(&fs),
      slots_(fs, root, slotParams(config, valueSize, defaultValue)),
      buckets_(fs, root),
      lock_(root.dir(), fs) {
  MROUTE_TRACE(brumeTrace(), kTraceSize,
               config.name << " fixedCapacity:" << config.fixedCapacity << " shrinkSlots:" << config.shrinkSlots
                           << " pruneConquer:" << config.pruneConquer);
}

WriterFiles::~WriterFiles() { detach(); }

uint32_t WriterFiles::bucketsFor(uint32_t n) {
  uint32_t b = 1;
  while (b < n && b < BucketTable::kMaxBuckets) b *= 2;
  return b;
}

bool WriterFiles::attachFiles(bool reformat, bool* existed, std::string* why) {
  bool slotsExisted = false;
  bool bucketsExisted = false;
  if (!slots_.attach(ember_, reformat, &slotsExisted, why)) return false;
  if (!buckets_.attach(ember_, bucketsFor(config_.initialSize), reformat, &bucketsExisted, why)) return false;
  *existed = slotsExisted || bucketsExisted;
  if (config_.notifications) {
    conquer_ = std::make_unique<ConquerWriter>(root_.dir(), ConquerConfig{config_.pruneConquer, true}, *fs_);
    uint32_t numSlots = slots_.params().initialSlots;
    std::string ignored;
    if (slotsExisted && slots_.validateFixedHeader(ember_, &ignored)) numSlots = slots_.numSlots();
    // Notifications of a re-formatted table name slots that no longer hold
    // what they did: the queue starts afresh, its sequence going on from the
    // old one so that readers that knew a higher sequence resynchronise.
    if (!conquer_->attachConquer(std::max<uint32_t>(numSlots, 1), ember_, !reformat)) {
      *why = "BrumeWriter::attach() cannot attach the notification queue: " + conquer_->error();
      return false;
    }
  }
  return true;
}

bool WriterFiles::typesMatch(std::string* why) const {
  const SlotTable::Header* h = slots_.header();
  const SlotParams& p = slots_.params();
  if (std::string(h->valueType, strnlen(h->valueType, sizeof h->valueType)) != p.valueType ||
      std::string(h->classType, strnlen(h->classType, sizeof h->classType)) != p.classType) {
    *why = "BrumeWriter::attach() another table type, valueType:" +
           std::string(h->valueType, strnlen(h->valueType, sizeof h->valueType)) + " classType:" +
           std::string(h->classType, strnlen(h->classType, sizeof h->classType));
    MROUTE_TRACE(brumeTrace(), kTraceError, *why);
    return false;
  }
  return true;
}

void WriterFiles::recover() {
  std::string why;
  if (!slots_.validateFixedHeader(ember_, &why) || !buckets_.validateHeader(ember_, &why) ||
      !isPowerOfTwo(buckets_.numBuckets()) || !slots_.mapAll(&why) || !buckets_.mapAll(&why)) {
    return;  // the header checks decide: re-format
  }
  const RecoveryReport r = recoverSlots(slots_, buckets_, rhashOf_);
  if (r.leakedSlots != 0 || r.cutChains != 0 || r.finishedUpdates != 0) {
    MROUTE_TRACE(brumeTrace(), kTraceError,
                 "BrumeWriter::attach() recovered " << root_.dir() << " leakedSlots:" << r.leakedSlots
                                                    << " cutChains:" << r.cutChains
                                                    << " finishedUpdates:" << r.finishedUpdates);
  }
}

bool WriterFiles::reformat(std::string* why) {
  MROUTE_TRACE(brumeTrace(), kTraceError,
               "BrumeWriter::attach() failed, all entries from " << root_.dir() << " will be lost");
  detachFiles();
  // A new incarnation: readers mapping the old files see the ember change
  // and attach to the new ones.
  const uint32_t old = ember_;
  ember_ = processEmberId() != old ? processEmberId() : (old * 2654435761u + 1);
  if (ember_ == 0) ember_ = 1;
  bool existed = false;
  if (!attachFiles(true, &existed, why)) return false;
  if (!writeEmber(*fs_, root_, ember_, why)) {
    *why = "BrumeWriter::attach() cannot write ember file: " + *why;
    return false;
  }
  return true;
}

namespace {

// The kind of a failed system call, from the error text it left.
AttachError errorKind(const std::string& why) {
  auto has = [&](int err) { return why.find(std::strerror(err)) != std::string::npos; };
  if (has(ENOSPC) || has(EDQUOT)) return AttachError::noSpace;
  if (has(EACCES) || has(EPERM) || has(EROFS)) return AttachError::noPermission;
  if (has(ENOENT) || has(ENOTDIR)) return AttachError::badRoot;
  return AttachError::failed;
}

}  // namespace

bool WriterFiles::attachFailed(AttachError error, const std::string& why) {
  MROUTE_TRACE(brumeTrace(), kTraceError, why);
  const long holder = lock_.holder();
  detach();
  status_ = {error, why, error == AttachError::heldByAnotherWriter ? holder : 0};
  return false;
}

bool WriterFiles::attach() {
  if (attached_) return true;
  status_ = {};
  std::string why;
  if (!Mem::makeDirectories(*fs_, root_.dir(), &why)) {
    const std::string text = "BrumeWriter::attach() cannot make " + root_.dir() + ": " + why;
    return attachFailed(errorKind(why), text);
  }
  autoLock_ = std::make_unique<Mem::WriterLock::AutoLock>(lock_);
  if (!autoLock_->locked()) {
    autoLock_.reset();
    const std::string text = "BrumeWriter::attach() cannot lock: " + lock_.error();
    return attachFailed(lock_.holder() != 0 || lock_.error().starts_with("held by another writer")
                            ? AttachError::heldByAnotherWriter
                            : errorKind(lock_.error()),
                        text);
  }
  if (!readEmber(*fs_, root_, &ember_)) {
    ember_ = processEmberId();
    if (!writeEmber(*fs_, root_, ember_, &why)) {
      return attachFailed(errorKind(why), "BrumeWriter::attach() cannot write ember file: " + why);
    }
  }
  bool existed = false;
  if (!attachFiles(false, &existed, &why)) return attachFailed(errorKind(why), why);
  if (existed) recover();
  if (existed && !(validateFiles(&why) && typesMatch(&why) && validate(&why))) {
    if (!reformat(&why)) return attachFailed(errorKind(why), why);
    if (!validate(&why)) return attachFailed(AttachError::damaged, "BrumeWriter::attach() failed validation");
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "BrumeWriter::attach(): re-formatted successfully");
  } else if (existed && (slots_.header()->maxSlots != slots_.params().maxSlots ||
                         slots_.header()->config != slots_.params().config)) {
    // Sound files keep their entries under a changed maximum or flags.
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "BrumeWriter::attach() configuration changed, maxSlots:" << slots_.header()->maxSlots << " to "
                                                                         << slots_.params().maxSlots << " config:"
                                                                         << slots_.header()->config << " to "
                                                                         << slots_.params().config);
    slots_.adoptConfig();
  }
  removeCorruptionMarker(*fs_, root_);
  attached_ = true;
  MROUTE_TRACE(brumeTrace(), kTraceInfo,
               "BrumeWriter::attach() success " << root_.dir() << " capacity: " << slots_.numSlots()
                                                << " emberId: " << ember_);
  return true;
}

void WriterFiles::checkWhole(const char* who) const {
  const Mem::ShmFile* f = slots_.shrunk();
  if (f == nullptr) f = buckets_.shrunk();
  if (f == nullptr && conquer_ != nullptr) f = conquer_->shrunk();
  if (f == nullptr) return;
  const std::string text = std::string(who) + " " + f->shrankText();
  MROUTE_TRACE(brumeTrace(), kTraceError, text);
  throw Pavo::CorruptionDetectedException(text);
}

bool WriterFiles::validateFiles(std::string* why) const {
  std::string local;
  std::string* w = why != nullptr ? why : &local;
  if (!slots_.validateHeader(ember_, w) || !buckets_.validateHeader(ember_, w)) return false;
  const uint32_t n = buckets_.numBuckets();
  if (!isPowerOfTwo(n)) {
    *w = "BucketTable::validate() bad numBuckets:" + std::to_string(n);
    MROUTE_TRACE(brumeTrace(), kTraceError, *w);
    return false;
  }
  if (conquer_ != nullptr && !conquer_->validateFile(w)) return false;
  return true;
}

bool WriterFiles::validate(std::string* why, uint32_t pendingSlot) const {
  if (!validateFiles(why)) return false;
  std::string local;
  std::string* w = why != nullptr ? why : &local;
  NotificationView view;
  const NotificationView* viewPtr = nullptr;
  if (conquer_ != nullptr) {
    view.size = conquer_->currentPos();
    ConquerWriter* q = conquer_.get();
    view.positionOf = [q](uint32_t slot) { return q->position(slot); };
    viewPtr = &view;
  }
  Validator validator(slots_.header(), slots_.slotSize(), buckets_.header(), viewPtr, rhashOf_);
  validator.pendingSlotIs(pendingSlot);
  if (!validator.validate(w)) return false;
  return conquer_ == nullptr || conquer_->validate(w);
}

void WriterFiles::detachFiles() {
  slots_.detach();
  buckets_.detach();
  if (conquer_ != nullptr) conquer_->detach();
  conquer_.reset();
}

void WriterFiles::detach() {
  detachFiles();
  autoLock_.reset();
  attached_ = false;
}

void WriterFiles::cleanup() {
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "BrumeWriter::cleanup() removing Brume files");
  slots_.cleanup();
  buckets_.cleanup();
  if (conquer_ != nullptr) conquer_->cleanup();
  Mem::unlinkShmFile(*fs_, root_.file(kEmberFileName), nullptr);
  removeCorruptionMarker(*fs_, root_);
  detach();
}

}  // namespace Brume
