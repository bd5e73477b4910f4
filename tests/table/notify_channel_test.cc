// The wake-up and acknowledgement channel against a real queue: one kick per
// acknowledgement, acknowledgements reaching the queue, readers that leave
// or fall silent no longer pinning it.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>

#include "mroute/runtime/loop/event_loop.h"
#include "mroute/table/notify_channel.h"
#include "table/table_test_util.h"

namespace {

using Brume::NotifyClient;
using Brume::NotifyServer;

class NotifyChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writer_ = std::make_unique<TableTest::Writer>(dir_.root(), TableTest::config(16));
    ASSERT_TRUE(writer_->attach());
    server_.queueIs(writer_->conquer());
    ASSERT_TRUE(server_.open());
  }
  void spin(int rounds = 5) {
    for (int i = 0; i < rounds; ++i) loop_.runOnce(std::chrono::milliseconds(2));
  }
  Brume::ConquerWriter& queue() { return *writer_->conquer(); }

  TableTest::TempRoot dir_{"ch"};
  Mroute::Loop::EventLoop loop_;
  std::unique_ptr<TableTest::Writer> writer_;
  NotifyServer server_{loop_, dir_.dir(), std::chrono::milliseconds(100)};
};

TEST_F(NotifyChannelTest, KickOncePerAcknowledgementAndAnswerMinSeq) {
  NotifyClient client(dir_.dir());
  ASSERT_TRUE(client.connect());
  spin();
  EXPECT_EQ(server_.readers(), 1u);
  EXPECT_EQ(queue().numReaders(), 1u);
  EXPECT_TRUE(queue().waitingForReaders());  // connected, nothing acknowledged yet
  ASSERT_TRUE(client.ack(0));
  spin();
  EXPECT_FALSE(queue().waitingForReaders());
  NotifyClient::Inbox in = client.drain();
  EXPECT_TRUE(in.hasMinSeq);
  EXPECT_FALSE(in.kicked);

  for (uint64_t k = 1; k <= 3; ++k) writer_->write(TableTest::value(k));
  EXPECT_EQ(server_.counters().kicks, 1u);  // asleep until it acknowledges
  in = client.drain();
  EXPECT_TRUE(in.kicked);
  // Acknowledging less than was posted brings the next kick at once.
  ASSERT_TRUE(client.ack(1));
  spin();
  EXPECT_EQ(server_.counters().kicks, 2u);
  ASSERT_TRUE(client.ack(queue().sequence()));
  spin();
  writer_->write(TableTest::value(4));
  EXPECT_EQ(server_.counters().kicks, 3u);
}

// A reader that closes its end is forgotten at once, one that falls silent
// is dropped after the acknowledgement timeout: neither pins the queue.
TEST_F(NotifyChannelTest, ClosedAndSilentReadersStopPinningTheQueue) {
  auto closing = std::make_unique<NotifyClient>(dir_.dir());
  NotifyClient silent(dir_.dir());
  ASSERT_TRUE(closing->connect() && silent.connect());
  spin();
  closing->ack(0);
  silent.ack(0);
  spin();
  closing.reset();
  spin();
  EXPECT_EQ(server_.readers(), 1u);
  EXPECT_EQ(queue().numReaders(), 1u);
  EXPECT_EQ(server_.counters().closed, 1u);
  writer_->write(TableTest::value(1));
  EXPECT_EQ(queue().prune(), 0u);  // the silent reader has not seen sequence 1
  EXPECT_TRUE(Testing::runUntil(loop_, [&] { return server_.readers() == 0; }));
  EXPECT_EQ(server_.counters().dropped, 1u);
  EXPECT_EQ(queue().numReaders(), 0u);
  EXPECT_EQ(queue().prune(), queue().sequence());
  EXPECT_TRUE(silent.drain().hangup);
}

TEST_F(NotifyChannelTest, LongDirectoryIsReachedThroughProc) {
  std::string deep = dir_.dir() + "/" + std::string(60, 'd') + "/" + std::string(60, 'e');
  std::filesystem::create_directories(deep);
  NotifyServer server(loop_, deep);
  ASSERT_TRUE(server.open());
  NotifyClient client(deep);
  ASSERT_TRUE(client.connect());
  spin();
  EXPECT_EQ(server.readers(), 1u);
  EXPECT_TRUE(std::filesystem::exists(deep + "/notify.sock"));
}

}  // namespace
