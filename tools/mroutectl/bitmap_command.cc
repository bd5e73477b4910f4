// mroutectl bitmap <mount path>: a summary of a bit-index allocator's pool
// from its two shared tables: the range, the indexes used (with their keys
// and reference counts), the free ones and the waiting keys with their counts.
// The tables do not carry the pool's range; --min and --size give it, and
// without --size the free count is not claimed.

#include <cstdlib>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "bitmap_rows.h"
#include "command.h"
#include "mroute/table/survey/table_survey.h"
#include "table_json.h"

namespace Mroutectl {
namespace {

struct BitmapOptions {
  std::string path;
  uint32_t min = 0;
  std::optional<uint32_t> size;
};

Mem::RootPath locate(const std::string& table) {
  Brume::Survey::Problem problem{};
  std::string error;
  std::optional<Mem::RootPath> root = Brume::Survey::locateTable(table, &problem, &error);
  if (!root) throw CommandError(problem == Brume::Survey::Problem::badName ? kExitUsage : kExitNotFound, error);
  return *root;
}

void runBitmap(const BitmapOptions& o, Context& ctx) {
  const uint32_t min = o.min;
  const std::optional<uint32_t>& size = o.size;
  if (size && min + *size > 65534) {
    throw CommandError(kExitUsage, "the range " + std::to_string(min) + " + " + std::to_string(*size) +
                                       " reaches the reserved indexes 65534/65535");
  }
  std::string error;
  const Mem::RootPath indexRoot = locate(o.path + "/" + kBitIndexMapName);
  std::vector<BitMapper::BitIndexMap> used;
  std::vector<BitMapper::WaitlistMap> waiting;
  if (!readRows(indexRoot, &used, &error)) throw CommandError(kExitDamaged, error);
  // An allocator that never had to make a key wait may have no wait list yet.
  Brume::Survey::Problem problem{};
  if (const auto waitRoot = Brume::Survey::locateTable(o.path + "/" + kWaitlistMapName, &problem, &error)) {
    if (!readRows(*waitRoot, &waiting, &error)) throw CommandError(kExitDamaged, error);
  }
  uint32_t inRange = 0;
  if (size) {
    for (const auto& r : used) inRange += r.key().value() >= min && r.key().value() < min + *size;
  }
  if (ctx.json) {
    Json j{{"path", o.path}};
    if (size) j["range"] = Json{{"min", min}, {"size", *size}};
    j["used"] = used.size();
    if (size) j["free"] = *size - inRange;
    Json u = Json::array(), w = Json::array();
    for (const auto& r : used) {
      u.push_back(Json{{"index", r.key().value()},
                       {"intf", r.bitMapperKey().intfId().name()},
                       {"address", r.bitMapperKey().ipGenAddr().text()},
                       {"refCount", r.refCount()},
                       {"newMapping", r.isNewMapping()}});
    }
    for (const auto& x : waiting) {
      w.push_back(Json{{"intf", x.key().intfId().name()},
                       {"address", x.key().ipGenAddr().text()},
                       {"refCount", x.refCount()}});
    }
    j["indexes"] = u;
    j["waiting"] = w;
    ctx.out << jsonText(j) << "\n";
    return;
  }
  std::ostream& out = ctx.out;
  out << o.path << ": ";
  if (size) {
    out << "range " << min << ".." << (*size == 0 ? min : min + *size - 1) << " (" << *size << " indexes), ";
  }
  out << "used " << used.size();
  if (size) {
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
}

}  // namespace

void addBitmapCommand(CommandLine& app, Context& ctx) {
  auto o = std::make_shared<BitmapOptions>();
  CliCommand sub = app.addCommand("bitmap", "summarise a bit-index pool");
  sub.footer(
      "Summarises the bit-index pool whose tables bitIndexMap and waitlistMap lie under the mount\n"
      "path: its range [min, min + size) when given, the indexes used with their keys and reference\n"
      "counts, the free count, and the waiting keys with their counts.");
  sub.addOption("path", &o->path, "the allocator's mount path").required();
  // Like the allocator's Config: the pool stays below 65534.
  sub.addOption("--min", &o->min, "the pool's first index").inRange(0, 65534).optionText("N");
  sub.addOption("--size", &o->size, "the pool's number of indexes").inRange(0, 65534).optionText("N");
  addJsonFlag(sub, ctx);
  sub.callback([o, &ctx] { runBitmap(*o, ctx); });
}

}  // namespace Mroutectl
