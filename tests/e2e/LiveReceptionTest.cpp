// Drop reception end to end on real interfaces: mod-gen sends mirrored drop frames on one end of a veth pair
// in a throw-away network namespace; the packet-access manager opens live capture on the other end for the
// interface the feature wants, and the receiver parses what arrives. Needs root; skipped otherwise.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <set>

#include "mirror_on_drop/MirrorOnDropReceiverSm.h"
#include "platform/core/EventLoop.h"
#include "platform/io/InterfaceSimpleEthDevPamManager.h"
#include "testkit/NetNs.h"

using namespace MirrorOnDrop;
using namespace Calyx;

namespace {

class Dispatcher : public Exchanger::Reactor {
 public:
  explicit Dispatcher(Ptr<Exchanger> e) : Reactor(e), exchanger_(std::move(e)) {}
  void handleCounterProcessedPacket() override {
    flows.insert(exchanger_->emtKey());
    if (exchanger_->report().dataSize() == 0) ++emptySamples;
  }
  std::set<Emt::Key> flows;
  int emptySamples = 0;

 private:
  Ptr<Exchanger> exchanger_;
};

bool runUntil(EventLoop& loop, std::function<bool()> const& done, double seconds) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!done() && std::chrono::steady_clock::now() < end) loop.runFor(0.02);
  return done();
}

TEST(LiveReceptionTest, FramesSentOnOneEndAreReceivedAndParsedOnTheOther) {
  if (auto why = NetNs::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
  NetNs ns;
  ASSERT_TRUE(ns.ok()) << "could not make namespace " << ns.name();
  IntfId const intf(ns.b());
  auto loop = EventLoop::makeReal();
  auto fcsd = make<CalyxCentral::FeatureAgentCommonSmData>();
  auto desired = make<Interface::PamDesiredIntfDir>();
  auto collection = make<Interface::EthDevPamCollection>();
  auto manager = make<Interface::SimpleEthDevPamManager>(*loop, desired, collection);
  manager->socketFilterIs(ReceiverSm::socketFilter());
  manager->enabledIs(true);
  auto exchanger = make<Exchanger>();
  Dispatcher dispatcher(exchanger);
  auto receiver = make<ReceiverSm>(fcsd, desired, collection, exchanger);
  fcsd->intfIs(intf);
  // The manager opens capture on its next turn: run that turn inside the namespace, where the device is.
  ns.inside([&] { loop->runUntilIdle(); });
  ASSERT_TRUE(receiver->pam(intf)) << "no packet access was opened for " << ns.b();

  ASSERT_TRUE(ns.run("mod-gen --interface " + ns.a() +
                     " --rate 0 --flows 6 --drops-per-flow 5 --malformed all --malformed-count 2 --seed 3"));
  EXPECT_TRUE(runUntil(
      *loop, [&] { return exchanger->counterReceivedPacket() >= 58; }, 5.0));
  loop->runFor(0.1);
  // Two of each malformed kind but the one of another EtherType, which the capture filter keeps out.
  EXPECT_EQ(exchanger->counterReceivedPacket(), 30u + 14 * 2);
  EXPECT_EQ(exchanger->counterProcessedPacket(), 30u);
  EXPECT_EQ(dispatcher.flows.size(), 6u);
  for (auto const& key : dispatcher.flows) EXPECT_EQ(key.intfId(), intf);
  EXPECT_EQ(dispatcher.emptySamples, 0);
}

}  // namespace
