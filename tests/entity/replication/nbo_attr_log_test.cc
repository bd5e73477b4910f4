#include "mroute/entity/replication/nbo_attr_log.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "mroute/entity/replication/attr_log_socket.h"
#include "mroute/runtime/error.h"
#include "mroute/runtime/net/ip_gen_prefix.h"
#include "testing/expect_assert.h"
#include "testing/shm_root_scope.h"

namespace Kiv::NboAttrLog {
namespace {

using Mroute::Loop::EventLoop;
using Testing::runUntil;

TEST(WireTest, ValuesRoundTripInNetworkOrderAndBadFieldsThrow) {
  std::string buf;
  WireWriter w(buf);
  Wire<uint32_t>::write(w, 0x01020304);
  Wire<int16_t>::write(w, -2);
  Wire<bool>::write(w, true);
  Wire<double>::write(w, 2.5);
  Wire<Kiv::Name>::write(w, Kiv::Name("default"));
  Wire<Orvet::IpGenPrefix>::write(w, Orvet::IpGenPrefix::fromText("10.0.0.0/24"));
  EXPECT_EQ(buf.substr(0, 4), std::string("\x01\x02\x03\x04", 4));
  WireReader r(buf);
  EXPECT_EQ(Wire<uint32_t>::read(r), 0x01020304u);
  EXPECT_EQ(Wire<int16_t>::read(r), -2);
  EXPECT_TRUE(Wire<bool>::read(r));
  EXPECT_EQ(Wire<double>::read(r), 2.5);
  EXPECT_EQ(Wire<Kiv::Name>::read(r), Kiv::Name("default"));
  EXPECT_EQ(textOf(Wire<Orvet::IpGenPrefix>::read(r)), "10.0.0.0/24");
  r.end();
  // Truncated and overlong fields are refused with their texts in
  // ChannelTest.MalformedRecordsDropTheConnection.
  EXPECT_THROW_TEXT(fromWireBytes<bool>(std::string("\x07", 1)), WireError, "bool byte 7");
  // A string whose length runs past the record.
  EXPECT_THROW(fromWireBytes<std::string>(std::string("\x00\x00\x01\x00xy", 6)), WireError);
  EXPECT_THROW(fromWireBytes<Orvet::IpGenPrefix>(wireBytes(std::string("10.0.0/99"))), WireError);
}

// A connected pair: an Out for the writer, an In for the reader.
struct Pair {
  explicit Pair(EventLoop& loop, int sndbuf = 0) {
    int fds[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    if (sndbuf > 0) ::setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    out = new Out(loop, fds[0], "reader");
    in = new In(loop, fds[1], "writer");
    in->recordHandlerIs([this](RecordType t, WireReader& r) {
      const AttrId id = t == RecordType::attr ? (r.u32(), r.i32()) : 0;
      const uint32_t v = t == RecordType::attr ? Wire<uint32_t>::read(r) : 0;
      r.end();
      got.push_back({t, id, v});  // applied only after the whole record was read
    });
    in->droppedHandlerIs([this] { dropped = true; });
  }
  void attr(AttrId id, uint32_t v) {
    out->record(RecordType::attr, [&](WireWriter& w) {
      w.u32(1);
      w.i32(id);
      Wire<uint32_t>::write(w, v);
    });
  }
  // Writes raw bytes on the writer's socket, bypassing the encoder.
  void raw(const std::string& bytes) { ASSERT_EQ(::write(outFd(), bytes.data(), bytes.size()), ssize_t(bytes.size())); }
  int outFd() const { return out->fd(); }

  struct Got {
    RecordType type;
    AttrId id;
    uint32_t value;
  };
  Ptr<Out> out;
  Ptr<In> in;
  std::vector<Got> got;
  bool dropped = false;
};

TEST(ChannelTest, RecordsArriveWholeAndInOrder) {
  EventLoop loop;
  Pair p(loop);
  for (uint32_t i = 0; i < 1000; ++i) p.attr(258 + static_cast<AttrId>(i % 3), i);
  ASSERT_TRUE(runUntil(loop, [&] { return p.got.size() == 1000; }));
  for (uint32_t i = 0; i < 1000; ++i) {
    EXPECT_EQ(p.got[i].value, i);
    EXPECT_EQ(p.got[i].id, 258 + static_cast<AttrId>(i % 3));
  }
  EXPECT_EQ(p.out->recordsSent(), 1000u);
  EXPECT_FALSE(p.dropped);
}

TEST(ChannelTest, BlocksWhenTheReaderStopsReadingAndDrainsOnce) {
  EventLoop loop;
  Pair p(loop, 4096);
  p.in->readingIs(false);
  int drains = 0;
  p.out->drainHandlerIs([&] { ++drains; });
  uint32_t sent = 0;
  while (!p.out->blocked() && sent < 10'000'000) {
    p.attr(258, sent++);
    loop.runOnce(std::chrono::milliseconds(0));
  }
  ASSERT_TRUE(p.out->blocked());
  EXPECT_EQ(p.out->dataBits() & 16, 16);
  EXPECT_FALSE(p.out->shouldContinue());
  // Bounded: the buffer holds at most the high-water mark and one record.
  EXPECT_LE(p.out->buffered(), kHighWater + 64);
  p.in->readingIs(true);
  ASSERT_TRUE(runUntil(loop, [&] { return p.got.size() == sent; }));
  EXPECT_FALSE(p.out->blocked());
  EXPECT_EQ(drains, 1);
  EXPECT_EQ(p.got.back().value, sent - 1);
}

std::string frame(uint8_t type, const std::string& body) {
  std::string s;
  WireWriter w(s);
  w.u32(static_cast<uint32_t>(body.size() + 1));
  w.u8(type);
  return s + body;
}

// Each malformed stream follows one good record; the good one is applied,
// the bad one is not, and the connection goes with a trace that says why.
TEST(ChannelTest, MalformedRecordsDropTheConnection) {
  const std::string good = frame(2, std::string("\0\0\0\1\0\0\1\2\0\0\0\7", 12));
  const struct {
    std::string bytes;
    std::string trace;
  } cases[] = {
      {std::string("\0\0\0\0", 4), "malformed record: length 0"},
      {std::string("\xff\0\0\0", 4), "malformed record: length 4278190080"},
      {frame(99, ""), "malformed record: unknown type 99"},
      {frame(2, std::string("\0\0\0\1\0\0\1\2\0\0", 10)), "malformed attr record: truncated: 4 bytes wanted, 2 left"},
      {frame(2, std::string("\0\0\0\1\0\0\1\2\0\0\0\7\0", 13)), "malformed attr record: 1 trailing bytes"},
      {frame(7, std::string("\1", 1)), "malformed answer record: a reader expects no answers"},
  };
  for (const auto& c : cases) {
    EventLoop loop;
    Pair p(loop);
    Mroute::Trace::CaptureSink sink("Mroute::AttrLog/0");
    p.raw(good + c.bytes + good);
    ASSERT_TRUE(runUntil(loop, [&] { return p.dropped; })) << c.trace;
    ASSERT_EQ(p.got.size(), 1u) << c.trace;
    EXPECT_EQ(p.got[0].value, 7u);
    EXPECT_TRUE(sink.contains("Mroute::AttrLog", "NboAttrLog: dropping connection to writer: " + c.trace)) << c.trace;
    EXPECT_FALSE(p.in->connected());
  }
}

TEST(ChannelTest, StreamEndingInsideARecordIsTruncated) {
  EventLoop loop;
  Pair p(loop);
  Mroute::Trace::CaptureSink sink("Mroute::AttrLog/0");
  p.raw(frame(2, std::string("\0\0\0\1\0\0\1\2\0\0\0\7", 12)).substr(0, 9));
  p.out->close();
  ASSERT_TRUE(runUntil(loop, [&] { return p.dropped; }));
  EXPECT_TRUE(p.got.empty());
  EXPECT_TRUE(sink.contains("Mroute::AttrLog",
                            "NboAttrLog: dropping connection to writer: truncated record: stream ended 9 bytes into a record"));
}

TEST(SocketTest, PathStaysUnderTheRootAndOneWriterListens) {
  Testing::ShmRootScope root("attrlog");
  EXPECT_THROW(socketPath("routing/../../etc"), Pavo::InvalidInitializeException);
  EXPECT_THROW(socketPath("/abs"), Pavo::InvalidInitializeException);
  EXPECT_THROW(socketPath(std::string(120, 'x')), Pavo::InvalidInitializeException);
  EventLoop loop;
  const std::string path = socketPath("routing/multicast/vrf/config");
  EXPECT_EQ(connectTo(path), -1);
  std::vector<int> accepted;
  {
    Listener l(loop, path, [&](int fd) { accepted.push_back(fd); });
    struct stat st;
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_THROW_TEXT(Listener(loop, path, [](int) {}), Pavo::InvalidInitializeException,
                      "NboAttrLog: another writer serves " + path);
    const int c = connectTo(path);
    ASSERT_GE(c, 0);
    ASSERT_TRUE(runUntil(loop, [&] { return accepted.size() == 2; }));  // the probe, then this one
    ::close(c);
  }
  EXPECT_NE(::access(path.c_str(), F_OK), 0);  // removed with the listener
  for (int fd : accepted) ::close(fd);
  // A writer that died leaves its socket file; the next writer replaces it.
  {
    Listener dead(loop, path, [](int) {});
    ::link(path.c_str(), (path + ".stale").c_str());
  }
  ASSERT_EQ(::rename((path + ".stale").c_str(), path.c_str()), 0);
  Listener next(loop, path, [](int) {});
  const int c = connectTo(path);
  EXPECT_GE(c, 0);
  ::close(c);
}

}  // namespace

}  // namespace Kiv::NboAttrLog
