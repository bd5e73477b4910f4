// The notification queue files "conquer.1" and "conquer.2" as a reader
// walks them: every walk delivers slots in ascending sequence or reports the
// files corrupt, and a resynchronisation or a search by sequence ends.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>

#include "file_set.h"
#include "mroute/runtime/error.h"
#include "mroute/table/queue/conquer_reader.h"
#include "mroute/table/queue/internal/conquer_file.h"
#include "mroute/table/shm/private_shm_fs.h"

namespace {

constexpr const char* kDir = "/fuzz/queue";

void put(Mem::PrivateShmFs& fs, const std::string& path, std::string_view bytes) {
  const int fd = fs.open(path.c_str(), O_CREAT | O_RDWR, 0600);
  if (fd < 0) std::abort();
  if (!bytes.empty() && fs.pwrite(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    std::abort();
  }
  fs.close(fd);
}

// The ember the first file names, so that the header checks go further.
uint32_t emberOf(std::string_view file) {
  uint32_t ember = 0;
  if (file.size() >= 16) std::memcpy(&ember, file.data() + 12, sizeof ember);
  return ember;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto files = Fuzz::splitFiles(std::string_view(reinterpret_cast<const char*>(data), size), 2);
  Mem::PrivateShmFs fs;
  fs.mkdir("/fuzz", 0700);
  fs.mkdir(kDir, 0700);
  for (size_t i = 0; i < files.size(); ++i) {
    if (files[i]) put(fs, std::string(kDir) + "/" + Brume::ConquerTable::kFileNames[i], *files[i]);
  }
  Brume::ConquerReader reader(kDir, fs);
  if (!reader.initialize(files[0] ? emberOf(*files[0]) : 0)) return 0;
  try {
    uint64_t last = 0;
    for (int walk = 0; walk < 3; ++walk) {
      const auto w = reader.conquer([&](uint32_t, uint64_t seq) {
        if (seq <= last) std::abort();
        last = seq;
      });
      if (w == Brume::ConquerReader::Walk::resync) last = reader.resynchronize();
    }
    reader.findPosition(last / 2);
  } catch (const Pavo::CorruptionDetectedException&) {
  }
  return 0;
}
