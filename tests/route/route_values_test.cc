#include <gtest/gtest.h>

#include <unordered_set>

#include "mroute/entity/kiv/text_form.h"
#include "mroute/route/bidir_group.h"
#include "mroute/route/df_profile.h"
#include "mroute/route/intf_flags.h"
#include "mroute/route/intf_oif_index.h"
#include "mroute/route/oif_index_intf.h"
#include "mroute/route/route_flags.h"
#include "mroute/route/route_priority.h"
#include "mroute/route/rpa_index.h"
#include "mroute/route/table_info.h"
#include "testing/expect_assert.h"

namespace Brume::Multicast::Fib {
namespace {

using Kiv::textOf;

// Every flag word has the same shape: one bit per flag, a range error naming
// the top value, and a text form that reads back.
template <class Flags>
class FlagWordShape : public ::testing::Test {};
using FlagWords = ::testing::Types<RouteFlags, IifFlags, IntfFlags>;
TYPED_TEST_SUITE(FlagWordShape, FlagWords);

TYPED_TEST(FlagWordShape, EachFlagIsItsOwnBit) {
  for (unsigned bit = 0; bit < TypeParam::kFlags; ++bit) {
    TypeParam f;
    f.flagIs(bit, true);
    EXPECT_EQ(f.value(), 1u << bit);
    f.flagIs(bit, false);
    EXPECT_EQ(f.value(), 0u);
  }
  TypeParam f;
  EXPECT_ASSERTION(f.flagIs(TypeParam::kFlags, true), "bit < N");
}

TYPED_TEST(FlagWordShape, ValueAboveTopBitIsRejectedByName) {
  const std::string expected = std::string(TypeParam::kShortName) + "::value > 0x" +
                               (TypeParam::kFlags == 1 ? "1" : "3f") + " not allowed";
  EXPECT_THROW_TEXT(TypeParam(TypeParam::kMaxValue + 1), Kiv::RangeException, expected);
  TypeParam f(TypeParam::kMaxValue);
  EXPECT_THROW_TEXT(f.valueIs(TypeParam::kMaxValue + 1), Kiv::RangeException, expected);
  EXPECT_EQ(f.value(), TypeParam::kMaxValue);  // nothing stored on failure
  EXPECT_THROW_TEXT(TypeParam::fromText(std::to_string(TypeParam::kMaxValue + 1)), Kiv::RangeException,
                    expected);
}

TYPED_TEST(FlagWordShape, TextRoundTripsEveryValue) {
  std::unordered_set<std::string> texts;
  for (uint32_t v = 0; v <= TypeParam::kMaxValue; ++v) {
    TypeParam f(v);
    std::string t = textOf(f);
    EXPECT_EQ(TypeParam::fromText(t), f) << t;
    texts.insert(t);
  }
  EXPECT_EQ(texts.size(), TypeParam::kMaxValue + 1u);  // no two values print alike
}

TEST(NamedFlags, AccessorsBitsAndExactTexts) {
  RouteFlags f;
  f.validIs(true);
  f.programmableIs(true);
  EXPECT_EQ(f.value(), 0x11u);
  EXPECT_TRUE(f.valid() && f.programmable() && !f.toCpu());
  const std::string head = "Value('Brume::Multicast::Fib::Route::RouteFlags', ** {";
  EXPECT_EQ(textOf(f), head + "'valid': True, 'toCpu': False, 'iifRegister': False, 'oifRegister': False, "
                              "'programmable': True, 'skipKernelProgramming': False})");
  EXPECT_EQ(RouteFlags::fromText(head + "'valid': True, 'toCpu': True, 'iifRegister': True, 'oifRegister': True, "
                                        "'programmable': True, 'skipKernelProgramming': True})")
                .value(),
            0x3fu);
  EXPECT_THROW_TEXT(RouteFlags::fromText(head + "'valid': True, 'cpu': True})"), Kiv::DeserializationException,
                    "toCpu: expected \", 'toCpu': \"");

  IifFlags iif;  // the bare noRpf boolean
  iif.noRpfIs(true);
  EXPECT_EQ(textOf(iif), "True");
  EXPECT_EQ(IifFlags::fromText("False"), IifFlags());

  IntfFlags intf;
  intf.forwardIs(true);
  intf.notifyIs(true);
  EXPECT_EQ(intf.value(), 0x05u);
  intf.frrIs(true);
  EXPECT_EQ(intf.value(), 0x25u);
  EXPECT_EQ(
      textOf(IntfFlags(0x18)),
      "Value('Brume::Multicast::Fib::IntfFlags', ** {'forward': False, 'accept': False, 'notify': False, "
      "'noRpf': True, 'fastdrop': True, 'frr': False})");
}

TEST(BoundedValues, RangesRefuseAndStoreNothing) {
  EXPECT_FALSE(OifIndex(511).isNull());
  // The range texts are checked by RouteRecord.RangeErrorsNameTheAttribute.
  OifIndex i(4);
  EXPECT_THROW(i.valueIs(600), Kiv::RangeException);
  EXPECT_EQ(i, OifIndex(4));
  EXPECT_THROW(OifIndex::fromText("70000"), Kiv::RangeException);
  EXPECT_THROW(OifIndex::fromText("-1"), Kiv::RangeException);
  EXPECT_EQ(RpaIndex::fromText("40000"), RpaIndex(40000));
}

TEST(OifIndexIntf, StreamTextAndRangeChecks) {
  OifIndexIntf v(OifIndex(300), Orvet::IntfId("Ethernet3/1"), 70000);
  RecordWriter out;
  v.write(out);
  ASSERT_EQ(out.bytes().size(), 14u);
  EXPECT_EQ(out.bytes()[0], 0x01);  // index 300 in network order
  EXPECT_EQ(out.bytes()[1], 0x2c);
  EXPECT_EQ(OifIndexIntf::read(out.bytes()), v);
  const std::string range = "OifIndex::value < OifIndex::min or > OifIndex::null not allowed";
  std::vector<uint8_t> bad = out.bytes();
  bad[0] = 0x02;  // index 513
  bad[1] = 0x01;
  EXPECT_THROW_TEXT(OifIndexIntf::read(bad), Kiv::RangeException, range);
  std::vector<uint8_t> shortStream(out.bytes().begin(), out.bytes().end() - 1);
  EXPECT_THROW(OifIndexIntf::read(shortStream), Kiv::RangeException);

  OifIndexIntf small(OifIndex(3), Orvet::IntfId("Ethernet1"), 2);
  const std::string head = "Value('Brume::Multicast::Fib::OifIndexIntf', ** {";
  EXPECT_EQ(textOf(small), head + "'key': 3, 'intf': Ethernet1, 'refCount': 2})");
  EXPECT_EQ(OifIndexIntf::fromText(textOf(small)), small);
  EXPECT_TRUE(small.brumeString().ends_with(" RC: 2")) << small.brumeString();
  EXPECT_THROW_TEXT(OifIndexIntf::fromText(head + "'key': 513, 'intf': null, 'refCount': 0})"),
                    Kiv::DeserializationException, "key: " + range);
}

TEST(Records, TextFormsAndTheRouteTableSetSizes) {
  IntfOifIndex r(Orvet::IntfId("Port-Channel7"), OifIndex(9));
  EXPECT_EQ(textOf(r),
            "Value('Brume::Multicast::Fib::IntfOifIndex', ** {'key': Port-Channel7, 'oifIndex': 9})");
  EXPECT_EQ(IntfOifIndex::fromText(textOf(r)), r);

  DfProfile d(Orvet::IntfId("Vlan100"), 0x8000000000000005ull);
  EXPECT_EQ(
      textOf(d),
      "Value('Brume::Multicast::Fib::DfProfile', ** {'key': Vlan100, 'dfBitmap': 9223372036854775813})");
  EXPECT_EQ(DfProfile::fromText(textOf(d)), d);
  EXPECT_NE(d.brumeString().find("Vlan100"), std::string::npos);

  BidirGroup g(Orvet::IpGenPrefix::fromText("232.0.0.0/8"), RpaIndex(3));
  EXPECT_EQ(textOf(g), "Value('Brume::Multicast::Fib::BidirGroup', ** {'key': 232.0.0.0/8, 'rpa': 3})");
  EXPECT_EQ(BidirGroup::fromText(textOf(g)), g);
  EXPECT_NE(g.brumeString().find("232.0.0.0/8"), std::string::npos);

  MountInfo info = TableInfo::mfibMountInfo("Brume::Multicast::Fib::Status");
  EXPECT_EQ(info.type, "Brume::Multicast::Fib::Status");
  EXPECT_EQ(info.entries("route"), 12000u);
  EXPECT_EQ(info.entries("oifIndexIntf"), 1024u);
  EXPECT_EQ(info.entries("bidirGroup"), 0u);
  EXPECT_EQ(textOf(TableInfo()), "Value('Brume::Multicast::Fib::TableInfo', ** {})");
  EXPECT_EQ(TableInfo::fromText(textOf(TableInfo())), TableInfo());
}

}  // namespace
}  // namespace Brume::Multicast::Fib
