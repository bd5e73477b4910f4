// mroutectl bitmap <mount path>: a summary of a bit-index allocator's pool
// from its two shared tables: the range, the indexes used (with their keys
// and reference counts), the free ones and the waiting keys with their counts.
// The tables do not carry the pool's range; --min and --size give it, and
// without --size the free count is not claimed.
#include <cstdlib>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "bitmap_rows.h"
#include "command.h"
#include "table_access.h"

namespace Mroutectl {
namespace {

void bitmapUsage(std::ostream& os) {
  os << "usage: mroutectl bitmap <mount path> [--min N] [--size N]\n"
        "  Summarises the bit-index pool whose tables bitIndexMap and waitlistMap lie under the mount\n"
        "  path: its range [N, N + size) when given, the indexes used with their keys and reference\n"
        "  counts, the free count, and the waiting keys with their counts.\n"
        "  Exit code 1 when a table is damaged, 2 on bad usage or no such tables.\n";
}

bool parseIndex(std::string_view text, uint32_t limit, uint32_t* v) {
  const std::string s(text);
  char* end = nullptr;
  const unsigned long n = std::strtoul(s.c_str(), &end, 0);
  if (s.empty() || s[0] == '-' || end != s.c_str() + s.size() || n > limit) return false;
  *v = static_cast<uint32_t>(n);
  return true;
}

int bitmapRun(const Args& args, std::ostream& out, std::ostream& err) {
  std::vector<std::string> paths;
  uint32_t min = 0;
  std::optional<uint32_t> size;
  for (size_t i = 0; i < args.size(); ++i) {
    if ((args[i] == "--min" || args[i] == "--size") && i + 1 < args.size()) {
      uint32_t v = 0;
      // Like the allocator's Config: the pool stays below 65534.
      if (!parseIndex(args[i + 1], 65534, &v)) {
        err << "mroutectl bitmap: " << args[i] << " needs a number from 0 to 65534\n";
        return kExitUsage;
      }
      if (args[i] == "--min") {
        min = v;
      } else {
        size = v;
      }
      ++i;
    } else {
      paths.emplace_back(args[i]);
    }
  }
  if (paths.size() != 1) {
    bitmapUsage(err);
    return kExitUsage;
  }
  if (size && min + *size > 65534) {
    err << "mroutectl bitmap: the range " << min << " + " << *size << " reaches the reserved indexes 65534/65535\n";
    return kExitUsage;
  }
  std::string error;
  const std::optional<Mem::RootPath> indexRoot = locateTable(paths[0] + "/" + kBitIndexMapName, &error);
  if (!indexRoot) {
    err << "mroutectl bitmap: " << error << "\n";
    return kExitUsage;
  }
  std::vector<BitMapper::BitIndexMap> used;
  std::vector<BitMapper::WaitlistMap> waiting;
  if (!readRows(*indexRoot, &used, &error)) {
    err << "mroutectl bitmap: " << error << "\n";
    return 1;
  }
  // An allocator that never had to make a key wait may have no wait list yet.
  if (const std::optional<Mem::RootPath> waitRoot = locateTable(paths[0] + "/" + kWaitlistMapName, &error)) {
    if (!readRows(*waitRoot, &waiting, &error)) {
      err << "mroutectl bitmap: " << error << "\n";
      return 1;
    }
  }
  out << paths[0] << ": ";
  if (size) {
    out << "range " << min << ".." << (*size == 0 ? min : min + *size - 1) << " (" << *size << " indexes), ";
  }
  out << "used " << used.size();
  if (size) {
    uint32_t inRange = 0;
    for (const auto& r : used) inRange += r.key().value() >= min && r.key().value() < min + *size;
    out << ", free " << *size - inRange;
    if (inRange != used.size()) out << ", " << used.size() - inRange << " used outside the range";
  }
  out << ", waiting keys " << waiting.size() << "\n";
  for (const auto& r : used) {
    out << "  " << r.key() << "  " << r.bitMapperKey().intfId() << " " << r.bitMapperKey().ipGenAddr()
        << "  refCount " << r.refCount() << (r.isNewMapping() ? "" : "  (not new)") << "\n";
  }
  for (const auto& w : waiting) {
    out << "  waiting  " << w.key().intfId() << " " << w.key().ipGenAddr() << "  refCount " << w.refCount() << "\n";
  }
  return kExitOk;
}

}  // namespace

const Subcommand bitmapCommand{"bitmap", "summarise a bit-index pool", bitmapUsage, bitmapRun};

}  // namespace Mroutectl
