// Routing::Multicast::Notify::MrtSocketPam: what the two upcall sockets
// share - the device kernel's notification socket (MrtNotifySocketPam) and
// the stock kernel's multicast-routing socket (MrtStockSocketPam).
//
// A socket pam is opened in the network namespace `netNs` by enabledIs(true)
// and closed by enabledIs(false); `options` selects the upcall kinds. While
// enabled, `fileDesc` holds the descriptor and `fdSm` watches it on the pam's
// event loop, calling doGetRxPkt() when it is readable.
//
// Receiving goes one way. receive() reads one datagram into a packet from
// the packet manager, records its ancillary data in the rx* attributes and
// returns it. doGetRxPkt() hands that packet to the readers with
// rxPktHolderIs, which wakes them; a reader's pass (MrtNotifySm) takes it and
// then calls receive() itself until the socket is empty, so nothing it reads
// comes back to it through the holder.
//
// The pam is IPv4 unless a subclass says otherwise (socketDomain, rxLayout,
// readAncillary).
//
// Trace lines go to "Mroute::MrtPam"; each begins with the signature of the
// operation, its argument in parentheses and " NS:" with the namespace.
//
// Thread-safety: single-threaded, on the pam's event loop.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "mroute/kernel/mrt_constants.h"
#include "mroute/kernel/mrt_sys.h"
#include "mroute/entity/kiv/ptr.h"
#include "mroute/runtime/net/ip_addr.h"
#include "mroute/runtime/net/namespace_name.h"
#include "mroute/pam/file_desc.h"
#include "mroute/pam/pam.h"
#include "mroute/pam/pam_fd_sm.h"
#include "mroute/pam/pkt.h"
#include "mroute/runtime/trace.h"

namespace Routing::Multicast::Notify {

class MrtSocketPam : public Orvet::Pam {
 public:
  const Orvet::NamespaceName& netNs() const { return netNs_; }
  // Stores the namespace and, when it changed, reopens the socket there
  // (handleNetNs).
  void netNsIs(const Orvet::NamespaceName& ns);
  virtual void handleNetNs();

  bool enabled() const { return enabled_; }
  // Opens (true) or closes (false) the socket: opens a raw socket of
  // socketProtocol() in netNs, registers it with the kernel
  // (registerUpcalls) and watches it. Opening throws Mroute::ErrnoException
  // and leaves the pam disabled, its descriptor closed.
  // REQUIRES: eventLoop() is set before enabling (asserted).
  void enabledIs(bool enabled);

  uint32_t options() const { return options_; }
  // Changes the wanted upcall kinds (MrtNotifyOption bits).
  virtual void optionsIs(uint32_t options) = 0;

  const Kiv::Ptr<Orvet::FileDesc>& fileDesc() const { return fileDesc_; }
  const Kiv::Ptr<Orvet::PamFdSm>& fdSm() const { return fdSm_; }

  uint32_t maxRxPktData() const { return maxRxPktData_; }
  void maxRxPktDataIs(uint32_t n) { maxRxPktData_ = n; }
  // MSG_DONTWAIT by default: readers pull until the socket is empty.
  int32_t rxFlags() const { return rxFlags_; }
  void rxFlagsIs(int32_t flags) { rxFlags_ = flags; }

  uint32_t rxIfIndex() const { return rxIfIndex_; }
  Orvet::IpAddr rxDstIpAddr() const { return rxDstIpAddr_; }
  Orvet::IpAddr rxOrigDstIpAddr() const { return rxOrigDstIpAddr_; }
  Orvet::IpAddr rxSrcIpAddr() const { return rxSrcIpAddr_; }
  void rxSrcIpAddrIs(Orvet::IpAddr a) { rxSrcIpAddr_ = a; }
  uint8_t rxTOS() const { return rxTOS_; }
  uint8_t rxTTL() const { return rxTTL_; }
  uint64_t rxPktCount() const { return rxPktCount_; }
  void rxPktCountIs(uint64_t n) { rxPktCount_ = n; }
  uint64_t rxPktCountInc(uint64_t n = 1) { return rxPktCount_ += n; }

  // What one receive() did.
  enum class RxStatus : uint8_t {
    packet,   // `pkt` holds a datagram for the readers
    skipped,  // a datagram was read but is not for the readers (empty, filtered)
    empty,    // nothing to read
    failed,   // not enabled, no packet memory, or a receive error (traced)
  };
  struct Rx {
    RxStatus status;
    Kiv::Ptr<Orvet::Pkt> pkt;
  };
  // Reads one datagram; never touches rxPktHolder.
  Rx receive();

  // Receives one datagram and hands it on with rxPktHolderIs; when the
  // holder is still full (its reader's pass ran out of time) tells the
  // readers again instead.
  void doGetRxPkt() override;
  // Closes the descriptor at teardown.
  void handleCleanup();

  // Seams: the system calls, and the packet manager that receives allocate
  // from (the global one by default).
  MrtSys& sys() const { return *sys_; }
  void sysIs(MrtSys& sys) { sys_ = &sys; }
  Orvet::PktManager& pktManager() const { return *pktManager_; }
  void pktManagerIs(Orvet::PktManager& mgr) { pktManager_ = &mgr; }

 protected:
  // `typeName` is the qualified class name used in trace signatures.
  MrtSocketPam(const Kiv::Name& name, std::string typeName);
  ~MrtSocketPam() override;

  // Called on each non-empty datagram before it is handed on; false drops it.
  virtual bool acceptRx(Orvet::Pkt& pkt);

  // The raw socket's family (AF_INET) and protocol (IPPROTO_RAW,
  // IPPROTO_IGMP).
  virtual int socketDomain() const { return AF_INET; }
  virtual int socketProtocol() const = 0;

  // What recvmsg is given: room for the sender's address, and the one
  // ancillary record the control buffer is laid out for (IPv4: a 16-byte
  // address and IP_PKTINFO).
  struct RxLayout {
    socklen_t nameLen;
    int cmsgLevel;
    int cmsgType;
    size_t cmsgDataLen;
  };
  virtual RxLayout rxLayout() const;
  // Records the ancillary data of a received datagram in the rx*
  // attributes, tracing each record; returns whether it named the arrival
  // interface.
  virtual bool readAncillary(const msghdr& msg);
  void rxIfIndexIs(uint32_t index) { rxIfIndex_ = index; }
  // Tells the kernel to send upcalls on the freshly opened `fd`; on failure
  // closes it and throws (closeAndThrow). `op`/`arg` are for traces.
  virtual void registerUpcalls(int fd, std::string_view op, std::string_view arg) = 0;

  // Opens the socket: socketAt(socketDomain(), SOCK_RAW, protocol, netNs); on failure
  // traces "socket open error" and throws with the context "socket".
  int openSocket(std::string_view op, std::string_view arg, int protocol);
  // setsockopt(fd, IPPROTO_IP, option, int value); returns errno or 0.
  int setIntOption(int fd, int option, int value);
  // setsockopt(fd, level, option, value, len); returns errno or 0.
  int setOption(int fd, int level, int option, const void* value, socklen_t len);
  // Closes `fd` and throws ErrnoException(context, err).
  [[noreturn]] void closeAndThrow(int fd, std::string_view context, int err);
  // Wraps an open, configured descriptor: fileDesc, fdSm, enabled. Closes
  // the descriptor if the loop refuses it.
  void finishEnable(std::string_view op, std::string_view arg, int fd);
  void disable(std::string_view op, std::string_view arg);
  // Traces "Mrt options" lines; returns old XOR new.
  uint32_t traceOptionChange(std::string_view op, std::string_view arg, uint32_t newOptions);
  void optionsStore(uint32_t options) { options_ = options; }

  // "void <type>::<op>(<arg>) NS:<netNs>" and, when text is not empty,
  // " <text>"; `op` is the operation with its parameter types,
  // "enabledIs(bool)".
  void trace(int level, std::string_view op, std::string_view arg, std::string_view text) const;
  bool tracing(int level) const { return facility_.enabled(level); }

 private:
  Rx finishRx(Kiv::Ptr<Orvet::Pkt> pkt, size_t length, const msghdr& msg);

  std::string typeName_;
  const Mroute::Trace::Facility& facility_;
  MrtSys* sys_;
  Orvet::PktManager* pktManager_;
  Orvet::NamespaceName netNs_;
  bool enabled_ = false;
  uint32_t options_ = 0;
  Kiv::Ptr<Orvet::FileDesc> fileDesc_;
  Kiv::Ptr<Orvet::PamFdSm> fdSm_;
  uint32_t maxRxPktData_ = 65535;
  int32_t rxFlags_;
  uint32_t rxIfIndex_ = 0;
  Orvet::IpAddr rxDstIpAddr_;
  Orvet::IpAddr rxOrigDstIpAddr_;
  Orvet::IpAddr rxSrcIpAddr_;
  uint8_t rxTOS_ = 0;
  uint8_t rxTTL_ = 0;
  uint64_t rxPktCount_ = 0;
};

}  // namespace Routing::Multicast::Notify
