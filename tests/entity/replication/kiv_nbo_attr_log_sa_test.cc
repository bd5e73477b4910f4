// The attribute-log adapter on the FIB configuration: what is sent when,
// back-pressure and coalescing, resynchronisation, and the refusals.
#include "mroute/entity/replication/kiv_nbo_attr_log_sa.h"

#include <sys/socket.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "mroute/entities/fib/config.h"
#include "mroute/entity/replication/attr_log_tree.h"
#include "mroute/runtime/error.h"
#include "mroute/runtime/net/prefix.h"
#include "testing/expect_assert.h"
#include "testing/shm_root_scope.h"

namespace Kiv::NboAttrLog {
namespace {

using Mroute::Loop::EventLoop;
using Routing::Multicast::Fib::Config;
using Routing::Multicast::Fib::IpGenRouteKey;
using Testing::runUntil;

IpGenRouteKey key(const std::string& g) {
  return Routing::Multicast::Fib::makeRouteKeyMroute(Orvet::Prefix::fromText("0.0.0.0/0"), Orvet::Prefix::fromText(g.c_str()));
}

// What the reader's agent sees.
class Seen : public Config::Notifiee {
 public:
  void onRouting() override { log.push_back("routing"); }
  void onMaxFastdrops() override { log.push_back("maxFastdrops " + std::to_string(notifier()->maxFastdrops())); }
  void onCounterRoute(const IpGenRouteKey& k) override { log.push_back("counterRoute " + Kiv::textOf(k)); }
  using Config::NotifieeConst::onCounterRoute;
  std::vector<std::string> log;
};

// A writer's Config replicated to a reader's Config over a socket pair.
class AttrLogSaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    const int small = 4096;
    ::setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    out = new Out(loop, fds[0], "reader");
    in = new In(loop, fds[1], "writer");
    in->recordHandlerIs([this](RecordType t, WireReader& body) {
      WireReader peek = body;
      if (t == RecordType::attr || t == RecordType::member) {
        peek.u32();
        sent.push_back(peek.i32());
      }
      replica.handleRecord(t, body);
    });
    in->droppedHandlerIs([this] { dropped = true; });
    sa = writer->kivNboAttrLogSaIs(0, 1, out, nullptr);
    sa->doSerializeOrphan();
    seen.notifierIs(reader);
    ASSERT_TRUE(settle());
    sent.clear();
  }
  void TearDown() override { writer->kivNboAttrLogSaDel(out); }

  bool settle() {
    return runUntil(loop, [&] { return out->buffered() == 0 && !out->blocked() && out->flowOuts() == 0; }) &&
           runUntil(loop, [&] { return in->recordsReceived() == out->recordsSent(); });
  }
  // Fills the channel until it refuses more.
  void block() {
    in->readingIs(false);
    while (!out->blocked()) {
      out->record(RecordType::bookmark, [](WireWriter& w) {
        w.u32(1);
        w.i32(264);
      });
      loop.runOnce(std::chrono::milliseconds(0));
    }
  }

  EventLoop loop;
  Ptr<Out> out;
  Ptr<In> in;
  Ptr<Config> writer = new Config("default");
  Ptr<Config> reader = new Config("default");
  TreeReplica replica{reader, Config::KivNboAttrLogSa::logType()};
  Ptr<Entity::KivNboAttrLogSa> sa;
  Seen seen;
  std::vector<AttrId> sent;
  bool dropped = false;
};

TEST_F(AttrLogSaTest, ChangesGoOutOnceAndOnlyWhenTheyChange) {
  writer->maxFastdropsIs(7);
  writer->maxFastdropsIs(7);
  writer->counterRouteIs(key("239.1.1.1"), true);
  writer->multipathControlIs(Config::MultipathControl::multipathNone);
  ASSERT_TRUE(settle());
  EXPECT_EQ(sent, (std::vector<AttrId>{262, 264, 259}));
  EXPECT_EQ(reader->maxFastdrops(), 7u);
  EXPECT_TRUE(reader->counterRoute(key("239.1.1.1")));
  EXPECT_EQ(reader->multipathControl(), Config::MultipathControl::multipathNone);
  EXPECT_EQ(seen.log, (std::vector<std::string>{"maxFastdrops 7", "counterRoute " + Kiv::textOf(key("239.1.1.1"))}));
  EXPECT_EQ(sa->flowOut(), nullptr);  // never blocked: no flow-out was made
}

TEST_F(AttrLogSaTest, BlockedChangesAreSentOnceInAttributeOrderWithTheLastValue) {
  block();
  const uint64_t before = out->recordsSent();
  writer->clearFastdropIs(1.5);
  for (uint32_t v = 1; v <= 100; ++v) writer->maxFastdropsIs(v);
  writer->routingIs(true);
  writer->counterRouteIs(key("239.1.1.1"), true);
  writer->counterRouteIs(key("239.1.1.2"), true);
  writer->counterRouteDel(key("239.1.1.2"));
  writer->counterRouteIs(key("239.1.1.1"), false);
  EXPECT_EQ(out->recordsSent(), before);  // nothing written while blocked
  ASSERT_NE(sa->flowOut(), nullptr);
  EXPECT_TRUE(sa->flowOut()->hasDirtyAttributes());
  EXPECT_EQ(sa->flowOut()->dirtyKeys.at(264).size(), 2u);  // one entry per changed key
  in->readingIs(true);
  ASSERT_TRUE(settle());
  EXPECT_EQ(sent, (std::vector<AttrId>{258, 262, 264, 264, 266}));
  EXPECT_EQ(seen.log, (std::vector<std::string>{"routing", "maxFastdrops 100",
                                               "counterRoute " + Kiv::textOf(key("239.1.1.1"))}));
  EXPECT_FALSE(reader->counterRoute(key("239.1.1.1")));
  EXPECT_TRUE(reader->counterRoute().count(key("239.1.1.1")));
  EXPECT_FALSE(reader->counterRoute().count(key("239.1.1.2")));  // sent as a deletion: never seen
  EXPECT_EQ(reader->clearFastdrop(), 1.5);
  EXPECT_FALSE(sa->flowOut()->hasDirtyAttributes());
  EXPECT_EQ(out->bookmarks(), 0u);
}

TEST_F(AttrLogSaTest, StopAnswerHoldsTheFlowOut) {
  block();
  writer->routingIs(true);
  in->answerIs(false);
  in->readingIs(true);
  ASSERT_TRUE(runUntil(loop, [&] { return !out->shouldContinue() && out->buffered() == 0; }));
  loop.runOnce(std::chrono::milliseconds(10));
  EXPECT_TRUE(sent.empty());
  in->answerIs(true);
  ASSERT_TRUE(settle());
  EXPECT_EQ(sent, (std::vector<AttrId>{258}));
}

TEST_F(AttrLogSaTest, LargeCollectionResumesAtItsBookmarkSendingEachMemberOnce) {
  block();
  for (int i = 0; i < 4000; ++i) writer->counterRouteIs(key("239.1." + std::to_string(i / 250) + "." + std::to_string(i % 250)), true);
  in->readingIs(true);
  size_t maxBookmarks = 0;
  ASSERT_TRUE(runUntil(loop, [&] {
    maxBookmarks = std::max(maxBookmarks, out->bookmarks());
    return reader->counterRoute().size() == 4000;
  }));
  EXPECT_EQ(maxBookmarks, 1u);  // the drain blocked again inside the collection
  ASSERT_TRUE(settle());
  EXPECT_EQ(std::count(sent.begin(), sent.end(), 264), 4000);
  EXPECT_EQ(out->bookmarks(), 0u);
}

TEST_F(AttrLogSaTest, IncomingChangesAreNotEchoed) {
  // A record applied through the writer's own adapter goes nowhere.
  std::string body;
  WireWriter w(body);
  Wire<uint32_t>::write(w, 99);
  WireReader r(body);
  const uint64_t before = out->recordsSent();
  sa->handleAttrDeserialization(Config::kMaxFastdropsId, 0, 1, r);
  EXPECT_EQ(writer->maxFastdrops(), 99u);
  EXPECT_EQ(out->recordsSent(), before);
  // A deferred notification is the collection form under a negative id.
  writer->counterRouteIs(key("239.9.9.9"), true);
  ASSERT_TRUE(settle());
  sent.clear();
  sa->doNotification(-Config::kCounterRouteId, wireBytes(key("239.9.9.9")));
  sa->doNotification(4711, "");
  ASSERT_TRUE(settle());
  EXPECT_EQ(sent, (std::vector<AttrId>{264}));
}

TEST_F(AttrLogSaTest, ResynchronisationKeepsExactlyTheResentMembers) {
  for (const char* g : {"239.0.0.1", "239.0.0.2", "239.0.0.3"}) writer->counterRouteIs(key(g), true);
  ASSERT_TRUE(settle());
  ASSERT_EQ(reader->counterRoute().size(), 3u);
  // A new writer that has only .2 and .4.
  sa->hasNotificationActiveIs(false);
  writer->counterRouteDel(key("239.0.0.1"));
  writer->counterRouteDel(key("239.0.0.3"));
  sa->hasNotificationActiveIs(true);
  seen.log.clear();
  Entity::KivNboAttrLogSa* readerSa = kivNboAttrLogSa(*reader, nullptr);
  ASSERT_NE(readerSa, nullptr);
  readerSa->syncModeIs(2);
  writer->counterRouteNotify(key("239.0.0.2"));
  writer->counterRouteIs(key("239.0.0.4"), true);
  ASSERT_TRUE(settle());
  EXPECT_EQ(reader->counterRoute().size(), 4u);  // nothing goes before the mode leaves 2
  readerSa->syncModeIs(0);
  std::vector<std::string> keys;
  for (const auto& [k, v] : reader->counterRoute()) keys.push_back(Kiv::textOf(k));
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<std::string>{Kiv::textOf(key("239.0.0.2")), Kiv::textOf(key("239.0.0.4"))}));
  // Notifiees heard the deletions; nothing went back.
  EXPECT_EQ(std::count(seen.log.begin(), seen.log.end(), "counterRoute " + Kiv::textOf(key("239.0.0.1"))), 1);
  EXPECT_EQ(in->recordsSent(), 0u);
}

TEST_F(AttrLogSaTest, RefusalsNameTheirCause) {
  EXPECT_THROW_TEXT(writer->kivNboAttrLogSaIs(0, 2, out, nullptr), Pavo::InvalidInitializeException,
                    "entity reactor is already active");
  // A clone is a fresh adapter on the same channel.
  Ptr<Entity::KivNboAttrLogSa> clone = sa->cloneSa();
  EXPECT_TRUE(clone->active());
  EXPECT_EQ(clone->handle(), sa->handle());
  clone->detach();
  // Inactive adapters send nothing.
  sa->hasNotificationActiveIs(false);
  writer->routingIs(true);
  sa->hasNotificationActiveIs(true);
  ASSERT_TRUE(settle());
  EXPECT_TRUE(sent.empty());
}

TEST_F(AttrLogSaTest, MalformedValueAppliesNothing) {
  // An orphan whose values end in the middle: none of them is applied.
  std::string values;
  WireWriter v(values);
  v.u32(2);
  v.i32(Config::kRoutingId);
  v.u8(1);
  v.i32(Config::kMaxFastdropsId);
  v.u16(0);
  out->record(RecordType::orphan, [&](WireWriter& w) {
    w.u32(7);
    w.u8(1);
    w.bytes("Routing::Multicast::Fib::Config");
    w.u8(3);
    w.bytes(std::string("\0\0\0\0\0\0\0\0", 8));
    w.u8(4);
    w.bytes(values);
  });
  ASSERT_TRUE(runUntil(loop, [&] { return dropped; }));
  EXPECT_FALSE(reader->routing());
  EXPECT_EQ(reader->maxFastdrops(), 1024u);
}

}  // namespace
}  // namespace Kiv::NboAttrLog
