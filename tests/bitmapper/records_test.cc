// The bit-index allocator's records: the reserved indexes, the keys and rows
// and their text forms, the request counters and the reader queries.
#include <gtest/gtest.h>

#include "mroute/bitmapper/brume_status.h"
#include "mroute/bitmapper/config.h"
#include "mroute/bitmapper/status.h"
#include "mroute/entity/kiv/text_form.h"
#include "testing/shm_root_scope.h"

namespace {

using namespace BitMapper;

using Kiv::textOf;

BitMapperKey key(const char* intf, const char* addr) {
  return BitMapperKey(Orvet::IntfId::fromText(intf), Orvet::IpGenAddr::fromText(addr));
}

TEST(BitIndexTest, InvalidIndexIsAnOrdinaryValueExceptForIsValid) {
  const BitIndex invalid = BitIndex::invalid();
  EXPECT_EQ(invalid.value(), 65534);
  EXPECT_EQ(BitIndex().value(), BitIndex::null().value());
  EXPECT_EQ(BitIndex::null().value(), 65535);
  EXPECT_FALSE(invalid.isValid());
  EXPECT_TRUE(BitIndex::null().isValid());
  EXPECT_TRUE(BitIndex(7).isValid());
  EXPECT_TRUE(BitIndex::null().isNull());
  EXPECT_FALSE(invalid.isNull());
  EXPECT_LT(BitIndex(7), invalid);
  EXPECT_LT(invalid, BitIndex::null());
  EXPECT_EQ(textOf(invalid), "65534");
  EXPECT_EQ(BitIndex::fromText("65534"), invalid);
}

TEST(RecordsTest, TextFormsRoundTrip) {
  const BitMapperKey k = key("Ethernet1", "10.0.0.1");
  EXPECT_EQ(textOf(k), "Value('BitMapper::BitMapperKey', ** {'intfId': Ethernet1, 'ipGenAddr': 10.0.0.1})");
  const BitIndexMap row(BitIndex(3), k, 2, false);
  EXPECT_EQ(textOf(row),
            "Value('BitMapper::BitIndexMap', ** {'key': 3, 'bitMapperKey': " + textOf(k) +
                ", 'refCount': 2, 'isNewMapping': False})");
  EXPECT_EQ(BitIndexMap::fromText(textOf(row)), row);
  const WaitlistMap wait(k, 4);
  EXPECT_EQ(textOf(wait), "Value('BitMapper::WaitlistMap', ** {'key': " + textOf(k) + ", 'refCount': 4})");
  EXPECT_EQ(WaitlistMap::fromText(textOf(wait)), wait);
}

TEST(RecordsTest, KeysOrderByInterfaceThenAddressAndRowsDifferInIsNewMapping) {
  EXPECT_LT(key("Ethernet1", "10.0.0.9"), key("Ethernet2", "10.0.0.1"));
  EXPECT_LT(key("Ethernet1", "10.0.0.1"), key("Ethernet1", "10.0.0.2"));
  const BitIndexMap row(BitIndex(3), key("Ethernet1", "10.0.0.1"), 1, true);
  BitIndexMap other = row;
  other.isNewMappingIs(false);
  EXPECT_NE(row, other);
}

// What Inc returns and who hears it is the conformance suite's (CounterShape,
// which wraps downward); here the wrap upward.
TEST(ConfigTest, RequestCountWrapsUpward) {
  Kiv::Ptr<Config> config = configFactory(64, true);
  config->allocRequestCountIs(0xffffffffu);
  EXPECT_EQ(config->allocRequestCountInc(1), 0u);
}

class BrumeStatusTest : public testing::Test {
 protected:
  void SetUp() override { status->mountTables(loop, "bitmapper/test", Brume::BrumeType::writer); }
  Testing::ShmRootScope root{"bitmapper"};
  Mroute::Loop::EventLoop loop;
  Kiv::Ptr<BrumeStatus> status = BrumeStatusIs("bitmapper");
};

TEST_F(BrumeStatusTest, LookupBitIndexAndIsNewMappingReadTheIndexTable) {
  const BitMapperKey k = key("Ethernet1", "10.0.0.1");
  EXPECT_EQ(status->lookupBitIndex(BitIndex(5)), BitMapperKey());
  EXPECT_TRUE(status->isNewMapping(BitIndex(5)));  // absent row reads as BitIndexMap()
  status->bitIndexMapIs(BitIndexMap(BitIndex(5), k, 1, false));
  EXPECT_EQ(status->lookupBitIndex(BitIndex(5)), k);
  EXPECT_FALSE(status->isNewMapping(BitIndex(5)));
  EXPECT_TRUE(status->isNewMapping(BitIndex::invalid()));
  status->waitlistMapIs(WaitlistMap(k, 2));
  EXPECT_EQ(status->waitlistMap(k).refCount(), 2u);
  EXPECT_EQ(status->bitIndexMap().capacity(), 65536u);
}

}  // namespace
