// A two-namespace lab for the real-kernel tests: a router namespace R and a
// host namespace H joined by two veth pairs,
//
//     H: ha 10.1.0.2/24  <---->  R: ra 10.1.0.1/24   (vif 0)
//     H: hb 10.2.0.2/24  <---->  R: rb 10.2.0.1/24   (vif 1)
//
// or, built with build6(), the same links with 2001:db8:1::2/64 (ha),
// 2001:db8:1::1/64 (ra), 2001:db8:2::2/64 (hb) and 2001:db8:2::1/64 (rb),
// usable at once (no duplicate address detection).
//
// Names carry the process id and a counter so that tests may run in
// parallel; the destructor removes both namespaces (and with them the veths),
// whatever the test did. Needs root and iproute2.
#pragma once

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

namespace Routing::Multicast::Notify::lab {

inline bool run(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

// Why the real-kernel tests cannot run here, or empty when they can.
inline std::string unavailable() {
  if (::geteuid() != 0) return "real-kernel tests need root to create network namespaces; skipped";
  if (!run("ip -V")) return "real-kernel tests need iproute2 (ip); skipped";
  return "";
}

class NetnsLab {
 public:
  NetnsLab() {
    static std::atomic<int> counter{0};
    std::string base = "mrk" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    router_ = base + "-r";
    host_ = base + "-h";
  }
  ~NetnsLab() {
    run("ip netns del " + router_);
    run("ip netns del " + host_);
  }
  NetnsLab(const NetnsLab&) = delete;
  NetnsLab& operator=(const NetnsLab&) = delete;

  // Builds the namespaces and links; false with `failed()` naming the step.
  bool build() { return buildWith({"10.1.0.1/24", "10.2.0.1/24", "10.1.0.2/24", "10.2.0.2/24"}, ""); }
  bool build6() {
    return buildWith({"2001:db8:1::1/64", "2001:db8:2::1/64", "2001:db8:1::2/64", "2001:db8:2::2/64"},
                     " nodad") &&
           // The kernel adds these itself, but only about a second after the
           // link comes up; until then multicast cannot be sent.
           steps({"ip -n " + host_ + " -6 route replace multicast ff00::/8 dev ha table local",
                  "ip -n " + host_ + " -6 route replace multicast ff00::/8 dev hb table local"});
  }

  const std::string& router() const { return router_; }
  const std::string& host() const { return host_; }
  const std::string& failed() const { return failed_; }

 private:
  // Addresses of ra, rb, ha and hb, each added with `addrFlags`.
  bool buildWith(const std::vector<std::string>& addrs, const std::string& addrFlags) {
    const std::string r = "ip -n " + router_ + " ", h = "ip -n " + host_ + " ";
    const std::vector<std::string> steps = {
        "ip netns add " + router_,
        "ip netns add " + host_,
        r + "link add ra type veth peer name ha netns " + host_,
        r + "link add rb type veth peer name hb netns " + host_,
        r + "addr add " + addrs[0] + " dev ra" + addrFlags,
        r + "addr add " + addrs[1] + " dev rb" + addrFlags,
        h + "addr add " + addrs[2] + " dev ha" + addrFlags,
        h + "addr add " + addrs[3] + " dev hb" + addrFlags,
        r + "link set lo up",
        r + "link set ra up",
        r + "link set rb up",
        h + "link set lo up",
        h + "link set ha up",
        h + "link set hb up",
    };
    return this->steps(steps);
  }
  // Runs each command; false with `failed()` naming the first that failed.
  bool steps(const std::vector<std::string>& commands) {
    for (const std::string& s : commands) {
      if (!run(s)) {
        failed_ = s;
        return false;
      }
    }
    return true;
  }

  std::string router_;
  std::string host_;
  std::string failed_;
};

}  // namespace Routing::Multicast::Notify::lab
