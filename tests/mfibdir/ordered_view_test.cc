// The ordered views of one table set (ModalOrderRouteSm) and of a VRF's winners (OrderRouteSm).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mfib_test_util.h"
#include "mroute/mfibdir/modal_order_route_sm.h"
#include "mroute/mfibdir/order_route_sm.h"
#include "mroute/runtime/trace.h"

namespace {

using namespace MfibTest;
using namespace Brume::Multicast::Fib;
using Texts = std::vector<std::string>;

class OrderedViewTest : public testing::Test {
 protected:
  Texts traces() {
    Texts t = sink.texts("Mroute::MfibBrume");
    sink.clear();
    return t;
  }
  Testing::ShmRootScope root{"ordered"};
  Mroute::Loop::EventLoop loop;
  Mroute::Trace::CaptureSink sink{"Mroute::MfibBrume"};
  Kiv::Ptr<Status> one = writerStatus(loop, "default", "one");
  Kiv::Ptr<Status> two = writerStatus(loop, "default", "two");
  const IpGenRouteKey k1 = key("10.0.0.1/32", "232.0.0.1/32");
  const IpGenRouteKey k2 = key("10.0.0.1/32", "232.0.0.2/32");
};

TEST_F(OrderedViewTest, ModalViewMirrorsOneTableSetsKeys) {
  Kiv::Ptr<ModalRouteOrderedCollection> view = ModalRouteOrderedCollectionIs("one");
  ModalOrderRouteSm sm(one, view);
  one->routeIs(route(k2, 1));
  EXPECT_EQ(traces(), (Texts{"ModalOrderRouteSm not initialized"}));
  EXPECT_TRUE(view->route().empty());

  sm.handleInitialized();
  one->routeIs(route(k1, 0));  // priority plays no part in one table set's view
  one->routeIs(route(k1, 0, 2));
  one->routeDel(k2);
  EXPECT_EQ(traces(), (Texts{"Initializing ModalOrderRouteSm", "Route entry added for key (s: 10.0.0.1/32 g: 232.0.0.2/32)",
                             "Initialized ModalOrderRouteSm", "Route entry added for key (s: 10.0.0.1/32 g: 232.0.0.1/32)",
                             "Route entry updated for key (s: 10.0.0.1/32 g: 232.0.0.1/32)",
                             "Route entry deleted for key (s: 10.0.0.1/32 g: 232.0.0.2/32"}));
  ASSERT_EQ(view->route().size(), 1u);
  EXPECT_EQ(view->route().begin()->first, k1);
}

TEST_F(OrderedViewTest, OrderedViewKeepsTheNumberOfTheLastChangingTableSet) {
  Kiv::Ptr<MfibBrumeColl> coll = MfibBrumeCollIs("default");
  Kiv::Ptr<RouteOrderedCollection> view = RouteOrderedCollectionIs("default");
  coll->brumePtrIs(1, one);
  OrderRouteSm sm(coll, view);
  one->routeIs(route(k1, 1));
  coll->brumePtrIs(2, two);
  EXPECT_EQ(traces(), (Texts{"OrderRouteSm Not initialized"}));

  sm.handleInitialized();
  EXPECT_EQ(view->route(k1), 1u);
  EXPECT_EQ(traces(), (Texts{"Initializing OrderRouteSm", "Route entry added for key (s: 10.0.0.1/32 g: 232.0.0.1/32)",
                             "Initialized OrderRouteSm"}));
  two->routeIs(route(k1, 2));
  EXPECT_EQ(view->route(k1), 2u);
  EXPECT_EQ(coll->brumeKey(k1), 2u);
  // One's change re-stores its own number although two still wins.
  one->routeIs(route(k1, 1, 3));
  EXPECT_EQ(view->route(k1), 1u);
  EXPECT_EQ(coll->brumeKey(k1), 2u);
  EXPECT_EQ(traces(), (Texts{"Route entry updated for key (s: 10.0.0.1/32 g: 232.0.0.1/32)",
                             "Route entry updated for key (s: 10.0.0.1/32 g: 232.0.0.1/32)"}));

  // A priority-0 route alone has no winner: the key leaves the view.
  two->routeIs(route(k2, 0));
  EXPECT_EQ(view->route().count(k2), 0u);
  // The table set whose number is stored leaves: the winner's is stored.
  coll->brumePtrDel(1);
  EXPECT_EQ(sm.mfibBrume(1), nullptr);
  EXPECT_EQ(view->route(k1), 2u);
  two->routeDel(k1);
  EXPECT_EQ(view->route().count(k1), 0u);
  EXPECT_EQ(traces().back(), "Route entry deleted for key (s: 10.0.0.1/32 g: 232.0.0.1/32");
}

}  // namespace
