#include "mroute/table/engine/internal/bucket_writer.h"

#include "mroute/table/shm/brume_trace.h"
#include "mroute/table/shm/ember_file.h"

namespace Brume {

bool BucketWriterTable::attach(uint32_t ember, uint32_t initialBuckets, bool reformat, bool* existed,
                               std::string* why) {
  *existed = false;
  bool created = false;
  if (!file_.openOrCreate(root_.file(kBucketFileName), &created)) {
    *why = "BucketWriter::attach() cannot open: " + file_.error();
    return false;
  }
  MROUTE_TRACE(brumeTrace(), kTraceSize, "BucketWriter::attach() wanted capacity:" << initialBuckets);
  if (!created && !reformat) {
    const int64_t size = file_.fileSize();
    if (size > 0 && !file_.map(static_cast<size_t>(size))) {
      *why = "BucketWriter::attach() cannot map: " + file_.error();
      return false;
    }
    if (size > 0) {
      *existed = true;
      adoptCount();
      MROUTE_TRACE(brumeTrace(), kTraceInfo, "BucketWriter::attach() to existing " << file_.path());
      return true;
    }
  }
  const size_t bytes = BucketTable::fileSize(initialBuckets);
  file_.unmap();
  const bool replace = !created && file_.fileSize() > 0;
  if (replace) {
    // Readers may map the old file: it is replaced whole, never shortened.
    file_.close();
    if (!file_.createReplacement(root_.file(kBucketFileName), bytes)) {
      *why = "BucketWriter::attach() cannot size " + root_.file(kBucketFileName) + ": " + file_.error();
      return false;
    }
  } else if (!file_.reserve(bytes) || !file_.map(bytes)) {
    *why = "BucketWriter::attach() cannot size " + file_.path() + ": " + file_.error();
    return false;
  }
  BucketTable::format(file_.base(), ember, initialBuckets);
  adoptCount();
  if (replace && !file_.publishAs(root_.file(kBucketFileName))) {
    *why = "BucketWriter::attach() cannot replace " + root_.file(kBucketFileName) + ": " + file_.error();
    return false;
  }
  if (created) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "BucketWriter::attach() to new file " << file_.path());
  } else {
    MROUTE_TRACE(brumeTrace(), kTraceInfo, "BucketWriter::attach() re-formatted " << file_.path());
  }
  return true;
}

bool BucketWriterTable::validateHeader(uint32_t ember, std::string* why) const {
  if (!file_.isMapped()) {
    *why = "BucketTable::validate() bad header file size: 0 wanted:32";
    return false;
  }
  return header()->validate(file_.mappedSize(), ember, why);
}

bool BucketWriterTable::mapAll(std::string* why) {
  if (!reserve(numBuckets())) {
    *why = "BucketWriter::attach() cannot map: " + file_.error();
    return false;
  }
  return true;
}

void BucketWriterTable::cleanup() {
  const std::string path = root_.file(kBucketFileName);
  file_.close();
  MROUTE_TRACE(brumeTrace(), kTraceInfo, "BucketWriter::cleanup() removing file:" << path);
  Mem::unlinkShmFile(*fs_, path, nullptr);
}

bool BucketWriterTable::reserve(uint32_t n) {
  const size_t bytes = BucketTable::fileSize(n);
  if (file_.mappedSize() >= bytes) return true;
  if (!file_.reserve(bytes)) return false;
  uint8_t* old = file_.base();
  if (!file_.remap(bytes)) return false;
  if (old != file_.base()) {
    MROUTE_TRACE(brumeTrace(), kTraceInfo,
                 "BucketWriter::resize() remap base address changed from " << static_cast<void*>(old) << " to "
                                                                           << static_cast<void*>(file_.base()));
  }
  return true;
}

}  // namespace Brume
