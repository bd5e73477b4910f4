// Writes the harnesses' seed corpora from the library's own writers:
//   make_seeds <fuzz/corpus>
// Table and queue files come from a table writer, attribute-log streams from
// an adapter writing to a socket, texts from the types' printers. Run it by
// hand when a format changes, and check the result in.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "file_set.h"
#include "mroute/entities/fib/config.h"
#include "mroute/entity/replication/kiv_nbo_attr_log_sa.h"
#include "mroute/entity/replication/nbo_attr_log.h"
#include "mroute/route/route_key.h"
#include "mroute/route/route_key_input.h"
#include "mroute/runtime/loop/event_loop.h"
#include "mroute/runtime/net/prefix.h"
#include "mroute/table/engine/brume_writer.h"
#include "mroute/table/engine/value_wrapper.h"
#include "value_types.h"

namespace fs = std::filesystem;
using Brume::Multicast::Fib::Route;
using Routing::Multicast::Fib::IpGenRouteKey;

namespace {

fs::path corpus;

void seed(const std::string& harness, const std::string& name, const std::string& bytes) {
  const fs::path dir = corpus / harness;
  fs::create_directories(dir);
  std::ofstream(dir / name, std::ios::binary) << bytes;
}

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

template <class T>
std::string print(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

IpGenRouteKey mroute(const char* s, const char* g) {
  return Routing::Multicast::Fib::makeRouteKeyMroute(Orvet::Prefix::fromText(s), Orvet::Prefix::fromText(g));
}

// The files of a route table of `routes` entries after some churn, in the
// order the table_files harness unpacks them.
std::vector<std::string> tableFiles(int routes) {
  using Stored = KivBrume::KivBrumeMapValueWrapper<Route, IpGenRouteKey, &Route::key>;
  const fs::path dir = fs::temp_directory_path() / ("mroute-seeds-" + std::to_string(::getpid()));
  fs::create_directories(dir);
  Brume::TableConfig config;
  config.initialSize = 4;
  config.maxSize = 16;
  config.valueType = std::string(Route::kTypeName);
  {
    Brume::BrumeWriter<Brume::DefaultOps<IpGenRouteKey, Stored>> w(Mem::RootPath(dir.string()), config);
    if (!w.attach()) std::abort();
    for (int i = 0; i < routes + 1; ++i) {
      Route r(mroute(i % 2 ? "10.0.0.1/32" : "0.0.0.0/0", ("239.1.1." + std::to_string(i) + "/32").c_str()));
      r.routePriorityIs(Brume::Multicast::Fib::RoutePriority(static_cast<uint8_t>(i + 1)));
      r.oifIs(Brume::Multicast::Fib::OifIndex(static_cast<uint16_t>(i)), true);
      w.write(Stored(r));
    }
    w.remove(mroute("0.0.0.0/0", "239.1.1.0/32"));
    w.detach();
  }
  std::vector<std::string> files;
  for (const char* name : {"slots", "buckets", "ember", "conquer.1", "conquer.2"}) files.push_back(slurp(dir / name));
  fs::remove_all(dir);
  return files;
}

// What a writer's adapter sends a new reader of a FIB configuration, and
// then a few changes.
std::string attrLog(bool changes) {
  using Routing::Multicast::Fib::Config;
  Mroute::Loop::EventLoop loop;
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) != 0) std::abort();
  Kiv::Ptr<Kiv::NboAttrLog::Out> out = new Kiv::NboAttrLog::Out(loop, fds[0], "seed");
  Kiv::Ptr<Config> config = new Config("default");
  config->maxFastdropsIs(7);
  config->counterRouteIs(mroute("0.0.0.0/0", "239.1.1.1/32"), true);
  auto sa = config->kivNboAttrLogSaIs(0, 1, out, nullptr);
  out->record(Kiv::NboAttrLog::RecordType::hello, [](Kiv::NboAttrLog::WireWriter& w) {
    w.u32(Kiv::NboAttrLog::kWireMagic);
    w.u16(Kiv::NboAttrLog::kWireVersion);
    w.u8(0);
    w.u64(42);
  });
  sa->doSerializeOrphan();
  if (changes) {
    config->maxFastdropsIs(9);
    config->clearFastdropIs(1.5);
    config->counterRouteIs(mroute("10.0.0.1/32", "232.1.1.1/32"), true);
    config->counterRouteDel(mroute("0.0.0.0/0", "239.1.1.1/32"));
  }
  out->flush();
  std::string bytes;
  char buf[4096];
  for (ssize_t n; (n = ::read(fds[1], buf, sizeof buf)) > 0;) bytes.append(buf, static_cast<size_t>(n));
  config->kivNboAttrLogSaDel(out);
  ::close(fds[1]);
  return bytes;
}

std::string upcall4(uint8_t type, uint16_t vif, const std::string& tail) {
  std::string b(20, '\0');
  b[0] = 0x45;
  b[8] = static_cast<char>(type);
  b[10] = static_cast<char>(vif & 0xff);
  b[11] = static_cast<char>(vif >> 8);
  const unsigned char src[] = {10, 0, 0, 1}, grp[] = {239, 1, 1, 1};
  b.replace(12, 4, reinterpret_cast<const char*>(src), 4);
  b.replace(16, 4, reinterpret_cast<const char*>(grp), 4);
  return b + tail;
}

std::string upcall6(uint8_t type, uint16_t mif, const std::string& tail) {
  std::string b(40, '\0');
  b[1] = static_cast<char>(type);
  b.replace(2, 2, reinterpret_cast<const char*>(&mif), 2);
  b[8] = '\x20';
  b[9] = '\x01';
  b[23] = 2;
  b[24] = '\xff';
  b[25] = '\x0e';
  b[39] = 1;
  return b + tail;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_seeds <fuzz/corpus>\n");
    return 2;
  }
  corpus = argv[1];

  for (int routes : {0, 5}) {
    const std::vector<std::string> files = tableFiles(routes);
    const std::string name = "routes" + std::to_string(routes);
    seed("table_files", name, Fuzz::joinFiles(files));
    seed("queue_files", name, Fuzz::joinFiles({files[3], files[4]}));
  }
  seed("attr_log", "orphan", attrLog(false));
  seed("attr_log", "changes", attrLog(true));

  using namespace Routing::Multicast::Fib;
  const RouteKey keys[] = {
      RouteKey(mroute("10.0.0.0/24", "232.1.1.1/32")), RouteKey(makeRouteKeyVlanFloodset(Bridging::VlanId(10))),
      RouteKey(makeRouteKeyEthGroup(Bridging::VlanId(20), Orvet::EthAddr::fromText("01:00:5e:01:01:01"))),
      RouteKey(makeRouteKeyMcastGroup(Multicast::Group::GroupKey(2, 7)))};
  for (size_t i = 0; i < std::size(keys); ++i) {
    seed("route_key_text", "key" + std::to_string(i), print(keys[i]));
  }
  seed("route_key_display", "sg", exactDisplay(mroute("10.0.0.0/24", "232.1.1.1/32")));
  seed("route_key_display", "starg", exactDisplay(mroute("0.0.0.0/0", "239.1.1.0/24")));
  seed("route_key_display", "v6", "(2001:db8::1, ff0e::1:1)");
  seed("route_key_display", "vlan", " 4094 ");

  for (size_t i = 0; i < Fuzz::ValueTypes::kCount; ++i) {
    Fuzz::ValueTypes::visit(i, [&]<class T>() {
      seed("value_text", Fuzz::nameOf<T>(), std::string(1, static_cast<char>(i)) + print(T()));
    });
  }

  seed("upcall4", "nocache", upcall4(1, 1, ""));
  seed("upcall4", "wrongvif", upcall4(2, 258, ""));
  seed("upcall4", "wholepkt", upcall4(3, 0, "\x45 the copied packet"));
  seed("upcall6", "nocache", upcall6(1, 258, ""));
  seed("upcall6", "wholepkt", upcall6(3, 0, "\x60 the copied packet"));

  seed("trace", "items", "Mroute::BitMapper/0-9,Mroute::Brume*/3");
  seed("trace", "levels", "0-39");
  seed("trace", "whole", "Mroute::MrtPam");
  return 0;
}
