// The files of a route table ("slots", "buckets", "ember", "conquer.1",
// "conquer.2") as another process may have left them, read the ways an
// operator's tool and a reader read them: the survey's status, header check,
// deep validation and dump (each value's text and key), and a reader's walk
// and look-ups. Every way ends with an answer or a reported fault.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "file_set.h"
#include "mroute/route/route.h"
#include "mroute/runtime/error.h"
#include "mroute/table/engine/brume_reader.h"
#include "mroute/table/engine/value_wrapper.h"
#include "mroute/table/survey/table_survey.h"
#include "mroute/table/survey/value_codec.h"

namespace {

using Brume::Multicast::Fib::Route;
using Routing::Multicast::Fib::IpGenRouteKey;
using Stored = KivBrume::KivBrumeMapValueWrapper<Route, IpGenRouteKey, &Route::key>;
using Ops = Brume::DefaultOps<IpGenRouteKey, Stored>;

constexpr const char* kTable = "fuzz/route";
constexpr const char* kNames[] = {"slots", "buckets", "ember", "conquer.1", "conquer.2"};
std::string tableDir;

void put(const std::string& path, std::optional<std::string_view> bytes) {
  if (!bytes) {
    ::unlink(path.c_str());
    return;
  }
  const int fd = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
  if (fd < 0 || ::write(fd, bytes->data(), bytes->size()) != static_cast<ssize_t>(bytes->size())) std::abort();
  ::close(fd);
}

// A reader's walk from the first entry, each key looked up again, then its
// forEach; bounded, since a damaged chain may lead in circles until the
// reader notices (f detaching the reader ends forEach).
void readerWalk(const Mem::RootPath& root) {
  Brume::BrumeReader<Ops> reader(root);
  if (!reader.initialize()) return;
  try {
    Stored s;
    bool more = reader.first(s);
    for (int i = 0; more && i < 64; ++i) {
      Stored found;
      reader.lookup(s.key(), found);
      more = reader.next(s.key(), s);
    }
  } catch (const Pavo::CorruptionDetectedException&) {
  }
  try {
    int left = 64;
    reader.forEach([&](const Stored&) {
      if (--left == 0) reader.detach();
    });
  } catch (const Pavo::CorruptionDetectedException&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Memory-backed when there is /dev/shm: a run writes the files millions of times.
  char shm[] = "/dev/shm/mroute-fuzz-XXXXXX";
  char tmp[] = "/tmp/mroute-fuzz-XXXXXX";
  const char* root = ::mkdtemp(shm);
  if (!root) root = ::mkdtemp(tmp);
  if (!root) std::abort();
  ::setenv("MROUTE_SHM_ROOT", root, 1);
  tableDir = std::string(root) + "/" + kTable;
  std::filesystem::create_directories(tableDir);
  static const std::string rootDir = root;
  std::atexit([] { std::filesystem::remove_all(rootDir); });
  Brume::Survey::registerStoredType<Stored>();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto files = Fuzz::splitFiles(std::string_view(reinterpret_cast<const char*>(data), size), 5);
  for (size_t i = 0; i < files.size(); ++i) put(tableDir + "/" + kNames[i], files[i]);

  Brume::Survey::Problem problem{};
  std::string error;
  const std::optional<Mem::RootPath> root = Brume::Survey::locateTable(kTable, &problem, &error);
  if (!root) return 0;
  Brume::Survey::statTable(kTable);
  Brume::Survey::validateTable(*root);
  if (!Brume::Survey::headerFinding(*root).empty()) return 0;

  // The dump, as the tool shows a table whose header checks passed.
  const Brume::Survey::TableStat stat = Brume::Survey::statTable(kTable);
  const Brume::Survey::ValueCodec* codec = Brume::Survey::findValueCodec(stat.valueType, stat.valueSize);
  std::vector<Brume::Survey::StoredEntry> entries;
  if (Brume::Survey::readEntries(*root, &entries, &error)) {
    // Sorted by key as the tool lists them: the keys' order must hold for
    // whatever bytes the slots hold, or the sort runs off the array.
    if (codec) {
      std::sort(entries.begin(), entries.end(),
                [&](const auto& a, const auto& b) { return codec->keyLess(a.bytes.data(), b.bytes.data()); });
    }
    for (const auto& e : entries) {
      if (codec) {
        codec->text(e.bytes.data());
        codec->keyText(e.bytes.data());
      } else {
        Brume::Survey::hexText(e.bytes.data(), e.bytes.size());
      }
    }
  }
  readerWalk(*root);
  return 0;
}
